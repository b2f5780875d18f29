// SPDX-License-Identifier: Apache-2.0
// When interfaces are searched, and which answers belong to a search; and how much is taken from one sender.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>

#include "platform/linux/gige/BroadcastSchedule.h"
#include "platform/linux/gige/UnverifiedBudget.h"

namespace Nimbrel2::Platform::GigE {
namespace {

using namespace std::chrono_literals;
using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr int TestFirst = 2;
constexpr int Second = 3;

class BroadcastScheduleTest : public ::testing::Test {
protected:
    const Timings m_timings{};
    RequestIds m_ids{Random(1)};
    TimePoint m_now = TimePoint() + 1h;
    std::optional<BroadcastSchedule> m_schedule{std::in_place, m_timings, m_ids};
};

TEST_F(BroadcastScheduleTest, BeginsWithAWindowFullOfRequestsOfOneId) {
    m_schedule->Follow({TestFirst}, m_now);
    const TimePoint end = m_now + m_timings.discoveryWindow;
    std::set<std::uint16_t> ids;
    int requests = 0;
    while (m_schedule->GetNextDeadline() < end) {
        m_now = m_schedule->GetNextDeadline();
        for (const auto& broadcast : m_schedule->TakeDue(m_now)) {
            ids.insert(broadcast.id), ++requests;
        }
    }
    EXPECT_EQ(requests, m_timings.windowRequests);
    EXPECT_THAT(ids, SizeIs(1));
    EXPECT_EQ(ids.count(0), 0u);
}

TEST_F(BroadcastScheduleTest, GoesOnAtItsPeriodWithAnIdEach) {
    m_schedule->Follow({TestFirst}, m_now);
    for (int i = 0; i < m_timings.windowRequests; ++i) {
        m_now = m_schedule->GetNextDeadline();
        m_schedule->TakeDue(m_now);
    }
    std::set<std::uint16_t> ids;
    for (int i = 0; i < 10; ++i) {
        EXPECT_EQ(m_schedule->GetNextDeadline() - m_now, m_timings.broadcastPeriod);
        EXPECT_THAT(m_schedule->TakeDue(m_now + m_timings.broadcastPeriod - 1ms), IsEmpty());
        m_now += m_timings.broadcastPeriod;
        for (const auto& broadcast : m_schedule->TakeDue(m_now)) {
            ids.insert(broadcast.id);
        }
    }
    EXPECT_THAT(ids, SizeIs(10));
}

TEST_F(BroadcastScheduleTest, AcceptsAnswersOfItsInterfaceForAWhile) {
    m_schedule->Follow({TestFirst, Second}, m_now);
    const auto sent = m_schedule->TakeDue(m_now);
    ASSERT_THAT(sent, SizeIs(2));
    EXPECT_TRUE(m_schedule->Accepts(TestFirst, sent[0].id, m_now));
    EXPECT_FALSE(m_schedule->Accepts(Second, sent[0].id, m_now)) << "of another wire";
    EXPECT_FALSE(m_schedule->Accepts(TestFirst, static_cast<std::uint16_t>(sent[0].id + 1), m_now));
    EXPECT_FALSE(m_schedule->Accepts(TestFirst, 0, m_now));
    EXPECT_FALSE(m_schedule->Accepts(TestFirst, sent[0].id, m_now + m_timings.broadcastAnswer)) << "too late";
}

TEST_F(BroadcastScheduleTest, SearchesAnewWhatComesBackAndLeavesTheOthersAlone) {
    m_schedule->Follow({TestFirst, Second}, m_now);
    for (int i = 0; i < m_timings.windowRequests; ++i) {
        m_schedule->TakeDue(m_schedule->GetNextDeadline());
    }
    m_now += 900ms;
    m_schedule->Follow({Second}, m_now);
    m_schedule->Follow({TestFirst, Second}, m_now);
    const auto due = m_schedule->TakeDue(m_now);
    ASSERT_THAT(due, SizeIs(1));
    EXPECT_EQ(due[0].interface, TestFirst);
    m_schedule->StartBursts(m_now);
    EXPECT_THAT(m_schedule->TakeDue(m_now), SizeIs(2));
}

TEST_F(BroadcastScheduleTest, GivesBackItsIds) {
    m_schedule->Follow({TestFirst}, m_now);
    for (int i = 0; i < 1000; ++i) {
        m_schedule->TakeDue(m_now += m_timings.broadcastPeriod);
    }
    m_schedule.reset();
    for (int i = 0; i < 65535; ++i) {
        ASSERT_NE(m_ids.Take(), 0);
    }
}

TEST(RequestIds, CannotBeForeseen) {
    RequestIds ids{Random(1)};
    int neighbours = 0;
    std::uint16_t last = ids.Take();
    for (int i = 0; i < 1000; ++i) {
        const std::uint16_t id = ids.Take();
        if (id == last + 1) {
            ++neighbours;
        }
        last = id;
    }
    EXPECT_LE(neighbours, 2);
}

// ---- The budget for unverified senders

TEST(UnverifiedBudget, TakesSomeHundredsFromEachSenderInASecond) {
    UnverifiedBudget budget;
    const TimePoint now = TimePoint() + 1h;
    for (std::uint32_t i = 0; i < UnverifiedBudget::PerPeriod; ++i) {
        ASSERT_TRUE(budget.Take(1, now));
    }
    EXPECT_FALSE(budget.Take(1, now));
    EXPECT_TRUE(budget.Take(2, now)) << "a flood takes nothing from others";
    EXPECT_FALSE(budget.Take(1, now + UnverifiedBudget::Period - 1ms));
    EXPECT_TRUE(budget.Take(1, now + UnverifiedBudget::Period));
}

TEST(UnverifiedBudget, TakesACamerasAnswersWhileTwentyThousandComeFromEverywhere) {
    UnverifiedBudget budget;
    Random random(3);
    const TimePoint now = TimePoint() + 1h;
    for (int i = 0; i < 20000; ++i) {
        budget.Take(static_cast<std::uint32_t>(random.Next()), now);
    }
    for (std::uint32_t camera = 0; camera < 128; ++camera) {
        EXPECT_TRUE(budget.Take(0xC0A84D02 + camera, now));
    }
}

}  // namespace
}  // namespace Nimbrel2::Platform::GigE
