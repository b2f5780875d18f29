// SPDX-License-Identifier: Apache-2.0
// The re-enumeration cycle: its steps in order, what each failure costs, and where it looks whether to end.
#include "tests/busmaster/BusMasterFixture.h"
#include "tests/support/ThreadStartFailure.h"

namespace Nimbrel2::Testing {
namespace {

using ::testing::ElementsAre;
using ::testing::ElementsAreArray;
using ::testing::IsEmpty;

class WorkerCycle : public BusMasterFixture {
protected:
    // Raises a reset while the worker is in a cycle, held there by a listing; the test opens the gate.
    std::shared_ptr<Gate> HoldInACycle() {
        const auto gate = hal.Block("HAL_GigEGetCameras");
        RaiseReset();
        EXPECT_TRUE(gate->WaitUntilReached());
        return gate;
    }
};

TEST_F(WorkerCycle, AResetThatFindsTheWorkerIdleRunsTwoTheSecondAsOutstanding) {
    hal.AddFireWireCamera(11);
    hal.AddUsbCamera(21);
    Start();
    traces.Clear();
    RaiseReset();
    ASSERT_TRUE(WaitUntilIdle());
    EXPECT_THAT(traces.Lines(),
                ElementsAre("Bus event: Bus reset on 1394 interface", "BusMaster wake up event triggered",
                            "HAL_1394GetCameras returned : 1", "Updating camera list. Current size: 2, new size: 2",
                            "Completed updating camera list", "Handling outstanding bus reset (1)",
                            "HAL_1394GetCameras returned : 1", "Updating camera list. Current size: 2, new size: 2",
                            "Completed updating camera list"));
}

TEST_F(WorkerCycle, ThreeResetsDuringOneRunExactlyOneMore) {
    Start();
    const auto gate = hal.Block("HAL_GigEGetCameras");
    std::thread rescan([this] { EXPECT_TRUE(busMaster->RescanBus() == ERROR_OK); });
    ASSERT_TRUE(gate->WaitUntilReached());
    RaiseReset(HAL_INTERFACE_1394);
    RaiseReset(HAL_INTERFACE_USB);
    RaiseReset(HAL_INTERFACE_GIGE);
    gate->Open();
    rescan.join();
    ASSERT_TRUE(WaitUntilIdle());
    EXPECT_EQ(3U, Listings()) << "the start, the rescan, the outstanding resets";
    EXPECT_EQ(1U, traces.Count("Handling outstanding bus reset (3)"));
    EXPECT_EQ(1U, CountContaining(traces.Lines(), "Handling outstanding bus reset"));
}

TEST_F(WorkerCycle, ManyThreadsRaisingResetsAreAllCounted) {
    Start();
    const auto gate = hal.Block("HAL_GigEGetCameras");
    std::thread rescan([this] { EXPECT_TRUE(busMaster->RescanBus() == ERROR_OK); });
    ASSERT_TRUE(gate->WaitUntilReached());
    std::vector<std::thread> raisers;
    for (int i = 0; i < 8; ++i) {
        raisers.emplace_back([this] {
            for (int k = 0; k < 50; ++k) {
                hal.Raise(HAL_BUS_RESET, HAL_INTERFACE_USB);
            }
        });
    }
    for (std::thread& raiser : raisers) {
        raiser.join();
    }
    gate->Open();
    rescan.join();
    ASSERT_TRUE(WaitUntilIdle());
    EXPECT_EQ(1U, traces.Count("Handling outstanding bus reset (400)"));
    EXPECT_EQ(3U, Listings());
}

TEST_F(WorkerCycle, ListsCamerasAtOnceThenReconcilesThenListsDevices) {
    hal.AddFireWireCamera(11);
    hal.AddFireWireDevice(1, 2);
    Start();
    hal.ClearCalls();
    Cycle();
    Lines calls;
    for (const std::string& call : hal.CallNames()) {
        if (call.find("Usb") == std::string::npos && call.find("GigE") == std::string::npos) {
            calls.push_back(call);
        }
    }
    EXPECT_THAT(calls, ElementsAre("HAL_1394GetCameras", "HAL_1394GetNode", "HAL_1394GetConfigInfo",
                                   "HAL_1394ReadRegister", "HAL_1394FreeCamera", "HAL_1394GetDevices",
                                   "HAL_1394GetNode", "HAL_1394GetDeviceInfo", "HAL_1394FreeDevice"));
}

TEST_F(WorkerCycle, TellsResetsRemovalsAndArrivalsAndCountsTheGenerations) {
    const auto first = hal.AddFireWireCamera(11);
    const auto second = hal.AddUsbCamera(21);
    const auto stays = hal.AddUsbCamera(22);
    Start();
    Heard heard;
    heard.RegisterAll(*busMaster);
    hal.Detach(first);
    hal.Detach(second);
    hal.AddUsbCamera(23);
    hal.AddGigECamera(31, 0x0A000001);
    Cycle();
    EXPECT_THAT(heard.Calls(),
                ElementsAre(Heard::Call(BUS_RESET, 0), Heard::Call(ARRIVAL, 23), Heard::Call(ARRIVAL, 31),
                            Heard::Call(REMOVAL, 11), Heard::Call(REMOVAL, 21)));
    EXPECT_THAT(SerialNumbers(), ElementsAre(22, 23, 31));
    for (const unsigned int serialNumber : {11U, 21U, 23U, 31U}) {
        EXPECT_EQ(1U, busMaster->GetGeneration(serialNumber)) << serialNumber;
    }
    EXPECT_EQ(0U, busMaster->GetGeneration(22));
    EXPECT_EQ(1U, hal.TimesFreed(hal.EntriesOf(first).at(0)));
    EXPECT_EQ(0U, hal.TimesFreed(hal.EntriesOf(stays).at(0))) << "a camera that stays keeps its first entry";
    hal.Attach(first);
    Cycle();
    EXPECT_EQ(2U, busMaster->GetGeneration(11));
}

TEST_F(WorkerCycle, FreesARemovedCameraAfterItsRemovalWasSignalled) {
    const auto leaves = hal.AddUsbCamera(21);
    Start();
    Heard heard;
    heard.Register(*busMaster, REMOVAL);
    hal.Detach(leaves);
    const auto gate = hal.Block("HAL_UsbFreeCamera");
    RaiseReset();
    ASSERT_TRUE(gate->WaitUntilReached());
    EXPECT_TRUE(Eventually([&] { return heard.Count(REMOVAL, 21) == 1; }));
    EXPECT_EQ(hal.Calls("HAL_1394GetDevices").at(0).thread, hal.Calls("HAL_UsbFreeCamera").at(0).thread);
    gate->Open();
    ASSERT_TRUE(WaitUntilIdle());
}

TEST_F(WorkerCycle, AKeptCamerasInterfaceObjectStays) {
    hal.AddFireWireCamera(11);
    Start();
    HardwareInterface* before = nullptr;
    HardwareInterface* after = nullptr;
    ASSERT_TRUE(busMaster->GetHwInterfaceFromSerialNumber(11, &before) == ERROR_OK);
    Cycle();
    ASSERT_TRUE(busMaster->GetHwInterfaceFromSerialNumber(11, &after) == ERROR_OK);
    EXPECT_EQ(before, after);
}

TEST_F(WorkerCycle, ReplacesTheDevicesAndReleasesTheOldOnes) {
    const auto device = hal.AddFireWireDevice(1, 2);
    Start();
    Cycle();
    Cycle();
    EXPECT_EQ(1U, DeviceCount());
    const std::vector<void*> entries = hal.EntriesOf(device);
    ASSERT_EQ(3U, entries.size());
    EXPECT_EQ(1U, hal.TimesFreed(entries[0]));
    EXPECT_EQ(1U, hal.TimesFreed(entries[1]));
    EXPECT_EQ(0U, hal.TimesFreed(entries[2]));
}

TEST_F(WorkerCycle, ADevicesInterfaceObjectIsReplacedThoughTheDeviceStays) {
    hal.AddFireWireDevice(1, 2);
    Start();
    ZevoGuid guid;
    boost::shared_ptr<HardwareInterface> before;
    boost::shared_ptr<HardwareInterface> after;
    std::uint32_t value = 0;
    ASSERT_TRUE(busMaster->GetDeviceFromIndex(0, &guid) == ERROR_OK);
    ASSERT_TRUE(busMaster->KeepHwInterface(guid, &before) == ERROR_OK);
    Cycle();
    ASSERT_TRUE(busMaster->KeepHwInterface(guid, &after) == ERROR_OK);
    EXPECT_EQ(HAL_GONE, before->GetDeviceInfo(&value, &value, &value));
    EXPECT_EQ(HAL_OK, after->GetDeviceInfo(&value, &value, &value));
}

// The counts of the idle worker's look at what is pending come from real wake-ups only.
TEST_F(WorkerCycle, AWakeUpWithoutAReasonRunsOneCycle) {
    Start();
    Heard heard;
    heard.RegisterAll(*busMaster);
    Inside().NotifyWorker();
    ASSERT_TRUE(Eventually([this] { return Listings() == 2; }));
    ASSERT_TRUE(WaitUntilIdle());
    EXPECT_EQ(2U, Listings());
    EXPECT_EQ(1U, heard.Count(BUS_RESET, 0));
}

// ---- Steps that fail ------------------------------------------------------------------------------------------------

TEST_F(WorkerCycle, WithoutThreadsForTheListingKeepsTheListsAndTellsNobody) {
    hal.AddFireWireCamera(11);
    const auto leaves = hal.AddUsbCamera(21);
    hal.AddFireWireDevice(1, 2);
    Start();
    Heard heard;
    heard.RegisterAll(*busMaster);
    hal.Detach(leaves);
    for (unsigned int nth = 1; nth <= 3; ++nth) {
        traces.Clear();
        hal.ClearCalls();
        {
            const ThreadStartFailure failure(nth);
            Cycle();
        }
        EXPECT_EQ(1U, traces.Count("Failed to get new camera list"));
        EXPECT_EQ(0U, CountContaining(traces.Lines(), "Updating camera list"));
        EXPECT_EQ(0U, hal.Count("HAL_1394GetDevices"));
        EXPECT_THAT(SerialNumbers(), ElementsAre(11, 21));
        EXPECT_EQ(1U, DeviceCount());
        EXPECT_EQ(3U, hal.EntriesOutstanding());
        ExpectLocksFree(*busMaster);
    }
    EXPECT_THAT(heard.Calls(), IsEmpty());
    Cycle();
    EXPECT_THAT(SerialNumbers(), ElementsAre(11));
    EXPECT_EQ(1U, heard.Count(REMOVAL, 21));
}

TEST_F(WorkerCycle, ThatCannotListDevicesEmptiesTheirListAndSignalsAllTheSame) {
    hal.AddFireWireDevice(1, 2);
    Start();
    Heard heard;
    heard.RegisterAll(*busMaster);
    hal.AddUsbCamera(21);
    hal.Fail("HAL_1394GetDevices", 1, HAL_FAILED);
    traces.Clear();
    Cycle();
    EXPECT_EQ(1U, traces.Count("Failed to get new device list"));
    EXPECT_EQ(0U, DeviceCount());
    EXPECT_THAT(heard.Calls(), ElementsAre(Heard::Call(BUS_RESET, 0), Heard::Call(ARRIVAL, 21)));
    EXPECT_EQ(1U, hal.EntriesOutstanding());
    Cycle();
    EXPECT_EQ(1U, DeviceCount());
}

TEST_F(WorkerCycle, ThatCannotSignalTracesEachInOrderAndKeepsTheRemovedCameras) {
    const auto first = hal.AddUsbCamera(21);
    const auto second = hal.AddUsbCamera(22);
    Start();
    Heard heard;
    heard.RegisterAll(*busMaster);
    hal.Detach(first);
    hal.Detach(second);
    hal.AddGigECamera(31, 0x0A000001);
    hal.AddGigECamera(32, 0x0A000002);
    traces.Clear();
    {
        const ThreadStartFailure failure(4, ThreadStartFailure::Kind::ThreadResourceError, true);
        Cycle();
    }
    EXPECT_THAT(traces.Lines(),
                ElementsAre("BusMaster wake up event triggered", "HAL_1394GetCameras returned : 0",
                            "Updating camera list. Current size: 2, new size: 2", "Completed updating camera list",
                            "Error signaling bus reset callbacks", "Error signaling bus removal callback 0",
                            "Error signaling bus removal callback 1", "Error signaling bus arrival callback 0",
                            "Error signaling bus arrival callback 1"));
    EXPECT_THAT(heard.Calls(), IsEmpty());
    EXPECT_THAT(SerialNumbers(), ElementsAre(31, 32));
    EXPECT_EQ(2U, KeptUnsignalled());
    for (const unsigned int serialNumber : {21U, 22U, 31U, 32U}) {
        EXPECT_EQ(1U, busMaster->GetGeneration(serialNumber)) << "counted before the signal";
    }
    EXPECT_EQ(4U, hal.EntriesOutstanding());
    leftToTheHal = {first, second};
}

// Only the second of two removal callbacks finds no thread: one user has heard, the handle is kept all the same.
TEST_F(WorkerCycle, ThatSignalsOnlySomeCallbacksOfARemovalKeepsTheCamera) {
    const auto leaves = hal.AddUsbCamera(21);
    Start();
    Heard heard;
    heard.Register(*busMaster, REMOVAL);
    heard.Register(*busMaster, REMOVAL);
    hal.Detach(leaves);
    {
        const ThreadStartFailure failure(5);
        Cycle();
    }
    EXPECT_EQ(1U, heard.Count(REMOVAL, 21));
    EXPECT_EQ(1U, traces.Count("Error signaling bus removal callback 0"));
    EXPECT_EQ(1U, KeptUnsignalled());
    leftToTheHal = {leaves};
}

TEST_F(WorkerCycle, TracesARemovedCameraThatCannotBeFreedAndLetsItGo) {
    const auto leaves = hal.AddUsbCamera(21);
    Start();
    hal.Detach(leaves);
    hal.Fail("HAL_UsbFreeCamera", 1, HAL_FAILED);
    Cycle();
    EXPECT_EQ(1U, traces.Count("Error freeing camera"));
    EXPECT_THAT(SerialNumbers(), IsEmpty());
    EXPECT_EQ(0U, KeptUnsignalled());
}

TEST_F(WorkerCycle, WithoutMemoryToReconcileKeepsTheListAndFreesTheListing) {
    hal.AddUsbCamera(21);
    Start();
    hal.AddUsbCamera(22);
    // The worker's own allocations are few: those of the threads that list are left alone.
    bool updateFailed = false;
    for (std::uint64_t nth = 1; !updateFailed; ++nth) {
        ASSERT_LT(nth, 2000U);
        traces.Clear();
        {
            const AllocationFailure failure(nth, AllocationFailure::Scope::AllThreads);
            Cycle();
        }
        updateFailed = traces.Count("Failed to update camera list") == 1;
        if (!updateFailed) {  // start anew: something else failed, or the camera has arrived
            Destroy();
            ExpectGone();
            Start();
            hal.DetachAll();
            hal.AddUsbCamera(21);
            Cycle();
            hal.AddUsbCamera(22);
        }
    }
    EXPECT_THAT(SerialNumbers(), ElementsAre(21));
    EXPECT_EQ(1U, hal.EntriesOutstanding());
    Cycle();
    EXPECT_THAT(SerialNumbers(), ElementsAre(21, 22));
}

// ---- Where it looks whether to end --------------------------------------------------------------------------------

struct ExitCheck {
    const char* name;
    const char* hal;    // the HAL call that the worker is held in when the exit flag is set
    const char* trace;  // or the trace
    Lines after;        // what it still traces
    bool reconciled;
    bool listsDevices;
    bool signals;
};

class WorkerExit : public BusMasterFixture, public ::testing::WithParamInterface<ExitCheck> {};

TEST_P(WorkerExit, IsNoticedAtTheNextCheckWithEverythingGivenBack) {
    const ExitCheck& check = GetParam();
    hal.AddFireWireCamera(11);
    const auto leaves = hal.AddUsbCamera(21);
    hal.AddFireWireDevice(1, 2);
    Start();
    Heard heard;
    heard.RegisterAll(*busMaster);
    hal.Detach(leaves);
    hal.AddUsbCamera(22);
    const auto gate = check.hal != nullptr ? hal.Block(check.hal) : traces.BlockAt(check.trace);
    hal.ClearCalls();
    Inside().NotifyWorker();
    ASSERT_TRUE(gate->WaitUntilReached());
    traces.Clear();
    const boost::shared_ptr<Members> share = members.lock();
    GetDeadlines().joinAttempt = boost::posix_time::seconds(20);
    std::thread destroyer = DestroyElsewhere();
    gate->Open();
    destroyer.join();

    Lines expected = {"Starting destruction of BusMaster"};
    expected.insert(expected.end(), check.after.begin(), check.after.end());
    expected.insert(expected.end(), {"Breaking out of BusMaster worker thread", "Exiting BusMaster worker thread",
                                     "Completed destruction of BusMaster"});
    EXPECT_THAT(traces.Lines(), ElementsAreArray(expected));
    EXPECT_EQ(check.listsDevices ? 1U : 0U, hal.Count("HAL_1394GetDevices"));
    EXPECT_FALSE(share->m_initialized);
    for (boost::mutex* mutex :
         {&share->m_busMasterMutex, &share->m_initializedMutex, &share->m_callbackMutex, &share->m_enumerationMutex,
          &share->m_wakeUpMutex, &share->m_workerIdleMutex, &share->m_initConfirmMutex, &share->m_exitThreadMutex}) {
        EXPECT_TRUE(AnotherThreadCanLock(*mutex));
    }
    ASSERT_TRUE(Eventually([&] {
        const Lock lock(share->m_quietMutex);
        return share->m_callbacksLeft == 0;
    }));
    if (!check.signals) {
        EXPECT_THAT(heard.Calls(), IsEmpty());
    }
    EXPECT_EQ(0U, hal.RegistrationsOutstanding());
    EXPECT_EQ(0U, hal.EntriesOutstanding());
}

const std::string Listed = "HAL_1394GetCameras returned : 1";
const std::string Updating = "Updating camera list. Current size: 2, new size: 2";
const std::string Updated = "Completed updating camera list";

INSTANTIATE_TEST_SUITE_P(
    Held, WorkerExit,
    ::testing::Values(ExitCheck{"AtItsWakeUp", nullptr, "BusMaster wake up event triggered", {}, false, false, false},
                      ExitCheck{"InAListing", "HAL_1394GetCameras", nullptr, {Listed}, false, false, false},
                      ExitCheck{"BeforeTheReconciliation",
                                nullptr,
                                "Updating camera list. Current size: 2, new size: 2",
                                {Updated},
                                true,
                                false,
                                false},
                      ExitCheck{
                          "AfterTheReconciliation", nullptr, "Completed updating camera list", {}, true, false, false},
                      ExitCheck{"InTheDeviceListing", "HAL_1394GetDevices", nullptr, {}, true, true, false},
                      ExitCheck{"WhileItFreesOldDevices", "HAL_1394FreeDevice", nullptr, {}, true, true, false},
                      ExitCheck{"WhileItSignals", "HAL_UsbFreeCamera", nullptr, {}, true, true, true}),
    [](const auto& test) { return std::string(test.param.name); });

TEST_F(WorkerCycle, AnExitDuringAFailedListingIsNoticedWithoutAnotherWakeUp) {
    Start();
    const auto gate = traces.BlockAt("Failed to get new camera list");
    const ThreadStartFailure failure(1);
    Inside().NotifyWorker();
    ASSERT_TRUE(gate->WaitUntilReached());
    traces.Clear();
    GetDeadlines().joinAttempt = boost::posix_time::seconds(20);
    std::thread destroyer = DestroyElsewhere();
    gate->Open();
    destroyer.join();
    EXPECT_EQ(1U, traces.Count("Exiting BusMaster worker thread"));
    EXPECT_EQ(0U, CountContaining(traces.Lines(), "Timed out"));
}

TEST_F(WorkerCycle, AnExitWithResetsOutstandingRunsNoFurtherListing) {
    Start();
    const auto gate = traces.BlockAt("Handling outstanding bus reset (1)");
    RaiseReset();
    ASSERT_TRUE(gate->WaitUntilReached());
    hal.ClearCalls();
    std::thread destroyer = DestroyElsewhere();
    gate->Open();
    destroyer.join();
    EXPECT_EQ(0U, hal.Count("HAL_GigEGetCameras"));
}

// ---- What may be asked meanwhile ----------------------------------------------------------------------------------

TEST_F(WorkerCycle, HoldsTheMainLockThroughoutAndTheInitializedLockOnlyWhileItBuildsTheLists) {
    const auto leaves = hal.AddUsbCamera(21);
    Start();
    hal.Detach(leaves);
    const auto busy = [](boost::mutex& mutex) { return !Lock(mutex, boost::try_to_lock).owns_lock(); };
    const auto listing = hal.Block("HAL_GigEGetCameras");
    const auto devices = hal.Block("HAL_1394GetDevices");
    const auto freeing = hal.Block("HAL_UsbFreeCamera");
    Inside().NotifyWorker();
    for (const auto& gate : {listing, devices}) {
        ASSERT_TRUE(gate->WaitUntilReached());
        EXPECT_TRUE(busy(Inside().m_busMasterMutex));
        EXPECT_TRUE(busy(Inside().m_initializedMutex));
        gate->Open();
    }
    ASSERT_TRUE(freeing->WaitUntilReached());
    EXPECT_TRUE(busy(Inside().m_busMasterMutex));
    EXPECT_FALSE(busy(Inside().m_initializedMutex));
    EXPECT_TRUE(busMaster->GetInitialized());
    freeing->Open();
    ASSERT_TRUE(WaitUntilIdle());
    EXPECT_FALSE(busy(Inside().m_busMasterMutex));
}

// ---- RescanBus ----------------------------------------------------------------------------------------------------

class Rescan : public BusMasterFixture {};

TEST_F(Rescan, OfAnIdleWorkerReturnsWhenTheCycleIsComplete) {
    Start();
    for (unsigned int i = 1; i <= 50; ++i) {
        hal.AddUsbCamera(i);
        ASSERT_TRUE(busMaster->RescanBus() == ERROR_OK);
        ASSERT_EQ(i, SerialNumbers().size());
    }
    ASSERT_TRUE(WaitUntilIdle());
    EXPECT_EQ(51U, Listings());
}

TEST_F(Rescan, OfABusyWorkerStartsNoFurtherCycleAndReturnsWhenItIsIdle) {
    Start();
    GetDeadlines().rescan = boost::posix_time::seconds(60);
    const auto gate = hal.Block("HAL_GigEGetCameras");
    Inside().NotifyWorker();
    ASSERT_TRUE(gate->WaitUntilReached());
    std::atomic<bool> returned{false};
    std::thread rescan;
    const auto idleMutexIsFree = [this] { return Lock(Inside().m_workerIdleMutex, boost::try_to_lock).owns_lock(); };
    {
        const Lock noNotice(Inside().m_wakeUpMutex);
        rescan = std::thread([&] {
            EXPECT_TRUE(busMaster->RescanBus() == ERROR_OK);
            returned = true;
        });
        ASSERT_TRUE(Eventually([&] { return !idleMutexIsFree(); }));
    }
    ASSERT_TRUE(Eventually(idleMutexIsFree)) << "it has given notice and waits";
    EXPECT_FALSE(returned);
    gate->Open();
    rescan.join();
    ASSERT_TRUE(WaitUntilIdle());
    EXPECT_EQ(2U, Listings());
}

TEST_F(Rescan, OfAHungWorkerReturnsAtItsDeadline) {
    Start();
    GetDeadlines().rescan = milliseconds(50);
    const auto gate = hal.Block("HAL_GigEGetCameras");
    EXPECT_TRUE(busMaster->RescanBus() == ERROR_OK);
    EXPECT_EQ(1U, gate->Reached());
    EXPECT_TRUE(busMaster->RescanBus() == ERROR_OK);
    gate->Open();
    ASSERT_TRUE(WaitUntilIdle());
}

TEST_F(Rescan, BeforeTheStartReturnsAtItsDeadline) {
    GetDeadlines().rescan = milliseconds(20);
    Construct();
    EXPECT_TRUE(busMaster->RescanBus() == ERROR_OK);
    EXPECT_TRUE(hal.Calls("HAL_GigEGetCameras").empty());
}

TEST_F(Rescan, ByManyThreadsAlwaysAnswersOk) {
    Start();
    GetDeadlines().rescan = milliseconds(200);
    std::vector<std::thread> callers;
    for (int i = 0; i < 8; ++i) {
        callers.emplace_back([this] {
            for (int k = 0; k < 5; ++k) {
                EXPECT_TRUE(busMaster->RescanBus() == ERROR_OK);
            }
        });
    }
    for (std::thread& caller : callers) {
        caller.join();
    }
    EXPECT_TRUE(WaitUntilIdle());
}

TEST_F(Rescan, InsideACallbackWaitsForTheWorkerOnly) {
    Start();
    struct Rescanner {
        BusMaster* busMaster;
        std::atomic<int> calls{0};
        std::atomic<bool> done{false};
        static void Run(void* data, unsigned int) {
            auto& rescanner = *static_cast<Rescanner*>(data);
            if (rescanner.calls++ == 0) {
                EXPECT_TRUE(rescanner.busMaster->RescanBus() == ERROR_OK);
                rescanner.done = true;
            }
        }
    } rescanner{busMaster.get(), {}, {}};
    void* handle = nullptr;
    ASSERT_TRUE(busMaster->RegisterCallback(&Rescanner::Run, BUS_RESET, &rescanner, &handle) == ERROR_OK);
    RaiseReset();
    EXPECT_TRUE(Eventually([&] { return rescanner.done.load(); }));
    EXPECT_TRUE(WaitUntilIdle());
}

}  // namespace
}  // namespace Nimbrel2::Testing
