// SPDX-License-Identifier: Apache-2.0
// What waits to be delivered to one registration: one coalesced bus reset, then other events in order.
// No lock, no thread, no clock: the caller guards it and says what time it is.
#ifndef NIMBREL2_PLATFORM_HAL_EVENTQUEUE_H
#define NIMBREL2_PLATFORM_HAL_EVENTQUEUE_H

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "hal/HAL.h"

namespace Nimbrel2::Platform {

struct BusEvent {
    HALBusEvent event = HAL_BUS_RESET;
    std::uint32_t first = 0;
    std::uint32_t second = 0;
    bool operator==(const BusEvent&) const = default;
};

/// All memory is taken by the constructor, so that adding never fails: a driver may add from wherever it stands.
///
/// A reset goes ahead of every event that waits, also ahead of older ones, and holds them back while its burst settles.
/// A bus that never rests for 10 ms therefore delivers one reset every 100 ms and nothing else until it does.
class EventQueue {
public:
    using TimePoint = std::chrono::steady_clock::time_point;

    /// A reset is delivered once the bus has been quiet for this long,
    static constexpr std::chrono::milliseconds Quiet{10};
    /// or this long after the first reset of the burst.
    static constexpr std::chrono::milliseconds LongestBurst{100};
    /// Events that may wait behind the reset.
    static constexpr std::size_t Capacity = 1024;

    struct Step {
        enum class Kind {
            Idle,     ///< Nothing waits: sleep until something is added.
            Settle,   ///< A reset is not ripe before `until`: sleep until then or until something is added.
            Deliver,  ///< `event` has left the queue and is to be delivered now.
        };
        Kind kind = Kind::Idle;
        BusEvent event;
        TimePoint until{};
    };

    EventQueue();

    /// A bus reset merges into one that waits. Of other events at most Capacity wait: one more that is equal to a
    /// waiting one merges into it, any other is dropped and becomes a bus reset, so that whoever listens looks at the
    /// whole bus again.
    /// @param settled  Of a reset: its burst is over, nothing more needs to be waited for.
    void Add(const BusEvent& event, TimePoint now, bool settled = false);

    Step Take(TimePoint now);

private:
    void AddReset(TimePoint now, bool settled);
    [[nodiscard]] bool IsWaiting(const BusEvent& event) const;

    bool m_resetWaits = false;
    bool m_settled = false;  ///< The newest reset says that its burst is over.
    TimePoint m_firstReset{};
    TimePoint m_lastReset{};

    // A ring: m_count events from m_head on.
    std::vector<BusEvent> m_events;
    std::size_t m_head = 0;
    std::size_t m_count = 0;
};

}  // namespace Nimbrel2::Platform

#endif
