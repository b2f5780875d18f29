// SPDX-License-Identifier: Apache-2.0
// Registering and unregistering beside slow callbacks: who waits for whom, told by counts. Each call runs on a thread
// of its own and ends when the test lets it; the test's thread and those it starts register.
#include <future>
#include <thread>

#include "tests/busmaster/BusMasterFixture.h"
#include "tests/busmaster/ErrorChecks.h"

namespace Nimbrel2::Testing {
namespace {

constexpr unsigned int Many = 1000;

// Calls that each wait for leave to end.
class SlowCalls {
public:
    static void Run(void* data, unsigned int) {
        auto& calls = *static_cast<SlowCalls*>(data);
        std::unique_lock<std::mutex> lock(calls.m_mutex);
        ++calls.m_begun;
        calls.m_changed.notify_all();
        calls.m_changed.wait(lock, [&calls] { return calls.m_leaves > 0; });
        --calls.m_leaves;
        ++calls.m_ended;
        calls.m_changed.notify_all();
    }

    void LetEnd(unsigned int calls) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_leaves += calls;
        m_changed.notify_all();
    }

    bool WaitUntilBegun(unsigned int calls) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, TestDeadline, [&] { return m_begun >= calls; });
    }

    unsigned int Begun() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_begun;
    }
    unsigned int Ended() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_ended;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    unsigned int m_leaves = 0;
    unsigned int m_begun = 0;
    unsigned int m_ended = 0;
};

class Registrars : public BusMasterFixture {
protected:
    void SetUp() override { Start(); }

    void TearDown() override {
        slow.LetEnd(Many);
        others.LetEnd(Many);
        BusMasterFixture::TearDown();
    }

    void* Register(BusCallbackType type, SlowCalls& calls) {
        void* handle = nullptr;
        EXPECT_OK(busMaster->RegisterCallback(&SlowCalls::Run, type, &calls, &handle));
        return handle;
    }

    // As the worker does it.
    void Signal(Members::CallbackList& list, unsigned int times = 1) {
        const Lock lock(Inside().m_busMasterMutex);
        for (unsigned int i = 0; i < times; ++i) {
            EXPECT_OK(Inside().SignalCallbacks(list, 0));
        }
    }

    // A slow callback runs, and this many more calls of it wait.
    void RunOneAndQueue(unsigned int calls) {
        Register(BUS_RESET, slow);
        Signal(Inside().m_busResetCallbacks, 1 + calls);
        ASSERT_TRUE(slow.WaitUntilBegun(1));
    }

    bool WaitForRegistrars(std::size_t count) {
        return Eventually([&] { return Inside().m_callbackTurns.CountWaitingRegistrars() == count; });
    }

    // These return when the registrar waits for its turn.
    std::future<Error> RegisterElsewhere() {
        std::future<Error> registered = std::async(std::launch::async, [this] {
            void* handle = nullptr;
            return busMaster->RegisterCallback(&SlowCalls::Run, ARRIVAL, &others, &handle);
        });
        EXPECT_TRUE(WaitForRegistrars(1));
        return registered;
    }
    std::future<Error> UnregisterElsewhere(void* handle) {
        std::future<Error> unregistered =
            std::async(std::launch::async, [this, handle] { return busMaster->UnregisterCallback(handle); });
        EXPECT_TRUE(WaitForRegistrars(1));
        return unregistered;
    }

    // Returns when the registrar has its turn and waits for the cycle that runs.
    std::future<Error> RegisterDuringACycle() {
        const std::uint64_t before = RegistrarsCome();
        std::future<Error> registered = std::async(std::launch::async, [this] {
            void* handle = nullptr;
            return busMaster->RegisterCallback(&SlowCalls::Run, ARRIVAL, &others, &handle);
        });
        EXPECT_TRUE(Eventually([&] { return RegistrarsCome() == before + 1; }));
        return registered;
    }

    void CountRegistrar(std::uint64_t Members::*counter) {
        {
            const Lock lock(Inside().m_quietMutex);
            ++(Inside().*counter);
        }
        Inside().m_quietCondition.notify_all();
    }

    bool MainLockIsFree() { return Lock(Inside().m_busMasterMutex, boost::try_to_lock).owns_lock(); }

    std::uint64_t RegistrarsCome() {
        const Lock lock(Inside().m_quietMutex);
        return Inside().m_registrarsCome;
    }

    // Answered in time, and well.
    void ExpectPasses(std::future<Error>& registrar) {
        EXPECT_EQ(std::future_status::ready, registrar.wait_for(TestDeadline)) << (slow.LetEnd(Many), "it starves");
        EXPECT_OK(registrar.get());
    }

    unsigned int CallbackThreads() {
        const Lock lock(Inside().m_quietMutex);
        return Inside().m_callbacksLeft;
    }

