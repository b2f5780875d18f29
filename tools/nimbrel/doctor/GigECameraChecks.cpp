// SPDX-License-Identifier: Apache-2.0
// What is wrong with the cameras that are heard. Pure.
#include <algorithm>
#include <map>
#include <set>

#include "platform/base/CameraAddress.h"
#include "tools/nimbrel/ErrorTexts.h"
#include "tools/nimbrel/GigECameras.h"
#include "tools/nimbrel/GigEValues.h"
#include "tools/nimbrel/SimulateOptions.h"
#include "tools/nimbrel/Words.h"
#include "tools/nimbrel/doctor/GigEChecks.h"
#include "tools/nimbrel/doctor/GigETexts.h"

namespace Nimbrel2::Tool::Doctor {
namespace {

using Platform::CameraDiagnosis;
using Platform::ControlState;
using Platform::GigEDiagnosis;
using Platform::GigEUsability;
using Platform::InterfaceAddress;
using Platform::InterfaceDiagnosis;
using Platform::MutedCamera;

// What tells cameras apart; simulated ones may have no MAC.
using Identity = std::pair<std::uint64_t, std::string>;

Identity IdentityOf(const GvcpDiscoveryRecord& record) {
    const std::uint64_t mac = MacOf(record);
    return {mac, mac != 0 ? std::string() : CameraText(record) + IpText(record.ipAddress)};
}

// "the only camera is on its subnet", "both cameras are on their subnets"
std::string AllOf(std::size_t number, const std::string& ofOne, const std::string& ofMany) {
    if (number == 1) {
        return "the only camera " + ofOne;
    }
    return (number == 2 ? "both cameras " : "all " + std::to_string(number) + " cameras ") + ofMany;
}

std::string ForceIp(const GvcpDiscoveryRecord& record, std::uint32_t ip, const InterfaceAddress& subnet) {
    return "nimbrel force-ip --mac " + FormatMac(MacOf(record)) + " --ip " + IpText(ip) + "/" +
           std::to_string(subnet.prefixLength);
}

// ---- Foreign subnet ------------------------------------------------------------------------------------------------

struct ForeignCamera {
    GvcpDiscoveryRecord record{};
    int interface = 0;
};

// Each once, on the interface that heard it first.
std::map<Identity, ForeignCamera> FindForeign(const GigEExamination& examined) {
    std::map<Identity, ForeignCamera> foreign;
    for (const CameraDiagnosis& camera : examined.diagnosis.cameras) {
        if (IsElsewhere(camera)) {
            foreign.try_emplace(IdentityOf(camera.record), ForeignCamera{camera.record, camera.interface});
        }
    }
    for (const MutedCamera& camera : examined.hearing.muted) {
        if (!camera.reachable) {
            foreign.try_emplace(IdentityOf(camera.record), ForeignCamera{camera.record, camera.interface});
        }
    }
    // One that another interface reaches belongs there.
    for (const CameraDiagnosis& camera : examined.diagnosis.cameras) {
        if (!IsElsewhere(camera)) {
            foreign.erase(IdentityOf(camera.record));
        }
    }
    return foreign;
}

// It asks the network which address is free, for all cameras at once: one that is picked here may be another host's.
std::string AutoIp(const GvcpDiscoveryRecord& record, const InterfaceDiagnosis* interface, bool sharesSerial) {
    const std::uint32_t serial = FromRecord(record).serialNumber;
    const bool loopback = interface != nullptr && interface->interface.loopback;
    return std::string("nimbrel auto-ip") +
           (serial != 0 && !sharesSerial ? " --serial " + std::to_string(serial) : "") +
           (loopback ? " --interface " + QuoteForShell(interface->interface.name) : "");
}

std::string CureOf(const ForeignCamera& camera, const InterfaceDiagnosis* interface, const GigEDiagnosis& diagnosis,
                   bool sharesSerial) {
    const std::string name = InterfaceName(diagnosis, camera.interface);
    if (interface != nullptr && interface->interface.addresses.empty()) {
        return Sudo({"ip", "address", "add", FreeSubnetAddress(diagnosis), "dev", name});
    }
    if (MacOf(camera.record) == 0) {
        return Sudo({"ip", "route", "add", IpText(camera.record.ipAddress) + "/32", "dev", name});
    }
    return AutoIp(camera.record, interface, sharesSerial);
}

// Cameras with each serial number: a number that two of them share names neither.
std::map<std::uint32_t, int> CountSerials(const GigEExamination& examined) {
    std::map<Identity, std::uint32_t> serials;
    for (const CameraDiagnosis& camera : examined.diagnosis.cameras) {
        serials[IdentityOf(camera.record)] = FromRecord(camera.record).serialNumber;
    }
    for (const MutedCamera& camera : examined.hearing.muted) {
        serials[IdentityOf(camera.record)] = FromRecord(camera.record).serialNumber;
    }
    std::map<std::uint32_t, int> bySerial;
    for (const auto& [identity, serial] : serials) {
        ++bySerial[serial];
    }
    return bySerial;
}

// ---- Control -------------------------------------------------------------------------------------------------------

// Why a camera with a right address cannot be used, and the cure.
Finding SilentCamera(const std::string& check, const CameraDiagnosis& camera, const GigEDiagnosis& diagnosis) {
    const InterfaceDiagnosis* interface = FindInterface(diagnosis, camera.interface);
    const std::uint32_t ip = camera.record.ipAddress;
    const InterfaceAddress* subnet = interface == nullptr ? nullptr : interface->interface.FindSubnet(ip);
    const std::string name = CameraText(camera.record);
    const std::string where = IpText(ip) + " on " + InterfaceName(diagnosis, camera.interface);
    if (camera.usability == GigEUsability::OutsideItsSubnet) {
        return {check, false,
                name + " at " + where + " cannot answer this computer: its subnet mask " +
                    IpText(camera.record.subnetMask) + " leaves this computer out, and it has no gateway",
                subnet != nullptr && MacOf(camera.record) != 0
                    ? ForceIp(camera.record, ip, *subnet)
                    : ByHand("give the camera a wider subnet mask or a gateway")};
    }
    const std::string cure = ByHand("power the camera off and on again");
    if (camera.usability == GigEUsability::NoRegisters) {
        return {check, false, name + " answers discoveries at " + where + ", but its registers do not answer", cure};
    }
    return {check, false, name + " answers broadcasts, but not at its address " + where, cure};
}

}  // namespace

Findings CheckForeignSubnet(const GigEExamination& examined) {
    const std::string check = "gige.foreign-subnet";
    const GigEDiagnosis& diagnosis = examined.diagnosis;
    const std::map<Identity, ForeignCamera> foreign = FindForeign(examined);
    std::map<std::uint32_t, int> bySerial = CountSerials(examined);
    Findings wrong;
    for (const auto& [identity, camera] : foreign) {
        const InterfaceDiagnosis* interface = FindInterface(diagnosis, camera.interface);
        const auto wider = interface == nullptr ? std::nullopt : WiderSubnet(interface->interface);
        if (wider && wider->Contains(camera.record.ipAddress)) {
            continue;  // its address is right, and the interface's mask is not
        }
        std::vector<std::string> subnets;
        if (interface != nullptr) {
            for (const InterfaceAddress& address : interface->interface.addresses) {
                subnets.push_back(SubnetText(address));
            }
        }
        const std::string where = " and is connected to " + InterfaceName(diagnosis, camera.interface) + ", which " +
                                  (subnets.empty() ? std::string("has no address") : "is on " + Enumerate(subnets));
        const std::uint32_t ip = camera.record.ipAddress;
        const std::string has = ip == 0 ? " has no address yet"
                                        : " has the address " + IpText(ip) +
                                              (Platform::IsHostAddress(ip) ? "" : ", which no host can have,");
        wrong.push_back({check, false, (CameraText(camera.record) + has).append(where).append(", so it cannot be used"),
                         CureOf(camera, interface, diagnosis, bySerial[FromRecord(camera.record).serialNumber] > 1)});
    }
    std::set<Identity> known;
    for (const CameraDiagnosis& camera : diagnosis.cameras) {
        known.insert(IdentityOf(camera.record));
    }
    if (!wrong.empty() || known.empty()) {
        return wrong;
    }
    return {{check, true, AllOf(known.size(), "is on its subnet", "are on their subnets"), ""}};
}

Findings CheckAddressConflict(const GigEExamination& examined) {
    const std::string check = "gige.address-conflict";
    const GigEDiagnosis& diagnosis = examined.diagnosis;
    std::map<std::uint32_t, int> bySerial = CountSerials(examined);
    std::map<std::pair<int, std::uint32_t>, std::vector<const CameraDiagnosis*>> byAddress;
    for (const CameraDiagnosis& camera : diagnosis.cameras) {
        if (!IsElsewhere(camera)) {
            byAddress[{camera.interface, camera.record.ipAddress}].push_back(&camera);
        }
    }
    Findings wrong;
    for (auto& [where, cameras] : byAddress) {
        const InterfaceDiagnosis* interface = FindInterface(diagnosis, where.first);
        const bool loopback = interface != nullptr && interface->interface.loopback;
        const bool own = !loopback && IsOwnAddress(diagnosis, where.second);
        const auto movers = std::count_if(cameras.begin(), cameras.end(), [](const auto* camera) {
            return camera->usability == GigEUsability::AddressTaken;
        });
        if (cameras.size() == 1 && !own && movers == 0) {
            continue;
        }
        // The one that is listed keeps the address.
        std::stable_sort(cameras.begin(), cameras.end(),
                         [](const auto* a, const auto* b) { return a->listed > b->listed; });
        std::vector<std::string> names;
        for (const CameraDiagnosis* camera : cameras) {
            names.push_back(CameraText(camera->record));
        }
        if (own) {
            names.push_back("this computer");
        }
        if (names.size() == 1) {
            names.push_back("another camera");
        }
        const GvcpDiscoveryRecord& mover = cameras.back()->record;
        const bool sharesSerial = movers > 1 || bySerial[FromRecord(mover).serialNumber] > 1;
        const bool canMove = movers > 0 && MacOf(mover) != 0;
        wrong.push_back(
            {check, false,
             Enumerate(names) + " have the address " + IpText(where.second) + " on " +
                 InterfaceName(diagnosis, where.first) + ": only one of them can be used",
             canMove ? AutoIp(mover, interface, sharesSerial) : ByHand("give one of them another address")});
    }
    if (!wrong.empty() || byAddress.empty()) {
        return wrong;
    }
    return {{check, true, AllOf(byAddress.size(), "has its own address", "have addresses of their own"), ""}};
}

// Every camera that is heard and cannot be used has a finding: this one where no other check has the cause.
Findings CheckNoAnswer(const GigEExamination& examined) {
    const std::string check = "gige.no-answer";
    std::set<int> walled;  // interfaces with a firewall finding, which explains silence
    for (const Finding& finding : CheckFirewall(examined)) {
        if (finding.ok) {
            continue;
        }
        for (const InterfaceDiagnosis& entry : examined.diagnosis.interfaces) {
            if (finding.evidence.rfind(entry.interface.name + ": ", 0) == 0) {
                walled.insert(entry.interface.index);
            }
        }
    }
    Findings wrong;
    std::size_t numAnswering = 0;
    for (const CameraDiagnosis& camera : examined.diagnosis.cameras) {
        if (IsElsewhere(camera) || camera.usability == GigEUsability::AddressTaken) {
            continue;
        }
        const auto reach = examined.filters.find(camera.interface);
        const bool isFiltered = reach != examined.filters.end() && reach->second.ofOwnSubnet;
        const bool isExplained = isFiltered || walled.count(camera.interface) != 0;
        const bool isSilent =
            camera.usability == GigEUsability::NoAnswer || camera.usability == GigEUsability::NoRegisters;
        if (camera.usability == GigEUsability::Usable || (isSilent && isExplained)) {
            ++numAnswering;
        } else {
            wrong.push_back(SilentCamera(check, camera, examined.diagnosis));
        }
    }
    if (!wrong.empty() || numAnswering == 0) {
        return wrong;
    }
    return {{check, true, AllOf(numAnswering, "answers at its address", "answer at their addresses"), ""}};
}

// A camera that this computer uses is in use, and nothing is wrong with that.
Findings CheckControl(const GigEExamination& examined) {
    const std::string check = "gige.control";
    Findings wrong;
    std::size_t numFree = 0;
    std::vector<std::string> measured;
    for (const CameraDiagnosis& camera : examined.diagnosis.cameras) {
        if (!camera.listed) {
            continue;
        }
        const ControlState state = camera.control.state;
        const std::uint32_t owner = camera.control.ownerIp;
        const std::string port = std::to_string(camera.control.ownerPort);
        const std::string used = CameraText(camera.record) + " at " + IpText(camera.record.ipAddress) + " is in use" +
                                 (state == ControlState::Exclusive ? " exclusively" : "") + " by ";
        if (state == ControlState::Unknown) {
            const std::uint32_t why = camera.control.status;
            measured.push_back(CameraText(camera.record) + " did not say whether it is in use" +
                               (why == HAL_OK ? std::string() : ": " + DescribeStatus(why)));
        } else if (state != ControlState::Controlled && state != ControlState::Exclusive) {
            ++numFree;
        } else if (owner != 0 && IsOwnAddress(examined.diagnosis, owner)) {
            measured.push_back((used + "a program on this computer, UDP port ").append(port));
        } else if (owner == 0) {
            wrong.push_back({check, false,
                             (used + "an application that it ").append(WhyNotNamed(camera.control.status)),
                             ByHand("end the application that uses it; it is free when its heartbeat has run out")});
        } else {
            wrong.push_back(
                {check, false,
                 (used + IpText(owner)).append(", port ").append(port).append(", which is another computer"),
                 ByHand("end the program on " + IpText(owner) + " that uses UDP port " + port)});
        }
    }
    if (numFree != 0) {
        measured.insert(measured.begin(), CountOf(numFree, "camera") + (numFree == 1 ? " is free" : " are free"));
    }
    return OrOk(wrong, check, measured);
}

}  // namespace Nimbrel2::Tool::Doctor
