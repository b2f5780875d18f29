// SPDX-License-Identifier: Apache-2.0
// Forks, signal masks and names of threads. Any thread; takes no lock.
#include "common/Posix.h"

#include <pthread.h>

#include <atomic>

namespace Nimbrel2 {

namespace {

std::atomic<unsigned int> g_forks{0};

// Registered while the library is loaded. Without memory for it forks go unnoticed, as they would without this file.
[[maybe_unused]] const int g_registered =
    pthread_atfork(nullptr, nullptr, [] { g_forks.fetch_add(1, std::memory_order_relaxed); });

thread_local bool t_isOwn = false;

}  // namespace

unsigned int CountForks() noexcept { return g_forks.load(std::memory_order_relaxed); }

SignalsBlocked::SignalsBlocked() noexcept {
    sigset_t mask;
    sigfillset(&mask);
    // A fault hits the thread that causes it: were these blocked, no crash handler would see a fault in a callback.
    for (const int number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGSYS, SIGABRT, SIGPROF}) {
        sigdelset(&mask, number);
    }
    pthread_sigmask(SIG_BLOCK, &mask, &m_before);
}

SignalsBlocked::~SignalsBlocked() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }

void EnterOwnThread(const char* name) noexcept {
    t_isOwn = true;
#ifdef __linux__
    pthread_setname_np(pthread_self(), name);
#else
    (void)name;
#endif
}

bool IsOwnThread() noexcept { return t_isOwn; }

}  // namespace Nimbrel2
