// SPDX-License-Identifier: Apache-2.0
// Gives cameras the addresses that somebody has chosen, by FORCEIP. Any thread; m_mutex is let go while the cameras
// answer.
#include <algorithm>
#include <cerrno>

#include "platform/gvcp/GvcpCodec.h"
#include "platform/linux/gige/GigECore.h"

namespace Nimbrel2::Platform::GigE {

namespace {

constexpr std::uint8_t kForceIpFlags = Gvcp::Flag::kAcknowledgeRequired | Gvcp::Flag::kAllowBroadcastAcknowledge;

}  // namespace

std::uint32_t GigECore::ForceAddress(const GigEAddress& address, ForceIpResult* result) {
    std::vector<ForceJob> jobs(1);
    jobs[0].mac = address.mac;
    jobs[0].ip = address.ip;
    jobs[0].mask = address.mask;
    jobs[0].gateway = address.gateway;
    {
        std::lock_guard lock(m_mutex);
        if (!m_running) return HAL_CLOSED;
        if (!HasUsedInterface()) return RefusalStatus();
        jobs[0].ports = FindPortsOf(address.mac);
    }
    ForceAll(jobs);
    result->acknowledged = address.ip != 0 && jobs[0].status == HAL_OK;
    std::lock_guard lock(m_mutex);
    const CameraTable::Camera* camera = m_table.Find(CameraKey{address.mac, 0, {}});
    result->verified = camera != nullptr && camera->listed != nullptr && camera->listed->ip == address.ip;
    if (result->verified) result->record = camera->listed->record;
    result->outOfReach = std::none_of(m_interfaces.begin(), m_interfaces.end(), [&](auto& entry) {
        return entry.second.IsUsed() && IsReachable(entry.second, address.ip, Clock::now());
    });
    return jobs[0].status;
}

// The interfaces on whose wire the camera has been heard, all of them when it has not been heard at all.
std::vector<std::shared_ptr<UdpPort>> GigECore::FindPortsOf(std::uint64_t mac) const {
    std::vector<std::shared_ptr<UdpPort>> heard;
    std::vector<std::shared_ptr<UdpPort>> all;
    const CameraTable::Camera* camera = m_table.Find(CameraKey{mac, 0, {}});
    for (const auto& [index, interface] : m_interfaces) {
        if (!interface.IsUsed()) continue;
        all.push_back(interface.port);
        if (camera == nullptr) continue;
        const bool here = std::any_of(camera->sightings.begin(), camera->sightings.end(),
                                      [where = index](const auto& sighting) { return sighting->interface == where; });
        if (here) heard.push_back(interface.port);
    }
    return heard.empty() ? all : heard;
}

// All cameras at once, so that many that do not answer cost no more time than one.
void GigECore::ForceAll(std::vector<ForceJob>& jobs) {
    for (ForceJob& job : jobs) {
        const std::uint16_t id = m_ids.Take();
        if (id == 0) {
            job.status = HAL_BUSY;
            continue;
        }
        job.reply = std::make_unique<PendingReply>();
        job.reply->id = id;
        job.reply->from = job.ip;
        job.reply->acknowledge = Gvcp::MessageId::ForceIpAck;
        job.reply->limit = Clock::now() + m_timings.pendingLimit;
        m_replies->Add(*job.reply);
    }
    for (int i = 0; i < m_timings.forceIpTries; ++i) {
        SendForceIps(jobs);
        const TimePoint deadline = Clock::now() + m_timings.forceIpTry;
        for (ForceJob& job : jobs) {
            if (!job.reply || job.ip == 0) continue;
            do {
                job.said = m_replies->Wait(*job.reply, nullptr, deadline, *this);
            } while (!job.said.answered && !m_stopping && Clock::now() < deadline);
        }
    }
    for (ForceJob& job : jobs) {
        if (!job.reply) continue;
        job.said = m_replies->Remove(*job.reply);
        m_ids.Release(job.reply->id);
        if (job.said.answered) {
            job.status = Gvcp::ToHalStatus(job.said.status);
        } else if (m_stopping) {
            job.status = HAL_CLOSED;
        }
    }
    CamerasHaveMoved(jobs);
}

void GigECore::SendForceIps(std::vector<ForceJob>& jobs) {
    for (ForceJob& job : jobs) {
        if (!job.reply || job.said.answered) continue;
        const Gvcp::ForceIpCommand command{static_cast<std::uint16_t>(job.mac >> 32),
                                           static_cast<std::uint32_t>(job.mac), job.ip, job.mask, job.gateway};
        const Gvcp::Packet packet = Gvcp::EncodeForceIpCommand(job.reply->id, kForceIpFlags, command);
        int error = ENETUNREACH;
        for (const auto& port : job.ports) {
            const int portError = port->Broadcast(packet.GetBytes());
            if (error != 0) error = portError;
        }
        const bool sent = error == 0 || error == EAGAIN || error == ENOBUFS;
        job.status = sent ? HAL_NO_ACKNOWLEDGE : StatusOfErrno(error);
        // Address 0 makes the camera begin its own configuration anew, which it does not acknowledge.
        if (sent && job.ip == 0) job.status = HAL_OK;
    }
}

// What was known of their old addresses no longer holds. They are asked at the new ones at once, and given a moment to
// answer there, so that the next listing shows them. Where nothing was acknowledged it is still time to look: the
// acknowledge may be what got lost.
void GigECore::CamerasHaveMoved(const std::vector<ForceJob>& jobs) {
    std::vector<Probe> probes;
    std::vector<CameraKey> moved;
    std::unique_lock lock(m_mutex);
    const TimePoint now = Clock::now();
    for (const ForceJob& job : jobs) {
        const CameraTable::Camera* camera = m_table.Find(CameraKey{job.mac, 0, {}});
        if (job.status != HAL_OK || job.ip == 0 || camera == nullptr) continue;
        for (const auto& port : job.ports) {
            const auto interface = m_interfaces.find(port->GetInterface());
            if (interface == m_interfaces.end() || !interface->second.IsUsed()) continue;
            if (!IsReachable(interface->second, job.ip, now)) continue;
            GvcpDiscoveryRecord record = camera->sightings.front()->record;
            record.ipAddress = job.ip;
            record.subnetMask = job.mask;
            record.defaultGateway = job.gateway;
            m_table.HasMoved(interface->first, record, true, now, &probes);
            moved.push_back(KeyOf(record));
            break;
        }
    }
    for (auto& entry : m_interfaces) {
        if (entry.second.IsUsed()) StartBurst(entry.second, now);
    }
    lock.unlock();
    m_poller.Wake();
    SendProbes(probes);
    lock.lock();
    ++m_numWaiting;
    const auto allListed = [&] {
        return std::all_of(moved.begin(), moved.end(), [&](const CameraKey& key) {
            const CameraTable::Camera* camera = m_table.Find(key);
            return camera == nullptr || camera->listed != nullptr;
        });
    };
    m_changed.wait_until(lock, now + m_timings.forceIpVerify, [&] { return !m_running || allListed(); });
    --m_numWaiting;
}

}  // namespace Nimbrel2::Platform::GigE
