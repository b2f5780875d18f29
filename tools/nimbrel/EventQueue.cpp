// SPDX-License-Identifier: Apache-2.0
// The queue of events. Push runs on the bus master's callback threads, everything else on the main thread; m_mutex is
// held for single steps.
#include "tools/nimbrel/EventQueue.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <cerrno>
#include <system_error>
#include <utility>

#include "tools/nimbrel/ErrorTexts.h"

namespace Nimbrel2::Tool {

EventQueue::EventQueue() : m_fd(eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)) {
    if (m_fd < 0) {
        throw std::system_error(errno, std::generic_category(), "eventfd");
    }
}

EventQueue::~EventQueue() { close(m_fd); }

template <BusCallbackType type>
void EventQueue::OnEvent(void* queue, unsigned int serialNumber) {
    static_cast<EventQueue*>(queue)->Push(type, serialNumber);
}

void EventQueue::Register(BusMaster& busMaster) {
    m_busMaster = &busMaster;
    void* handle = nullptr;  // taken back with the bus master
    const char Purpose[] = "the buses cannot be watched";
    Check(busMaster.RegisterCallback(&OnEvent<BUS_RESET>, BUS_RESET, this, &handle), Purpose);
    Check(busMaster.RegisterCallback(&OnEvent<ARRIVAL>, ARRIVAL, this, &handle), Purpose);
    Check(busMaster.RegisterCallback(&OnEvent<REMOVAL>, REMOVAL, this, &handle), Purpose);
}

void EventQueue::Push(BusCallbackType type, unsigned int serialNumber) {
    BusEvent event{type, serialNumber, 0, std::chrono::system_clock::now()};
    if (type != BUS_RESET) {
        event.generation = m_busMaster->GetGeneration(serialNumber);
    }
    const std::lock_guard lock(m_mutex);
    if (m_events.size() >= Capacity) {
        ++m_lost;
        return;
    }
    m_events.push_back(event);
    const std::uint64_t one = 1;
    if (write(m_fd, &one, sizeof one) < 0) {
        // Only a full counter refuses it, and that is readable already.
    }
}

std::optional<BusEvent> EventQueue::Take() {
    const std::lock_guard lock(m_mutex);
    if (m_events.empty()) {
        return std::nullopt;
    }
    const BusEvent event = m_events.front();
    m_events.pop_front();
    std::uint64_t count = 0;
    if (m_events.empty() && read(m_fd, &count, sizeof count) < 0) {
        // Nothing to read is what was wanted.
    }
    return event;
}

std::uint64_t EventQueue::TakeLost() {
    const std::lock_guard lock(m_mutex);
    return std::exchange(m_lost, 0);
}

}  // namespace Nimbrel2::Tool
