// SPDX-License-Identifier: Apache-2.0
// What is wrong with the cameras that are heard. Pure.
#include <algorithm>
#include <map>
#include <set>

#include "tools/nimbrel/GigECameras.h"
#include "tools/nimbrel/GigEValues.h"
#include "tools/nimbrel/Values.h"
#include "tools/nimbrel/doctor/GigEChecks.h"
#include "tools/nimbrel/doctor/GigETexts.h"

namespace Nimbrel2::Tool::Doctor {
namespace {

using Platform::CameraDiagnosis;
using Platform::ControlState;
using Platform::GigEDiagnosis;
using Platform::InterfaceAddress;
using Platform::InterfaceDiagnosis;
using Platform::MutedCamera;

/// What tells cameras apart; simulated ones may have no MAC.
using Identity = std::pair<std::uint64_t, std::string>;

Identity IdentityOf(const GvcpDiscoveryRecord& record) {
    const std::uint64_t mac = MacOf(record);
    return {mac, mac != 0 ? std::string() : CameraText(record) + IpText(record.ipAddress)};
}

std::string Count(std::size_t number, const std::string& what) {
    return (number == 1 ? "the one camera" : "all " + std::to_string(number) + " cameras") + what;
}

// ---- Foreign subnet ------------------------------------------------------------------------------------------------

struct ForeignCamera {
    GvcpDiscoveryRecord record{};
    int interface = 0;
};

/// Each once, on the interface that heard it first.
std::map<Identity, ForeignCamera> FindForeign(const GigEExamination& examined) {
    std::map<Identity, ForeignCamera> foreign;
    for (const CameraDiagnosis& camera : examined.diagnosis.cameras) {
        if (!camera.reachable)
            foreign.try_emplace(IdentityOf(camera.record), ForeignCamera{camera.record, camera.interface});
    }
    for (const MutedCamera& camera : examined.hearing.muted) {
        if (!camera.reachable)
            foreign.try_emplace(IdentityOf(camera.record), ForeignCamera{camera.record, camera.interface});
    }
    // One that another interface reaches is at home there.
    for (const CameraDiagnosis& camera : examined.diagnosis.cameras) {
        if (camera.reachable) foreign.erase(IdentityOf(camera.record));
    }
    return foreign;
}

std::string CureOf(const ForeignCamera& camera, const InterfaceDiagnosis* interface, const GigEDiagnosis& diagnosis) {
    const std::string name = InterfaceName(diagnosis, camera.interface);
    if (interface != nullptr && interface->interface.addresses.empty()) {
        return "sudo ip address add " + FreeSubnetAddress(diagnosis) + " dev " + name;
    }
    if (MacOf(camera.record) == 0) return "sudo ip route add " + IpText(camera.record.ipAddress) + "/32 dev " + name;
    const std::uint32_t serial = FromRecord(camera.record).serialNumber;
    return "nimbrel auto-ip" + (serial != 0 ? " --serial " + std::to_string(serial) : std::string()) +
           (interface != nullptr && interface->interface.loopback ? " --interface " + name : std::string());
}

// ---- Control -------------------------------------------------------------------------------------------------------

bool IsOwnAddress(const GigEDiagnosis& diagnosis, std::uint32_t ip) {
    for (const InterfaceDiagnosis& entry : diagnosis.interfaces) {
        for (const InterfaceAddress& address : entry.interface.addresses) {
            if (address.address == ip) return true;
        }
    }
    return false;
}

Finding ControlledElsewhere(const std::string& check, const CameraDiagnosis& camera, const GigEDiagnosis& diagnosis) {
    const bool exclusive = camera.control.state == ControlState::Exclusive;
    const std::uint32_t owner = camera.control.ownerIp;
    const std::string port = std::to_string(camera.control.ownerPort);
    std::string evidence = CameraText(camera.record) + " at " + IpText(camera.record.ipAddress) +
                           (exclusive ? " is held exclusively by " : " is controlled by ");
    std::string cure;
    if (owner == 0) {
        evidence += "an application that it does not name";
        cure = "end the application that uses the camera; it is free when its heartbeat has run out";
    } else if (IsOwnAddress(diagnosis, owner)) {
        evidence += IpText(owner) + ", port " + port + ": a program on this computer";
        cure = "sudo ss -Huanp 'sport = :" + port + "'  # names the program to end";
    } else {
        evidence += IpText(owner) + ", port " + port + ": another computer";
        cure = "end the program on " + IpText(owner) + " that uses UDP port " + port;
    }
    return {check, false, evidence, cure};
}

}  // namespace

Findings CheckForeignSubnet(const GigEExamination& examined) {
    const std::string check = "gige.foreign-subnet";
    const GigEDiagnosis& diagnosis = examined.diagnosis;
    Findings wrong;
    for (const auto& [identity, camera] : FindForeign(examined)) {
        const InterfaceDiagnosis* interface = FindInterface(diagnosis, camera.interface);
        std::vector<std::string> subnets;
        if (interface != nullptr) {
            for (const InterfaceAddress& address : interface->interface.addresses) {
                subnets.push_back(SubnetText(address));
            }
        }
        wrong.push_back({check, false,
                         CameraText(camera.record) + " has the address " + IpText(camera.record.ipAddress) +
                             " and hangs on " + InterfaceName(diagnosis, camera.interface) + ", which is on " +
                             (subnets.empty() ? std::string("no subnet") : Enumerate(subnets)) +
                             ": it is heard and cannot be used",
                         CureOf(camera, interface, diagnosis)});
    }
    std::set<Identity> known;
    for (const CameraDiagnosis& camera : diagnosis.cameras) known.insert(IdentityOf(camera.record));
    if (!wrong.empty() || known.empty()) return wrong;
    return {{check, true, Count(known.size(), known.size() == 1 ? " is on its subnet" : " are on their subnets"), ""}};
}

Findings CheckAddressConflict(const GigEExamination& examined) {
    const std::string check = "gige.address-conflict";
    const GigEDiagnosis& diagnosis = examined.diagnosis;
    std::map<std::pair<int, std::uint32_t>, std::vector<const CameraDiagnosis*>> byAddress;
    for (const CameraDiagnosis& camera : diagnosis.cameras) {
        if (camera.reachable) byAddress[{camera.interface, camera.record.ipAddress}].push_back(&camera);
    }
    Findings wrong;
    for (auto& [where, cameras] : byAddress) {
        const InterfaceDiagnosis* interface = FindInterface(diagnosis, where.first);
        const bool loopback = interface != nullptr && interface->interface.loopback;
        const bool own = !loopback && IsOwnAddress(diagnosis, where.second);
        const bool taken =
            std::any_of(cameras.begin(), cameras.end(), [](const auto* camera) { return camera->addressTaken; });
        if (cameras.size() == 1 && !own && !taken) continue;
        // The one that is listed keeps the address.
        std::stable_sort(cameras.begin(), cameras.end(),
                         [](const auto* a, const auto* b) { return a->listed > b->listed; });
        std::vector<std::string> names;
        for (const CameraDiagnosis* camera : cameras) names.push_back(CameraText(camera->record));
        if (own) names.push_back("this computer");
        if (names.size() == 1) names.push_back("another camera");
        const GvcpDiscoveryRecord& mover = cameras.back()->record;
        const InterfaceAddress* subnet = interface == nullptr ? nullptr : interface->interface.FindSubnet(where.second);
        const std::uint32_t free = subnet == nullptr ? 0 : FreeAddress(diagnosis, *subnet);
        std::string cure = "give one of them another address and power it up again";
        if (free != 0 && MacOf(mover) != 0) {
            cure = "nimbrel force-ip --mac " + FormatMac(FromRecord(mover).mac) + " --ip " + IpText(free) + " --mask " +
                   IpText(subnet->GetMask());
        }
        wrong.push_back({check, false,
                         Enumerate(names) + " have the address " + IpText(where.second) + " on " +
                             InterfaceName(diagnosis, where.first) + ": only one of them can be used",
                         cure});
    }
    if (!wrong.empty() || byAddress.empty()) return wrong;
    return {{check, true,
             Count(byAddress.size(), byAddress.size() == 1 ? " has its own address" : " have addresses of their own"),
             ""}};
}

Findings CheckControl(const GigEExamination& examined) {
    const std::string check = "gige.control";
    Findings wrong;
    std::size_t numFree = 0;
    std::size_t numSilent = 0;
    for (const CameraDiagnosis& camera : examined.diagnosis.cameras) {
        if (!camera.listed) continue;
        const ControlState state = camera.control.state;
        if (state == ControlState::Controlled || state == ControlState::Exclusive) {
            wrong.push_back(ControlledElsewhere(check, camera, examined.diagnosis));
        } else if (state == ControlState::Unknown) {
            ++numSilent;
        } else {
            ++numFree;
        }
    }
    if (!wrong.empty() || numFree + numSilent == 0) return wrong;
    std::string evidence = std::to_string(numFree) + (numFree == 1 ? " camera is free" : " cameras are free");
    if (numSilent > 0) evidence += ", " + std::to_string(numSilent) + " did not say";
    return {{check, true, evidence, ""}};
}

}  // namespace Nimbrel2::Tool::Doctor
