// SPDX-License-Identifier: Apache-2.0
// What C++ and Boost do not say about processes and threads. Internal: not installed.
#ifndef NIMBREL2_COMMON_POSIX_H
#define NIMBREL2_COMMON_POSIX_H

#include <signal.h>

namespace Nimbrel2 {

/// How many forks lie between this process and the one that loaded the library: tells a process from those it was
/// forked from. Costs a load.
unsigned int CountForks() noexcept;

/// While it lives, threads that this thread starts take no signal but those of their own faults (and SIGABRT, and
/// SIGPROF for profilers): the rest belong to the application's threads.
class SignalsBlocked {
public:
    SignalsBlocked() noexcept;
    ~SignalsBlocked();
    SignalsBlocked(const SignalsBlocked&) = delete;
    SignalsBlocked& operator=(const SignalsBlocked&) = delete;

private:
    sigset_t m_before;
};

/// What every thread of the library does first. @param name  For debuggers; at most 15 characters.
void EnterOwnThread(const char* name) noexcept;

/// Whether this is a thread of the library, on which applications only run as callbacks.
bool IsOwnThread() noexcept;

}  // namespace Nimbrel2

#endif
