// SPDX-License-Identifier: Apache-2.0
// Starts a thread with signals masked. Runs on whichever thread needs another; takes no lock.
#include "platform/base/StartThread.h"

#include <pthread.h>

#include <csignal>
#include <utility>

namespace Nimbrel2::Platform {
namespace {

/// A thread inherits its maker's signal mask, so the maker masks while it starts one. Faults stay open: they hit the
/// thread that causes them, and sanitizers and crash handlers want to see them.
class SignalsMasked {
public:
    SignalsMasked() {
        sigset_t mask;
        sigfillset(&mask);
        for (const int fault : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGTRAP, SIGABRT, SIGSYS, SIGPROF}) {
            sigdelset(&mask, fault);
        }
        pthread_sigmask(SIG_BLOCK, &mask, &m_before);
    }
    ~SignalsMasked() { pthread_sigmask(SIG_SETMASK, &m_before, nullptr); }
    SignalsMasked(const SignalsMasked&) = delete;
    SignalsMasked& operator=(const SignalsMasked&) = delete;

private:
    sigset_t m_before{};
};

}  // namespace

std::thread StartThread(const char* name, std::function<void()> body) {
    const SignalsMasked masked;
    return std::thread([name, body = std::move(body)] {
        pthread_setname_np(pthread_self(), name);
        try {
            body();
        } catch (...) {
            // Nobody above this frame could take it.
        }
    });
}

}  // namespace Nimbrel2::Platform
