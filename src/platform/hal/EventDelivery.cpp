// SPDX-License-Identifier: Apache-2.0
// Delivers bus events. Run is the body of the registration's own thread; the rest runs on driver and caller threads.
// Takes only its own mutex, for a few instructions, and never while it calls back.
#include "platform/hal/EventDelivery.h"

namespace Nimbrel2::Platform {

EventDelivery::EventDelivery(HALInterfaceType bus, HALBusEventFunction function, void* context)
    : m_bus(bus), m_function(function), m_context(context) {}

void EventDelivery::Run() {
    UniqueLock lock(m_mutex);
    while (!m_stopped) {
        const EventQueue::Step step = m_queue.Take(Clock::now());
        switch (step.kind) {
            case EventQueue::Step::Kind::Idle:
                m_idle = true;
                m_idleCondition.NotifyAll();
                m_wake.Wait(lock);
                break;
            case EventQueue::Step::Kind::Settle:
                m_wake.WaitUntil(lock, step.until);
                break;
            case EventQueue::Step::Kind::Deliver:
                lock.unlock();
                Call(step.event);
                lock.lock();
                break;
        }
    }
    m_idle = true;
    m_idleCondition.NotifyAll();
    m_ended = true;
    m_endedCondition.NotifyAll();
}

void EventDelivery::Add(const BusEvent& event, bool settled) {
    const Clock::time_point now = Clock::now();
    const LockGuard lock(m_mutex);
    m_queue.Add(event, now, settled);
    m_idle = m_idle && m_stopped;
    m_wake.NotifyOne();
}

bool EventDelivery::WaitUntilIdle(Clock::time_point deadline) const {
    UniqueLock lock(m_mutex);
    return m_idleCondition.WaitUntil(lock, deadline, [this]() NIMBREL2_REQUIRES(m_mutex) { return m_idle; });
}

void EventDelivery::Stop() {
    const LockGuard lock(m_mutex);
    m_stopped = true;
    m_wake.NotifyOne();
}

bool EventDelivery::HasEnded() const {
    const LockGuard lock(m_mutex);
    return m_ended;
}

bool EventDelivery::WaitUntilEnded(Clock::time_point deadline) const {
    UniqueLock lock(m_mutex);
    return m_endedCondition.WaitUntil(lock, deadline, [this]() NIMBREL2_REQUIRES(m_mutex) { return m_ended; });
}

void EventDelivery::Call(const BusEvent& event) const {
    try {
        m_function(event.event, m_context, m_bus, event.first, event.second, 0);
    } catch (...) {
        // A callback that throws has had its event; the next one is delivered all the same.
    }
}

}  // namespace Nimbrel2::Platform
