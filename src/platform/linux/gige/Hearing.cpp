// SPDX-License-Identifier: Apache-2.0
// Looks for cameras whose answers to broadcasts are filtered. Any thread; no lock of its own.
#include "platform/linux/gige/Hearing.h"

#include <algorithm>
#include <variant>

#include "platform/base/CameraAddress.h"
#include "platform/gvcp/GvcpCodec.h"

namespace Nimbrel2::Platform::GigE {

namespace {

constexpr std::uint8_t DiscoveryFlags = Gvcp::Flag::AcknowledgeRequired | Gvcp::Flag::AllowBroadcastAcknowledge;
constexpr std::uint16_t HearingRequestId = 1;
constexpr std::size_t MaxCameras = CameraTable::MaxSightings;
constexpr std::size_t MaxNeighbours = 1024;
constexpr std::size_t PacketBudget = 256;
constexpr int ReceiveBufferBytes = 4 << 20;

template <class Records>
Listener Into(Records& records) {
    return Listener([&records](std::uint32_t, std::span<const std::uint8_t> bytes) {
        const Gvcp::DecodedAcknowledge acknowledge = Gvcp::DecodeAcknowledge(bytes);
        const auto* discovery = std::get_if<Gvcp::DiscoveryAcknowledge>(&acknowledge.body);
        if (discovery == nullptr || acknowledge.header.ackId != HearingRequestId || records.size() >= MaxCameras) {
            return;
        }
        records.try_emplace(KeyOf(discovery->record), discovery->record);
    });
}

}  // namespace

void Hearing::InterfaceProbe::Drain() {
    Listener listener = Into(heard);
    broadcasts->Drain(PacketBudget, listener);
    Listener single = Into(answered);
    requests->Drain(PacketBudget, single);
    if (!wire) {
        return;
    }
    Listener all = Into(arrived);
    wire->Drain(PacketBudget, all);
}

std::uint32_t Hearing::FindMutedCameras(GigEHearing* hearing) {
    if (!m_parts.presence.IsRunning()) {
        return HAL_CLOSED;
    }
    std::vector<InterfaceProbe> probes = Open();
    if (!AskEverybody(probes) || !AskNeighbours(probes)) {
        return HAL_CLOSED;
    }
    for (const InterfaceProbe& probe : probes) {
        Conclude(probe, hearing);
    }
    return m_parts.presence.IsRunning() ? HAL_OK : HAL_CLOSED;
}

std::vector<Hearing::InterfaceProbe> Hearing::Open() {
    std::vector<InterfaceProbe> probes;
    for (const UsedInterface& used : m_parts.interfaces.GetUsed()) {
        InterfaceProbe probe;
        probe.info = used.info;
        probe.hearing.interface = used.info.index;
        probes.push_back(std::move(probe));
    }
    m_parts.monitor.Run([&] {
        for (InterfaceProbe& probe : probes) {
            SocketOptions options;
            options.receiveBuffer = ReceiveBufferBytes;
            std::string where;
            probe.hearing.error = m_parts.OpenSocket(probe.info, options, &probe.broadcasts, &where);
            if (probe.hearing.error != 0) {
                continue;
            }
            probe.hearing.error = m_parts.OpenSocket(probe.info, options, &probe.requests, &where);
            if (probe.hearing.error != 0) {
                continue;
            }
            auto wire = std::make_unique<PacketListener>(probe.broadcasts);
            probe.hearing.seesWire = wire->IsOpen();
            if (wire->IsOpen()) {
                probe.wire = std::move(wire);
            }
        }
    });
    return probes;
}

// False when the driver has ended.
bool Hearing::ListenUntil(std::vector<InterfaceProbe>& probes, TimePoint deadline) const {
    std::vector<int> fds;
    for (const InterfaceProbe& probe : probes) {
        if (!probe.IsOpen()) {
            continue;
        }
        fds.push_back(probe.broadcasts->GetFd());
        fds.push_back(probe.requests->GetFd());
        if (probe.wire) {
            fds.push_back(probe.wire->GetFd());
        }
    }
    std::vector<bool> readable;
    while (WaitForAny(fds, m_parts.monitor.GetStopFd(), deadline, &readable)) {
        for (InterfaceProbe& probe : probes) {
            if (probe.IsOpen()) {
                probe.Drain();
            }
        }
    }
    return m_parts.presence.IsRunning();
}

bool Hearing::AskEverybody(std::vector<InterfaceProbe>& probes) const {
    const auto isOpen = [](const InterfaceProbe& probe) { return probe.IsOpen(); };
    if (std::none_of(probes.begin(), probes.end(), isOpen)) {
        return true;
    }
    const Timings& timings = m_parts.options.timings;
    const auto request = Gvcp::EncodeDiscoveryCommand(HearingRequestId, DiscoveryFlags);
    const TimePoint start = Clock::now();
    for (int i = 0; i < timings.windowRequests; ++i) {
        for (InterfaceProbe& probe : probes) {
            if (probe.IsOpen()) {
                probe.hearing.error = probe.broadcasts->Broadcast(request.GetBytes());
            }
        }
        if (!ListenUntil(probes, start + timings.discoveryWindow * (i + 1) / timings.windowRequests)) {
            return false;
        }
    }
    return true;
}

bool Hearing::AskNeighbours(std::vector<InterfaceProbe>& probes) {
    const Timings& timings = m_parts.options.timings;
    bool any = false;
    for (InterfaceProbe& probe : probes) {
        if (!probe.IsOpen()) {
            continue;
        }
        std::map<std::uint32_t, std::uint64_t> neighbours;
        m_parts.routes.ReadNeighbours(probe.info.index, &neighbours);
        for (const auto& [key, record] : probe.heard) {
            neighbours.erase(record.ipAddress);
        }
        for (const auto& neighbour : neighbours) {
            if (probe.neighbours.size() < MaxNeighbours) {
                probe.neighbours.push_back(neighbour.first);
            }
        }
        any = any || !probe.neighbours.empty();
    }
    const auto request = Gvcp::EncodeDiscoveryCommand(HearingRequestId, DiscoveryFlags);
    for (int i = 0; i < timings.registerTries && any; ++i) {
        for (const InterfaceProbe& probe : probes) {
            for (const std::uint32_t ip : probe.neighbours) {
                probe.requests->Send(request.GetBytes(), ip, LocalAddressFor(probe.info, ip));
            }
        }
        if (!ListenUntil(probes, Clock::now() + timings.registerTry)) {
            return false;
        }
    }
    return true;
}

void Hearing::Conclude(const InterfaceProbe& probe, GigEHearing* hearing) {
    InterfaceHearing result = probe.hearing;
    result.heard = static_cast<unsigned int>(probe.heard.size());
    result.neighbours = static_cast<unsigned int>(probe.neighbours.size());
    hearing->interfaces.push_back(result);

    std::map<CameraKey, MutedCamera> muted;
    for (const auto& [key, record] : probe.arrived) {
        if (probe.heard.count(key) != 0) {
            continue;
        }
        muted[key].record = record;
        muted[key].onWire = true;
    }
    for (const auto& [key, record] : probe.answered) {
        // One that the driver has heard is only slow.
        const auto sightings = m_parts.presence.GetSightings(key);
        const bool known = probe.heard.count(key) != 0 ||
                           std::any_of(sightings.begin(), sightings.end(),
                                       [&](const auto& view) { return view.interface == probe.info.index; });
        if (muted.count(key) == 0 && known) {
            continue;
        }
        muted[key].record = record;
        muted[key].answersDirectly = true;
    }
    for (auto& [key, camera] : muted) {
        camera.interface = probe.info.index;
        camera.reachable = m_parts.interfaces.IsInReach(probe.info.index, camera.record.ipAddress);
        hearing->muted.push_back(camera);
    }
}

}  // namespace Nimbrel2::Platform::GigE
