// SPDX-License-Identifier: Apache-2.0
// Whose turn it is: calls in their order, registrars before them, one call after each registrar. What can be told
// without waiting runs on one thread; the rest waits on threads of its own.
#include <gtest/gtest.h>

#include <algorithm>
#include <future>
#include <memory>
#include <thread>
#include <vector>

#include "busmaster/CallbackTurns.h"
#include "tests/support/Gate.h"

namespace Nimbrel2 {
namespace {

using std::chrono::microseconds;

// Records in which order turns are had. Each waiter takes its turn, puts its name down and passes the turn on.
class CallbackTurnsTest : public ::testing::Test {
protected:
    ~CallbackTurnsTest() override {
        for (std::thread& thread : m_threads) {
            thread.join();
        }
    }

    void QueueCall(const std::string& name, const void* owner = nullptr) {
        m_places.push_back(std::make_unique<CallbackTurns::Place>());
        CallbackTurns::Place& place = *m_places.back();
        turns.QueueCall(place, owner != nullptr ? owner : &place);
        m_threads.emplace_back([this, name, &place] {
            if (turns.WaitForCall(place)) {
                Write(name);
                turns.PassOn();
            } else {
                Write(name + " withdrawn");
            }
        });
    }

    // Returns when it waits, so that registrars come in the order of the test.
    void QueueRegistrar(const std::string& name) {
        const std::size_t waiting = turns.CountWaitingRegistrars();
        m_threads.emplace_back([this, name] {
            turns.Take();
            Write(name);
            turns.PassOn();
        });
        const auto deadline = std::chrono::steady_clock::now() + Testing::TestDeadline;
        while (turns.CountWaitingRegistrars() == waiting && std::chrono::steady_clock::now() < deadline) {
            std::this_thread::yield();
        }
        EXPECT_EQ(waiting + 1, turns.CountWaitingRegistrars());
    }

    // The order, when that many have had their turn or were withdrawn.
    std::vector<std::string> Order(std::size_t count) {
        std::unique_lock<std::mutex> lock(m_mutex);
        m_changed.wait_for(lock, Testing::TestDeadline, [&] { return m_order.size() >= count; });
        return m_order;
    }

