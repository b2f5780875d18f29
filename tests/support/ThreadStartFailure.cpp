// SPDX-License-Identifier: Apache-2.0
// The thread-start hook of the tests. Any thread; no lock.
#include "tests/support/ThreadStartFailure.h"

#include <atomic>
#include <cerrno>

#include "busmaster/Support.h"

namespace Nimbrel2::Testing {

namespace {

std::atomic<unsigned int> g_failAt{0};
std::atomic<unsigned int> g_count{0};
std::atomic<bool> g_allFromThereOn{false};
std::atomic<ThreadStartFailure::Kind> g_kind{ThreadStartFailure::Kind::ThreadResourceError};

void OnThreadStart() {
    const unsigned int number = ++g_count;
    const unsigned int failAt = g_failAt;
    if (failAt == 0 || number < failAt || (number > failAt && !g_allFromThereOn)) {
        return;
    }
    switch (g_kind) {
        case ThreadStartFailure::Kind::ThreadResourceError:
            throw boost::thread_resource_error(EAGAIN, "no thread left");
        case ThreadStartFailure::Kind::BadAlloc:
            throw std::bad_alloc();
        case ThreadStartFailure::Kind::Foreign:
            throw 42;
    }
}

}  // namespace

ThreadStartFailure::ThreadStartFailure(unsigned int nth, Kind kind, bool allFromThereOn) {
    g_failAt = nth;
    g_count = 0;
    g_allFromThereOn = allFromThereOn;
    g_kind = kind;
    SetThreadStartHook(&OnThreadStart);
}

ThreadStartFailure::~ThreadStartFailure() { SetThreadStartHook(nullptr); }

bool ThreadStartFailure::Happened() const { return g_failAt != 0 && g_count >= g_failAt; }

unsigned int ThreadStartFailure::Count() const { return g_count; }

}  // namespace Nimbrel2::Testing
