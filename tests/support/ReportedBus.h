// SPDX-License-Identifier: Apache-2.0
// A bus as a test's driver reports it. Any thread; one leaf mutex, under which it reports.
#ifndef NIMBREL2_TESTS_SUPPORT_REPORTEDBUS_H
#define NIMBREL2_TESTS_SUPPORT_REPORTEDBUS_H

#include <algorithm>
#include <cstdint>
#include <mutex>
#include <string>

#include "platform/Drivers.h"

namespace Nimbrel2::Testing {

class ReportedBus {
public:
    /// Where it reports from now on; null: nowhere.
    void Connect(Platform::BusEventSink* sink) {
        const std::lock_guard lock(m_mutex);
        m_sink = sink;
        if (m_sink != nullptr) {
            m_sink->Report(m_state);
        }
    }

    void Reset() {
        Change([](Platform::BusState& state) { ++state.resets; });
    }
    /// The same at the end of a burst that the driver has waited for.
    void ResetSettled() {
        const std::lock_guard lock(m_mutex);
        ++m_state.resets;
        if (m_sink != nullptr) {
            m_sink->ReportSettled(m_state);
        }
    }
    /// Unnoticed: the driver finds it when it looks the next time.
    enum class Notice { AtOnce, Unnoticed };
    /// A device whose events have these words.
    void Arrive(std::uint32_t first = 0, std::uint32_t second = 0, Notice notice = Notice::AtOnce) {
        const auto arrive = [&](Platform::BusState& state) {
            state.devices.push_back({std::to_string(++m_numArrivals), 0, first, second});
        };
        Change(arrive, notice);
    }
    /// The oldest device of these words.
    void Leave(std::uint32_t first = 0, std::uint32_t second = 0, Notice notice = Notice::AtOnce) {
        const auto leave = [&](Platform::BusState& state) {
            const auto found = std::find_if(state.devices.begin(), state.devices.end(), [&](const auto& device) {
                return device.firstWord == first && device.secondWord == second;
            });
            if (found != state.devices.end()) {
                state.devices.erase(found);
            }
        };
        Change(leave, notice);
    }
    void Fail() {
        const std::lock_guard lock(m_mutex);
        if (m_sink != nullptr) {
            m_sink->RaiseError();
        }
    }

    /// What a listing does: it reports what it finds.
    Platform::BusState Look() {
        const std::lock_guard lock(m_mutex);
        if (m_sink != nullptr) {
            m_sink->Report(m_state);
        }
        return m_state;
    }

private:
    template <class Function>
    void Change(const Function& change, Notice notice = Notice::AtOnce) {
        const std::lock_guard lock(m_mutex);
        change(m_state);
        if (m_sink != nullptr && notice == Notice::AtOnce) {
            m_sink->Report(m_state);
        }
    }

    mutable std::mutex m_mutex;
    Platform::BusEventSink* m_sink = nullptr;
    Platform::BusState m_state;
    std::uint64_t m_numArrivals = 0;
};

}  // namespace Nimbrel2::Testing

#endif
