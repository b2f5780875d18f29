// SPDX-License-Identifier: Apache-2.0
// Discoveries that somebody asks for. Any thread; no lock of its own.
#include "platform/linux/gige/Discovery.h"

#include <algorithm>
#include <system_error>
#include <tuple>
#include <variant>

#include "platform/base/CameraAddress.h"
#include "platform/base/Errno.h"
#include "platform/gvcp/GvcpCodec.h"

namespace Nimbrel2::Platform::GigE {

namespace {

constexpr std::uint8_t DiscoveryFlags = Gvcp::Flag::AcknowledgeRequired | Gvcp::Flag::AllowBroadcastAcknowledge;
// As many as are remembered. Those that are listed are collected above this too: no flood of invented ones hides them.
constexpr std::size_t MaxCollected = CameraTable::MaxSightings;
constexpr std::size_t PacketBudget = 256;
constexpr int ReceiveBufferBytes = 4 << 20;

bool Matches(const GigECameraName& name, const GvcpDiscoveryRecord& record) {
    return (name.ip == 0 || record.ipAddress == name.ip) && (name.mac == 0 || MacOf(record) == name.mac);
}

/// Of two interfaces that have heard a camera, the one that it can rather be used through; then the one that heard it
/// last, for a camera that was given another address meanwhile has told that last.
bool IsBetter(const SightingView& a, const SightingView& b) {
    const auto rank = [](const SightingView& view) {
        return std::make_tuple(view.usability == GigEUsability::Usable, view.lastHeard);
    };
    return rank(a) > rank(b);
}

}  // namespace

CameraDiagnosis DescribeSighting(const SightingView& view, const Registers& registers) {
    CameraDiagnosis camera;
    camera.record = view.record;
    camera.interface = view.interface;
    camera.usability = view.usability;
    camera.reachable = view.state != CameraTable::State::OutOfReach;
    camera.present = view.state == CameraTable::State::Present;
    camera.listed = view.listed;
    camera.addressTaken = view.addressTaken;
    if (camera.usability == GigEUsability::Usable && registers.IsMute(view.key)) {
        camera.usability = GigEUsability::NoRegisters;
    }
    return camera;
}

std::uint32_t Discovery::Run(const std::optional<GigECameraName>& until, GigEDiscovery* discovery) {
    const std::uint32_t status = m_parts.GetStatus();
    if (status != HAL_OK) {
        return status;
    }
    const std::uint64_t filtered = m_parts.filtered.Read();
    std::vector<Ear> ears = Open();
    Collected heard;
    if (!ears.empty()) {
        Listen(ears, until, &heard);
    }
    if (!m_parts.presence.IsRunning()) {
        return HAL_CLOSED;
    }

    const bool anyAsked = std::any_of(ears.begin(), ears.end(), [](const Ear& ear) { return ear.error == 0; });
    if (heard.empty() && !anyAsked) {
        return ears.empty() ? HAL_NO_BUS : StatusOfErrno(ears.front().error);
    }
    if (until) {
        std::erase_if(heard, [&](const auto& entry) { return !Matches(*until, entry.second.record); });
    }
    for (const SightingView& view : Judge(heard)) {
        discovery->cameras.push_back(DescribeSighting(view, m_parts.registers));
    }
    m_parts.FillReport(filtered, &discovery->report);
    for (const Ear& ear : ears) {
        const auto& problems = discovery->report.problems;
        const bool told = std::any_of(problems.begin(), problems.end(), [&](const GigESearchProblem& problem) {
            return problem.interface == ear.interface.info.index;
        });
        if (ear.error == 0 || told) {
            continue;
        }
        const auto kind = ear.hasSocket ? GigESearchProblem::Kind::Broadcast : GigESearchProblem::Kind::Socket;
        discovery->report.problems.push_back(
            {ear.interface.info.index, ear.interface.info.name, kind, ear.error,
             (ear.hasSocket ? "broadcasts are refused: " : "no socket: ") + std::system_category().message(ear.error)});
    }
    return m_parts.presence.IsRunning() ? HAL_OK : HAL_CLOSED;
}

std::vector<Discovery::Ear> Discovery::Open() {
    std::vector<Ear> ears;
    for (const UsedInterface& interface : m_parts.interfaces.GetUsed()) {
        ears.push_back({interface, {}, {}, false, 0, false});
    }
    m_parts.monitor.Run([&] {
        for (Ear& ear : ears) {
            SocketOptions options;
            options.receiveBuffer = ReceiveBufferBytes;
            std::string where;
            ear.error = m_parts.OpenSocket(ear.interface.info, options, &ear.socket, &where);
            ear.hasSocket = ear.error == 0;
            if (!ear.hasSocket) {
                continue;
            }
            int ofAll = 0;
            int ofIt = 0;
            m_parts.routes.ReadRpFilter(ear.interface.info.index, &ofAll, &ofIt);
            ear.isFiltered = ofAll != 0 || ofIt != 0;
            auto packets = std::make_unique<PacketListener>(ear.socket);
            if (packets->IsOpen()) {
                ear.packets = std::move(packets);
            }
        }
    });
    return ears;
}

void Discovery::Listen(std::vector<Ear>& ears, const std::optional<GigECameraName>& until, Collected* heard) {
    const RequestId id(m_parts.ids);
    if (id.Get() == 0) {
        return;
    }
    const Timings& timings = m_parts.options.timings;
    const TimePoint start = Clock::now();
    for (int i = 0; i < timings.windowRequests; ++i) {
        for (Ear& ear : ears) {
            if (ear.hasSocket) {
                Ask(ear, id.Get(), until);
            }
        }
        const TimePoint next = start + timings.discoveryWindow * (i + 1) / timings.windowRequests;
        if (!ListenUntil(ears, id.Get(), next, until, heard)) {
            return;
        }
    }
}

void Discovery::Ask(Ear& ear, std::uint16_t id, const std::optional<GigECameraName>& until) {
    const auto packet = Gvcp::EncodeDiscoveryCommand(id, DiscoveryFlags);
    const NetworkInterface& info = ear.interface.info;
    ear.error = ear.socket->Broadcast(packet.GetBytes());
    // A firewall may let through only what it can pair with a request, which broadcasts are not.
    for (const CameraPlace& place : m_parts.presence.GetPlaces(info.index)) {
        ear.socket->Send(packet.GetBytes(), place.ip, LocalAddressFor(info, place.ip));
    }
    if (until && until->ip != 0 && m_parts.interfaces.IsInReach(info.index, until->ip)) {
        ear.socket->Send(packet.GetBytes(), until->ip, LocalAddressFor(info, until->ip));
    }
}

// False when there is nothing more to listen for.
bool Discovery::ListenUntil(std::vector<Ear>& ears, std::uint16_t id, TimePoint deadline,
                            const std::optional<GigECameraName>& until, Collected* heard) {
    std::vector<int> fds;
    for (const Ear& ear : ears) {
        if (ear.hasSocket) {
            fds.push_back(ear.socket->GetFd());
        }
        if (ear.packets) {
            fds.push_back(ear.packets->GetFd());
        }
    }
    std::vector<bool> readable;
    while (WaitForAny(fds, m_parts.monitor.GetStopFd(), deadline, &readable)) {
        for (Ear& ear : ears) {
            Drain(ear, id, heard);
        }
        if (until && std::any_of(heard->begin(), heard->end(),
                                 [&](const auto& entry) { return Matches(*until, entry.second.record); })) {
            return false;
        }
    }
    return Clock::now() >= deadline;
}

void Discovery::Drain(Ear& ear, std::uint16_t id, Collected* heard) const {
    const auto collect = [&](std::uint32_t from, std::span<const std::uint8_t> bytes) {
        Collect(ear.interface.info.index, id, from, bytes, heard);
    };
    Listener listener(collect);
    if (ear.hasSocket) {
        ear.socket->Drain(PacketBudget, listener);
    }
    if (!ear.packets) {
        return;
    }
    // Answers from 0.0.0.0 reach no socket, nor do those that the reverse path filter drops. What else does not, a
    // firewall does not want to.
    Listener dropped([&](std::uint32_t from, std::span<const std::uint8_t> bytes) {
        if (ear.isFiltered || from == 0) {
            collect(from, bytes);
        }
    });
    ear.packets->Drain(PacketBudget, dropped);
}

void Discovery::Collect(int interface, std::uint16_t id, std::uint32_t from, std::span<const std::uint8_t> bytes,
                        Collected* heard) const {
    const Gvcp::DecodedAcknowledge acknowledge = Gvcp::DecodeAcknowledge(bytes);
    const auto* discovery = std::get_if<Gvcp::DiscoveryAcknowledge>(&acknowledge.body);
    if (discovery == nullptr || acknowledge.header.ackId != id) {
        return;
    }
    const CameraKey key = KeyOf(discovery->record);
    const auto found = heard->find({key, interface});
    if (found == heard->end() && heard->size() >= MaxCollected && !m_parts.presence.FindPlace(key)) {
        return;
    }
    // What is said of a present camera is taken only when it is true.
    if (const auto place = m_parts.presence.FindPlace(key); place && place->interface == interface) {
        if (found != heard->end() && found->second.record.ipAddress == place->ip &&
            discovery->record.ipAddress != place->ip) {
            return;
        }
    }
    (*heard)[{key, interface}] = Heard{discovery->record, from, Clock::now()};
}

// One view of each camera, in the order of MAC and address. Those of which it is not known yet whether they answer at
// their addresses, or with their registers, are asked.
std::vector<SightingView> Discovery::Judge(const Collected& heard) {
    std::vector<SightingView> views;
    std::vector<Probe> probes;
    const TimePoint now = Clock::now();
    for (const auto& [where, answer] : heard) {
        SightingView view;
        view.key = where.first;
        view.interface = where.second;
        view.record = answer.record;
        view.usability = m_parts.interfaces.Judge(view.interface, view.record);
        view.lastHeard = answer.at;
        // Those that cannot be used too, for a diagnosis: where a filter is on, only this search has heard them.
        if (!m_parts.presence.Find(view)) {
            m_parts.presence.HeardBroadcast({view.interface, answer.from, answer.record, view.usability}, now, &probes);
        }
        views.push_back(view);
    }
    m_parts.monitor.SendProbes(probes);
    m_parts.monitor.Wake();
    m_parts.presence.WaitUntilConcluded(views, now + m_parts.options.timings.confirmWait);

    std::vector<CameraPlace> places;
    for (SightingView& view : views) {
        if (view.usability != GigEUsability::Usable) {
            continue;
        }
        view.usability = GigEUsability::NoAnswer;
        const auto known = m_parts.presence.Find(view);
        if (!known) {
            continue;
        }
        const TimePoint at = view.lastHeard;
        view = *known;
        view.lastHeard = at;
        const auto place = m_parts.presence.FindPlace(view.key);
        if (view.listed && place) {
            places.push_back(*place);
        }
    }
    m_parts.registers.ReadAll(places, ReadingPlan{false, Gvcp::Register::CurrentIpAddress});

    std::vector<SightingView> best;
    for (const SightingView& view : views) {
        if (best.empty() || best.back().key != view.key) {
            best.push_back(view);
        } else if (IsBetter(view, best.back())) {
            best.back() = view;
        }
    }
    std::sort(best.begin(), best.end(), [](const SightingView& a, const SightingView& b) {
        return std::tie(a.key.mac, a.record.ipAddress, a.key.serial) <
               std::tie(b.key.mac, b.record.ipAddress, b.key.serial);
    });
    return best;
}

}  // namespace Nimbrel2::Platform::GigE
