// SPDX-License-Identifier: Apache-2.0
// Destruction: what is called and traced in which order, and every thread and lock that can be in its way.
#include <chrono>
#include <cstdlib>

#include "tests/busmaster/BusMasterFixture.h"
#include "tests/support/ThreadStartFailure.h"

namespace Nimbrel2::Testing {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using Clock = std::chrono::steady_clock;

const std::string TimedOut = "Timed out while waiting for BusMaster worker thread to exit.";
const std::string LeavingLists = "Leaving the camera and device lists to a thread that still holds them.";
const std::string LeavingCallbacks = "Leaving the callbacks to a thread that still runs one.";

class LifecycleEnd : public BusMasterFixture {
protected:
    // Short enough to wait for, long enough for a thread that is not held up.
    void ShortenDestruction() {
        GetDeadlines().joinAttempt = milliseconds(20);
        GetDeadlines().lockAtDestruction = milliseconds(50);
    }
};

TEST_F(LifecycleEnd, OfAnObjectThatWasNeverStartedJoinsNothingAndEndsTheHal) {
    const ThreadStartFailure threads(0);
    Construct();
    Destroy();
    EXPECT_THAT(traces.Lines(), ElementsAre("Creating BusMaster", "Starting destruction of BusMaster",
                                            "Completed destruction of BusMaster"));
    EXPECT_THAT(hal.CallNames(), ElementsAre("HAL_InitLibrary", "HAL_CleanupLibrary"));
    EXPECT_EQ(0U, threads.Count());
}

TEST_F(LifecycleEnd, OfAnIdleWorkerWakesItDeregistersFreesAndEndsTheHalLast) {
    hal.AddFireWireCamera(11);
    hal.AddFireWireDevice(1, 2);
    Start();
    hal.ClearCalls();
    traces.Clear();
    Destroy();
    EXPECT_THAT(traces.Lines(), ElementsAre("Starting destruction of BusMaster", "BusMaster wake up event triggered",
                                            "Breaking out of BusMaster worker thread",
                                            "Exiting BusMaster worker thread", "Completed destruction of BusMaster"));
    EXPECT_THAT(hal.CallNames(),
                ElementsAre("HAL_1394DeregisterBusEvents", "HAL_UsbDeregisterBusEvents", "HAL_GigEDeregisterBusEvents",
                            "HAL_1394FreeCamera", "HAL_1394FreeDevice", "HAL_CleanupLibrary"));
}

TEST_F(LifecycleEnd, IgnoresWhatEndingTheHalAnswers) {
    Start();
    hal.Fail("HAL_CleanupLibrary", 1, HAL_FAILED);
    Destroy();
    EXPECT_EQ(1U, traces.Count("Completed destruction of BusMaster"));
}

TEST_F(LifecycleEnd, TracesEachDeregistrationThatFailsAndGoesOn) {
    Start();
    hal.Fail("HAL_1394DeregisterBusEvents", 1, HAL_FAILED);
    hal.Fail("HAL_UsbDeregisterBusEvents", 1, HAL_FAILED);
    hal.Fail("HAL_GigEDeregisterBusEvents", 1, HAL_FAILED);
    traces.Clear();
    Destroy();
    EXPECT_THAT(traces.Lines(),
                ElementsAre("Starting destruction of BusMaster", "BusMaster wake up event triggered",
                            "Breaking out of BusMaster worker thread", "Failed to deregister 1394 bus events",
                            "Failed to deregister USB bus events", "Failed to deregister GigE bus events",
                            "Exiting BusMaster worker thread", "Completed destruction of BusMaster"));
}

TEST_F(LifecycleEnd, AWorkerThatIsNotRunningIsNotJoined) {
    hal.Fail("HAL_UsbRegisterBusEvents", 1, HAL_FAILED);
    Construct();
    EXPECT_FALSE(busMaster->Initialize() == ERROR_OK);
    traces.Clear();
    Destroy();
    EXPECT_THAT(traces.Lines(), ElementsAre("Starting destruction of BusMaster", "Completed destruction of BusMaster"));
}

TEST_F(LifecycleEnd, AnotherObjectCanBeMadeAndStartedAfterwards) {
    hal.AddUsbCamera(1);
    for (int i = 0; i < 3; ++i) {
        Start();
        EXPECT_THAT(SerialNumbers(), ElementsAre(1));
        Destroy();
        ExpectGone();
    }
}

// Where the worker notices the exit, and which locks it holds there.
struct ExitPoint {
    const char* function;  // held while the exit flag is set; empty: idle
    bool holdsMain;
    bool holdsInitialized;
};

class LifecycleExitPoint : public LifecycleEnd, public ::testing::WithParamInterface<ExitPoint> {};

TEST_P(LifecycleExitPoint, IsTracedBeforeTheLocksAreGivenBack) {
    const auto leaves = hal.AddUsbCamera(21);
    hal.AddFireWireDevice(1, 2);
    Start();
    hal.Detach(leaves);
    GetDeadlines().joinAttempt = boost::posix_time::seconds(60);
    const boost::shared_ptr<Members> share = members.lock();
    const auto breakingOut = traces.BlockAt("Breaking out of BusMaster worker thread");
    std::shared_ptr<Gate> gate;
    if (*GetParam().function != '\0') {
        gate = hal.Block(GetParam().function);
        RaiseReset();
        ASSERT_TRUE(gate->WaitUntilReached());
    }
    std::thread destroyer = DestroyElsewhere();
    if (gate) {
        gate->Open();
    }
    ASSERT_TRUE(breakingOut->WaitUntilReached());
    EXPECT_EQ(GetParam().holdsMain, !Lock(share->m_busMasterMutex, boost::try_to_lock).owns_lock());
    EXPECT_EQ(GetParam().holdsInitialized, !Lock(share->m_initializedMutex, boost::try_to_lock).owns_lock());
    breakingOut->Open();
    destroyer.join();
    EXPECT_EQ(1U, traces.Count("Exiting BusMaster worker thread"));
}

INSTANTIATE_TEST_SUITE_P(At, LifecycleExitPoint,
                         ::testing::Values(ExitPoint{"", true, false}, ExitPoint{"HAL_GigEGetCameras", true, true},
                                           ExitPoint{"HAL_1394GetDevices", true, false},
                                           ExitPoint{"HAL_1394FreeDevice", true, false},
                                           ExitPoint{"HAL_UsbFreeCamera", false, false}),
                         [](const auto& test) {
                             return *test.param.function == '\0' ? std::string("Idle") : test.param.function;
                         });

// ---- Freeing --------------------------------------------------------------------------------------------------------

TEST_F(LifecycleEnd, FreesAllCamerasAtTheSameTimeThenTheDevices) {
    for (unsigned int i = 0; i < 4; ++i) {
        hal.AddFireWireCamera(11 + i);
    }
    hal.AddFireWireDevice(1, 2);
    Start();
    const auto gate = hal.Block("HAL_1394FreeCamera", 0);
    std::thread destroyer = DestroyElsewhere();
    EXPECT_TRUE(gate->WaitUntilReached(4)) << "the cameras wait for each other";
    EXPECT_EQ(0U, hal.Count("HAL_1394FreeDevice"));
    gate->Open();
    destroyer.join();
    EXPECT_EQ(1U, hal.Count("HAL_1394FreeDevice"));
    std::set<std::thread::id> threads;
    for (const HalCall& call : hal.Calls("HAL_1394FreeCamera")) {
        threads.insert(call.thread);
    }
    EXPECT_EQ(4U, threads.size());
}

TEST_F(LifecycleEnd, FreesCamerasInPlaceWhenNoThreadCanBeMade) {
    for (unsigned int i = 0; i < 3; ++i) {
        hal.AddUsbCamera(21 + i);
    }
    Start();
    const ThreadStartFailure failure(2, ThreadStartFailure::Kind::ThreadResourceError, true);
    Destroy();
    EXPECT_EQ(0U, hal.EntriesOutstanding());
    EXPECT_EQ(2U, traces.Count("A camera is freed without a thread of its own."));
}

TEST_F(LifecycleEnd, FreesCamerasInPlaceWhenThereIsNoMemoryForThreads) {
    for (unsigned int i = 0; i < 3; ++i) {
        hal.AddUsbCamera(21 + i);
    }
    Start();
    for (std::uint64_t nth = 1;; ++nth) {
        const AllocationFailure failure(nth);
        Destroy();
        EXPECT_EQ(0U, hal.EntriesOutstanding());
        if (!failure.Happened()) {
            break;
        }
        const AllocationFailure::Pause pause;
        Start();
    }
    EXPECT_LE(1U, traces.Count("No memory for the threads that free cameras."));
    EXPECT_LE(1U, traces.Count("A camera is freed without a thread of its own."));
}

// The exit that is noticed after a listing leaves that listing to the destructor.
TEST_F(LifecycleEnd, FreesAListingThatWasNotReconciledAnyMore) {
    hal.AddUsbCamera(21);
    Start();
    const auto gate = hal.Block("HAL_GigEGetCameras");
    RaiseReset();
    ASSERT_TRUE(gate->WaitUntilReached());
    std::thread destroyer = DestroyElsewhere();
    gate->Open();
    destroyer.join();
    EXPECT_EQ(0U, CountContaining(traces.Lines(), "Updating camera list"));
    EXPECT_EQ(2U, hal.Count("HAL_UsbFreeCamera"));
}

TEST_F(LifecycleEnd, ForgetsTheGenerations) {
    Start();
    busMaster->SetGeneration(5, 6);
    const boost::shared_ptr<Members> share = members.lock();
    Destroy();
    EXPECT_TRUE(share->m_generations.empty());
}

// ---- A worker that hangs --------------------------------------------------------------------------------------------

struct HangPoint {
    const char* function;
    bool holdsTheLists;  // the main lock is held there
};

class LifecycleHungWorker : public LifecycleEnd, public ::testing::WithParamInterface<HangPoint> {};

TEST_P(LifecycleHungWorker, IsAbandonedAfterFiveAttemptsAndFreesEverythingWhenItComesBack) {
    const auto leaves = hal.AddFireWireCamera(11);
    const auto stays = hal.AddFireWireCamera(12);
    hal.AddUsbCamera(21);
    hal.AddGigECamera(31, 0x0A000001);
    hal.AddFireWireDevice(1, 2);
    Start();
    Heard heard;
    heard.RegisterAll(*busMaster);
    ShortenDestruction();
    hal.Detach(leaves);
    hal.AddUsbCamera(22);
    const std::shared_ptr<Gate> gate = hal.Block(GetParam().function);
    const bool hangsAtTheEnd = std::string(GetParam().function).find("Deregister") != std::string::npos;
    if (!hangsAtTheEnd) {
        RaiseReset();
        ASSERT_TRUE(gate->WaitUntilReached());
    }
    traces.Clear();

    const Clock::time_point start = Clock::now();
    Destroy();
    EXPECT_LE(std::chrono::milliseconds(100), Clock::now() - start) << "five attempts of 20 ms";
    Lines expected = {"Starting destruction of BusMaster", TimedOut, "Completed destruction of BusMaster"};
    if (hangsAtTheEnd) {
        expected.insert(expected.begin() + 1,
                        {"BusMaster wake up event triggered", "Breaking out of BusMaster worker thread"});
    }
    if (GetParam().holdsTheLists) {
        expected.insert(expected.end() - 1, LeavingLists);
    }
    // The listings run at once: while one hangs, that of the 1394 bus may still come to its own trace.
    Lines lines = traces.Lines();
    std::erase(lines, "HAL_1394GetCameras returned : 1");
    EXPECT_THAT(lines, ElementsAreArray(expected));
    EXPECT_EQ(1U, hal.Count("HAL_CleanupLibrary"));
    EXPECT_FALSE(members.expired());

    heard.Clear();
    gate->Open();
    ExpectGone();
    EXPECT_EQ(0U, hal.EntriesOutstanding());
    EXPECT_EQ(1U, traces.Count("Exiting BusMaster worker thread"));
    EXPECT_TRUE(heard.Calls().empty()) << "a callback was called after the object was destroyed";
}

INSTANTIATE_TEST_SUITE_P(
    At, LifecycleHungWorker,
    ::testing::Values(HangPoint{"HAL_1394GetCameras", true}, HangPoint{"HAL_UsbGetCameras", true},
                      HangPoint{"HAL_GigEGetCameras", true}, HangPoint{"HAL_1394GetConfigInfo", true},
                      HangPoint{"HAL_1394ReadRegister", true}, HangPoint{"HAL_1394FreeCamera", true},
                      HangPoint{"HAL_1394GetDevices", true}, HangPoint{"HAL_1394FreeDevice", true},
                      HangPoint{"HAL_1394DeregisterBusEvents", false}, HangPoint{"HAL_UsbDeregisterBusEvents", false},
                      HangPoint{"HAL_GigEDeregisterBusEvents", false}),
    [](const auto& test) { return std::string(test.param.function); });

// It has signalled a part of its callbacks when it comes back, and finds the object gone.
TEST_F(LifecycleEnd, AWorkerThatHangsBetweenTwoSignalsMakesNoCallWhenItComesBack) {
    const auto first = hal.AddUsbCamera(21);
    const auto second = hal.AddUsbCamera(22);
    Start();
    Heard heard;
    heard.RegisterAll(*busMaster);
    ShortenDestruction();
    hal.Detach(first);
    hal.Detach(second);
    const auto gate = hal.Block("HAL_UsbFreeCamera");  // of the first, between the two removals
    RaiseReset();
    ASSERT_TRUE(gate->WaitUntilReached());
    ASSERT_TRUE(Eventually([&] { return heard.Calls().size() == 2; }));
    const boost::shared_ptr<Members> share = members.lock();
    Destroy();
    heard.Clear();
    gate->Open();
    ASSERT_TRUE(traces.WaitFor("Exiting BusMaster worker thread"));
    ASSERT_TRUE(Eventually([&] {
        const Lock lock(share->m_quietMutex);
        return share->m_callbacksLeft == 0;
    }));
    EXPECT_TRUE(heard.Calls().empty());
}

TEST_F(LifecycleEnd, StopsJoiningAsSoonAsTheWorkerComesBack) {
    Start();
    const auto gate = hal.Block("HAL_UsbGetCameras");
    RaiseReset();
    ASSERT_TRUE(gate->WaitUntilReached());
    GetDeadlines().joinAttempt = milliseconds(20);
    GetDeadlines().joinAttempts = 1000;
    traces.Clear();
    const Clock::time_point thirdAttempt = Clock::now() + std::chrono::milliseconds(50);
    std::thread destroyer = DestroyElsewhere();
    EXPECT_TRUE(Eventually([&] { return Clock::now() > thirdAttempt; }));
    gate->Open();
    destroyer.join();
    EXPECT_EQ(0U, traces.Count(TimedOut));
    EXPECT_EQ(0U, traces.Count(LeavingLists));
}

// ---- Locks and callbacks in the way -------------------------------------------------------------------------------

TEST_F(LifecycleEnd, LeavesTheListsToWhoeverHoldsTheMainLock) {
    hal.AddUsbCamera(1);
    Start();
    ShortenDestruction();
    Gate held;
    std::thread holder([&held, share = members.lock()]() mutable {
        {
            const Lock lock(share->m_busMasterMutex);
            held.Pass();
        }
        share.reset();
    });
    ASSERT_TRUE(held.WaitUntilReached());
    Destroy();
    EXPECT_EQ(1U, traces.Count(LeavingLists));
    EXPECT_EQ(1U, hal.EntriesOutstanding());
    held.Open();
    holder.join();
    ExpectGone();
    EXPECT_EQ(0U, hal.EntriesOutstanding());
}

struct HeldCallback {
    Gate gate;
    std::atomic<int> calls{0};

