// SPDX-License-Identifier: Apache-2.0
// Construction and start-up: what is called and traced in which order, and every way in which a start can fail.
#include <boost/thread/thread.hpp>

#include "tests/busmaster/BusMasterFixture.h"
#include "tests/support/ThreadStartFailure.h"

namespace Nimbrel2::Testing {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

// The calls of a start that succeeds, with nothing attached. The three listings come in any order.
const Lines StartCalls = {"HAL_1394GetCameras",       "HAL_GigEGetCameras",        "HAL_UsbGetCameras",
                          "HAL_1394GetDevices",       "HAL_1394RegisterBusEvents", "HAL_UsbRegisterBusEvents",
                          "HAL_GigERegisterBusEvents"};

Lines WithListingsSorted(Lines calls) {
    for (std::size_t i = 0; i + 2 < calls.size(); ++i) {
        if (calls[i].find("GetCameras") != std::string::npos && calls[i + 1].find("GetCameras") != std::string::npos &&
            calls[i + 2].find("GetCameras") != std::string::npos) {
            std::sort(calls.begin() + static_cast<std::ptrdiff_t>(i),
                      calls.begin() + static_cast<std::ptrdiff_t>(i) + 3);
        }
    }
    return calls;
}

class LifecycleStart : public BusMasterFixture {};

TEST_F(LifecycleStart, ConstructionStartsTheHalAndNothingElse) {
    const ThreadStartFailure threads(0);
    hal.AddUsbCamera(1);
    Construct();
    EXPECT_THAT(traces.Lines(), ElementsAre("Creating BusMaster"));
    EXPECT_THAT(hal.CallNames(), ElementsAre("HAL_InitLibrary"));
    EXPECT_FALSE(busMaster->GetInitialized());
    EXPECT_EQ(0U, threads.Count());
}

TEST_F(LifecycleStart, IgnoresWhatStartingTheHalAnswers) {
    hal.Fail("HAL_InitLibrary", 1, HAL_OUT_OF_MEMORY);
    hal.AddUsbCamera(1);
    Start();
    EXPECT_THAT(SerialNumbers(), ElementsAre(1));
}

TEST_F(LifecycleStart, ListsThenRegistersThenConfirms) {
    Start();
    EXPECT_THAT(traces.Lines(),
                ElementsAre("Creating BusMaster", "Starting BusMaster worker thread", "HAL_1394GetCameras returned : 0",
                            "Successfully initialized BusMaster worker thread"));
    Lines expected = StartCalls;
    expected.insert(expected.begin(), "HAL_InitLibrary");
    EXPECT_THAT(WithListingsSorted(hal.CallNames()), ElementsAreArray(expected));
}

TEST_F(LifecycleStart, RegistersTheSameFunctionAndTheObjectAsContextOnEachBus) {
    Start();
    std::set<std::uint64_t> functions;
    for (const char* function :
         {"HAL_1394RegisterBusEvents", "HAL_UsbRegisterBusEvents", "HAL_GigERegisterBusEvents"}) {
        const std::vector<HalCall> calls = hal.Calls(function);
        ASSERT_EQ(1U, calls.size());
        functions.insert(calls[0].arguments[1]);
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(busMaster.get()), calls[0].arguments[2]);
    }
    EXPECT_EQ(1U, functions.size());
}

TEST_F(LifecycleStart, TheWorkerListsDevicesAndRegistersOnItsOwnThread) {
    Start();
    const std::thread::id worker = hal.Calls("HAL_1394GetDevices").at(0).thread;
    EXPECT_NE(std::this_thread::get_id(), worker);
    EXPECT_EQ(worker, hal.Calls("HAL_1394RegisterBusEvents").at(0).thread);
    std::set<std::thread::id> listings;
    for (const char* function : {"HAL_1394GetCameras", "HAL_UsbGetCameras", "HAL_GigEGetCameras"}) {
        listings.insert(hal.Calls(function).at(0).thread);
    }
    EXPECT_EQ(3U, listings.size());
    EXPECT_EQ(0U, listings.count(worker));
}

