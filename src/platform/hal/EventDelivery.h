// SPDX-License-Identifier: Apache-2.0
// One registration for bus events: its queue, its callback, and the body of the thread that calls it.
#ifndef NIMBREL2_PLATFORM_HAL_EVENTDELIVERY_H
#define NIMBREL2_PLATFORM_HAL_EVENTDELIVERY_H

#include <chrono>

#include "hal/HAL.h"
#include "platform/base/Mutex.h"
#include "platform/hal/EventQueue.h"

namespace Nimbrel2::Platform {

/// Shared between BusEvents and the delivery thread, which touches nothing else of ours: a callback that hangs may
/// outlive the HAL without its thread ever reaching freed memory.
class EventDelivery {
public:
    using Clock = std::chrono::steady_clock;

    EventDelivery(HALInterfaceType bus, HALBusEventFunction function, void* context);

    /// The thread's body: delivers until Stop. Calls back with no lock held.
    void Run();

    /// @param settled  As for EventQueue::Add.
    void Add(const BusEvent& event, bool settled = false);

    /// Waits until nothing waits to be delivered and no callback is in flight. False when the deadline came first.
    [[nodiscard]] bool WaitUntilIdle(Clock::time_point deadline) const;

    /// No callback is begun from here on. One that Run has already taken from the queue is in flight, and is not waited
    /// for. What still waits is dropped.
    void Stop();

    /// True when Run has ended and only its thread's last instructions may be left.
    [[nodiscard]] bool HasEnded() const;
    /// Waits for that. False when the deadline came first.
    [[nodiscard]] bool WaitUntilEnded(Clock::time_point deadline) const;

private:
    void Call(const BusEvent& event) const;

    const HALInterfaceType m_bus;
    const HALBusEventFunction m_function;
    void* const m_context;

    mutable Mutex m_mutex;  // A leaf: held for a few instructions, never during a callback.
    ConditionVariable m_wake;
    mutable ConditionVariable m_endedCondition;
    mutable ConditionVariable m_idleCondition;
    EventQueue m_queue NIMBREL2_GUARDED_BY(m_mutex);
    bool m_stopped NIMBREL2_GUARDED_BY(m_mutex) = false;
    bool m_ended NIMBREL2_GUARDED_BY(m_mutex) = false;
    bool m_idle NIMBREL2_GUARDED_BY(m_mutex) = false;  // Run sleeps with an empty queue, or has ended.
};

}  // namespace Nimbrel2::Platform

#endif
