// SPDX-License-Identifier: Apache-2.0
// When each interface gets its next broadcast. The monitor thread only.
#include "platform/linux/gige/BroadcastSchedule.h"

#include <algorithm>

namespace Nimbrel2::Platform::GigE {

BroadcastSchedule::~BroadcastSchedule() {
    for (const auto& sent : m_sent) {
        m_ids.Release(sent.first);
    }
}

void BroadcastSchedule::Follow(const std::vector<int>& interfaces, TimePoint now) {
    std::erase_if(m_interfaces, [&](const auto& entry) {
        return std::find(interfaces.begin(), interfaces.end(), entry.first) == interfaces.end();
    });
    for (const int interface : interfaces) {
        m_interfaces.try_emplace(interface, Schedule{now, m_timings.windowRequests, 0});
    }
}

void BroadcastSchedule::StartBursts(TimePoint now) {
    for (auto& entry : m_interfaces) {
        entry.second = Schedule{now, m_timings.windowRequests, 0};
    }
}

// The requests of a burst share one id: a camera that is slow to answer the first does not answer each of them.
std::uint16_t BroadcastSchedule::TakeId(Schedule& schedule) {
    const bool burst = schedule.requestsLeft > 0;
    if (burst && m_sent.count(schedule.burstId) != 0) {
        return schedule.burstId;
    }
    const std::uint16_t id = m_ids.Take();
    if (id == 0) {
        return 0;
    }
    try {
        m_sent.emplace(id, Sent{});
    } catch (...) {
        m_ids.Release(id);
        throw;
    }
    if (burst) {
        schedule.burstId = id;
    }
    return id;
}

std::vector<BroadcastSchedule::Broadcast> BroadcastSchedule::TakeDue(TimePoint now) {
    std::erase_if(m_sent, [&](const auto& sent) {
        if (now < sent.second.until) {
            return false;
        }
        m_ids.Release(sent.first);
        return true;
    });
    std::vector<Broadcast> due;
    due.reserve(m_interfaces.size());
    for (auto& [interface, schedule] : m_interfaces) {
        if (now < schedule.next) {
            continue;
        }
        const std::uint16_t id = TakeId(schedule);
        if (schedule.requestsLeft > 0) {
            --schedule.requestsLeft;
        }
        schedule.next = now + (schedule.requestsLeft > 0 ? m_timings.discoveryWindow / m_timings.windowRequests
                                                         : m_timings.broadcastPeriod);
        if (id == 0) {
            continue;
        }
        m_sent[id] = Sent{interface, now + std::max(m_timings.broadcastAnswer, m_timings.discoveryWindow)};
        due.push_back({interface, id});
    }
    return due;
}

TimePoint BroadcastSchedule::GetNextDeadline() const {
    TimePoint next = TimePoint::max();
    for (const auto& entry : m_interfaces) {
        next = std::min(next, entry.second.next);
    }
    return next;
}

bool BroadcastSchedule::Accepts(int interface, std::uint16_t id, TimePoint now) const {
    const auto sent = m_sent.find(id);
    return sent != m_sent.end() && sent->second.interface == interface && now < sent->second.until;
}

}  // namespace Nimbrel2::Platform::GigE