TEST_F(LifecycleStart, ListsTheCamerasOfAllBusesInOrderAndTheDevices) {
    hal.AddGigECamera(31, 0x0A000001);
    hal.AddUsbCamera(21);
    hal.AddFireWireCamera(11);
    hal.AddFireWireCamera(12);
    hal.AddFireWireDevice(0x00112233, 0x44556677);
    Start();
    EXPECT_THAT(SerialNumbers(), ElementsAre(11, 12, 21, 31));
    EXPECT_EQ(1U, DeviceCount());
    EXPECT_EQ(0U, busMaster->GetGeneration(11));
    EXPECT_EQ(1U, traces.Count("HAL_1394GetCameras returned : 2"));
    ExpectLocksFree(*busMaster);
}

TEST_F(LifecycleStart, ASecondInitializeStartsNothing) {
    Start();
    const ThreadStartFailure threads(0);
    hal.ClearCalls();
    EXPECT_TRUE(busMaster->Initialize() == ERROR_OK);
    EXPECT_EQ(0U, threads.Count());
    EXPECT_THAT(hal.CallNames(), IsEmpty());
}

TEST_F(LifecycleStart, InitializesAtOnceFromManyThreadsStartOnlyOneWorker) {
    Construct();
    std::vector<std::thread> starters;
    for (int i = 0; i < 8; ++i) {
        starters.emplace_back([this] {
            EXPECT_TRUE(busMaster->Initialize() == ERROR_OK);
            EXPECT_TRUE(busMaster->GetInitialized());
        });
    }
    for (std::thread& starter : starters) {
        starter.join();
    }
    EXPECT_EQ(1U, traces.Count("Starting BusMaster worker thread"));
}

TEST_F(LifecycleStart, TheSwitchForVirtualCamerasAnswersOkHoweverOftenItIsSet) {
    Construct();
    EXPECT_FALSE(BusMasterTestAccess::EnumeratesVirtualDevices());
    EXPECT_TRUE(busMaster->EnableVirtualDeviceEnumeration() == ERROR_OK);
    EXPECT_TRUE(busMaster->EnableVirtualDeviceEnumeration() == ERROR_OK);
    EXPECT_TRUE(BusMasterTestAccess::EnumeratesVirtualDevices());
    EXPECT_TRUE(busMaster->DisableVirtualDeviceEnumeration() == ERROR_OK);
    EXPECT_TRUE(busMaster->DisableVirtualDeviceEnumeration() == ERROR_OK);
    EXPECT_FALSE(BusMasterTestAccess::EnumeratesVirtualDevices());
}

TEST_F(LifecycleStart, ListsVirtualCamerasWhileTheSwitchIsOn) {
    hal.AddVirtualCamera(77);
    Construct();
    busMaster->EnableVirtualDeviceEnumeration();
    ASSERT_TRUE(busMaster->Initialize() == ERROR_OK);
    EXPECT_THAT(SerialNumbers(), ElementsAre(77));
    busMaster->DisableVirtualDeviceEnumeration();
    Cycle();
    EXPECT_THAT(SerialNumbers(), IsEmpty());
}

// ---- Starts that fail ---------------------------------------------------------------------------------------------

TEST_F(LifecycleStart, AnswersTheSystemsErrorWhenTheWorkerCannotBeMade) {
    Construct();
    {
        const ThreadStartFailure failure(1);
        const Error error = busMaster->Initialize();
        EXPECT_EQ(ERROR_LOW_LEVEL_FAILURE, error.GetType());
        EXPECT_STREQ("Could not start the worker thread. System error: 11.", error.GetMessage());
        EXPECT_STREQ("BusMaster.cpp", error.GetFile());
    }
    ExpectLocksFree(*busMaster);
    EXPECT_FALSE(busMaster->GetInitialized());
    EXPECT_TRUE(busMaster->Initialize() == ERROR_OK);
    EXPECT_TRUE(busMaster->GetInitialized());
}

