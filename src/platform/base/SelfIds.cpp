// SPDX-License-Identifier: Apache-2.0
// Self-ID packets as PHYs that are connected to each other. Pure: no lock, no I/O, any thread.
#include "platform/base/SelfIds.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

namespace Nimbrel2::Platform {
namespace {

constexpr std::size_t MaxPhys = 63;
constexpr std::uint32_t MaxExtendedPackets = 3;
constexpr int PortsInPacketZero = 3;
constexpr int PortsInExtendedPacket = 8;

using Packets = std::span<const SelfIdPacket_t>;

std::uint32_t ToQuadlet(const SelfIdPacket_t& packet) {
    return std::uint32_t{packet.bytes[0]} << 24 | std::uint32_t{packet.bytes[1]} << 16 |
           std::uint32_t{packet.bytes[2]} << 8 | packet.bytes[3];
}

bool IsSelfIdOf(std::uint32_t quadlet, unsigned int phyId) {
    return quadlet >> 30 == 2 && (quadlet >> 24 & 0x3F) == phyId;
}
bool IsExtended(std::uint32_t quadlet) { return (quadlet >> 23 & 1) != 0; }
bool HasMore(std::uint32_t quadlet) { return (quadlet & 1) != 0; }

/// @param shift  Where the first port's two bits are; the others follow below.
void AddPorts(std::uint32_t quadlet, int shift, int count, std::vector<FireWirePort>* ports) {
    for (int i = 0; i < count; ++i, shift -= 2) {
        ports->push_back({static_cast<FireWirePortStatus>(quadlet >> shift & 3), std::nullopt});
    }
}

/// Takes the packets of one PHY off the stream.
std::optional<FireWirePhy> TakePhy(Packets& packets, unsigned int phyId) {
    const std::uint32_t zero = ToQuadlet(packets.front());
    packets = packets.subspan(1);
    if (!IsSelfIdOf(zero, phyId) || IsExtended(zero)) {
        return std::nullopt;
    }
    FireWirePhy phy;
    phy.phyId = phyId;
    phy.linkActive = (zero >> 22 & 1) != 0;
    phy.gapCount = zero >> 16 & 0x3F;
    phy.speed = zero >> 14 & 3;
    phy.contender = (zero >> 11 & 1) != 0;
    phy.powerClass = zero >> 8 & 7;
    phy.initiatedReset = (zero >> 1 & 1) != 0;
    AddPorts(zero, 6, PortsInPacketZero, &phy.ports);
    bool more = HasMore(zero);
    for (std::uint32_t sequence = 0; more; ++sequence) {
        if (packets.empty() || sequence == MaxExtendedPackets) {
            return std::nullopt;
        }
        const std::uint32_t quadlet = ToQuadlet(packets.front());
        packets = packets.subspan(1);
        if (!IsSelfIdOf(quadlet, phyId) || !IsExtended(quadlet) || (quadlet >> 20 & 7) != sequence) {
            return std::nullopt;
        }
        AddPorts(quadlet, 16, PortsInExtendedPacket, &phy.ports);
        more = HasMore(quadlet);
    }
    const auto isAbsent = [](const FireWirePort& port) { return port.status == FireWirePortStatus::Absent; };
    while (!phy.ports.empty() && isAbsent(phy.ports.back())) {
        phy.ports.pop_back();
    }
    return phy;
}

FireWirePort* FindParentPort(FireWirePhy& phy) {
    const auto found = std::find_if(phy.ports.begin(), phy.ports.end(), [](const FireWirePort& port) {
        return port.status == FireWirePortStatus::ToParent;
    });
    return found == phy.ports.end() ? nullptr : &*found;
}

std::ptrdiff_t Count(const FireWirePhy& phy, FireWirePortStatus status) {
    return std::count_if(phy.ports.begin(), phy.ports.end(),
                         [status](const FireWirePort& port) { return port.status == status; });
}

/// PHYs identify themselves children first, lowest port first (IEEE 1394-1995 4.4.2.3): those that still wait for their
/// parent make a stack, and each PHY takes as many off its top as it has child ports.
bool Connect(std::vector<FireWirePhy>* phys) {
    std::vector<FireWirePhy*> orphans;
    for (FireWirePhy& phy : *phys) {
        const bool isRoot = &phy == &phys->back();
        if (Count(phy, FireWirePortStatus::ToParent) != (isRoot ? 0 : 1)) {
            return false;
        }
        const std::ptrdiff_t children = Count(phy, FireWirePortStatus::ToChild);
        if (children > static_cast<std::ptrdiff_t>(orphans.size())) {
            return false;
        }
        auto child = orphans.end() - children;
        for (FireWirePort& port : phy.ports) {
            if (port.status != FireWirePortStatus::ToChild) {
                continue;
            }
            port.neighbour = (*child)->phyId;
            FindParentPort(**child)->neighbour = phy.phyId;
            ++child;
        }
        orphans.erase(orphans.end() - children, orphans.end());
        orphans.push_back(&phy);
    }
    return orphans.size() == 1;
}

}  // namespace

std::optional<std::vector<FireWirePhy>> DecodeSelfIds(std::span<const SelfIdPacket_t> packets) {
    std::vector<FireWirePhy> phys;
    while (!packets.empty()) {
        if (phys.size() == MaxPhys) {
            return std::nullopt;
        }
        const std::optional<FireWirePhy> phy = TakePhy(packets, static_cast<unsigned int>(phys.size()));
        if (!phy) {
            return std::nullopt;
        }
        phys.push_back(*phy);
    }
    if (phys.empty() || !Connect(&phys)) {
        return std::nullopt;
    }
    return phys;
}

}  // namespace Nimbrel2::Platform
