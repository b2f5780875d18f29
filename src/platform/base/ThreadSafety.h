// SPDX-License-Identifier: Apache-2.0
// Annotations that tell which mutex guards what. clang's -Wthread-safety checks them in every clang build, where a
// warning is an error; for other compilers they are empty. Mutex.h has the types that carry them.
#ifndef NIMBREL2_PLATFORM_BASE_THREADSAFETY_H
#define NIMBREL2_PLATFORM_BASE_THREADSAFETY_H

#ifdef __clang__
#define NIMBREL2_THREAD_SAFETY(attribute) __attribute__((attribute))
#else
#define NIMBREL2_THREAD_SAFETY(attribute)
#endif

/// On a member: read and written with the mutex held only.
#define NIMBREL2_GUARDED_BY(mutex) NIMBREL2_THREAD_SAFETY(guarded_by(mutex))
/// On a pointer or smart pointer: what it points to is used with the mutex held only.
#define NIMBREL2_POINTEE_GUARDED_BY(mutex) NIMBREL2_THREAD_SAFETY(pt_guarded_by(mutex))

/// On a function or lambda, after its parameters: its caller holds the mutex.
#define NIMBREL2_REQUIRES(...) NIMBREL2_THREAD_SAFETY(requires_capability(__VA_ARGS__))
/// Its caller does not hold the mutex: the function takes it, or calls code that may.
#define NIMBREL2_EXCLUDES(...) NIMBREL2_THREAD_SAFETY(locks_excluded(__VA_ARGS__))
/// It takes the mutex and returns with it held.
#define NIMBREL2_ACQUIRES(...) NIMBREL2_THREAD_SAFETY(acquire_capability(__VA_ARGS__))
/// It takes the mutex if it returns the given value: NIMBREL2_TRY_ACQUIRES(true).
#define NIMBREL2_TRY_ACQUIRES(...) NIMBREL2_THREAD_SAFETY(try_acquire_capability(__VA_ARGS__))
/// It is called with the mutex held and lets it go.
#define NIMBREL2_RELEASES(...) NIMBREL2_THREAD_SAFETY(release_capability(__VA_ARGS__))
/// From its call on the analysis takes the mutex for held.
#define NIMBREL2_ASSUMES_HELD(...) NIMBREL2_THREAD_SAFETY(assert_capability(__VA_ARGS__))

/// On a class: it is a mutex; it holds one from its constructor to its destructor.
#define NIMBREL2_MUTEX_CLASS NIMBREL2_THREAD_SAFETY(capability("mutex"))
#define NIMBREL2_LOCK_CLASS NIMBREL2_THREAD_SAFETY(scoped_lockable)

/// The body is not looked at. Every use says beside it why it is right all the same.
#define NIMBREL2_NO_THREAD_SAFETY_ANALYSIS NIMBREL2_THREAD_SAFETY(no_thread_safety_analysis)

#endif
