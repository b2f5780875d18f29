// SPDX-License-Identifier: Apache-2.0
// Signal handlers. They run on any thread, in the middle of anything: atomics and async-signal-safe calls only.
#include "tools/nimbrel/Interrupts.h"

#include <signal.h>
#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <system_error>

namespace Nimbrel2::Tool::Interrupts {
namespace {

constexpr int EndingSignals[] = {SIGINT, SIGTERM, SIGHUP};
constexpr long PatienceNanoseconds = 700'000'000;

std::atomic<int> g_caughtFd{-1};
std::atomic<int> g_caughtSignal{0};
std::atomic<bool> g_progressShown{false};
std::atomic<bool> g_endsBySignal{false};
timer_t g_watchdog;

static_assert(std::atomic<int>::is_always_lock_free && std::atomic<bool>::is_always_lock_free);

void DieBy(int number) {
    if (g_progressShown) {
        constexpr char Wipe[] = "\r\033[K";
        if (write(STDERR_FILENO, Wipe, sizeof Wipe - 1) < 0) {
            // Nothing to wipe on a terminal that is gone.
        }
    }
    signal(number, SIG_DFL);
    raise(number);  // takes effect when the handler returns and the signal is no longer blocked
}

void OnSignal(int number) {
    const int savedErrno = errno;
    g_caughtSignal = number;
    const int fd = g_caughtFd;
    if (fd < 0) {
        DieBy(number);
    } else {
        // Armed here, because the thread that reads the descriptor may be stuck.
        itimerspec patience{};
        patience.it_value.tv_nsec = PatienceNanoseconds;
        timer_settime(g_watchdog, 0, &patience, nullptr);
        const std::uint64_t one = 1;
        if (write(fd, &one, sizeof one) < 0) {
            // Only a full counter refuses it, and that is readable already.
        }
    }
    errno = savedErrno;
}

void OnWatchdog(int) { _exit(g_endsBySignal ? 128 + g_caughtSignal : 0); }

void Handle(int number, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    sigemptyset(&action.sa_mask);
    sigaction(number, &action, nullptr);
}

}  // namespace

bool IsIgnored(int number) {
    struct sigaction action {};
    return sigaction(number, nullptr, &action) == 0 && action.sa_handler == SIG_IGN;
}

void Install() {
    sigset_t handled;
    sigemptyset(&handled);
    for (const int number : EndingSignals) {
        if (IsIgnored(number)) {
            continue;
        }
        Handle(number, OnSignal);
        sigaddset(&handled, number);
    }
    Handle(SIGPIPE, SIG_IGN);
    // The parent may have blocked them.
    pthread_sigmask(SIG_UNBLOCK, &handled, nullptr);
}

int Catch(End end) {
    g_endsBySignal = end == End::BySignal;
    if (g_caughtFd >= 0) {
        return g_caughtFd;
    }
    Handle(SIGALRM, OnWatchdog);
    sigevent expiry{};
    expiry.sigev_notify = SIGEV_SIGNAL;
    expiry.sigev_signo = SIGALRM;
    if (timer_create(CLOCK_MONOTONIC, &expiry, &g_watchdog) != 0) {
        throw std::system_error(errno, std::generic_category(), "timer_create");
    }
    const int fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (fd < 0) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
    g_caughtFd = fd;
    return fd;
}

int GetExitStatus() { return g_caughtSignal == 0 ? 0 : 128 + g_caughtSignal; }

void EndBySignal() { DieBy(g_caughtSignal); }

void SetProgressShown(bool shown) { g_progressShown = shown; }

}  // namespace Nimbrel2::Tool::Interrupts
