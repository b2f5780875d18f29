// SPDX-License-Identifier: Apache-2.0
// The mutex, locks and condition variable of the platform. They are the C++ library's with annotations, which that
// library's own lack: what is declared to be guarded cannot be touched without its mutex, or clang refuses the file.
#ifndef NIMBREL2_PLATFORM_BASE_MUTEX_H
#define NIMBREL2_PLATFORM_BASE_MUTEX_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <utility>

#include "platform/base/ThreadSafety.h"

namespace Nimbrel2::Platform {

/// A plain mutex. How it is used:
/// @code
/// class Counter {
/// public:
///     void Add() NIMBREL2_EXCLUDES(m_mutex) {      // callers must not hold it; worth saying on public functions
///         const LockGuard lock(m_mutex);           // held to the end of the scope
///         ++m_count;
///         Changed();
///     }
///     bool WaitFor(int count, Clock::time_point deadline) const {
///         UniqueLock lock(m_mutex);                // can wait and, unlike LockGuard, be let go meanwhile
///         return m_changed.WaitUntil(lock, deadline, [&]() NIMBREL2_REQUIRES(m_mutex) { return m_count >= count; });
///     }
///
/// private:
///     void Changed() NIMBREL2_REQUIRES(m_mutex) { m_changed.NotifyAll(); }   // a helper that needs the lock
///
///     mutable Mutex m_mutex;                       // stands before what it guards
///     mutable ConditionVariable m_changed;
///     int m_count NIMBREL2_GUARDED_BY(m_mutex) = 0;
/// };
/// @endcode
/// - The analysis looks at one function at a time and takes a lambda for a function of its own: a lambda that touches
///   guarded members says what it requires, as above, or begins with AssumeHeld.
/// - Constructors and destructors are not analysed: nobody else has the object yet, or any more.
/// - A function that is handed a UniqueLock& also says NIMBREL2_REQUIRES(m_mutex). It may wait with that lock; to let
///   the mutex go for a while it uses an UnlockGuard.
/// - The mutex of another object is named through it: NIMBREL2_GUARDED_BY(m_owner.m_mutex).
/// The standard's locks take this mutex too, but the analysis does not see them: use those below.
class NIMBREL2_MUTEX_CLASS Mutex {
public:
    Mutex() = default;
    Mutex(const Mutex&) = delete;
    Mutex& operator=(const Mutex&) = delete;

    // Named as the standard wants a mutex's operations to be named.
    void lock() NIMBREL2_ACQUIRES() { m_mutex.lock(); }
    void unlock() NIMBREL2_RELEASES() { m_mutex.unlock(); }
    [[nodiscard]] bool try_lock() NIMBREL2_TRY_ACQUIRES(true) { return m_mutex.try_lock(); }

    /// Does nothing. For the first line of a lambda that is called back with the mutex held, by code that knows nothing
    /// of it and so cannot call what requires it.
    void AssumeHeld() const NIMBREL2_ASSUMES_HELD() {}

private:
    friend class UniqueLock;
    std::mutex m_mutex;
};

/// Holds a mutex for a scope.
class NIMBREL2_LOCK_CLASS [[nodiscard]] LockGuard {
public:
    explicit LockGuard(Mutex& mutex) NIMBREL2_ACQUIRES(mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~LockGuard() NIMBREL2_RELEASES() { m_mutex.unlock(); }
    LockGuard(const LockGuard&) = delete;
    LockGuard& operator=(const LockGuard&) = delete;

private:
    Mutex& m_mutex;
};

/// Holds a mutex for a scope, can let it go before the end and take it again, and waits for a condition.
class NIMBREL2_LOCK_CLASS [[nodiscard]] UniqueLock {
public:
    explicit UniqueLock(Mutex& mutex) NIMBREL2_ACQUIRES(mutex) : m_lock(mutex.m_mutex) {}
    ~UniqueLock() NIMBREL2_RELEASES() = default;
    UniqueLock(const UniqueLock&) = delete;
    UniqueLock& operator=(const UniqueLock&) = delete;

    void lock() NIMBREL2_ACQUIRES() { m_lock.lock(); }
    void unlock() NIMBREL2_RELEASES() { m_lock.unlock(); }

private:
    friend class ConditionVariable;
    std::unique_lock<std::mutex> m_lock;
};

/// Lets a held mutex go for a scope, and takes it back at its end however that is reached.
class NIMBREL2_LOCK_CLASS [[nodiscard]] UnlockGuard {
public:
    explicit UnlockGuard(Mutex& mutex) NIMBREL2_RELEASES(mutex) : m_mutex(mutex) { m_mutex.unlock(); }
    // "Releases" is what undoes the constructor: here it takes the mutex.
    ~UnlockGuard() NIMBREL2_RELEASES() { m_mutex.lock(); }
    UnlockGuard(const UnlockGuard&) = delete;
    UnlockGuard& operator=(const UnlockGuard&) = delete;

private:
    Mutex& m_mutex;
};

/// std::condition_variable for a UniqueLock. A wait counts as holding the lock throughout, which is true for all that
/// the waiter can see. The mutex need not be held to notify.
class ConditionVariable {
public:
    ConditionVariable() = default;
    ConditionVariable(const ConditionVariable&) = delete;
    ConditionVariable& operator=(const ConditionVariable&) = delete;

    void NotifyOne() noexcept { m_condition.notify_one(); }
    void NotifyAll() noexcept { m_condition.notify_all(); }

    /// Until notified, or for no reason: whoever calls looks again at what it waits for.
    void Wait(UniqueLock& lock) { m_condition.wait(lock.m_lock); }
    /// The same, or until the deadline. @return false when that has passed.
    template <class Clock, class Duration>
    bool WaitUntil(UniqueLock& lock, const std::chrono::time_point<Clock, Duration>& deadline) {
        return m_condition.wait_until(lock.m_lock, deadline) == std::cv_status::no_timeout;
    }

    /// Until ready() is true.
    template <class Ready>
    void Wait(UniqueLock& lock, Ready ready) {
        m_condition.wait(lock.m_lock, std::move(ready));
    }
    /// Until ready() is true or the deadline has passed. @return what ready() says at the end.
    template <class Clock, class Duration, class Ready>
    bool WaitUntil(UniqueLock& lock, const std::chrono::time_point<Clock, Duration>& deadline, Ready ready) {
        return m_condition.wait_until(lock.m_lock, deadline, std::move(ready));
    }
    template <class Rep, class Period, class Ready>
    bool WaitFor(UniqueLock& lock, const std::chrono::duration<Rep, Period>& duration, Ready ready) {
        return m_condition.wait_for(lock.m_lock, duration, std::move(ready));
    }

private:
    std::condition_variable m_condition;
};

}  // namespace Nimbrel2::Platform

#endif