TEST_F(LifecycleStart, AnswersABareErrorWhenThereIsNoMemoryForTheWorker) {
    Construct();
    {
        const ThreadStartFailure failure(1, ThreadStartFailure::Kind::BadAlloc);
        const Error error = busMaster->Initialize();
        EXPECT_EQ(ERROR_MEMORY_ALLOCATION_FAILED, error.GetType());
        EXPECT_STREQ("", error.GetMessage());
    }
    ExpectLocksFree(*busMaster);
    EXPECT_TRUE(busMaster->Initialize() == ERROR_OK);
}

TEST_F(LifecycleStart, LetsNoForeignExceptionOut) {
    Construct();
    {
        const ThreadStartFailure failure(1, ThreadStartFailure::Kind::Foreign);
        EXPECT_EQ(ERROR_LOW_LEVEL_FAILURE, busMaster->Initialize().GetType());
    }
    EXPECT_TRUE(busMaster->Initialize() == ERROR_OK);
}

struct ListingThread {
    unsigned int number;  // of the threads that a start makes; the worker is the first
    ThreadStartFailure::Kind kind;
};

class LifecycleStartListingThread : public BusMasterFixture, public ::testing::WithParamInterface<ListingThread> {};

TEST_P(LifecycleStartListingThread, ThatCannotBeMadeFailsTheStart) {
    hal.AddFireWireCamera(1);
    hal.AddUsbCamera(2);
    hal.AddGigECamera(3, 0x0A000001);
    Construct();
    traces.Clear();
    {
        const ThreadStartFailure failure(GetParam().number, GetParam().kind);
        const Error error = busMaster->Initialize();
        EXPECT_EQ(ERROR_LOW_LEVEL_FAILURE, error.GetType());
        EXPECT_STREQ("Could not create the internal thread. Error: 0x1.", error.GetMessage());
    }
    EXPECT_EQ(1U, traces.Count("Failed to get initial camera list"));
    EXPECT_EQ(0U, hal.Count("HAL_1394GetDevices"));
    EXPECT_EQ(0U, hal.EntriesOutstanding()) << "what the other threads listed was not freed";
    EXPECT_FALSE(busMaster->GetInitialized());
    ExpectLocksFree(*busMaster);
    EXPECT_TRUE(busMaster->Initialize() == ERROR_OK);
    EXPECT_THAT(SerialNumbers(), ElementsAre(1, 2, 3));
}

INSTANTIATE_TEST_SUITE_P(Each, LifecycleStartListingThread,
                         ::testing::Values(ListingThread{2, ThreadStartFailure::Kind::ThreadResourceError},
                                           ListingThread{3, ThreadStartFailure::Kind::ThreadResourceError},
                                           ListingThread{4, ThreadStartFailure::Kind::ThreadResourceError},
                                           ListingThread{2, ThreadStartFailure::Kind::BadAlloc},
                                           ListingThread{4, ThreadStartFailure::Kind::Foreign}));

TEST_F(LifecycleStart, FailsWhenTheDevicesCannotBeListedAndFreesTheCamerasBeforeTheNextStart) {
    const auto camera = hal.AddUsbCamera(1);
    hal.AddFireWireDevice(1, 2);
    hal.Fail("HAL_1394GetDevices", 1, HAL_PERMISSION);
    Construct();
    const Error error = busMaster->Initialize();
    EXPECT_EQ(ERROR_LOW_LEVEL_FAILURE, error.GetType());
    EXPECT_STREQ("Could not create the internal thread. Error: 0x1.", error.GetMessage());
    EXPECT_THAT(traces.Lines(), ElementsAre("Creating BusMaster", "Starting BusMaster worker thread",
                                            "HAL_1394GetCameras returned : 0", "Failed to get initial device list"));
    EXPECT_EQ(0U, hal.Count("HAL_1394RegisterBusEvents"));
    EXPECT_FALSE(busMaster->GetInitialized());
    EXPECT_EQ(1U, hal.EntriesOutstanding());

    hal.ClearCalls();
    ASSERT_TRUE(busMaster->Initialize() == ERROR_OK);
    EXPECT_EQ("HAL_UsbFreeCamera", hal.CallNames().at(0)) << "the lists of the failed start go before the next listing";
    EXPECT_EQ(1U, hal.TimesFreed(hal.EntriesOf(camera).at(0)));
    EXPECT_THAT(SerialNumbers(), ElementsAre(1));
    EXPECT_EQ(1U, DeviceCount());
}

