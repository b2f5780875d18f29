// SPDX-License-Identifier: Apache-2.0
// Looks for cameras that are there and whose answers to broadcasts are filtered. Any thread; m_mutex only to look
// something up. The sockets are this test's own: a request that went directly to a camera from the socket of the
// broadcasts would make a firewall let that camera's answers in.
#include <poll.h>

#include "platform/base/CameraAddress.h"
#include "platform/gvcp/GvcpCodec.h"
#include "platform/linux/gige/GigECore.h"

namespace Nimbrel2::Platform::GigE {

namespace {

constexpr std::uint8_t kDiscoveryFlags = Gvcp::Flag::kAcknowledgeRequired | Gvcp::Flag::kAllowBroadcastAcknowledge;
constexpr std::uint16_t kRequestId = 1;
constexpr std::size_t kMaxCameras = CameraTable::kMaxSightings;
constexpr std::size_t kMaxNeighbours = 1024;
constexpr std::size_t kPacketBudget = 256;

/// The cameras that have answered on one socket.
class Answers final : public DatagramHandler {
public:
    void OnDatagram(UdpPort& /*port*/, std::uint32_t /*from*/, std::uint16_t fromPort,
                    std::span<const std::uint8_t> bytes) override {
        if (fromPort != Gvcp::kPort) return;
        const Gvcp::DecodedAcknowledge acknowledge = Gvcp::DecodeAcknowledge(bytes);
        const auto* discovery = std::get_if<Gvcp::DiscoveryAcknowledge>(&acknowledge.body);
        if (discovery == nullptr || acknowledge.header.ackId != kRequestId || cameras.size() >= kMaxCameras) return;
        cameras.try_emplace(KeyOf(discovery->record), discovery->record);
    }

    std::map<CameraKey, GvcpDiscoveryRecord> cameras;
};

/// What listens on one interface.
struct Ear {
    NetworkInterface info;
    InterfaceHearing hearing;
    std::shared_ptr<UdpPort> broadcasts;
    std::shared_ptr<UdpPort> questions;
    std::unique_ptr<PacketListener> wire;
    std::vector<std::uint32_t> neighbours;
    Answers heard;
    Answers arrived;
    Answers answered;

    explicit Ear(const NetworkInterface& interface) : info(interface) {
        hearing.interface = interface.index;
        std::string where;
        hearing.error = UdpPort::Open(interface, &broadcasts, &where);
        if (hearing.error == 0) hearing.error = UdpPort::Open(interface, &questions, &where);
        if (hearing.error != 0) return;
        wire = std::make_unique<PacketListener>(broadcasts);
        hearing.seesWire = wire->IsOpen();
    }

