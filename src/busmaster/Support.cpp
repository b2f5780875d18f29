// SPDX-License-Identifier: Apache-2.0
// Quiet traces, deadlines and thread starts. Any thread; takes no lock of its own.
#include "busmaster/Support.h"

#include <atomic>
#include <cstdarg>
#include <cstdio>
#include <memory>

#include "common/Posix.h"
#include "common/Trace.h"

namespace Nimbrel2 {

namespace {
std::atomic<ThreadStartHook> g_threadStartHook{nullptr};
}

void TraceLine(const char* format, ...) noexcept {
    char text[512];
    std::va_list arguments;
    va_start(arguments, format);
    std::vsnprintf(text, sizeof text, format, arguments);
    va_end(arguments);
    try {
        Trace(text);
    } catch (...) {  // No memory for the text: it would have been dropped anyway.
    }
}

Deadlines& GetDeadlines() noexcept {
    static Deadlines deadlines;
    return deadlines;
}

boost::posix_time::ptime DeadlineIn(const boost::posix_time::time_duration& duration) {
    return boost::posix_time::microsec_clock::universal_time() + duration;
}

boost::thread StartThread(const char* name, boost::function<void()> body) {
    if (const ThreadStartHook hook = g_threadStartHook.load()) {
        hook();
    }
    // The thread object keeps what it is given until it is joined or detached, perhaps longer than the thread runs. So
    // it gets a mere pointer, and what the body holds goes with the thread.
    auto owned = std::make_unique<boost::function<void()>>(std::move(body));
    const SignalsBlocked signalsBlocked;
    boost::thread thread([name, bodyOfThread = owned.get()] {
        EnterOwnThread(name);
        const std::unique_ptr<boost::function<void()>> run(bodyOfThread);
        try {
            (*run)();
        } catch (...) {
            TraceLine("An exception ended a thread of the bus master.");
        }
    });
    owned.release();
    return thread;
}

ThreadStartHook SetThreadStartHook(ThreadStartHook hook) noexcept { return g_threadStartHook.exchange(hook); }

bool TryLockUntil(boost::unique_lock<boost::mutex>& lock, const boost::posix_time::ptime& deadline) {
    while (!lock.try_lock()) {
        if (boost::posix_time::microsec_clock::universal_time() >= deadline) {
            return false;
        }
        boost::this_thread::sleep(boost::posix_time::milliseconds(1));
    }
    return true;
}

}  // namespace Nimbrel2
