// SPDX-License-Identifier: Apache-2.0
// What is wrong with this computer's own network. Pure.
#include <algorithm>
#include <cerrno>
#include <system_error>

#include "tools/nimbrel/BusHealth.h"
#include "tools/nimbrel/Values.h"
#include "tools/nimbrel/doctor/GigEChecks.h"
#include "tools/nimbrel/doctor/GigETexts.h"

namespace Nimbrel2::Tool::Doctor {
namespace {

using Platform::GigEDiagnosis;
using Platform::InterfaceAddress;
using Platform::InterfaceDiagnosis;
using Platform::InterfaceHearing;
using Platform::MutedCamera;
using Platform::NetworkInterface;

constexpr std::uint32_t kUsualMtu = 1500;
constexpr std::uint32_t kJumboMtu = 9000;
constexpr std::uint32_t kSmallReceiveBuffer = 128 << 10;  // some 150 answers at once
constexpr char kRaiseReceiveBuffer[] = "sudo sysctl -w net.core.rmem_max=33554432";

bool IsKnown(const GigEExamination& examined) { return examined.status == HAL_OK && examined.diagnosis.error == 0; }

std::string Sudo(const std::string& command) { return "sudo " + command; }

/// One finding that is ok, made of what was measured, when nothing is wrong.
Findings OrOk(Findings wrong, const std::string& check, const std::vector<std::string>& measured) {
    if (!wrong.empty() || measured.empty()) return wrong;
    std::string evidence;
    for (const std::string& text : measured) evidence += (evidence.empty() ? "" : "; ") + text;
    return {{check, true, evidence, ""}};
}

std::string CureOfRefusal(const std::string& name, int error, const GigEDiagnosis& diagnosis) {
    switch (error) {
        case EPERM:
        case EACCES:
            return Sudo("nft insert rule inet filter output udp dport 3956 accept");
        case ENETUNREACH:
        case EADDRNOTAVAIL:
            return Sudo("ip address add " + FreeSubnetAddress(diagnosis) + " dev " + name);
        default:
            return Sudo("ip link set dev " + name + " up");
    }
}

// ---- Interfaces ----------------------------------------------------------------------------------------------------

/// Whether cameras could be on it, were it up and had it an address.
bool CouldCarryCameras(const InterfaceDiagnosis& entry) {
    const NetworkInterface& interface = entry.interface;
    return !interface.loopback && interface.broadcast && !interface.pointToPoint && interface.portOf.empty() &&
           entry.error == 0 && entry.reason != "not among the network interfaces asked for";
}

std::string WhatIsMissing(const NetworkInterface& interface) {
    if (!interface.up) return "is down";
    if (!interface.running) return "has no link";
    return "has no IPv4 address";
}

std::string CureOf(const NetworkInterface& interface, const GigEDiagnosis& diagnosis) {
    if (!interface.up) return Sudo("ip link set dev " + interface.name + " up");
    if (!interface.running) return "plug the cable in at both ends; ip link show dev " + interface.name;
    return Sudo("ip address add " + FreeSubnetAddress(diagnosis) + " dev " + interface.name);
}

bool Overlap(const InterfaceAddress& a, const InterfaceAddress& b) {
    return a.Contains(b.address) || b.Contains(a.address);
}

// ---- Reverse path filter -------------------------------------------------------------------------------------------

/// A strict filter lets a foreign answer pass only where this computer would answer it by the same interface, a loose
/// one where it knows any way.
bool DropsForeignAnswers(const InterfaceDiagnosis& entry, int defaultRoute) {
    if (entry.GetRpFilter() == 0 || defaultRoute == entry.interface.index) return false;
    return entry.GetRpFilter() != 2 || defaultRoute == 0;
}

std::string FilterText(const InterfaceDiagnosis& entry) {
    const int inForce = entry.GetRpFilter();
    const char* kind = inForce == 0 ? "off" : inForce == 2 ? "loose" : "strict";
    return entry.interface.name + ": the reverse path filter in force is " + std::to_string(inForce) + ", " + kind +
           " (all " + std::to_string(entry.rpFilterOfAll) + ", " + entry.interface.name + " " +
           std::to_string(entry.rpFilterOfIt) + "; the larger counts)";
}

std::string FilterCure(const InterfaceDiagnosis& entry) {
    std::string cure = "sysctl -w";
    // With slashes, for a name may have dots.
    if (entry.rpFilterOfAll != 0) cure += " net/ipv4/conf/all/rp_filter=0";
    if (entry.rpFilterOfIt != 0) cure += " net/ipv4/conf/" + entry.interface.name + "/rp_filter=0";
    return Sudo(cure);
}

// ---- Firewall ------------------------------------------------------------------------------------------------------

std::string DroppingChains(const HostSettings& host) {
    if (!host.inputChains) return "the firewall's rules cannot be read by this user";
    std::vector<std::string> words;
    for (const InputChain& chain : *host.inputChains) {
        if (chain.drops) words.push_back("\"" + chain.family + " " + chain.table + " " + chain.name + "\"");
    }
    if (words.empty()) return "no nftables input chain drops by policy";
    return "nftables input " + std::string(words.size() == 1 ? "chain " : "chains ") + Enumerate(words) +
           (words.size() == 1 ? " drops" : " drop") + " what no rule accepts";
}

std::string FirewallCure(const HostSettings& host) {
    if (host.usesFirewalld) {
        return Sudo("firewall-cmd --permanent --add-source-port=3956/udp && sudo firewall-cmd --reload");
    }
    if (host.usesUfw) return Sudo("ufw allow in proto udp from any port 3956");
    InputChain chain{"inet", "filter", "input", true};  // what most rule sets call it
    if (host.inputChains && !host.inputChains->empty()) {
        const auto dropping = std::find_if(host.inputChains->begin(), host.inputChains->end(),
                                           [](const InputChain& known) { return known.drops; });
        chain = dropping != host.inputChains->end() ? *dropping : host.inputChains->front();
    }
    return Sudo("nft insert rule " + chain.family + " " + chain.table + " " + chain.name + " udp sport 3956 accept");
}

std::string HearingText(const InterfaceHearing& hearing, const std::string& name) {
    std::string text = name + ": " + std::to_string(hearing.heard) +
                       (hearing.heard == 1 ? " camera answers" : " cameras answer") + " a broadcast and ";
    if (hearing.seesWire) return text + "no answer was lost between the wire and the socket";
    text += "none of " + std::to_string(hearing.neighbours) + " other hosts answers only when it is asked directly";
    if (hearing.heard > 0) return text;
    return text + "; not ruled out: what arrives before a firewall only an administrator may see";
}

Finding OverlapOf(const std::string& first, const InterfaceAddress& a, const std::string& second,
                  const InterfaceAddress& b, const GigEDiagnosis& diagnosis) {
    return {"gige.subnet-overlap", false,
            first + " " + AddressText(a) + " and " + second + " " + AddressText(b) +
                " are in one subnet: what goes to a camera may leave by the wrong one",
            Sudo("ip address del " + AddressText(b) + " dev " + second) + " && sudo ip address add " +
                FreeSubnetAddress(diagnosis) + " dev " + second};
}

}  // namespace

Findings CheckDriver(const GigEExamination& examined) {
    const std::string check = "gige.driver";
    const GigEDiagnosis& diagnosis = examined.diagnosis;
    if (examined.status != HAL_OK) {
        return {{check, false, "the GigE driver cannot look: " + DescribeStatus(examined.status),
                 Sudo("nimbrel doctor --bus gige")}};
    }
    if (diagnosis.error != 0) {
        const std::string why = std::generic_category().message(diagnosis.error);
        return {{check, false, "the kernel does not tell its network interfaces: " + why,
                 Sudo("nimbrel doctor --bus gige")}};
    }
    Findings wrong;
    std::vector<std::string> used;
    for (const InterfaceDiagnosis& entry : diagnosis.interfaces) {
        int sendError = entry.sendError;
        for (const InterfaceHearing& hearing : examined.hearing.interfaces) {
            if (hearing.interface == entry.interface.index && sendError == 0) sendError = hearing.error;
        }
        if (entry.error != 0) {
            wrong.push_back({check, false, entry.interface.name + ": " + entry.reason, Sudo("nimbrel doctor")});
        } else if (entry.used && sendError != 0) {
            wrong.push_back(
                {check, false,
                 entry.interface.name + ": a broadcast was refused: " + std::generic_category().message(sendError),
                 CureOfRefusal(entry.interface.name, sendError, diagnosis)});
        }
        if (entry.used) used.push_back(entry.interface.name);
    }
    return OrOk(wrong, check,
                {"looks on " + (used.empty() ? std::string("no network interface") : Enumerate(used)) + ", of " +
                 std::to_string(diagnosis.interfaces.size())});
}

// An interface without a cable is no fault while others work. One with a cable and no address is.
Findings CheckInterfaces(const GigEExamination& examined) {
    const std::string check = "gige.interface";
    if (!IsKnown(examined)) return {};
    bool anyUsed = false;
    bool anyRefused = false;
    for (const InterfaceDiagnosis& entry : examined.diagnosis.interfaces) {
        anyUsed = anyUsed || entry.used;
        anyRefused = anyRefused || entry.error != 0;
    }
    Findings wrong;
    std::vector<std::string> measured;
    for (const InterfaceDiagnosis& entry : examined.diagnosis.interfaces) {
        const NetworkInterface& interface = entry.interface;
        if (entry.used) {
            std::string addresses;
            for (const InterfaceAddress& address : interface.addresses) addresses += " " + AddressText(address);
            if (!addresses.empty() || interface.loopback) {
                measured.push_back(interface.name + " is up with" + addresses);
                continue;
            }
        }
        if (!CouldCarryCameras(entry)) continue;
        const bool deaf = interface.running && interface.up;
        const std::string evidence = interface.name + " " + WhatIsMissing(interface);
        if (!anyUsed || deaf) {
            wrong.push_back(
                {check, false, evidence + ": no camera on it can be used", CureOf(interface, examined.diagnosis)});
        } else {
            measured.push_back(evidence + " and is not looked at");
        }
    }
    if (!anyUsed && !anyRefused && wrong.empty()) {
        wrong.push_back({check, false,
                         "this computer has no network interface that cameras could be on (" +
                             std::to_string(examined.diagnosis.interfaces.size()) + " in all, loopback included)",
                         "nimbrel doctor --interface lo"});
    }
    return OrOk(wrong, check, measured);
}

Findings CheckSubnetOverlap(const GigEExamination& examined) {
    const std::string check = "gige.subnet-overlap";
    Findings wrong;
    std::size_t numUp = 0;
    const auto& all = examined.diagnosis.interfaces;
    for (auto first = all.begin(); first != all.end(); ++first) {
        if (!first->interface.up || !CouldCarryCameras(*first)) continue;
        ++numUp;
        for (auto second = std::next(first); second != all.end(); ++second) {
            if (!second->interface.up || !CouldCarryCameras(*second)) continue;
            for (const InterfaceAddress& a : first->interface.addresses) {
                for (const InterfaceAddress& b : second->interface.addresses) {
                    if (!Overlap(a, b)) continue;
                    wrong.push_back(OverlapOf(first->interface.name, a, second->interface.name, b, examined.diagnosis));
                }
            }
        }
    }
    if (numUp == 0) return wrong;
    return OrOk(wrong, check, {"no two of " + std::to_string(numUp) + " network interfaces share a subnet"});
}

Findings CheckRpFilter(const GigEExamination& examined) {
    const std::string check = "gige.rp-filter";
    const GigEDiagnosis& diagnosis = examined.diagnosis;
    Findings wrong;
    std::vector<std::string> measured;
    for (const InterfaceDiagnosis& entry : diagnosis.interfaces) {
        if (!entry.used || entry.interface.loopback) continue;
        std::string evidence = FilterText(entry);
        if (!DropsForeignAnswers(entry, diagnosis.defaultRoute)) {
            if (entry.GetRpFilter() != 0) {
                evidence += ", which drops nothing: the default route leaves by " +
                            InterfaceName(diagnosis, diagnosis.defaultRoute);
            }
            measured.push_back(evidence);
            continue;
        }
        evidence += diagnosis.defaultRoute == 0
                        ? " and there is no default route"
                        : " and the default route leaves by " + InterfaceName(diagnosis, diagnosis.defaultRoute);
        evidence += ": answers of cameras on foreign subnets are dropped";
        for (const MutedCamera& camera : examined.hearing.muted) {
            if (camera.interface != entry.interface.index || camera.reachable || !camera.onWire) continue;
            evidence += "; one of " + CameraText(camera.record) + " at " + IpText(camera.record.ipAddress) + " was";
        }
        if (examined.filteredPackets) {
            evidence += "; it has dropped " + std::to_string(*examined.filteredPackets) + " packets meanwhile";
        }
        wrong.push_back({check, false, evidence, FilterCure(entry)});
    }
    return OrOk(wrong, check, measured);
}

Findings CheckFirewall(const GigEExamination& examined) {
    const std::string check = "gige.firewall";
    Findings wrong;
    std::vector<std::string> measured;
    for (const InterfaceHearing& hearing : examined.hearing.interfaces) {
        if (hearing.error != 0) continue;
        const std::string name = InterfaceName(examined.diagnosis, hearing.interface);
        const InterfaceDiagnosis* interface = FindInterface(examined.diagnosis, hearing.interface);
        const bool filters = interface != nullptr && DropsForeignAnswers(*interface, examined.diagnosis.defaultRoute);
        bool any = false;
        for (const MutedCamera& camera : examined.hearing.muted) {
            // What the reverse path filter drops no firewall has seen.
            if (camera.interface != hearing.interface || (!camera.reachable && filters)) continue;
            any = true;
            const char* how = camera.onWire ? ": its answer to a broadcast arrives on the wire and is dropped"
                                            : " answers when it is asked directly, but its answer to a broadcast "
                                              "does not come through";
            wrong.push_back({check, false,
                             name + ": " + CameraText(camera.record) + " at " + IpText(camera.record.ipAddress) + how +
                                 "; " + DroppingChains(examined.host),
                             FirewallCure(examined.host)});
        }
        if (!any) measured.push_back(HearingText(hearing, name));
    }
    if (!measured.empty()) measured.push_back(DroppingChains(examined.host));
    return OrOk(wrong, check, measured);
}

Findings CheckMtu(const GigEExamination& examined) {
    const std::string check = "gige.mtu";
    Findings wrong;
    std::vector<std::string> measured;
    for (const InterfaceDiagnosis& entry : examined.diagnosis.interfaces) {
        if (!entry.used || entry.interface.mtu == 0) continue;
        const std::string& name = entry.interface.name;
        const std::string mtu = name + ": frames of up to " + std::to_string(entry.interface.mtu) + " octets";
        const auto set = [&name](std::uint32_t octets) {
            return Sudo("ip link set dev " + name + " mtu " + std::to_string(octets));
        };
        if (entry.interface.mtu < kUsualMtu) {
            wrong.push_back({check, false, mtu + ", fewer than the " + std::to_string(kUsualMtu) + " that cameras send",
                             set(kUsualMtu)});
        } else {
            measured.push_back(mtu + (entry.interface.mtu < kJumboMtu ? ", no jumbo frames" : ""));
        }
        for (const Platform::CameraDiagnosis& camera : examined.diagnosis.cameras) {
            if (camera.interface != entry.interface.index || camera.packetSize <= entry.interface.mtu) continue;
            wrong.push_back({check, false,
                             mtu + ", but " + CameraText(camera.record) + " is set to send image packets of " +
                                 std::to_string(camera.packetSize),
                             set(camera.packetSize <= kJumboMtu ? kJumboMtu : camera.packetSize)});
        }
    }
    return OrOk(wrong, check, measured);
}

Findings CheckReceiveBuffer(const GigEExamination& examined) {
    const std::string check = "gige.receive-buffer";
    const auto& largest = examined.host.largestReceiveBuffer;
    const std::string limit = largest ? "net.core.rmem_max is " + std::to_string(*largest) + " octets" : std::string();
    const std::string knownLimit = largest ? "; " + limit : std::string();
    Findings wrong;
    std::vector<std::string> measured;
    for (const InterfaceDiagnosis& entry : examined.diagnosis.interfaces) {
        if (!entry.used || entry.receiveBuffer == 0) continue;
        std::string evidence = entry.interface.name + ": the driver's socket holds " +
                               std::to_string(entry.receiveBuffer) + " octets and has lost " +
                               std::to_string(entry.receiveDrops) + " datagrams";
        if (entry.receiveDrops == 0 && entry.receiveBuffer >= kSmallReceiveBuffer) {
            measured.push_back(evidence);
            continue;
        }
        wrong.push_back({check, false, evidence + knownLimit, kRaiseReceiveBuffer});
    }
    if (!measured.empty() && largest) {
        measured.push_back(limit + ", the most that a program that receives images gets");
    }
    return OrOk(wrong, check, measured);
}

}  // namespace Nimbrel2::Tool::Doctor