    void Drain() {
        broadcasts->Drain(kPacketBudget, heard);
        questions->Drain(kPacketBudget, answered);
        if (hearing.seesWire) wire->Drain(kPacketBudget, arrived);
    }
};

/// @return false when stopFd became readable first.
bool ListenUntil(std::vector<Ear*>& ears, TimePoint deadline, int stopFd) {
    std::vector<pollfd> fds{pollfd{stopFd, POLLIN, 0}};
    for (const Ear* ear : ears) {
        fds.push_back(pollfd{ear->broadcasts->GetFd(), POLLIN, 0});
        fds.push_back(pollfd{ear->questions->GetFd(), POLLIN, 0});
        if (ear->hearing.seesWire) fds.push_back(pollfd{ear->wire->GetFd(), POLLIN, 0});
    }
    while (true) {
        const auto left = std::chrono::ceil<Milliseconds>(deadline - Clock::now()).count();
        if (left <= 0) return true;
        if (::poll(fds.data(), fds.size(), static_cast<int>(left)) <= 0) continue;
        if (fds.front().revents != 0) return false;
        for (Ear* ear : ears) ear->Drain();
    }
}

}  // namespace

std::vector<NetworkInterface> GigECore::GetUsedInterfaces() const {
    std::vector<NetworkInterface> used;
    for (const auto& entry : m_interfaces) {
        if (entry.second.IsUsed()) used.push_back(entry.second.info);
    }
    return used;
}

bool GigECore::HasHeard(int interface, const CameraKey& key) const {
    const CameraTable::Camera* camera = m_table.Find(key);
    if (camera == nullptr) return false;
    for (const auto& sighting : camera->sightings) {
        if (sighting->interface == interface) return true;
    }
    return false;
}

std::uint32_t GigECore::FindMutedCameras(GigEHearing* hearing) {
    *hearing = GigEHearing{};
    std::vector<NetworkInterface> used;
    {
        std::lock_guard lock(m_mutex);
        if (!m_running) return HAL_CLOSED;
        used = GetUsedInterfaces();
    }
    std::vector<std::unique_ptr<Ear>> all;
    std::vector<Ear*> ears;
    for (const NetworkInterface& interface : used) {
        all.push_back(std::make_unique<Ear>(interface));
        if (all.back()->hearing.error == 0) ears.push_back(all.back().get());
    }

    const auto request = Gvcp::EncodeDiscoveryCommand(kRequestId, kDiscoveryFlags);
    const TimePoint start = Clock::now();
    for (int i = 0; i < m_timings.windowRequests && !ears.empty(); ++i) {
        for (Ear* ear : ears) ear->hearing.error = ear->broadcasts->Broadcast(request.GetBytes());
        const TimePoint next = start + m_timings.discoveryWindow * (i + 1) / m_timings.windowRequests;
        if (!ListenUntil(ears, next, m_stop.Get())) return HAL_CLOSED;
    }

    bool any = false;
    for (Ear* ear : ears) {
        std::map<std::uint32_t, std::uint64_t> neighbours;
        m_routes.ReadNeighbours(ear->info.index, &neighbours);
        for (const auto& [key, record] : ear->heard.cameras) neighbours.erase(record.ipAddress);
        for (const auto& neighbour : neighbours) {
            if (ear->neighbours.size() < kMaxNeighbours) ear->neighbours.push_back(neighbour.first);
        }
        any = any || !ear->neighbours.empty();
    }
    for (int i = 0; i < m_timings.registerTries && any; ++i) {
        for (Ear* ear : ears) {
            for (const std::uint32_t ip : ear->neighbours) {
                ear->questions->Send(request.GetBytes(), ip, LocalAddressFor(ear->info, ip));
            }
        }
        if (!ListenUntil(ears, Clock::now() + m_timings.registerTry, m_stop.Get())) return HAL_CLOSED;
    }

    std::lock_guard lock(m_mutex);
    for (const auto& ear : all) {
        ear->hearing.heard = static_cast<unsigned int>(ear->heard.cameras.size());
        ear->hearing.neighbours = static_cast<unsigned int>(ear->neighbours.size());
        hearing->interfaces.push_back(ear->hearing);
        const auto interface = m_interfaces.find(ear->info.index);
        if (interface == m_interfaces.end()) continue;

        std::map<CameraKey, MutedCamera> muted;
        for (const auto& [key, record] : ear->arrived.cameras) {
            if (ear->heard.cameras.count(key) == 0) muted[key].record = record;
        }
        for (auto& entry : muted) entry.second.onWire = true;
        for (const auto& [key, record] : ear->answered.cameras) {
            // One that the driver has heard is only slow.
            if (muted.count(key) == 0 && (ear->heard.cameras.count(key) != 0 || HasHeard(ear->info.index, key)))
                continue;
            muted[key].record = record;
            muted[key].answersDirectly = true;
        }
        for (auto& [key, camera] : muted) {
            camera.interface = ear->info.index;
            camera.reachable = IsReachable(interface->second, camera.record.ipAddress, Clock::now());
            hearing->muted.push_back(camera);
        }
    }
    return m_running ? HAL_OK : HAL_CLOSED;
}

}  // namespace Nimbrel2::Platform::GigE