TEST_F(LifecycleStart, AFailedStartThatIsNotRepeatedIsFreedByTheDestructor) {
    hal.AddUsbCamera(1);
    hal.Fail("HAL_1394GetDevices", 1, HAL_PERMISSION);
    Construct();
    EXPECT_FALSE(busMaster->Initialize() == ERROR_OK);
    EXPECT_EQ(1U, hal.EntriesOutstanding());
    Destroy();
    EXPECT_EQ(0U, hal.EntriesOutstanding());
}

// ---- Registrations that fail --------------------------------------------------------------------------------------

constexpr std::uint32_t None = 0xFFFFFFFF;

struct RegistrationFailure {
    const char* name;
    const char* failing;                         // the registration that answers 0x2c
    std::vector<std::uint32_t> deregistrations;  // what each answers, in order
    std::uint32_t startError;                    // None: Initialize answers ERROR_OK all the same
    Lines traces;
};

std::ostream& operator<<(std::ostream& stream, const RegistrationFailure& failure) { return stream << failure.name; }

class LifecycleRegistration : public BusMasterFixture, public ::testing::WithParamInterface<RegistrationFailure> {};

TEST_P(LifecycleRegistration, FailureEndsTheStartAsToldAndTheNextStartWorks) {
    const RegistrationFailure& parameter = GetParam();
    const Lines deregister = {"HAL_1394DeregisterBusEvents", "HAL_UsbDeregisterBusEvents",
                              "HAL_GigEDeregisterBusEvents"};
    hal.AddUsbCamera(1);
    Construct();
    traces.Clear();
    hal.ClearCalls();
    hal.Fail(parameter.failing, 1, 0x2C);
    for (std::size_t i = 0; i < parameter.deregistrations.size(); ++i) {
        hal.Fail(deregister[i], 1, parameter.deregistrations[i]);
    }

    const Error error = busMaster->Initialize();
    if (parameter.startError == None) {
        EXPECT_TRUE(error == ERROR_OK);
    } else {
        EXPECT_EQ(ERROR_LOW_LEVEL_FAILURE, error.GetType());
        char message[80];
        std::snprintf(message, sizeof message, "Could not create the internal thread. Error: 0x%x.",
                      parameter.startError);
        EXPECT_STREQ(message, error.GetMessage());
    }
    EXPECT_FALSE(busMaster->GetInitialized());
    EXPECT_EQ(parameter.startError == None ? 0 : parameter.startError, Inside().m_threadStartError);
    ExpectLocksFree(*busMaster);

    Lines expectedTraces = {"Starting BusMaster worker thread", "HAL_1394GetCameras returned : 0"};
    expectedTraces.insert(expectedTraces.end(), parameter.traces.begin(), parameter.traces.end());
    EXPECT_THAT(traces.Lines(), ElementsAreArray(expectedTraces));

    Lines calls;
    for (const std::string& call : hal.CallNames()) {
        if (call.find("egister") != std::string::npos) {
            calls.push_back(call);
        }
    }
    Lines expectedCalls;
    for (std::size_t i = 0; i < 3; ++i) {
        expectedCalls.push_back(StartCalls[4 + i]);
        if (expectedCalls.back() == parameter.failing) {
            break;
        }
    }
    for (std::size_t i = 0; i < parameter.deregistrations.size(); ++i) {
        expectedCalls.push_back(deregister[i]);
    }
    EXPECT_THAT(calls, ElementsAreArray(expectedCalls));
    EXPECT_EQ(0U, hal.RegistrationsOutstanding());

    EXPECT_TRUE(busMaster->Initialize() == ERROR_OK);
    EXPECT_TRUE(busMaster->GetInitialized());
    EXPECT_THAT(SerialNumbers(), ElementsAre(1));
    EXPECT_EQ(3U, hal.RegistrationsOutstanding());
}

