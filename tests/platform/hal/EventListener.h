// SPDX-License-Identifier: Apache-2.0
// A bus event callback that keeps what it is called with, and can be made to hang or to run something. Safe from any
// thread.
#ifndef NIMBREL2_TESTS_PLATFORM_HAL_EVENTLISTENER_H
#define NIMBREL2_TESTS_PLATFORM_HAL_EVENTLISTENER_H

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <ostream>
#include <thread>
#include <vector>

#include "hal/HAL.h"

namespace Nimbrel2::Platform::Testing {

struct Heard {
    HALBusEvent event;
    HALInterfaceType bus;
    unsigned first = 0;
    unsigned second = 0;
    unsigned third = 0;
    bool operator==(const Heard&) const = default;
};

inline std::ostream& operator<<(std::ostream& out, const Heard& heard) {
    return out << "event " << heard.event << " on bus " << heard.bus << " of " << heard.first << ", " << heard.second
               << ", " << heard.third;
}

class EventListener {
public:
    /// Far beyond anything that is waited for; a wait that comes to it has failed.
    static constexpr std::chrono::seconds Patience{20};

    static void Callback(HALBusEvent event, void* context, HALInterfaceType bus, unsigned first, unsigned second,
                         unsigned third) {
        static_cast<EventListener*>(context)->Hear({event, bus, first, second, third});
    }

    /// Runs inside each callback, after it was noted. Set before registering.
    std::function<void(const Heard&)> onEvent;

    /// From here on callbacks hang, until Release.
    void Hold() {
        const std::lock_guard lock(m_mutex);
        m_held = true;
    }
    void Release() {
        const std::lock_guard lock(m_mutex);
        m_held = false;
        m_changed.notify_all();
    }

    /// Waits until that many callbacks have begun.
    bool WaitForBegun(std::size_t number) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, Patience, [&] { return m_heard.size() >= number; });
    }
    /// Waits until that many callbacks have returned.
    bool WaitForReturned(std::size_t number) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, Patience, [&] { return m_returned >= number; });
    }

    /// Waits until a callback with that event has begun.
    bool WaitForHeard(const Heard& heard) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, Patience,
                                  [&] { return std::find(m_heard.begin(), m_heard.end(), heard) != m_heard.end(); });
    }

    std::vector<Heard> HeardSoFar() {
        const std::lock_guard lock(m_mutex);
        return m_heard;
    }
    std::size_t ReturnedSoFar() {
        const std::lock_guard lock(m_mutex);
        return m_returned;
    }
    std::size_t MostAtOnce() {
        const std::lock_guard lock(m_mutex);
        return m_mostAtOnce;
    }
    std::vector<std::thread::id> Threads() {
        const std::lock_guard lock(m_mutex);
        return m_threads;
    }

private:
    void Hear(const Heard& heard) {
        std::unique_lock lock(m_mutex);
        m_heard.push_back(heard);
        m_threads.push_back(std::this_thread::get_id());
        m_mostAtOnce = std::max(m_mostAtOnce, ++m_inside);
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return !m_held; });
        lock.unlock();
        if (onEvent) {
            onEvent(heard);
        }
        lock.lock();
        --m_inside;
        ++m_returned;
        m_changed.notify_all();
    }

    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_held = false;
    std::vector<Heard> m_heard;
    std::vector<std::thread::id> m_threads;
    std::size_t m_inside = 0;
    std::size_t m_mostAtOnce = 0;
    std::size_t m_returned = 0;
};

}  // namespace Nimbrel2::Platform::Testing

#endif
