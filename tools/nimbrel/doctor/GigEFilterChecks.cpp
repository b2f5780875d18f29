// SPDX-License-Identifier: Apache-2.0
// What this computer drops of what cameras and the driver send each other. Pure.
#include <algorithm>

#include "tools/nimbrel/OwnCommand.h"
#include "tools/nimbrel/Words.h"
#include "tools/nimbrel/doctor/GigEChecks.h"
#include "tools/nimbrel/doctor/GigETexts.h"

namespace Nimbrel2::Tool::Doctor {
namespace {

using Platform::CameraDiagnosis;
using Platform::InterfaceAddress;
using Platform::InterfaceDiagnosis;
using Platform::InterfaceHearing;
using Platform::MutedCamera;

constexpr std::uint16_t GvcpPort = 3956;
constexpr std::uint32_t Everybody = 0xFFFFFFFF;

// ---- Reverse path filter -------------------------------------------------------------------------------------------

FilterReach ReachOf(const GigEExamination& examined, int interface) {
    const auto found = examined.filters.find(interface);
    return found == examined.filters.end() ? FilterReach{} : found->second;
}

std::string FilterText(const InterfaceDiagnosis& entry) {
    const int inForce = entry.GetRpFilter();
    const char* kind = inForce == 0 ? "off" : inForce == 2 ? "loose" : "strict";
    return entry.interface.name + ": reverse path filter " + std::to_string(inForce) + " (" + kind + "; all " +
           std::to_string(entry.rpFilterOfAll) + ", " + entry.interface.name + " " +
           std::to_string(entry.rpFilterOfIt) + ")";
}

// Loose is enough where a default route knows a way to any camera; without one the filter must be off.
std::string FilterCure(const InterfaceDiagnosis& entry, bool hasDefaultRoute) {
    if (hasDefaultRoute && entry.GetRpFilter() == 1) {
        return Sudo({"sysctl", "-w", FilterSetting(entry.interface.name, 2)});
    }
    std::vector<std::string> words{"sysctl", "-w"};
    if (entry.rpFilterOfAll != 0) {
        words.push_back(FilterSetting("all", 0));
    }
    if (entry.rpFilterOfIt != 0) {
        words.push_back(FilterSetting(entry.interface.name, 0));
    }
    return Sudo(words);
}

bool SeesWire(const GigEExamination& examined, int interface) {
    const auto& all = examined.hearing.interfaces;
    return std::any_of(all.begin(), all.end(), [interface](const InterfaceHearing& hearing) {
        return hearing.interface == interface && hearing.seesWire;
    });
}

// ---- Firewall ------------------------------------------------------------------------------------------------------

// Why a packet is looked at: somebody has missed it, or it shows whether any camera can be used at all.
struct Exchange {
    Packet packet;
    std::string what;      ///< "the answers of cameras to broadcasts"
    std::string measured;  ///< what was lost; empty: nothing that is known
};

std::uint32_t OwnAddress(const InterfaceDiagnosis& entry, std::uint32_t camera) {
    const InterfaceAddress* subnet = entry.interface.FindSubnet(camera);
    if (subnet == nullptr && !entry.interface.addresses.empty()) {
        subnet = &entry.interface.addresses.front();
    }
    return subnet == nullptr ? 0 : subnet->address;
}

Packet PacketOf(const InterfaceDiagnosis& entry, const HostSettings& host, std::uint32_t camera, bool incoming,
                bool isNew) {
    Packet packet;
    packet.incoming = incoming;
    packet.interface = entry.interface.name;
    const std::uint32_t own = OwnAddress(entry, camera);
    packet.source = incoming ? camera : own;
    packet.destination = incoming ? own : camera;
    packet.sourcePort = incoming ? GvcpPort : entry.localPort;
    packet.destinationPort = incoming ? entry.localPort : GvcpPort;
    packet.isNew = isNew;
    packet.isBroadcast = camera == Everybody;
    packet.isBridged = host.bridges.count(entry.interface.name) != 0;
    return packet;
}

// An address of a camera on that interface: a real one, or else any of its subnet.
std::uint32_t SomeCamera(const InterfaceDiagnosis& entry, const GigEExamination& examined) {
    for (const CameraDiagnosis& camera : examined.diagnosis.cameras) {
        if (camera.interface == entry.interface.index && !IsElsewhere(camera)) {
            return camera.record.ipAddress;
        }
    }
    const InterfaceAddress* address = entry.interface.addresses.empty() ? nullptr : &entry.interface.addresses.front();
    return address == nullptr ? 0 : FreeAddress(examined.diagnosis, *address);
}

// Cameras whose answers to broadcasts are lost to a firewall. What the reverse path filter drops never gets there, and
// a camera without an address is dropped by the kernel itself.
std::vector<const MutedCamera*> FindMuted(const InterfaceDiagnosis& entry, const GigEExamination& examined) {
    std::vector<const MutedCamera*> muted;
    const FilterReach reach = ReachOf(examined, entry.interface.index);
    for (const MutedCamera& camera : examined.hearing.muted) {
        const bool isFiltered = camera.reachable ? reach.ofOwnSubnet : reach.ofUnknownSubnets;
        if (camera.interface == entry.interface.index && !isFiltered && camera.record.ipAddress != 0) {
            muted.push_back(&camera);
        }
    }
    return muted;
}

std::string Describe(const std::vector<const MutedCamera*>& muted) {
    std::vector<std::string> words;
    for (const MutedCamera* camera : muted) {
        words.push_back(CameraText(camera->record) + " at " + IpText(camera->record.ipAddress) +
                        (camera->onWire ? " (seen on the wire)" : " (answers when asked directly)"));
    }
    return words.empty() ? "" : "lost: the answers of " + Enumerate(words);
}

std::string DescribeSilent(const InterfaceDiagnosis& entry, const GigEExamination& examined) {
    std::vector<std::string> words;
    for (const CameraDiagnosis& camera : examined.diagnosis.cameras) {
        const bool silent =
            camera.interface == entry.interface.index && camera.usability == Platform::GigEUsability::NoAnswer;
        if (silent) {
            words.push_back(CameraText(camera.record) + " at " + IpText(camera.record.ipAddress));
        }
    }
    return words.empty() ? "" : "no answer from " + Enumerate(words);
}

std::vector<Exchange> ExchangesOf(const InterfaceDiagnosis& entry, const GigEExamination& examined) {
    const std::vector<const MutedCamera*> muted = FindMuted(entry, examined);
    const std::uint32_t camera = SomeCamera(entry, examined);
    const std::uint32_t answering = muted.empty() ? camera : muted.front()->record.ipAddress;
    const std::string silent = DescribeSilent(entry, examined);
    const HostSettings& host = examined.host;
    return {{PacketOf(entry, host, Everybody, false, true), "requests to all cameras", ""},
            {PacketOf(entry, host, answering, true, true), "answers to requests to all cameras", Describe(muted)},
            {PacketOf(entry, host, camera, false, true), "requests to single cameras", silent},
            {PacketOf(entry, host, camera, true, false), "answers to requests to single cameras", silent}};
}

// One finding a chain, whatever it drops.
struct Wall {
    Blocker blocker;
    Packet packet;
    std::vector<std::string> drops;
    std::vector<std::string> measured;
};

std::vector<Wall> FindWalls(const InterfaceDiagnosis& entry, const GigEExamination& examined) {
    std::vector<Wall> walls;
    for (const Exchange& exchange : ExchangesOf(entry, examined)) {
        for (const Blocker& blocker : examined.host.rules.FindBlockers(exchange.packet)) {
            if (!blocker.sure && exchange.measured.empty()) {
                continue;
            }
            auto wall = std::find_if(walls.begin(), walls.end(),
                                     [&blocker](const Wall& known) { return known.blocker.chain == blocker.chain; });
            if (wall == walls.end()) {
                wall = walls.insert(walls.end(), {blocker, exchange.packet, {}, {}});
            }
            wall->drops.push_back(exchange.what);
            const bool isNews =
                std::find(wall->measured.begin(), wall->measured.end(), exchange.measured) == wall->measured.end();
            if (!exchange.measured.empty() && isNews) {
                wall->measured.push_back(exchange.measured);
            }
        }
    }
    return walls;
}

Finding FindingOf(const std::string& check, const Wall& wall, const RuleSet& rules) {
    std::string evidence = wall.packet.interface + ": " + Describe(*wall.blocker.chain) + " drops " +
                           Enumerate(wall.drops) + " " + wall.blocker.how;
    if (!wall.blocker.sure) {
        evidence += ", most likely";
    }
    for (const std::string& measured : wall.measured) {
        evidence += "; " + measured;
    }
    return {check, false, evidence, CureOf(rules, wall.blocker, wall.packet)};
}

std::string HearingText(const InterfaceHearing& hearing, const std::string& name) {
    std::string text = name + ": " + CountOf(hearing.heard, "camera") + (hearing.heard == 1 ? " answers" : " answer") +
                       " broadcasts, ";
    if (hearing.seesWire) {
        return text + "and no answer was lost between wire and socket";
    }
    text += "and none of " + CountOf(hearing.neighbours, "other host") + " answers only when asked directly";
    return hearing.heard > 0 ? text : text + " (root can see more)";
}

}  // namespace

Findings CheckRpFilter(const GigEExamination& examined) {
    const std::string check = "gige.rp-filter";
    const bool hasDefaultRoute = examined.diagnosis.defaultRoute != 0;
    Findings wrong;
    std::vector<std::string> measured;
    for (const InterfaceDiagnosis& entry : examined.diagnosis.interfaces) {
        if (!entry.used || entry.interface.loopback) {
            continue;
        }
        const bool mayDrop = ReachOf(examined, entry.interface.index).ofUnknownSubnets;
        std::string evidence = FilterText(entry);
        // Who sees the wire sees the camera, and the finding is that it has an address of another subnet.
        const bool lost =
            mayDrop && examined.filteredPackets.value_or(0) > 0 && !SeesWire(examined, entry.interface.index);
        if (lost) {
            wrong.push_back({check, false,
                             evidence + " has dropped " + CountOf(*examined.filteredPackets, "packet") +
                                 " from other subnets while cameras were searched: one of them may be a camera",
                             FilterCure(entry, hasDefaultRoute)});
            continue;
        }
        measured.push_back(
            evidence + (mayDrop ? ": would hide a camera on another subnet; nothing was dropped" : ": drops nothing"));
    }
    return OrOk(wrong, check, measured);
}

Findings CheckFirewall(const GigEExamination& examined) {
    const std::string check = "gige.firewall";
    Findings wrong;
    std::vector<std::string> measured;
    for (const InterfaceHearing& hearing : examined.hearing.interfaces) {
        const InterfaceDiagnosis* entry = FindInterface(examined.diagnosis, hearing.interface);
        if (entry == nullptr || !entry->used) {
            continue;
        }
        const std::vector<Wall> walls = FindWalls(*entry, examined);
        for (const Wall& wall : walls) {
            wrong.push_back(FindingOf(check, wall, examined.host.rules));
        }
        const std::vector<const MutedCamera*> muted = FindMuted(*entry, examined);
        if (walls.empty() && !muted.empty()) {
            const bool known = examined.host.rules.known;
            wrong.push_back(
                {check, false,
                 entry->interface.name + ": " + Describe(muted) + "; " +
                     (known ? "no rule of nftables or iptables drops them" : "only root may see which rule drops them"),
                 known ? ByHand("look for a filter that nftables and iptables do not show, such as one in eBPF")
                       : ByHand("root sees which rule: " + SudoNimbrel() + " doctor --interface " +
                                QuoteForShell(entry->interface.name))});
        } else if (walls.empty() && hearing.error == 0) {
            measured.push_back(HearingText(hearing, entry->interface.name));
        }
    }
    if (!measured.empty()) {
        measured.push_back(examined.host.rules.known ? "no rule drops what cameras send or receive"
                                                     : "only root may see the rules");
    }
    return OrOk(wrong, check, measured);
}

}  // namespace Nimbrel2::Tool::Doctor
