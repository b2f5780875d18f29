// SPDX-License-Identifier: Apache-2.0
// The states of the one object of a process. Any thread; no lock, so that a forked process finds none taken.
#include "common/SingletonSlot.h"

#include <cstdio>
#include <cstdlib>

#include "common/Posix.h"

namespace Nimbrel2 {

namespace {

constexpr std::uint32_t PhaseBits = 3;
constexpr std::uint32_t PhaseMask = (1U << PhaseBits) - 1;

std::uint32_t ThisProcess() { return CountForks() << PhaseBits; }

[[noreturn]] void WaitForTheEnd() {
    const std::atomic<int> never{0};
    while (true) {
        never.wait(0);
    }
}

}  // namespace

void* SingletonSlot::Get(void* (*make)()) {
    const std::uint32_t process = ThisProcess();
    while (true) {
        std::uint32_t state = m_state.load(std::memory_order_acquire);
        const bool isOurs = (state & ~PhaseMask) == process;
        switch (state & PhaseMask) {
            case Made:
            case Destroying:
                return m_object.load(std::memory_order_relaxed);
            case Destroyed:
                if (isOurs && IsOwnThread()) {
                    WaitForTheEnd();
                }
                // Not assert: a second object would find the first one's threads and buses half gone, in every build.
                std::fputs("Singleton::GetInstance was called after the object had been destroyed.\n", stderr);
                std::abort();
            case Making:
                if (isOurs) {
                    m_state.wait(state, std::memory_order_acquire);
                    break;
                }
                // The thread that makes it has stayed in the parent process.
                [[fallthrough]];
            default:
                if (m_state.compare_exchange_strong(state, process | Making)) {
                    return Make(make, process);
                }
        }
    }
}

void* SingletonSlot::Make(void* (*make)(), std::uint32_t process) {
    const auto change = [this](std::uint32_t state) {
        m_state.store(state, std::memory_order_release);
        m_state.notify_all();
    };
    try {
        void* const object = make();
        m_object.store(object, std::memory_order_relaxed);
        change(process | Made);
        return object;
    } catch (...) {
        change(Empty);
        throw;
    }
}

void SingletonSlot::Destroy(void (*destroy)(void* object)) {
    const std::uint32_t process = ThisProcess();
    std::uint32_t state = m_state.load(std::memory_order_acquire);
    while (state == (process | Making)) {
        m_state.wait(state, std::memory_order_acquire);
        state = m_state.load(std::memory_order_acquire);
    }
    state = process | Made;
    if (m_state.compare_exchange_strong(state, process | Destroying)) {
        // The memory stays: a callback that outlives the destructor may be about to use a reference that it got before.
        destroy(m_object.load(std::memory_order_relaxed));
        m_state.store(process | Destroyed, std::memory_order_release);
    }
}

}  // namespace Nimbrel2
