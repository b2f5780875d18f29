// SPDX-License-Identifier: Apache-2.0
// From the bus master's callback threads to the main thread. m_mutex is held for single steps.
#ifndef NIMBREL2_TOOLS_NIMBREL_EVENTQUEUE_H
#define NIMBREL2_TOOLS_NIMBREL_EVENTQUEUE_H

#include <chrono>
#include <cstdint>
#include <deque>
#include <mutex>
#include <optional>

#include "busmaster/BusMaster.h"

namespace Nimbrel2::Tool {

/// One call of a callback.
struct BusEvent {
    BusCallbackType type = BUS_RESET;
    std::uint32_t serialNumber = 0;  ///< 0 for a bus reset.
    unsigned int generation = 0;     ///< How often this camera has come or gone by then; 0 for a bus reset.
    std::chrono::system_clock::time_point time;
};

/// Registers for resets, arrivals and removals and queues them until the main thread takes them.
class EventQueue {
public:
    /// Limit of queued events, so that a reader that stalls cannot make the program grow without bound.
    static constexpr std::size_t Capacity = 65536;

    /// @throws std::system_error
    EventQueue();
    /// @pre The bus master given to Register is gone.
    ~EventQueue();

    EventQueue(const EventQueue&) = delete;
    EventQueue& operator=(const EventQueue&) = delete;

    /// Registers for all three kinds. @throws CommandError with the bus master's error.
    void Register(BusMaster& busMaster);

    /// Readable while an event is queued.
    int GetFd() const { return m_fd; }

    /// The oldest queued event.
    std::optional<BusEvent> Take();

    /// How many events did not fit since the last call.
    std::uint64_t TakeLost();

private:
    template <BusCallbackType type>
    static void OnEvent(void* queue, unsigned int serialNumber);
    void Push(BusCallbackType type, unsigned int serialNumber);

    const int m_fd;
    BusMaster* m_busMaster = nullptr;
    std::mutex m_mutex;
    std::deque<BusEvent> m_events;
    std::uint64_t m_lost = 0;
};

}  // namespace Nimbrel2::Tool

#endif
