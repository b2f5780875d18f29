// SPDX-License-Identifier: Apache-2.0
// How often and when a callback came. Any thread.
#ifndef NIMBREL2_BENCH_COUNTEDCALLBACKS_H
#define NIMBREL2_BENCH_COUNTEDCALLBACKS_H

#include <chrono>
#include <condition_variable>
#include <mutex>
#include <stdexcept>

namespace Nimbrel2 {

class CountedCallbacks {
public:
    using Clock = std::chrono::steady_clock;

    /// To be registered, with the object as data.
    static void OnEvent(void* data, unsigned int /*serialNumber*/) {
        auto* const self = static_cast<CountedCallbacks*>(data);
        const std::lock_guard lock(self->m_mutex);
        ++self->m_count;
        self->m_last = Clock::now();
        self->m_changed.notify_all();
    }

    unsigned int Count() {
        const std::lock_guard lock(m_mutex);
        return m_count;
    }

    /// @return when the last one came. @throws std::runtime_error when there are not so many after 20 s.
    Clock::time_point WaitFor(unsigned int count) {
        std::unique_lock lock(m_mutex);
        if (!m_changed.wait_for(lock, std::chrono::seconds(20), [&] { return m_count >= count; })) {
            throw std::runtime_error("no callback");
        }
        return m_last;
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    unsigned int m_count = 0;
    Clock::time_point m_last;
};

}  // namespace Nimbrel2

#endif