    SlowCalls slow;
    SlowCalls others;
};

TEST_F(Registrars, UnregisterAfterTheOneCallThatRunsHoweverManyAreQueued) {
    void* const handle = Register(ARRIVAL, others);
    RunOneAndQueue(50);
    std::future<Error> unregistered = UnregisterElsewhere(handle);
    slow.LetEnd(1);
    ExpectPasses(unregistered);
    EXPECT_EQ(1U, slow.Ended());
    EXPECT_TRUE(Eventually([&] { return CallbackThreads() == 50; }));
}

TEST_F(Registrars, RegisterAfterTheOneCallThatRunsHoweverManyAreQueued) {
    RunOneAndQueue(50);
    std::future<Error> registered = RegisterElsewhere();
    slow.LetEnd(1);
    ExpectPasses(registered);
    EXPECT_EQ(1U, slow.Ended());
}

TEST_F(Registrars, PassOneForEachCallThatEndsSoThatNeitherStarves) {
    constexpr unsigned int Pairs = 6;
    RunOneAndQueue(Pairs);
    std::atomic<unsigned int> passed{0};
    std::vector<std::future<void>> registrars;
    for (unsigned int i = 0; i < Pairs; ++i) {
        registrars.push_back(std::async(std::launch::async, [&] {
            void* handle = nullptr;
            EXPECT_OK(busMaster->RegisterCallback(&SlowCalls::Run, ARRIVAL, &others, &handle));
            ++passed;
        }));
    }
    ASSERT_TRUE(WaitForRegistrars(Pairs));
    for (unsigned int i = 1; i <= Pairs; ++i) {
        EXPECT_EQ(i, slow.Begun());
        slow.LetEnd(1);
        ASSERT_TRUE(slow.WaitUntilBegun(i + 1)) << "the calls starve";
        EXPECT_TRUE(Eventually([&] { return passed == i; })) << "the registrars starve";
        EXPECT_EQ(Pairs - i, Inside().m_callbackTurns.CountWaitingRegistrars());
    }
    for (std::future<void>& registrar : registrars) {
        registrar.get();
    }
}

// Once the callback has ended they need nothing but the end of the running cycle: no further callback comes between.
TEST_F(Registrars, KeepTheirTurnWhileTheyWaitForACycle) {
    RunOneAndQueue(1);
    std::future<Error> registered = RegisterElsewhere();
    {
        const Lock cycle(Inside().m_busMasterMutex);
        slow.LetEnd(1);
        ASSERT_TRUE(WaitForRegistrars(0));
        EXPECT_TRUE(Eventually([&] { return !Lock(Inside().m_callbackMutex, boost::try_to_lock).owns_lock(); }));
        EXPECT_EQ(1U, slow.Begun());
        EXPECT_EQ(1U, Inside().m_callbackTurns.CountQueuedCalls());
    }
    ExpectPasses(registered);
    EXPECT_TRUE(slow.WaitUntilBegun(2));
}

// The mutex alone would often let the worker have it again before a registrar that waits for it has woken up.
TEST_F(Registrars, AreLetPastByTheWorkerBeforeItsNextCycle) {
    GetDeadlines().registrarsPass = boost::posix_time::hours(1);
    const auto running = hal.Block("HAL_GigEGetCameras");
    const auto next = hal.Block("HAL_GigEGetCameras", 2);
    RaiseReset();  // of an idle worker: two cycles
    ASSERT_TRUE(running->WaitUntilReached());
    CountRegistrar(&Members::m_registrarsCome);  // one that is slow to wake up
    std::future<Error> registered = RegisterDuringACycle();
    running->Open();
    ExpectPasses(registered);
    ASSERT_TRUE(Eventually([&] { return Inside().m_pendingBusResets == 0; }));
    ASSERT_TRUE(Eventually([&] { return MainLockIsFree(); }));
    for (int i = 0; i < 1000; ++i) {
        ASSERT_TRUE(MainLockIsFree()) << "the next cycle has begun";
        std::this_thread::yield();
    }
    CountRegistrar(&Members::m_registrarsPassed);
    EXPECT_TRUE(next->WaitUntilReached());
    next->Open();
}

TEST_F(Registrars, GoBeforeTheCallsThatTheRunningCycleSignals) {
    Register(BUS_RESET, slow);
    const auto running = hal.Block("HAL_GigEGetCameras");
    RaiseReset();
    ASSERT_TRUE(running->WaitUntilReached());
    std::future<Error> registered = RegisterDuringACycle();
    running->Open();
    ExpectPasses(registered);
    EXPECT_EQ(0U, slow.Ended());
    EXPECT_TRUE(slow.WaitUntilBegun(1));
}