    static void Run(void* data, unsigned int) {
        auto& held = *static_cast<HeldCallback*>(data);
        ++held.calls;
        held.gate.Pass();
    }
};

TEST_F(LifecycleEnd, LeavesTheCallbacksToOneThatNeverEnds) {
    HeldCallback held;
    Start();
    void* handle = nullptr;
    for (int i = 0; i < 3; ++i) {
        ASSERT_TRUE(busMaster->RegisterCallback(&HeldCallback::Run, BUS_RESET, &held, &handle) == ERROR_OK);
    }
    ShortenDestruction();
    RaiseReset();
    ASSERT_TRUE(held.gate.WaitUntilReached());
    traces.Clear();
    Destroy();
    EXPECT_EQ(1U, traces.Count(LeavingCallbacks));
    EXPECT_EQ(0U, traces.Count(TimedOut));
    EXPECT_EQ(1, held.calls);
    held.gate.Open();
    ExpectGone();
    EXPECT_EQ(1, held.calls) << "a call that had not begun was made after the object was destroyed";
}

TEST_F(LifecycleEnd, WaitsForACallbackThatEndsInTime) {
    HeldCallback held;
    Start();
    void* handle = nullptr;
    ASSERT_TRUE(busMaster->RegisterCallback(&HeldCallback::Run, BUS_RESET, &held, &handle) == ERROR_OK);
    GetDeadlines().lockAtDestruction = boost::posix_time::seconds(20);
    hal.ClearCalls();
    RaiseReset();
    ASSERT_TRUE(held.gate.WaitUntilReached());
    std::thread destroyer = DestroyElsewhere();
    ASSERT_TRUE(hal.WaitForCalls("HAL_GigEDeregisterBusEvents", 1));
    EXPECT_EQ(0U, hal.Count("HAL_CleanupLibrary"));
    held.gate.Open();
    destroyer.join();
    EXPECT_EQ(1U, hal.Count("HAL_CleanupLibrary"));
    EXPECT_EQ(0U, traces.Count(LeavingCallbacks));
}

TEST_F(LifecycleEnd, IsBoundedWhenAWorkerAndACallbackHangAtOnce) {
    HeldCallback held;
    hal.AddUsbCamera(1);
    Start();
    void* handle = nullptr;
    for (int i = 0; i < 2; ++i) {
        ASSERT_TRUE(busMaster->RegisterCallback(&HeldCallback::Run, BUS_RESET, &held, &handle) == ERROR_OK);
    }
    ShortenDestruction();
    const auto hung = hal.Block("HAL_UsbGetCameras", 2);  // of the second cycle; the first has signalled
    RaiseReset();
    ASSERT_TRUE(held.gate.WaitUntilReached());
    ASSERT_TRUE(hung->WaitUntilReached());
    traces.Clear();
    Destroy();
    EXPECT_EQ(1U, traces.Count(TimedOut));
    EXPECT_EQ(1U, traces.Count(LeavingLists));
    const int calls = held.calls;
    held.gate.Open();
    hung->Open();
    ExpectGone();
    EXPECT_EQ(calls, held.calls);
    EXPECT_EQ(0U, hal.EntriesOutstanding());
}

// An event that names a device waits for the main lock; nothing of what it uses goes under it.
TEST_F(LifecycleEnd, AnEventThatWaitsForAHungWorkerOutlivesTheObject) {
    const auto device = hal.AddFireWireDevice(0x11, 0x22);
    Start();
    ShortenDestruction();
    const auto gate = hal.Block("HAL_UsbGetCameras");
    RaiseReset();
    ASSERT_TRUE(gate->WaitUntilReached());
    traces.Clear();
    std::thread event([this] { hal.Raise(HAL_BUS_ARRIVAL, HAL_INTERFACE_1394, 0x11, 0x22); });
    ASSERT_TRUE(traces.WaitFor("Bus event: Bus arrival on 1394 interface"));
    Destroy();
    gate->Open();
    event.join();
    ExpectGone();
    EXPECT_EQ(0U, hal.EntriesOutstanding());
}

TEST_F(LifecycleEnd, ACallbackThatLooksUpWhileTheObjectIsDestroyedIsAnswered) {
    struct Asker {
        BusMaster* busMaster;
        Gate gate;
        ErrorType answer = ERROR_OK;

        static void Run(void* data, unsigned int) {
            auto& asker = *static_cast<Asker*>(data);
            asker.gate.Pass();
            unsigned int count = 0;
            asker.answer = asker.busMaster->GetNumOfCameras(&count).GetType();
        }
    } asker;
    Start();
    asker.busMaster = busMaster.get();
    void* handle = nullptr;
    ASSERT_TRUE(busMaster->RegisterCallback(&Asker::Run, BUS_RESET, &asker, &handle) == ERROR_OK);
    GetDeadlines().lockAtDestruction = boost::posix_time::seconds(20);
    Inside().m_pendingBusResets = 0;
    ASSERT_TRUE(busMaster->RescanBus() == ERROR_OK);
    ASSERT_TRUE(asker.gate.WaitUntilReached());
    std::thread destroyer = DestroyElsewhere();
    ASSERT_TRUE(traces.WaitFor("Exiting BusMaster worker thread"));
    asker.gate.Open();
    destroyer.join();
    EXPECT_EQ(ERROR_NOT_INITIALIZED, asker.answer);
}

// ---- The end of the program ----------------------------------------------------------------------------

void ExitInsideACallback() {
    ScriptedHal hal;
    hal.AddUsbCamera(1);
    GetDeadlines().lockAtDestruction = milliseconds(100);
    BusMaster& busMaster = Singleton<BusMaster>::GetInstance();
    void* handle = nullptr;
    if (busMaster.Initialize() != ERROR_OK || busMaster.RegisterCallback([](void*, unsigned int) { std::exit(7); },
                                                                         BUS_RESET, nullptr, &handle) != ERROR_OK) {
        std::_Exit(1);
    }
    hal.Raise(HAL_BUS_RESET, HAL_INTERFACE_USB);
    Gate never;
    never.WaitUntilReached();
    std::_Exit(2);
}

TEST(LifecycleEndDeathTest, ExitInsideACallbackEndsTheProgram) {
    EXPECT_EXIT(ExitInsideACallback(), ::testing::ExitedWithCode(7), "");
}

void ExitWithARunningWorker() {
    ScriptedHal hal;
    if (Singleton<BusMaster>::GetInstance().Initialize() != ERROR_OK) {
        std::_Exit(1);
    }
    std::exit(8);
}

TEST(LifecycleEndDeathTest, ExitDestroysTheObject) {
    EXPECT_EXIT(ExitWithARunningWorker(), ::testing::ExitedWithCode(8), "");
}

}  // namespace
}  // namespace Nimbrel2::Testing
