// SPDX-License-Identifier: Apache-2.0
// Order, coalescing, settling and bounds of waiting events, at times that the tests make up.
#include <gtest/gtest.h>

#include <chrono>
#include <ostream>
#include <vector>

#include "platform/hal/EventQueue.h"

namespace Nimbrel2::Platform {

std::ostream& operator<<(std::ostream& out, const BusEvent& event) {
    return out << "event " << event.event << " of " << event.first << ", " << event.second;
}

namespace {

using namespace std::chrono_literals;
using Kind = EventQueue::Step::Kind;

constexpr BusEvent TestReset{HAL_BUS_RESET, 0, 0};

EventQueue::TimePoint At(std::chrono::microseconds sinceStart) { return EventQueue::TimePoint(1h) + sinceStart; }

/// All that can be taken at that time.
std::vector<BusEvent> TakeAll(EventQueue& queue, EventQueue::TimePoint now) {
    std::vector<BusEvent> taken;
    for (EventQueue::Step step = queue.Take(now); step.kind == Kind::Deliver; step = queue.Take(now)) {
        taken.push_back(step.event);
    }
    return taken;
}

TEST(EventQueue, IsIdleWhenNothingWaits) {
    EventQueue queue;
    EXPECT_EQ(queue.Take(At(0ms)).kind, Kind::Idle);
}

TEST(EventQueue, DeliversEventsInOrderAtOnce) {
    EventQueue queue;
    const BusEvent arrival{HAL_BUS_ARRIVAL, 1, 2};
    const BusEvent removal{HAL_BUS_REMOVAL, 1, 2};
    const BusEvent error{HAL_BUS_ERROR, 0, 0};
    queue.Add(arrival, At(0ms));
    queue.Add(removal, At(0ms));
    queue.Add(error, At(0ms));
    queue.Add(arrival, At(0ms));
    EXPECT_EQ(TakeAll(queue, At(0ms)), (std::vector<BusEvent>{arrival, removal, error, arrival}));
    EXPECT_EQ(queue.Take(At(0ms)).kind, Kind::Idle);
}

TEST(EventQueue, DeliversAResetOnceTheBusHasBeenQuietForTenMilliseconds) {
    EventQueue queue;
    queue.Add(TestReset, At(0ms));
    const EventQueue::Step early = queue.Take(At(9999us));
    EXPECT_EQ(early.kind, Kind::Settle);
    EXPECT_EQ(early.until, At(10ms));
    const EventQueue::Step ripe = queue.Take(At(10ms));
    EXPECT_EQ(ripe.kind, Kind::Deliver);
    EXPECT_EQ(ripe.event, TestReset);
    EXPECT_EQ(queue.Take(At(10ms)).kind, Kind::Idle);
}

TEST(EventQueue, EachResetOfABurstStartsTheQuietTimeAnew) {
    EventQueue queue;
    queue.Add(TestReset, At(0ms));
    queue.Add(TestReset, At(9ms));
    queue.Add(TestReset, At(18ms));
    EXPECT_EQ(queue.Take(At(27ms)).until, At(28ms));
    EXPECT_EQ(TakeAll(queue, At(28ms)), std::vector<BusEvent>{TestReset});
}

TEST(EventQueue, DeliversTheResetOfAnEndlessBurstAfterAHundredMilliseconds) {
    EventQueue queue;
    for (int ms = 0; ms <= 99; ++ms) {
        queue.Add(TestReset, At(std::chrono::milliseconds(ms)));
        EXPECT_EQ(queue.Take(At(std::chrono::milliseconds(ms))).kind, Kind::Settle) << ms;
    }
    EXPECT_EQ(queue.Take(At(99ms)).until, At(100ms));
    EXPECT_EQ(TakeAll(queue, At(100ms)), std::vector<BusEvent>{TestReset});
}

TEST(EventQueue, AResetAfterADeliveredOneBeginsABurstOfItsOwn) {
    EventQueue queue;
    for (int ms = 0; ms <= 100; ++ms) {
        queue.Add(TestReset, At(std::chrono::milliseconds(ms)));
    }
    ASSERT_EQ(TakeAll(queue, At(100ms)), std::vector<BusEvent>{TestReset});
    queue.Add(TestReset, At(101ms));
    EXPECT_EQ(queue.Take(At(105ms)).until, At(111ms));
}

TEST(EventQueue, AResetThatTwoThreadsTimedInTheOtherOrderDoesNotShortenTheQuiet) {
    EventQueue queue;
    queue.Add(TestReset, At(5ms));
    queue.Add(TestReset, At(4ms));
    EXPECT_EQ(queue.Take(At(5ms)).until, At(15ms));
}

TEST(EventQueue, DeliversAResetWhoseBurstIsOverAtOnce) {
    EventQueue queue;
    queue.Add(TestReset, At(0ms), true);
    EXPECT_EQ(TakeAll(queue, At(0ms)), std::vector<BusEvent>{TestReset});
    queue.Add(TestReset, At(1ms));
    queue.Add(TestReset, At(2ms), true);
    EXPECT_EQ(TakeAll(queue, At(2ms)), std::vector<BusEvent>{TestReset});
    queue.Add(TestReset, At(3ms));
    EXPECT_EQ(queue.Take(At(3ms)).kind, Kind::Settle);
}

TEST(EventQueue, SettlesAgainWhenAnotherBurstBeginsBeforeAResetHasLeft) {
    EventQueue queue;
    queue.Add(TestReset, At(0ms), true);
    queue.Add(TestReset, At(5ms));
    EXPECT_EQ(queue.Take(At(5ms)).until, At(15ms));
}

TEST(EventQueue, AResetGoesAheadOfOlderEventsAndHoldsThemBackWhileItSettles) {
    EventQueue queue;
    const BusEvent arrival{HAL_BUS_ARRIVAL, 0, 0};
    const BusEvent removal{HAL_BUS_REMOVAL, 0, 0};
    queue.Add(arrival, At(0ms));
    queue.Add(TestReset, At(1ms));
    queue.Add(removal, At(2ms));
    EXPECT_EQ(queue.Take(At(3ms)).kind, Kind::Settle);
    EXPECT_EQ(TakeAll(queue, At(11ms)), (std::vector<BusEvent>{TestReset, arrival, removal}));
}

TEST(EventQueue, EventsDoNotDisturbTheQuietOfAReset) {
    EventQueue queue;
    queue.Add(TestReset, At(0ms));
    queue.Add({HAL_BUS_ARRIVAL, 0, 0}, At(9ms));
    EXPECT_EQ(queue.Take(At(9ms)).until, At(10ms));
}

TEST(EventQueue, KeepsOrderWhileTheRingComesRoundManyTimes) {
    EventQueue queue;
    std::uint32_t added = 0;
    std::uint32_t taken = 0;
    for (int round = 0; round < 50; ++round) {
        for (int i = 0; i < 700; ++i) {
            queue.Add({HAL_BUS_ARRIVAL, added++, 0}, At(0ms));
        }
        for (const BusEvent& event : TakeAll(queue, At(0ms))) {
            EXPECT_EQ(event.first, taken++);
        }
    }
    EXPECT_EQ(taken, added);
}

class FullEventQueue : public ::testing::Test {
protected:
    void SetUp() override {
        for (std::uint32_t i = 0; i < EventQueue::Capacity; ++i) {
            m_expected.push_back({HAL_BUS_ARRIVAL, i, ~i});
            m_queue.Add(m_expected.back(), At(0ms));
        }
    }
    EventQueue m_queue;
    std::vector<BusEvent> m_expected;
};

TEST_F(FullEventQueue, HoldsItsWholeCapacity) { EXPECT_EQ(TakeAll(m_queue, At(0ms)), m_expected); }

TEST_F(FullEventQueue, MergesAnEventIntoAnEqualOneThatWaits) {
    m_queue.Add(m_expected.front(), At(0ms));
    m_queue.Add(m_expected.back(), At(0ms));
    EXPECT_EQ(TakeAll(m_queue, At(0ms)), m_expected);
}

TEST_F(FullEventQueue, TurnsAnEventThatHasNoRoomIntoAReset) {
    m_queue.Add({HAL_BUS_REMOVAL, 0, ~0u}, At(0ms));
    m_expected.insert(m_expected.begin(), TestReset);
    EXPECT_EQ(TakeAll(m_queue, At(10ms)), m_expected);
}

TEST_F(FullEventQueue, LosesNoReset) {
    m_queue.Add(TestReset, At(0ms));
    m_expected.insert(m_expected.begin(), TestReset);
    EXPECT_EQ(TakeAll(m_queue, At(10ms)), m_expected);
}

TEST_F(FullEventQueue, TakesEventsAgainOnceOneHasLeft) {
    ASSERT_EQ(m_queue.Take(At(0ms)).event, m_expected.front());
    const BusEvent late{HAL_BUS_REMOVAL, 5, 5};
    m_queue.Add(late, At(0ms));
    m_expected.erase(m_expected.begin());
    m_expected.push_back(late);
    EXPECT_EQ(TakeAll(m_queue, At(0ms)), m_expected);
}

}  // namespace
}  // namespace Nimbrel2::Platform