const std::string Not1394 = "Failed to register 1394 bus events";
const std::string NotUsb = "Failed to register USB bus events";
const std::string NotGigE = "Failed to register GigE bus events";
const std::string Kept1394 = "Failed to deregister 1394 bus events";
const std::string KeptUsb = "Failed to deregister USB bus events";
const std::string KeptGigE = "Failed to deregister GigE bus events";

INSTANTIATE_TEST_SUITE_P(
    Each, LifecycleRegistration,
    ::testing::Values(
        // A 1394 registration that fails and is cleaned up well counts as a success; only the flag tells.
        RegistrationFailure{"Fire", "HAL_1394RegisterBusEvents", {0}, None, {Not1394}},
        RegistrationFailure{"FireAndItsCleanUp", "HAL_1394RegisterBusEvents", {0x1F}, 0x1F, {Not1394, Kept1394}},
        RegistrationFailure{"Usb", "HAL_UsbRegisterBusEvents", {0, 0}, 0x2C, {NotUsb}},
        RegistrationFailure{"UsbAndFireCleanUp", "HAL_UsbRegisterBusEvents", {7, 0}, 0x2C, {NotUsb, Kept1394}},
        RegistrationFailure{"UsbAndUsbCleanUp", "HAL_UsbRegisterBusEvents", {0, 7}, 0x2C, {NotUsb, KeptUsb}},
        RegistrationFailure{
            "UsbAndBothCleanUps", "HAL_UsbRegisterBusEvents", {7, 8}, 0x2C, {NotUsb, Kept1394, KeptUsb}},
        RegistrationFailure{"GigE", "HAL_GigERegisterBusEvents", {0, 0, 0}, 0x2C, {NotGigE}},
        RegistrationFailure{"GigEAndFireCleanUp", "HAL_GigERegisterBusEvents", {7, 0, 0}, 0x2C, {NotGigE, Kept1394}},
        RegistrationFailure{"GigEAndUsbCleanUp", "HAL_GigERegisterBusEvents", {0, 7, 0}, 0x2C, {NotGigE, KeptUsb}},
        RegistrationFailure{"GigEAndGigECleanUp", "HAL_GigERegisterBusEvents", {0, 0, 7}, 0x2C, {NotGigE, KeptGigE}},
        RegistrationFailure{"GigEAndAllCleanUps",
                            "HAL_GigERegisterBusEvents",
                            {7, 8, 9},
                            0x2C,
                            {NotGigE, Kept1394, KeptUsb, KeptGigE}}),
    [](const auto& test) { return std::string(test.param.name); });

// The null registration that a failed call leaves behind is what the clean-up is given, and refuses.
TEST_F(LifecycleStart, TheCleanUpOfAFailedFireWireRegistrationAnswersForTheStart) {
    hal.Fail("HAL_1394RegisterBusEvents", 1, 0x2C);
    Construct();
    EXPECT_STREQ("Could not create the internal thread. Error: 0x2.", busMaster->Initialize().GetMessage());
    EXPECT_EQ(0U, hal.Calls("HAL_1394DeregisterBusEvents").at(0).arguments.at(0));
}

// ---- Starts that take too long ------------------------------------------------------------------------------------

// Where a start can hang, by the HAL function, and whether it had registered by then.
class LifecycleHungStart : public BusMasterFixture, public ::testing::WithParamInterface<const char*> {
protected:
    void AttachSome() {
        hal.AddFireWireCamera(11);
        hal.AddUsbCamera(21);
        hal.AddGigECamera(31, 0x0A000001);
        hal.AddFireWireDevice(0x00112233, 0x44556677);
    }

    void StartAndGiveUp() {
        GetDeadlines().startConfirmation = milliseconds(50);
        const Error error = busMaster->Initialize();
        ASSERT_EQ(ERROR_INIT_TIMED_OUT, error.GetType());
        ASSERT_STREQ("Timed out waiting for confirmation of initialization.", error.GetMessage());
        ASSERT_TRUE(hung->WaitUntilReached());
        EXPECT_FALSE(busMaster->GetInitialized());
        ExpectMainLockFree();
        GetDeadlines().startConfirmation = boost::posix_time::seconds(40);
    }

