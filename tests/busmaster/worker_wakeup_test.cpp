// SPDX-License-Identifier: Apache-2.0
// Resets, rescans and the exit reach the worker wherever in its loop it is: nothing is lost and nobody waits in vain.
#include "tests/busmaster/BusMasterFixture.h"

namespace Nimbrel2::Testing {
namespace {

// Where the worker is held while it is given notice.
enum class Point {
    Waiting,               // idle, nothing holds it
    AtItsWakeUp,           // woken, m_wakeUpMutex still held
    AtTheMainLock,         // before its cycle
    AtTheInitializedLock,  // in its cycle, before the listing
    Listing,
    BeforeReconciling,
    AfterReconciling,
    ListingDevices,
    Freeing,                // a removed camera, after it was signalled
    AtTheIdleMutex,         // after its cycle, before it announces idleness
    AtTheWakeUpMutex,       // about to announce, m_workerIdleMutex held
    AtOutstandingResets,    // about to run a cycle for resets that came during the last
    AtTheOutstandingReset,  // about to take those on, waiting for the main lock
};

enum class Notice { Reset, Rescan, Exit };

const char* const PointNames[] = {"Waiting",
                                  "AtItsWakeUp",
                                  "AtTheMainLock",
                                  "AtTheInitializedLock",
                                  "Listing",
                                  "BeforeReconciling",
                                  "AfterReconciling",
                                  "ListingDevices",
                                  "Freeing",
                                  "AtTheIdleMutex",
                                  "AtTheWakeUpMutex",
                                  "AtOutstandingResets",
                                  "AtTheOutstandingReset"};
const char* const NoticeNames[] = {"Reset", "Rescan", "Exit"};

class WakeUp : public BusMasterFixture, public ::testing::WithParamInterface<std::tuple<Point, Notice>> {
protected:
    void SetUp() override {
        hal.AddFireWireCamera(11);
        m_leaves = hal.AddUsbCamera(21);
        Start();
        m_share = members.lock();
        // Long enough to tell "released" from "ran out of time".
        GetDeadlines().rescan = boost::posix_time::seconds(60);
        GetDeadlines().joinAttempt = boost::posix_time::seconds(60);
    }

    void TearDown() override {
        m_share.reset();
        BusMasterFixture::TearDown();
    }

    // Brings the worker to the point, or as near as can be seen from outside.
    void Hold(Point point) {
        switch (point) {
            case Point::Waiting:
                return;
            case Point::AtItsWakeUp:
                return HoldAtTrace("BusMaster wake up event triggered");
            case Point::AtTheMainLock:
                return HoldAtLock(
                    m_share->m_busMasterMutex, [this] { Wake(); },
                    [this] { return traces.WaitFor("BusMaster wake up event triggered"); });
            case Point::AtTheInitializedLock:
                return HoldAtLock(
                    m_share->m_initializedMutex, [this] { Wake(); },
                    [this] { return traces.WaitFor("BusMaster wake up event triggered"); });
            case Point::Listing:
                return HoldAtCall("HAL_GigEGetCameras");
            case Point::BeforeReconciling:
                return HoldAtTrace("Updating camera list. Current size: 2, new size: 2");
            case Point::AfterReconciling:
                return HoldAtTrace("Completed updating camera list");
            case Point::ListingDevices:
                return HoldAtCall("HAL_1394GetDevices");
            case Point::Freeing:
                hal.Detach(m_leaves);
                return HoldAtCall("HAL_UsbFreeCamera");
            case Point::AtTheIdleMutex:
                return HoldAtLock(
                    m_share->m_workerIdleMutex, [this] { Wake(); }, [this] { return CycleEnded(); });
            case Point::AtTheWakeUpMutex:
                // The worker needs the mutex to wake up at all, so it is taken while a cycle runs.
                HoldAtCall("HAL_1394GetDevices");
                m_lock = Lock(m_share->m_wakeUpMutex);
                m_gate->Open();
                EXPECT_TRUE(
                    Eventually([this] { return !Lock(m_share->m_workerIdleMutex, boost::try_to_lock).owns_lock(); }));
                return;
            case Point::AtOutstandingResets:
                m_gate = traces.BlockAt("Handling outstanding bus reset (1)");
                RaiseReset();
                EXPECT_TRUE(m_gate->WaitUntilReached());
                return;
            case Point::AtTheOutstandingReset:
                m_gate = traces.BlockAt("Handling outstanding bus reset (1)");
                RaiseReset();
                EXPECT_TRUE(m_gate->WaitUntilReached());
                m_lock = Lock(m_share->m_busMasterMutex);
                m_gate->Open();
                return;
        }
    }

    void Release() {
        if (m_gate) {
            m_gate->Open();
        }
        if (m_lock.owns_lock()) {
            m_lock.unlock();
        }
    }

    boost::shared_ptr<Members> m_share;

private:
    // A cycle without a reset, so that no second one follows by itself.
    void Wake() { m_share->NotifyWorker(); }

    bool CycleEnded() { return traces.WaitFor("Completed updating camera list") && MainLockIsFreeAgain(); }
    bool MainLockIsFreeAgain() { return AnotherThreadCanLock(m_share->m_busMasterMutex); }

