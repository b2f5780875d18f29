// SPDX-License-Identifier: Apache-2.0
// What a driver has reported. Any thread; one lock.
#ifndef NIMBREL2_TESTS_PLATFORM_USB_REPORTEDSTATES_H
#define NIMBREL2_TESTS_PLATFORM_USB_REPORTEDSTATES_H

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstddef>
#include <functional>
#include <mutex>
#include <utility>
#include <vector>

#include "platform/Drivers.h"

namespace Nimbrel2::Testing {

/// Keeps each state that differs from the one before.
class ReportedStates final : public Platform::BusEventSink {
public:
    /// Far beyond anything that is waited for; a wait that comes to it has failed.
    static constexpr std::chrono::seconds Patience{20};

    void Report(Platform::BusState state) noexcept override { Keep(std::move(state), false); }
    void ReportSettled(Platform::BusState state) noexcept override { Keep(std::move(state), true); }
    void RaiseError() noexcept override {}

    void Keep(Platform::BusState state, bool settled) {
        std::unique_lock lock(m_mutex);
        // The order of the devices means nothing.
        std::sort(state.devices.begin(), state.devices.end(),
                  [](const auto& a, const auto& b) { return a.identity < b.identity; });
        if (m_states.empty() || m_states.back() != state) {
            m_states.push_back(std::move(state));
        }
        ++m_reports;
        m_isLastSettled = settled;
        m_changed.notify_all();
        m_changed.wait(lock, [this] { return !m_held; });
    }

    /// Waits until the bus is said to be like this. @return false when it never was.
    bool WaitFor(const std::function<bool(const Platform::BusState&)>& condition) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, Patience, [&] { return !m_states.empty() && condition(m_states.back()); });
    }
    bool WaitForDevices(std::size_t number) {
        return WaitFor([number](const Platform::BusState& state) { return state.devices.size() == number; });
    }
    bool WaitForReports(std::size_t number) {
        std::unique_lock lock(m_mutex);
        return m_changed.wait_for(lock, Patience, [&] { return m_reports >= number; });
    }

    /// From here on reports hang, until Release.
    void Hold() {
        const std::lock_guard lock(m_mutex);
        m_held = true;
    }
    void Release() {
        const std::lock_guard lock(m_mutex);
        m_held = false;
        m_changed.notify_all();
    }

    std::vector<Platform::BusState> GetStates() {
        const std::lock_guard lock(m_mutex);
        return m_states;
    }
    std::size_t GetReports() {
        const std::lock_guard lock(m_mutex);
        return m_reports;
    }
    /// Whether the last report came at the end of a burst.
    bool IsLastSettled() {
        const std::lock_guard lock(m_mutex);
        return m_isLastSettled;
    }
    Platform::BusState GetLast() {
        const std::lock_guard lock(m_mutex);
        return m_states.empty() ? Platform::BusState() : m_states.back();
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_held = false;
    std::size_t m_reports = 0;
    bool m_isLastSettled = false;
    std::vector<Platform::BusState> m_states;
};

}  // namespace Nimbrel2::Testing

#endif