    // Starts again, and lets the hung start go on when the new one has begun.
    void StartAgainBesideTheHungOne() {
        traces.Clear();
        Error second;
        std::thread starter([&] { second = busMaster->Initialize(); });
        EXPECT_TRUE(traces.WaitFor("Starting BusMaster worker thread"));
        hung->Open();
        starter.join();
        ASSERT_TRUE(second == ERROR_OK) << second.Describe();
        ASSERT_TRUE(WaitUntilIdle());
    }

    void ExpectMainLockFree() { EXPECT_TRUE(AnotherThreadCanLock(Inside().m_busMasterMutex)); }

    void Hang() { hung = hal.Block(GetParam()); }

    std::shared_ptr<Gate> hung;
};

TEST_P(LifecycleHungStart, ThatEndsAfterInitializeGaveUpCountsAllTheSame) {
    AttachSome();
    Construct();
    Hang();
    StartAndGiveUp();
    hung->Open();
    ASSERT_TRUE(WaitUntilIdle());
    EXPECT_TRUE(busMaster->GetInitialized());
    EXPECT_EQ(1U, traces.Count("Successfully initialized BusMaster worker thread"));
    EXPECT_THAT(SerialNumbers(), ElementsAre(11, 21, 31));
    EXPECT_EQ(1U, DeviceCount());

    const ThreadStartFailure threads(0);
    EXPECT_TRUE(busMaster->Initialize() == ERROR_OK);
    EXPECT_EQ(0U, threads.Count());
    const auto added = hal.AddUsbCamera(22);
    RaiseReset();
    ASSERT_TRUE(WaitUntilIdle());
    EXPECT_THAT(SerialNumbers(), UnorderedElementsAre(11, 21, 22, 31));
}

TEST_P(LifecycleHungStart, ThatAnotherStartHasReplacedEndsSilentlyAndFreesWhatItListed) {
    AttachSome();
    Construct();
    Hang();
    StartAndGiveUp();
    StartAgainBesideTheHungOne();
    // The late worker has ended when only the object and the second worker are left.
    ASSERT_TRUE(Eventually([this] { return hal.RegistrationsOutstanding() == 3 && hal.EntriesOutstanding() == 4; }));
    EXPECT_THAT(SerialNumbers(), ElementsAre(11, 21, 31));
    EXPECT_EQ(1U, DeviceCount());
    EXPECT_EQ(1U, traces.Count("Successfully initialized BusMaster worker thread"));
    EXPECT_EQ(0U, CountContaining(traces.Lines(), "Failed"));
    EXPECT_EQ(0U, CountContaining(traces.Lines(), "Exiting"));
    RaiseReset();
    EXPECT_TRUE(WaitUntilIdle());
}

TEST_P(LifecycleHungStart, ThatAnotherStartHasReplacedEndsSilentlyThoughItFails) {
    AttachSome();
    Construct();
    Hang();
    hal.Fail(GetParam(), 1, HAL_FAILED);
    hal.Fail("HAL_1394DeregisterBusEvents", 1, HAL_FAILED);
    hal.Fail("HAL_UsbDeregisterBusEvents", 1, HAL_FAILED);
    hal.Fail("HAL_GigEDeregisterBusEvents", 1, HAL_FAILED);
    StartAndGiveUp();
    StartAgainBesideTheHungOne();
    // The object's share, the one by which events find it, and the second worker's: the late one has ended.
    ASSERT_TRUE(Eventually([this] { return members.use_count() == 3; }));
    EXPECT_EQ(3U, hal.RegistrationsOutstanding());
    EXPECT_EQ(4U, hal.EntriesOutstanding());
    EXPECT_TRUE(busMaster->GetInitialized());
    EXPECT_EQ(0U, CountContaining(traces.Lines(), "Failed"));
}