TEST_F(Registrars, DoNotHoldUpTheWorkerWhenTheyAreHeldUpThemselves) {
    GetDeadlines().registrarsPass = milliseconds(20);
    const auto running = hal.Block("HAL_GigEGetCameras");
    const auto next = hal.Block("HAL_GigEGetCameras", 2);
    RaiseReset();
    ASSERT_TRUE(running->WaitUntilReached());
    CountRegistrar(&Members::m_registrarsCome);  // one that never comes to its lock
    running->Open();
    EXPECT_TRUE(next->WaitUntilReached());
    next->Open();
}

TEST_F(Registrars, GetThroughAStormOfResets) {
    Register(BUS_RESET, slow);
    slow.LetEnd(1000000);
    std::atomic<bool> stop{false};
    std::thread storm([&] {
        while (!stop) {
            hal.Raise(HAL_BUS_RESET, HAL_INTERFACE_USB);
            std::this_thread::yield();
        }
    });
    for (int i = 0; i < 20; ++i) {
        void* handle = nullptr;
        std::future<Error> registered = std::async(std::launch::async, [&] {
            return busMaster->RegisterCallback(&SlowCalls::Run, ARRIVAL, &others, &handle);
        });
        ExpectPasses(registered);
        EXPECT_OK(busMaster->UnregisterCallback(handle));
    }
    stop = true;
    storm.join();
    EXPECT_TRUE(WaitUntilIdle());
}

TEST_F(Registrars, EndTheQueuedCallsOfTheHandleTheyTakeBack) {
    void* const handle = Register(BUS_RESET, slow);
    Register(ARRIVAL, others);
    Signal(Inside().m_busResetCallbacks, 26);
    Signal(Inside().m_arrivalCallbacks, 3);
    Signal(Inside().m_busResetCallbacks, 25);
    ASSERT_TRUE(slow.WaitUntilBegun(1));
    std::future<Error> unregistered = UnregisterElsewhere(handle);
    slow.LetEnd(1);
    ExpectPasses(unregistered);
    ASSERT_TRUE(others.WaitUntilBegun(1));
    // That one never ends by itself, and yet the 50 calls that were queued behind and before it are over.
    EXPECT_TRUE(Eventually([&] { return CallbackThreads() == 3; }));
    EXPECT_EQ(1U, slow.Begun());
    EXPECT_EQ(1U, others.Begun());
}

TEST_F(Registrars, LeaveTheQueuedCallsOfOtherHandlesAlone) {
    Register(BUS_RESET, slow);
    void* const other = Register(BUS_RESET, others);
    Signal(Inside().m_busResetCallbacks, 5);
    ASSERT_TRUE(slow.WaitUntilBegun(1));
    std::future<Error> unregistered = UnregisterElsewhere(other);
    slow.LetEnd(5);
    ExpectPasses(unregistered);
    EXPECT_TRUE(WaitUntilIdle());
    EXPECT_EQ(5U, slow.Ended());
    EXPECT_EQ(0U, others.Begun());
}

TEST_F(Registrars, AreNotWaitedForByTheWorker) {
    RunOneAndQueue(0);
    std::future<Error> registered = RegisterElsewhere();
    const std::size_t listings = Listings();
    RaiseReset();
    EXPECT_TRUE(Eventually([&] { return Listings() > listings; }));
    slow.LetEnd(Many);
    ExpectPasses(registered);
}

// ---- The destructor ------------------------------------------------------------------------------------------------

TEST_F(Registrars, TheDestructorWaitsForTheOneCallThatRunsHoweverManyAreQueued) {
    RunOneAndQueue(50);
    GetDeadlines().lockAtDestruction = boost::posix_time::seconds(20);
    const boost::shared_ptr<Members> share = members.lock();
    std::thread destroyer = DestroyElsewhere();
    ASSERT_TRUE(Eventually([&] { return share->m_callbackTurns.CountWaitingRegistrars() == 1; }));
    slow.LetEnd(1);
    destroyer.join();
    EXPECT_EQ(1U, slow.Begun());
    EXPECT_EQ(0U, traces.Count("Leaving the callbacks to a thread that still runs one."));
}

TEST_F(Registrars, TheDestructorEndsQueuedCallsBehindOneThatNeverEnds) {
    RunOneAndQueue(50);
    GetDeadlines().lockAtDestruction = milliseconds(20);
    const boost::shared_ptr<Members> share = members.lock();
    Destroy();
    EXPECT_EQ(1U, traces.Count("Leaving the callbacks to a thread that still runs one."));
    EXPECT_TRUE(Eventually([&] {
        const Lock lock(share->m_quietMutex);
        return share->m_callbacksLeft == 1;
    }));
    EXPECT_EQ(1U, slow.Begun());
}

}  // namespace
}  // namespace Nimbrel2::Testing
