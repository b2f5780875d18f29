// SPDX-License-Identifier: Apache-2.0
// What the sources of the bus master share: errors, traces, thread starts, bounded locking.
#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

#include "busmaster/Support.h"
#include "tests/support/AllocationFailure.h"
#include "tests/support/CoreAccess.h"
#include "tests/support/TraceRecorder.h"

namespace Nimbrel2 {
namespace {

TEST(LocatedError, NamesTheBusMasterWhicheverSourceRaisesIt) {
    const Error error = NIMBREL2_ERROR(ERROR_NOT_FOUND, "number %u", 7U);
    EXPECT_STREQ("number 7", error.GetMessage());
    EXPECT_STREQ("BusMaster.cpp", error.GetFile());
    EXPECT_EQ(__LINE__ - 3, error.GetLine());
    EXPECT_STREQ(__DATE__, error.GetBuildDate());
    EXPECT_STREQ(__TIME__, error.GetBuildTime());
}

TEST(LocatedError, TakesACause) {
    const Error cause = InternalError(ERROR_FAILED);
    const Error error = NIMBREL2_ERROR(ERROR_GUID_GENERATION_FAILED, InternalError(cause), "%s", "message");
    ASSERT_NE(nullptr, error.GetCause());
    EXPECT_EQ(ERROR_FAILED, error.GetCause()->GetType());
}

TEST(TraceLine, FormatsAndCutsAt511Characters) {
    const Testing::TraceRecorder traces;
    TraceLine("%d and %s", 1, "two");
    TraceLine("%s", std::string(600, 'x').c_str());
    EXPECT_EQ((std::vector<std::string>{"1 and two", std::string(511, 'x')}), traces.Lines());
}

TEST(TraceLine, DropsTheTextWhenThereIsNoMemoryForIt) {
    const Testing::TraceRecorder traces;
    {
        const Testing::AllocationFailure failure(1);
        TraceLine("%s", "a text that is longer than what a string keeps inside itself");
        ASSERT_TRUE(failure.Happened());
    }
    EXPECT_TRUE(traces.Lines().empty());
}

TEST(WithoutExceptions, PassesResultsOnAndTurnsExceptionsIntoBareErrors) {
    EXPECT_TRUE(WithoutExceptions([]() -> Error { return InternalError(ERROR_OK); }) == ERROR_OK);
    EXPECT_TRUE(WithoutExceptions([]() -> Error { return InternalError(ERROR_TIMEOUT); }) == ERROR_TIMEOUT);
    const Error memory = WithoutExceptions([]() -> Error { throw std::bad_alloc(); });
    EXPECT_TRUE(memory == ERROR_MEMORY_ALLOCATION_FAILED);
    EXPECT_STREQ("", memory.GetMessage());
    EXPECT_TRUE(WithoutExceptions([]() -> Error { throw std::runtime_error("other"); }) == ERROR_LOW_LEVEL_FAILURE);
    EXPECT_TRUE(WithoutExceptions([]() -> Error { throw 42; }) == ERROR_LOW_LEVEL_FAILURE);
}

TEST(StartThread, TracesAndDropsWhatTheBodyThrows) {
    const Testing::TraceRecorder traces;
    StartThread("test", [] { throw std::runtime_error("lost"); }).join();
    StartThread("test", [] { throw 42; }).join();
    EXPECT_EQ(2U, traces.Count("An exception ended a thread of the bus master."));
}

TEST(StartThread, LetsGoOfWhatTheBodyHoldsWhenTheThreadEnds) {
    const auto held = std::make_shared<int>(1);
    boost::thread thread = StartThread("test", [held] {});
    boost::thread waiter = StartThread("test", [] {});
    waiter.join();
    thread.join();
    EXPECT_EQ(1, held.use_count());
}

TEST(StartThread, LeaksNothingWhenItFails) {
    const auto held = std::make_shared<int>(1);
    for (std::uint64_t nth = 1;; ++nth) {
        bool started = false;
        {
            const Testing::AllocationFailure failure(nth);
            try {
                StartThread("test", [held] {}).join();
                started = true;
            } catch (const std::bad_alloc&) {
            }
            if (!failure.Happened()) {
                EXPECT_TRUE(started);
                break;
            }
        }
        EXPECT_EQ(1, held.use_count()) << "allocation " << nth;
    }
}

TEST(Deadlines, AreThoseOfTheProductUnlessATestShortensThem) {
    const Deadlines deadlines;
    EXPECT_EQ(boost::posix_time::seconds(40), deadlines.startConfirmation);
    EXPECT_EQ(boost::posix_time::seconds(1), deadlines.joinAttempt);
    EXPECT_EQ(5, deadlines.joinAttempts);
    EXPECT_EQ(boost::posix_time::seconds(1), deadlines.rescan);
    EXPECT_EQ(boost::posix_time::seconds(1), deadlines.lockAtDestruction);
    EXPECT_EQ(boost::posix_time::microseconds(200), deadlines.stormPause);
    EXPECT_EQ(boost::posix_time::seconds(1), deadlines.registrarsPass);
    EXPECT_EQ(&GetDeadlines(), &GetDeadlines());
}

TEST(DeadlineIn, IsOnTheUtcClock) {
    const boost::posix_time::ptime before = boost::posix_time::microsec_clock::universal_time();
    const boost::posix_time::ptime deadline = DeadlineIn(boost::posix_time::seconds(40));
    const boost::posix_time::ptime after = boost::posix_time::microsec_clock::universal_time();
    EXPECT_GE(deadline, before + boost::posix_time::seconds(40));
    EXPECT_LE(deadline, after + boost::posix_time::seconds(40));
}

TEST(TryLockUntil, TakesAFreeMutexAtOnceAndGivesUpOnAHeldOne) {
    boost::mutex mutex;
    boost::unique_lock<boost::mutex> lock(mutex, boost::defer_lock);
    EXPECT_TRUE(TryLockUntil(lock, DeadlineIn(boost::posix_time::seconds(-1))));
    EXPECT_TRUE(lock.owns_lock());
    boost::unique_lock<boost::mutex> second(mutex, boost::defer_lock);
    EXPECT_FALSE(TryLockUntil(second, DeadlineIn(boost::posix_time::milliseconds(5))));
    EXPECT_FALSE(second.owns_lock());
}

TEST(TryLockUntil, TakesAMutexThatIsReleasedMeanwhile) {
    boost::mutex mutex;
    boost::unique_lock<boost::mutex> held(mutex);
    bool taken = false;
    std::thread waiter([&] {
        boost::unique_lock<boost::mutex> lock(mutex, boost::defer_lock);
        taken = TryLockUntil(lock, DeadlineIn(boost::posix_time::seconds(20)));
    });
    held.unlock();
    waiter.join();
    EXPECT_TRUE(taken);
}

}  // namespace
}  // namespace Nimbrel2