TEST_P(LifecycleHungStart, ThatTheDestructorDidNotWaitForFreesEverything) {
    AttachSome();
    Construct();
    Hang();
    StartAndGiveUp();
    Destroy();
    EXPECT_EQ(0U, traces.Count("Timed out while waiting for BusMaster worker thread to exit."));
    EXPECT_EQ(1U, hal.Count("HAL_CleanupLibrary"));
    traces.Clear();
    hung->Open();
    ExpectGone();
    EXPECT_EQ(0U, traces.Count("Successfully initialized BusMaster worker thread"));
    EXPECT_EQ(0U, hal.EntriesOutstanding());
}

INSTANTIATE_TEST_SUITE_P(At, LifecycleHungStart,
                         ::testing::Values("HAL_1394GetCameras", "HAL_UsbGetCameras", "HAL_GigEGetCameras",
                                           "HAL_1394GetConfigInfo", "HAL_GigEReadRegister", "HAL_1394GetDevices",
                                           "HAL_1394GetDeviceInfo", "HAL_1394RegisterBusEvents",
                                           "HAL_UsbRegisterBusEvents", "HAL_GigERegisterBusEvents"),
                         [](const auto& test) { return std::string(test.param); });

TEST_F(LifecycleStart, AWorkerThatNeverRanBeforeTheTimeoutIsReplacedWhenItDoes) {
    GetDeadlines().startConfirmation = milliseconds(50);
    Construct();
    const auto gate = traces.BlockAt("Starting BusMaster worker thread");
    EXPECT_EQ(ERROR_INIT_TIMED_OUT, busMaster->Initialize().GetType());
    EXPECT_EQ(ERROR_INIT_TIMED_OUT, busMaster->Initialize().GetType());
    GetDeadlines().startConfirmation = boost::posix_time::seconds(40);
    Error third;
    std::thread starter([&] { third = busMaster->Initialize(); });
    ASSERT_TRUE(gate->WaitUntilReached(3));
    gate->Open();
    starter.join();
    EXPECT_TRUE(third == ERROR_OK);
    ASSERT_TRUE(WaitUntilIdle());
    EXPECT_TRUE(busMaster->GetInitialized());
    EXPECT_EQ(1U, traces.Count("Successfully initialized BusMaster worker thread"));
}

TEST_F(LifecycleStart, ALateStartThatFailsLeavesTheObjectReadyForTheNext) {
    GetDeadlines().startConfirmation = milliseconds(50);
    hal.AddUsbCamera(1);
    const auto gate = hal.Block("HAL_1394GetDevices");
    hal.Fail("HAL_1394GetDevices", 1, HAL_FAILED);
    Construct();
    EXPECT_EQ(ERROR_INIT_TIMED_OUT, busMaster->Initialize().GetType());
    GetDeadlines().startConfirmation = boost::posix_time::seconds(40);
    gate->Open();
    ASSERT_TRUE(traces.WaitFor("Failed to get initial device list"));
    EXPECT_FALSE(busMaster->GetInitialized());
    EXPECT_TRUE(busMaster->Initialize() == ERROR_OK);
    EXPECT_THAT(SerialNumbers(), ElementsAre(1));
}

TEST_F(LifecycleStart, LookUpsWaitWhileInitializeDoes) {
    const auto gate = hal.Block("HAL_1394GetDevices");
    Construct();
    std::thread starter([this] { EXPECT_TRUE(busMaster->Initialize() == ERROR_OK); });
    ASSERT_TRUE(gate->WaitUntilReached());
    std::atomic<bool> answered{false};
    std::thread asker([&] {
        unsigned int count = 0;
        EXPECT_TRUE(busMaster->GetNumOfCameras(&count) == ERROR_OK);
        answered = true;
    });
    {
        const Lock lock(Inside().m_busMasterMutex, boost::try_to_lock);
        EXPECT_FALSE(lock.owns_lock());
    }
    EXPECT_FALSE(answered);
    gate->Open();
    starter.join();
    asker.join();
    EXPECT_TRUE(answered);
}

}  // namespace
}  // namespace Nimbrel2::Testing
