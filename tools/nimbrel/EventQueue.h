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
    unsigned int generation = 0;     ///< How often this camera has come and gone by then; 0 for a bus reset.
    std::chrono::system_clock::time_point time;
};

/// Registers for resets, arrivals and removals, and keeps what was called back until the main thread takes it.
class EventQueue {
public:
    /// Events that wait at most. A reader that stands still must not make the program grow without end.
    static constexpr std::size_t kCapacity = 65536;

    /// @throws std::system_error
    EventQueue();
    /// The bus master must be gone, or never have been given to Register.
    ~EventQueue();

    EventQueue(const EventQueue&) = delete;
    EventQueue& operator=(const EventQueue&) = delete;

    /// Asks for all three kinds. @throws CommandError with the bus master's error.
    void Register(BusMaster& busMaster);

    /// Readable while an event waits.
    int GetFd() const { return m_fd; }

    /// The oldest event that waits.
    std::optional<BusEvent> Take();

    /// How many did not fit since the last call.
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
