// SPDX-License-Identifier: Apache-2.0
// When each interface gets its next broadcast, and which broadcasts' answers still count. No I/O, no lock, no clock:
// the monitor thread's own.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_BROADCASTSCHEDULE_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_BROADCASTSCHEDULE_H

#include <cstdint>
#include <map>
#include <unordered_map>
#include <vector>

#include "platform/linux/gige/RequestIds.h"
#include "platform/linux/gige/Timings.h"

namespace Nimbrel2::Platform::GigE {

class BroadcastSchedule {
public:
    struct Broadcast {
        int interface = 0;
        std::uint16_t id = 0;
    };

    BroadcastSchedule(const Timings& timings, RequestIds& ids) : m_timings(timings), m_ids(ids) {}
    ~BroadcastSchedule();
    BroadcastSchedule(const BroadcastSchedule&) = delete;
    BroadcastSchedule& operator=(const BroadcastSchedule&) = delete;

    /// These interfaces, and no others, are searched. A new one begins with a burst: a window's requests.
    void Follow(const std::vector<int>& interfaces, TimePoint now);
    /// Every interface gets a burst.
    void StartBursts(TimePoint now);

    /// What is to be sent now. The next ones are due as if it had been sent: what refuses one may let the next through.
    std::vector<Broadcast> TakeDue(TimePoint now);
    TimePoint GetNextDeadline() const;

    /// Whether an answer with that id, come in on that interface, belongs to a broadcast of not too long ago.
    bool Accepts(int interface, std::uint16_t id, TimePoint now) const;

private:
    struct Schedule {
        TimePoint next;
        int requestsLeft = 0;  ///< of the burst that begins a window
        std::uint16_t burstId = 0;
    };
    struct Sent {
        int interface = 0;
        TimePoint until;
    };

    std::uint16_t TakeId(Schedule& schedule);

    const Timings& m_timings;
    RequestIds& m_ids;
    std::map<int, Schedule> m_interfaces;
    std::unordered_map<std::uint16_t, Sent> m_sent;
};

}  // namespace Nimbrel2::Platform::GigE

#endif
