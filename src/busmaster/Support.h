// SPDX-License-Identifier: Apache-2.0
// What the sources of the bus master share: located errors, quiet traces, deadlines, thread starts. Internal.
#ifndef NIMBREL2_BUSMASTER_SUPPORT_H
#define NIMBREL2_BUSMASTER_SUPPORT_H

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <boost/function.hpp>
#include <boost/thread/mutex.hpp>
#include <boost/thread/thread.hpp>
#include <new>

#include "common/InternalError.h"

/// A located error of the bus master: NIMBREL2_ERROR(type, [cause,] format, ...). The file is the same for all of them,
/// whichever source raises it.
#define NIMBREL2_ERROR(...) \
    ::Nimbrel2::Error(::Nimbrel2::InternalError(__LINE__, "BusMaster.cpp", __DATE__, __TIME__, __VA_ARGS__))

namespace Nimbrel2 {

/// Composes a text of at most 511 characters and traces it. Never fails: a trace changes no result.
void TraceLine(const char* format, ...) noexcept __attribute__((format(printf, 1, 2)));

/// Runs a public operation so that no exception leaves it.
template <class Operation>
Error WithoutExceptions(Operation operation) noexcept {
    try {
        return operation();
    } catch (const std::bad_alloc&) {
        return InternalError(ERROR_MEMORY_ALLOCATION_FAILED);
    } catch (...) {
        return InternalError(ERROR_LOW_LEVEL_FAILURE);
    }
}

/// Every bound on waiting, in one place. Tests shorten them before they start anything.
struct Deadlines {
    boost::posix_time::time_duration startConfirmation = boost::posix_time::seconds(40);
    boost::posix_time::time_duration joinAttempt = boost::posix_time::seconds(1);
    int joinAttempts = 5;
    boost::posix_time::time_duration rescan = boost::posix_time::seconds(1);
    boost::posix_time::time_duration lockAtDestruction = boost::posix_time::seconds(1);
    /// The worker's pause before an outstanding cycle, so that look-ups get in during a reset storm.
    boost::posix_time::time_duration stormPause = boost::posix_time::microseconds(200);
    /// How long a cycle waits at most for registrars to get in before it. They need microseconds, once they run.
    boost::posix_time::time_duration registrarsPass = boost::posix_time::seconds(1);
};
Deadlines& GetDeadlines() noexcept;

/// Now plus a duration, on the UTC microsecond clock that all deadlines are on.
boost::posix_time::ptime DeadlineIn(const boost::posix_time::time_duration& duration);

/// Starts every thread of the bus master: named, and with the application's signals blocked. What the body throws is
/// traced and dropped.
/// @param name  A literal of at most 15 characters, for debuggers.
/// @throws boost::thread_resource_error when the system has no thread left; std::bad_alloc.
boost::thread StartThread(const char* name, boost::function<void()> body);

/// Called before each thread is made; may throw in its place. Null: nothing. For tests.
using ThreadStartHook = void (*)();
ThreadStartHook SetThreadStartHook(ThreadStartHook hook) noexcept;

/// For the length of an operation that waits with Boost's means on a thread of the application: was that thread told to
/// interrupt itself (boost::thread::interrupt), its own next wait does so, and not this one.
using UninterruptedWaits = boost::this_thread::disable_interruption;

/// Tries a mutex until the deadline. Plain mutexes have no timed lock; the destructor, which alone needs one, can wait
/// in small steps.
bool TryLockUntil(boost::unique_lock<boost::mutex>& lock, const boost::posix_time::ptime& deadline);

inline void UnlockIfHeld(boost::unique_lock<boost::mutex>& lock) {
    if (lock.owns_lock()) {
        lock.unlock();
    }
}

}  // namespace Nimbrel2

#endif