    void HoldAtTrace(const std::string& line) {
        m_gate = traces.BlockAt(line);
        Wake();
        EXPECT_TRUE(m_gate->WaitUntilReached());
    }
    void HoldAtCall(const std::string& function) {
        m_gate = hal.Block(function);
        Wake();
        EXPECT_TRUE(m_gate->WaitUntilReached());
    }
    template <class Begin, class Reached>
    void HoldAtLock(boost::mutex& mutex, Begin begin, Reached reached) {
        traces.Clear();
        m_lock = Lock(mutex);
        begin();
        EXPECT_TRUE(reached());
    }

    std::shared_ptr<Gate> m_gate;
    Lock m_lock;
    ScriptedHal::DevicePointer m_leaves;
};

TEST_P(WakeUp, IsNotLost) {
    const auto [point, notice] = GetParam();
    Hold(point);
    const std::size_t listingsBefore = Listings();
    std::thread notifier;  // it may have to wait for what the worker, or the test, holds
    switch (notice) {
        case Notice::Reset:
            hal.AddGigECamera(31, 0x0A000001);
            notifier = std::thread([this] { RaiseReset(HAL_INTERFACE_GIGE); });
            // A worker that nothing holds may have taken it on, and ended with it, before anybody looks.
            ASSERT_TRUE(Eventually(
                [this, listingsBefore] { return m_share->m_pendingBusResets != 0 || Listings() > listingsBefore; }));
            break;
        case Notice::Rescan:
            notifier = std::thread([this] { EXPECT_TRUE(busMaster->RescanBus() == ERROR_OK); });
            break;
        case Notice::Exit:
            notifier = DestroyElsewhere();
            break;
    }
    Release();
    notifier.join();
    switch (notice) {
        case Notice::Reset:
            ASSERT_TRUE(WaitUntilIdle());
            EXPECT_LT(listingsBefore, Listings());
            EXPECT_EQ(31U, SerialNumbers().back()) << "no listing began after the reset was raised";
            break;
        case Notice::Rescan:
            EXPECT_TRUE(WaitUntilIdle());
            break;
        case Notice::Exit:
            EXPECT_EQ(1U, traces.Count("Exiting BusMaster worker thread"));
            EXPECT_EQ(0U, CountContaining(traces.Lines(), "Timed out"));
            break;
    }
}

INSTANTIATE_TEST_SUITE_P(Held, WakeUp,
                         ::testing::Combine(::testing::Values(Point::Waiting, Point::AtItsWakeUp, Point::AtTheMainLock,
                                                              Point::AtTheInitializedLock, Point::Listing,
                                                              Point::BeforeReconciling, Point::AfterReconciling,
                                                              Point::ListingDevices, Point::Freeing,
                                                              Point::AtTheIdleMutex, Point::AtTheWakeUpMutex,
                                                              Point::AtOutstandingResets, Point::AtTheOutstandingReset),
                                            ::testing::Values(Notice::Reset, Notice::Rescan, Notice::Exit)),
                         [](const auto& test) {
                             return std::string(NoticeNames[static_cast<int>(std::get<1>(test.param))]) +
                                    PointNames[static_cast<int>(std::get<0>(test.param))];
                         });

// The window between the worker's last look and its wait is a few instructions wide: many tries, no holding.
class WakeUpRace : public BusMasterFixture {};

TEST_F(WakeUpRace, AResetThatMeetsAWorkerGoingIdleIsHandled) {
    Start();
    for (int i = 0; i < 2000; ++i) {
        RaiseReset();
        // The next reset comes while this one's second cycle ends, or just after.
        ASSERT_TRUE(Eventually([this] { return Inside().m_pendingBusResets == 0; })) << "reset " << i << " was lost";
        hal.ClearCalls();
        traces.Clear();
    }
    EXPECT_TRUE(WaitUntilIdle());
}

TEST_F(WakeUpRace, ARescanThatMeetsAWorkerGoingIdleIsReleased) {
    Start();
    GetDeadlines().rescan = boost::posix_time::seconds(60);
    for (int i = 0; i < 2000; ++i) {
        Inside().NotifyWorker();  // busy or about to be
        ASSERT_TRUE(busMaster->RescanBus() == ERROR_OK);
        hal.ClearCalls();
        traces.Clear();
    }
    EXPECT_TRUE(WaitUntilIdle());
}

TEST_F(WakeUpRace, AnExitThatMeetsAWorkerGoingIdleIsNoticed) {
    GetDeadlines().joinAttempt = boost::posix_time::seconds(60);
    for (int i = 0; i < 500; ++i) {
        Construct();
        ASSERT_TRUE(busMaster->Initialize() == ERROR_OK);
        Inside().NotifyWorker();
        Destroy();
        ExpectGone();
        ASSERT_EQ(0U, traces.Count("Timed out while waiting for BusMaster worker thread to exit."));
        traces.Clear();
        hal.ClearCalls();
    }
}

}  // namespace
}  // namespace Nimbrel2::Testing
