// SPDX-License-Identifier: Apache-2.0
// A latch for tests: threads that pass it wait until it is opened. Any thread; a leaf mutex.
#ifndef NIMBREL2_TESTS_SUPPORT_GATE_H
#define NIMBREL2_TESTS_SUPPORT_GATE_H

#include <chrono>
#include <condition_variable>
#include <mutex>

namespace Nimbrel2::Testing {

/// How long a test waits for what must happen before it calls that a failure.
constexpr std::chrono::seconds TestDeadline{20};

class Gate {
public:
    /// Waits for Open, after telling WaitUntilReached.
    void Pass() {
        std::unique_lock<std::mutex> lock(m_mutex);
        ++m_reached;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return m_open; });
    }

    /// Lets everybody through, now and later.
    void Open() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }

    /// Waits until that many threads have come. False when they did not.
    bool WaitUntilReached(unsigned int threads = 1, std::chrono::milliseconds timeout = TestDeadline) {
        std::unique_lock<std::mutex> lock(m_mutex);
        return m_changed.wait_for(lock, timeout, [&] { return m_reached >= threads; });
    }

    unsigned int Reached() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_reached;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    unsigned int m_reached = 0;
    bool m_open = false;
};

}  // namespace Nimbrel2::Testing

#endif
