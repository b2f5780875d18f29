// SPDX-License-Identifier: Apache-2.0
// Order, coalescing and settling of waiting bus events. Runs on any thread, under its owner's lock.
#include "platform/hal/EventQueue.h"

#include <algorithm>

namespace Nimbrel2::Platform {

EventQueue::EventQueue() : m_events(Capacity) {}

void EventQueue::AddReset(TimePoint now, bool settled) {
    m_settled = settled;
    if (!m_resetWaits) {
        m_resetWaits = true;
        m_firstReset = now;
        m_lastReset = now;
        return;
    }
    // Two threads may read the clock in one order and come here in the other.
    m_lastReset = std::max(m_lastReset, now);
}

void EventQueue::Add(const BusEvent& event, TimePoint now, bool settled) {
    if (event.event == HAL_BUS_RESET) {
        AddReset(now, settled);
    } else if (m_count < Capacity) {
        m_events[(m_head + m_count) % Capacity] = event;
        ++m_count;
    } else if (!IsWaiting(event)) {
        AddReset(now, false);
    }
}

EventQueue::Step EventQueue::Take(TimePoint now) {
    if (m_resetWaits) {
        const TimePoint ripe = std::min(m_lastReset + Quiet, m_firstReset + LongestBurst);
        if (now < ripe && !m_settled) {
            return {Step::Kind::Settle, {}, ripe};
        }
        m_resetWaits = false;
        return {Step::Kind::Deliver, {HAL_BUS_RESET, 0, 0}, {}};
    }
    if (m_count == 0) {
        return {};
    }
    const BusEvent event = m_events[m_head];
    m_head = (m_head + 1) % Capacity;
    --m_count;
    return {Step::Kind::Deliver, event, {}};
}

bool EventQueue::IsWaiting(const BusEvent& event) const {
    for (std::size_t i = 0; i < m_count; ++i) {
        if (m_events[(m_head + i) % Capacity] == event) {
            return true;
        }
    }
    return false;
}

}  // namespace Nimbrel2::Platform
