// SPDX-License-Identifier: Apache-2.0
// Threads of the platform, and what the kernel says of them. The test's thread and those it starts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <csignal>
#include <stdexcept>

#include "platform/base/StartThread.h"
#include "tests/support/Gate.h"
#include "tests/support/ProcessThreads.h"

namespace Nimbrel2::Platform {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(PlatformThread, HasItsNameAndTakesNoSignalButThoseOfFaults) {
    Testing::Gate gate;
    std::vector<Testing::ProcessThread> threads;
    std::thread thread = StartThread("the-name", [&] {
        threads = Testing::ListThreads("the-name");
        gate.Pass();
    });
    ASSERT_TRUE(gate.WaitUntilReached());
    EXPECT_THAT(Testing::NamesOf(threads), ElementsAre("the-name"));
    EXPECT_THAT(Testing::WrongMasks(threads), IsEmpty());
    gate.Open();
    thread.join();
}

TEST(PlatformThread, LeavesTheSignalsOfWhoStartsItAsTheyWere) {
    sigset_t usr1;
    sigemptyset(&usr1);
    sigaddset(&usr1, SIGUSR1);
    sigset_t before;
    pthread_sigmask(SIG_BLOCK, &usr1, &before);
    StartThread("any", [] {}).join();
    sigset_t after;
    pthread_sigmask(SIG_SETMASK, &before, &after);
    for (int number = 1; number <= SIGRTMAX; ++number) {
        EXPECT_EQ(number == SIGUSR1 || sigismember(&before, number) == 1, sigismember(&after, number) == 1) << number;
    }
}

TEST(PlatformThread, EndsWithoutTheProcessWhenItsBodyThrows) {
    StartThread("any", [] { throw std::runtime_error("nobody takes this"); }).join();
}

}  // namespace
}  // namespace Nimbrel2::Platform
