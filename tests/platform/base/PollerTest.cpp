// SPDX-License-Identifier: Apache-2.0
// What a monitor thread waits on.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <array>
#include <thread>
#include <vector>

#include "platform/base/Poller.h"

namespace Nimbrel2::Platform {
namespace {

using namespace std::chrono_literals;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::UnorderedElementsAre;

class PollerTest : public ::testing::Test {
protected:
    PollerTest() {
        EXPECT_EQ(m_poller.Open(), 0);
        std::array<int, 2> ends{};
        EXPECT_EQ(socketpair(AF_UNIX, SOCK_DGRAM | SOCK_NONBLOCK, 0, ends.data()), 0);
        m_near = FileDescriptor(ends[0]);
        m_far = FileDescriptor(ends[1]);
    }

    std::vector<std::uint64_t> Wait(TimePoint deadline) {
        std::vector<std::uint64_t> tokens;
        m_poller.Wait(deadline, &tokens);
        return tokens;
    }
    void Send() { ASSERT_EQ(send(m_far.Get(), "x", 1, 0), 1); }

    Poller m_poller;
    FileDescriptor m_near;
    FileDescriptor m_far;
};

TEST_F(PollerTest, NamesWhatCanBeReadUntilItHasBeen) {
    ASSERT_EQ(m_poller.Add(m_near.Get(), 7), 0);
    Send();
    EXPECT_THAT(Wait(TimePoint::max()), ElementsAre(7));
    EXPECT_THAT(Wait(TimePoint::max()), ElementsAre(7)) << "it has not been read";
    char byte = 0;
    ASSERT_EQ(recv(m_near.Get(), &byte, 1, 0), 1);
    EXPECT_THAT(Wait(Clock::now()), IsEmpty());
}

TEST_F(PollerTest, NamesEverythingThatCanBeRead) {
    const FileDescriptor other(eventfd(1, EFD_NONBLOCK));
    ASSERT_EQ(m_poller.Add(m_near.Get(), 7), 0);
    ASSERT_EQ(m_poller.Add(other.Get(), 8), 0);
    Send();
    EXPECT_THAT(Wait(TimePoint::max()), UnorderedElementsAre(7, 8));
}

TEST_F(PollerTest, EndsAtItsDeadlineAndNotBefore) {
    const TimePoint deadline = Clock::now() + 30ms;
    EXPECT_THAT(Wait(deadline), IsEmpty());
    EXPECT_GE(Clock::now(), deadline);
    EXPECT_THAT(Wait(TimePoint()), IsEmpty()) << "one that is past";
}

TEST_F(PollerTest, LosesNoWakeUpThatComesBeforeTheWait) {
    m_poller.Wake();
    m_poller.Wake();
    EXPECT_THAT(Wait(TimePoint::max()), IsEmpty());
    EXPECT_THAT(Wait(Clock::now()), IsEmpty()) << "two of them are one";
}

TEST_F(PollerTest, IsWokenByAnotherThread) {
    for (int i = 0; i < 1000; ++i) {
        std::thread other([this] { m_poller.Wake(); });
        EXPECT_THAT(Wait(TimePoint::max()), IsEmpty());
        other.join();
    }
}

TEST_F(PollerTest, ForgetsWhatIsRemoved) {
    ASSERT_EQ(m_poller.Add(m_near.Get(), 7), 0);
    Send();
    m_poller.Remove(m_near.Get());
    EXPECT_THAT(Wait(Clock::now()), IsEmpty());
    EXPECT_EQ(m_poller.Add(m_near.Get(), 9), 0) << "and takes it again";
    EXPECT_THAT(Wait(TimePoint::max()), ElementsAre(9));
}

TEST_F(PollerTest, SaysWhatIsNoDescriptor) { EXPECT_EQ(m_poller.Add(-1, 7), EBADF); }

}  // namespace
}  // namespace Nimbrel2::Platform