    CallbackTurns turns;

private:
    void Write(const std::string& name) {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_order.push_back(name);
        m_changed.notify_all();
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    std::vector<std::string> m_order;
    std::vector<std::unique_ptr<CallbackTurns::Place>> m_places;
    std::vector<std::thread> m_threads;
};

using Names = std::vector<std::string>;

TEST_F(CallbackTurnsTest, AreHadAtOnceWhenNobodyHasOne) {
    EXPECT_TRUE(turns.TryTake());
    turns.PassOn();
    turns.Take();
    turns.PassOn();
    EXPECT_TRUE(turns.TakeWithin(microseconds(0)));
    turns.PassOn();
    CallbackTurns::Place call;
    turns.QueueCall(call, this);
    EXPECT_TRUE(turns.WaitForCall(call));
    turns.PassOn();
    EXPECT_TRUE(turns.TryTake());
}

TEST_F(CallbackTurnsTest, AreRefusedToWhoOnlyTriesWhileSomebodyHasOne) {
    ASSERT_TRUE(turns.TryTake());
    EXPECT_FALSE(turns.TryTake());
    EXPECT_FALSE(turns.TakeWithin(microseconds(0)));
    EXPECT_EQ(0U, turns.CountWaitingRegistrars()) << "who gave up waits no longer";
    turns.PassOn();
    CallbackTurns::Place call;
    turns.QueueCall(call, this);
    EXPECT_FALSE(turns.TryTake()) << "the call has the turn before its thread runs";
    EXPECT_TRUE(turns.WaitForCall(call));
}

TEST_F(CallbackTurnsTest, GoToCallsInTheOrderInWhichTheyWereQueued) {
    ASSERT_TRUE(turns.TryTake());
    for (const char* name : {"1", "2", "3", "4", "5"}) {
        QueueCall(name);
    }
    turns.PassOn();
    EXPECT_EQ((Names{"1", "2", "3", "4", "5"}), Order(5));
}

TEST_F(CallbackTurnsTest, GoToARegistrarBeforeEveryQueuedCall) {
    CallbackTurns::Place running;
    turns.QueueCall(running, this);
    ASSERT_TRUE(turns.WaitForCall(running));
    for (const char* name : {"1", "2", "3"}) {
        QueueCall(name);
    }
    QueueRegistrar("R");
    turns.PassOn();
    EXPECT_EQ((Names{"R", "1", "2", "3"}), Order(4));
}

TEST_F(CallbackTurnsTest, AlternateBetweenRegistrarsAndCallsWhileBothWait) {
    CallbackTurns::Place running;
    turns.QueueCall(running, this);
    ASSERT_TRUE(turns.WaitForCall(running));
    for (const char* name : {"1", "2", "3", "4", "5"}) {
        QueueCall(name);
    }
    for (const char* name : {"R1", "R2", "R3"}) {
        QueueRegistrar(name);
    }
    turns.PassOn();
    EXPECT_EQ((Names{"R1", "1", "R2", "2", "R3", "3", "4", "5"}), Order(8));
}

TEST_F(CallbackTurnsTest, GoToACallAfterARegistrarThoughMoreRegistrarsWait) {
    turns.Take();
    QueueRegistrar("R1");
    QueueRegistrar("R2");
    QueueCall("1");
    turns.PassOn();
    EXPECT_EQ((Names{"1", "R1", "R2"}), Order(3));
}

TEST_F(CallbackTurnsTest, GoToOneRegistrarAfterTheOtherWhenNoCallWaits) {
    turns.Take();
    for (const char* name : {"R1", "R2", "R3"}) {
        QueueRegistrar(name);
    }
    turns.PassOn();
    EXPECT_EQ((Names{"R1", "R2", "R3"}), Order(3));
}

TEST_F(CallbackTurnsTest, AreNoLongerWaitedForByACallThatWasWithdrawn) {
    const int owner = 0;
    const int other = 0;
    ASSERT_TRUE(turns.TryTake());
    QueueCall("kept 1", &other);
    QueueCall("1", &owner);
    QueueCall("kept 2", &other);
    QueueCall("2", &owner);
    turns.Withdraw(&owner);
    EXPECT_EQ(2U, Order(2).size()) << "they end although the turn is somebody else's";
    EXPECT_EQ(2U, turns.CountQueuedCalls());
    turns.PassOn();
    Names order = Order(4);
    EXPECT_EQ((Names{"kept 1", "kept 2"}), Names(order.begin() + 2, order.end()));
    order.resize(2);
    std::sort(order.begin(), order.end());
    EXPECT_EQ((Names{"1 withdrawn", "2 withdrawn"}), order);
}

TEST_F(CallbackTurnsTest, AreNoLongerWaitedForByAnyCallWhenAllAreWithdrawn) {
    ASSERT_TRUE(turns.TryTake());
    for (const char* name : {"1", "2", "3"}) {
        QueueCall(name);
    }
    turns.WithdrawAll();
    EXPECT_EQ(3U, Order(3).size());
    EXPECT_EQ(0U, turns.CountQueuedCalls());
    EXPECT_FALSE(turns.TryTake());
    turns.PassOn();
    EXPECT_TRUE(turns.TryTake());
}

TEST_F(CallbackTurnsTest, AreKeptByACallThatIsWithdrawnTooLate) {
    CallbackTurns::Place call;
    turns.QueueCall(call, this);
    turns.Withdraw(this);
    turns.WithdrawAll();
    EXPECT_TRUE(turns.WaitForCall(call));
}

TEST_F(CallbackTurnsTest, ArePassedOnWhenTheThreadOfACallCannotBeMade) {
    CallbackTurns::Place granted;
    CallbackTurns::Place queued;
    turns.QueueCall(granted, this);
    turns.QueueCall(queued, this);
    QueueCall("1");
    turns.CancelCall(queued);
    turns.CancelCall(granted);
    EXPECT_EQ(Names{"1"}, Order(1));
    CallbackTurns::Place withdrawn;
    turns.Take();
    turns.QueueCall(withdrawn, this);
    turns.Withdraw(this);
    turns.CancelCall(withdrawn);
    turns.PassOn();
    EXPECT_TRUE(turns.TryTake());
}

TEST_F(CallbackTurnsTest, AreHadInTimeByWhoWaitsWithADeadline) {
    turns.Take();
    std::future<bool> taken =
        std::async(std::launch::async, [this] { return turns.TakeWithin(Testing::TestDeadline); });
    while (turns.CountWaitingRegistrars() == 0) {
        std::this_thread::yield();
    }
    turns.PassOn();
    EXPECT_TRUE(taken.get());
    EXPECT_FALSE(turns.TryTake());
}

}  // namespace
}  // namespace Nimbrel2
