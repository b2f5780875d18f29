// SPDX-License-Identifier: Apache-2.0
// What is wrong with this computer's network interfaces. Pure.
#include <algorithm>
#include <cerrno>
#include <system_error>

#include "tools/nimbrel/ErrorTexts.h"
#include "tools/nimbrel/OwnCommand.h"
#include "tools/nimbrel/Words.h"
#include "tools/nimbrel/doctor/GigEChecks.h"
#include "tools/nimbrel/doctor/GigETexts.h"

namespace Nimbrel2::Tool::Doctor {
namespace {

using Platform::GigEDiagnosis;
using Platform::InterfaceAddress;
using Platform::InterfaceDiagnosis;
using Platform::InterfaceHearing;
using Platform::NetworkInterface;

constexpr std::uint32_t JumboMtu = 9000;
constexpr std::uint32_t AmpleReceiveBuffer = 33554432;
// What the driver's socket holds when it has got all that it asks for. More is not asked for.
constexpr std::uint32_t DriverReceiveBuffer = 8388608;

bool IsKnown(const GigEExamination& examined) { return examined.status == HAL_OK && examined.diagnosis.error == 0; }

bool IsRefusal(int error) { return error == EPERM || error == EACCES; }

bool IsLackOfFiles(int error) { return error == EMFILE || error == ENFILE; }

std::string CureOfLackOfFiles() { return ByHand("too many files are open: close programs, or raise `ulimit -n`"); }

std::string CureOfRefusal(const std::string& name, int error, const GigEDiagnosis& diagnosis) {
    switch (error) {
        case EPERM:
        case EACCES:
            return ByHand("run it as root to see which rule refuses it: " + SudoNimbrel() + " doctor --bus gige");
        case ENETUNREACH:
        case EADDRNOTAVAIL:
            return Sudo({"ip", "address", "add", FreeSubnetAddress(diagnosis), "dev", name});
        case ENETDOWN:
            return Sudo({"ip", "link", "set", "dev", name, "up"});
        default:
            return ByHand("the kernel refuses it; `sudo dmesg | tail` may show why");
    }
}

std::string CureOfSocket(int error) {
    if (IsLackOfFiles(error)) {
        return CureOfLackOfFiles();
    }
    if (IsRefusal(error)) {
        return SudoNimbrel() + " doctor --bus gige";
    }
    if (error == EADDRINUSE) {
        return ByHand("other programs have these ports: give --source-port another range");
    }
    return ByHand("the kernel refuses a socket; `sudo dmesg | tail` may show why");
}

// The error of the driver's last broadcast, else that of the doctor's own.
int SendErrorOf(const InterfaceDiagnosis& entry, const GigEExamination& examined) {
    if (entry.sendError != 0) {
        return entry.sendError;
    }
    for (const InterfaceHearing& hearing : examined.hearing.interfaces) {
        if (hearing.interface == entry.interface.index) {
            return hearing.error;
        }
    }
    return 0;
}

// ---- Interfaces ----------------------------------------------------------------------------------------------------

// Whether cameras could be on it once it is up and has an address. What another device is built upon, such as the
// parent of a VLAN or a port of a bridge, has its addresses there.
bool CouldCarryCameras(const InterfaceDiagnosis& entry, const GigEExamination& examined) {
    const NetworkInterface& interface = entry.interface;
    return !interface.loopback && interface.broadcast && !interface.pointToPoint && interface.portOf.empty() &&
           entry.error == 0 && entry.reason != "not among the network interfaces asked for" &&
           examined.host.carriers.count(interface.name) == 0 && examined.host.cameraless.count(interface.name) == 0;
}

std::string WhatIsMissing(const NetworkInterface& interface) {
    const std::string address = interface.addresses.empty() ? "no IPv4 address" : "";
    if (!interface.up) {
        return "is down" + (address.empty() ? "" : " and has " + address);
    }
    if (!interface.running) {
        return "has no link" + (address.empty() ? "" : " and " + address);
    }
    return "has " + address;
}

// All that is missing, at once. @param address  for an interface without one.
std::string CureOf(const NetworkInterface& interface, const std::string& address) {
    const std::string add =
        interface.addresses.empty() ? Sudo({"ip", "address", "add", address, "dev", interface.name}) : std::string();
    if (!interface.up) {
        return Sudo({"ip", "link", "set", "dev", interface.name, "up"}) + (add.empty() ? "" : " && " + add);
    }
    if (!interface.running) {
        return ByHand("plug the cable of " + interface.name + " in at both ends" +
                      (add.empty() ? "" : ", then: " + add));
    }
    return add;
}

// Whether an address with the mask that was meant must take the place of the one that is there: when a camera is heard,
// or nothing else works. Without either, nobody may want cameras there.
bool LacksRoom(const InterfaceDiagnosis& entry, const GigEExamination& examined) {
    if (!WiderSubnet(entry.interface)) {
        return false;
    }
    const auto& cameras = examined.diagnosis.cameras;
    const auto& all = examined.diagnosis.interfaces;
    const bool isHeard = std::any_of(cameras.begin(), cameras.end(), [&entry](const auto& camera) {
        return camera.interface == entry.interface.index;
    });
    return isHeard || std::none_of(all.begin(), all.end(), [](const InterfaceDiagnosis& other) {
               return other.used && !other.interface.addresses.empty() && !WiderSubnet(other.interface);
           });
}

Finding WithoutRoom(const std::string& check, const NetworkInterface& interface) {
    const InterfaceAddress& address = interface.addresses.front();
    return {check, false,
            interface.name + " has the address " + AddressText(address) +
                ", a subnet without room for a camera, so no camera on it can be used",
            Sudo({"ip", "address", "add", AddressText(*WiderSubnet(interface)), "dev", interface.name}) + " && " +
                Sudo({"ip", "address", "delete", AddressText(address), "dev", interface.name})};
}

bool Overlap(const InterfaceAddress& a, const InterfaceAddress& b) {
    return a.Contains(b.address) || b.Contains(a.address);
}

}  // namespace

Findings CheckDriver(const GigEExamination& examined) {
    const std::string check = "gige.driver";
    const GigEDiagnosis& diagnosis = examined.diagnosis;
    const std::string again = SudoNimbrel() + " doctor --bus gige";
    if (examined.status == HAL_OUT_OF_MEMORY) {
        return {{check, false, "the GigE driver cannot search: " + DescribeStatus(examined.status),
                 ByHand("close programs, or raise `ulimit -n` and `ulimit -u`")}};
    }
    if (examined.status != HAL_OK) {
        return {{check, false, "the GigE driver cannot search: " + DescribeStatus(examined.status), again}};
    }
    if (diagnosis.error != 0) {
        return {{check, false,
                 "the kernel does not list its network interfaces: " + std::generic_category().message(diagnosis.error),
                 IsLackOfFiles(diagnosis.error) ? CureOfLackOfFiles() : again}};
    }
    Findings wrong;
    std::vector<std::string> used;
    for (const InterfaceDiagnosis& entry : diagnosis.interfaces) {
        const std::string& name = entry.interface.name;
        const int sendError = SendErrorOf(entry, examined);
        // Where the rules are known, the firewall check names the one that refuses.
        const bool explained = IsRefusal(sendError) && examined.host.rules.known;
        if (entry.error != 0) {
            wrong.push_back({check, false, name + ": " + entry.reason, CureOfSocket(entry.error)});
        } else if (entry.used && IsLackOfFiles(sendError)) {
            wrong.push_back({check, false, name + ": socket refused: " + std::generic_category().message(sendError),
                             CureOfLackOfFiles()});
        } else if (entry.used && sendError != 0 && !explained) {
            wrong.push_back({check, false,
                             name + ": a broadcast was refused: " + std::generic_category().message(sendError),
                             CureOfRefusal(name, sendError, diagnosis)});
        }
        if (entry.used) {
            used.push_back(name);
        }
    }
    return OrOk(wrong, check,
                {"searching " + (used.empty() ? std::string("no network interface") : Enumerate(used)) + " (" +
                 std::to_string(used.size()) + " of " + CountOf(diagnosis.interfaces.size(), "interface") + ")"});
}

// An interface without a cable is normal while others work. One with a link and no address is not.
Findings CheckInterfaces(const GigEExamination& examined) {
    const std::string check = "gige.interface";
    if (!IsKnown(examined)) {
        return {};
    }
    const auto& interfaces = examined.diagnosis.interfaces;
    const bool anyWorks = std::any_of(interfaces.begin(), interfaces.end(), [](const InterfaceDiagnosis& entry) {
        return entry.used && (entry.interface.loopback || !entry.interface.addresses.empty());
    });
    const bool anyRefused =
        std::any_of(interfaces.begin(), interfaces.end(), [](const auto& entry) { return entry.error != 0; });
    Findings wrong;
    std::vector<std::string> measured;
    std::size_t subnetsGiven = 0;
    for (const InterfaceDiagnosis& entry : interfaces) {
        const NetworkInterface& interface = entry.interface;
        std::string addresses;
        for (const InterfaceAddress& address : interface.addresses) {
            addresses += " " + AddressText(address);
        }
        if (entry.used && LacksRoom(entry, examined)) {
            wrong.push_back(WithoutRoom(check, interface));
            continue;
        }
        if (entry.used && (!addresses.empty() || interface.loopback)) {
            measured.push_back(interface.name + " is up with" + addresses);
            continue;
        }
        if (!CouldCarryCameras(entry, examined)) {
            continue;
        }
        const bool lacksAddress = interface.running && interface.up && interface.addresses.empty();
        const std::string evidence = interface.name + " " + WhatIsMissing(interface);
        if (!anyWorks || lacksAddress) {
            const std::string address = FreeSubnetAddress(examined.diagnosis, subnetsGiven);
            subnetsGiven += interface.addresses.empty() ? 1 : 0;
            wrong.push_back({check, false, evidence + ", so no camera on it can be used", CureOf(interface, address)});
        } else {
            measured.push_back(evidence + " and is not searched");
        }
    }
    if (!anyWorks && !anyRefused && wrong.empty()) {
        wrong.push_back(
            {check, false,
             "no network interface of this computer can carry cameras (" + std::to_string(interfaces.size()) +
                 " in all)",
             ByHand(
                 "add a network interface for the cameras; simulated ones are on lo: nimbrel doctor --interface lo")});
    }
    return OrOk(wrong, check, measured);
}

// The driver binds its sockets to interfaces, so two of them in one subnet are no trouble to it, unless the filter of
// the one that the kernel does not choose drops everything that arrives there.
Findings CheckSubnetOverlap(const GigEExamination& examined) {
    const std::string check = "gige.subnet-overlap";
    Findings wrong;
    std::vector<std::string> measured;
    std::size_t numUsed = 0;
    const auto& all = examined.diagnosis.interfaces;
    for (auto first = all.begin(); first != all.end(); ++first) {
        if (!first->used || first->interface.addresses.empty() || !CouldCarryCameras(*first, examined)) {
            continue;
        }
        ++numUsed;
        for (auto second = std::next(first); second != all.end(); ++second) {
            if (!second->interface.up || !CouldCarryCameras(*second, examined)) {
                continue;
            }
            for (const InterfaceAddress& a : first->interface.addresses) {
                for (const InterfaceAddress& b : second->interface.addresses) {
                    if (!Overlap(a, b)) {
                        continue;
                    }
                    measured.push_back(first->interface.name + " " + AddressText(a) + " and " + second->interface.name +
                                       " " + AddressText(b) + " are in one subnet");
                }
            }
        }
        const auto reach = examined.filters.find(first->interface.index);
        if (reach == examined.filters.end() || !reach->second.ofOwnSubnet) {
            continue;
        }
        const std::string& name = first->interface.name;
        wrong.push_back(
            {check, false,
             name +
                 ": another interface is in the same subnet and has the route there, so the reverse path filter of " +
                 name + " drops everything that cameras send",
             Sudo({"sysctl", "-w", FilterSetting(name, 2)})});
    }
    if (numUsed == 0) {
        return wrong;
    }
    if (measured.empty()) {
        measured.push_back(numUsed == 1 ? "one interface in use"
                                        : "each of " + CountOf(numUsed, "interface") + " has a subnet of its own");
    }
    return OrOk(wrong, check, measured);
}

Findings CheckMtu(const GigEExamination& examined) {
    const std::string check = "gige.mtu";
    Findings wrong;
    std::vector<std::string> measured;
    for (const InterfaceDiagnosis& entry : examined.diagnosis.interfaces) {
        if (!entry.used || entry.interface.mtu == 0) {
            continue;
        }
        const std::string& name = entry.interface.name;
        const std::string mtu = name + ": frames of up to " + std::to_string(entry.interface.mtu) + " bytes";
        std::uint32_t largest = 0;
        std::vector<std::string> cameras;
        for (const Platform::CameraDiagnosis& camera : examined.diagnosis.cameras) {
            if (camera.interface != entry.interface.index || camera.packetSize <= entry.interface.mtu) {
                continue;
            }
            largest = std::max(largest, camera.packetSize);
            cameras.push_back(CameraText(camera.record) + " packets of " + std::to_string(camera.packetSize));
        }
        if (cameras.empty()) {
            measured.push_back(mtu + (entry.interface.mtu < JumboMtu ? ", no jumbo frames" : ""));
            continue;
        }
        const std::uint32_t needed = largest <= JumboMtu ? JumboMtu : largest;
        wrong.push_back(
            {check, false, mtu + ", too small for what cameras are set to send: " + Enumerate(cameras),
             Sudo({"ip", "link", "set", "dev", name, "mtu", std::to_string(largest <= 1500 ? 1500 : needed)})});
    }
    return OrOk(wrong, check, measured);
}

Findings CheckReceiveBuffer(const GigEExamination& examined) {
    const std::string check = "gige.receive-buffer";
    const auto& largest = examined.host.largestReceiveBuffer;
    Findings wrong;
    std::vector<std::string> measured;
    for (const InterfaceDiagnosis& entry : examined.diagnosis.interfaces) {
        if (!entry.used || entry.receiveBuffer == 0) {
            continue;
        }
        const std::string evidence = entry.interface.name + ": the driver's socket holds " +
                                     std::to_string(entry.receiveBuffer) + " bytes and has lost " +
                                     CountOf(entry.receiveDrops, "datagram");
        if (entry.receiveDrops == 0) {
            measured.push_back(evidence);
            continue;
        }
        const bool isAmple = entry.receiveBuffer >= DriverReceiveBuffer || (largest && *largest >= AmpleReceiveBuffer);
        wrong.push_back({check, false, evidence,
                         isAmple ? ByHand("this computer is too busy to read them: end other programs")
                                 : Sudo({"sysctl", "-w", "net.core.rmem_max=" + std::to_string(AmpleReceiveBuffer)})});
    }
    if (!measured.empty() && largest) {
        measured.push_back("net.core.rmem_max is " + std::to_string(*largest) +
                           " bytes, the most that a program that receives images gets");
    }
    return OrOk(wrong, check, measured);
}

}  // namespace Nimbrel2::Tool::Doctor
