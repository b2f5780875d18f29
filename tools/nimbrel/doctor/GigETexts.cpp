// SPDX-License-Identifier: Apache-2.0
// Names and numbers in the findings on GigE. Pure.
#include "tools/nimbrel/doctor/GigETexts.h"

#include <set>

#include "platform/base/CameraAddress.h"
#include "tools/nimbrel/Cameras.h"
#include "tools/nimbrel/GigEUsability.h"
#include "tools/nimbrel/GigEValues.h"
#include "tools/nimbrel/SimulateOptions.h"
#include "tools/nimbrel/Text.h"
#include "tools/nimbrel/Words.h"

namespace Nimbrel2::Tool::Doctor {

using Platform::GigEDiagnosis;
using Platform::InterfaceAddress;
using Platform::InterfaceDiagnosis;

std::string IpText(std::uint32_t ip) { return FormatIp(UnpackIPAddress(ip)); }

std::string AddressText(const InterfaceAddress& address) {
    return FormatSubnet(UnpackIPAddress(address.address), UnpackIPAddress(address.GetMask()));
}

std::string SubnetText(const InterfaceAddress& address) {
    return SubnetOf(UnpackIPAddress(address.address), UnpackIPAddress(address.GetMask()));
}

bool IsElsewhere(const Platform::CameraDiagnosis& camera) {
    using Platform::GigEUsability;
    return camera.usability == GigEUsability::NoAddress || camera.usability == GigEUsability::InvalidAddress ||
           camera.usability == GigEUsability::OtherSubnet;
}

std::uint64_t MacOf(const GvcpDiscoveryRecord& record) {
    return static_cast<std::uint64_t>(record.macHigh & 0xFFFF) << 32 | record.macLow;
}

std::string CameraText(const GvcpDiscoveryRecord& record) {
    const std::string serial = FromField(record.serialNumber);
    return "camera " + (serial.empty() ? "without a serial number" : serial) + " (" + FormatMac(MacOf(record)) + ")";
}

const InterfaceDiagnosis* FindInterface(const GigEDiagnosis& diagnosis, int index) {
    for (const InterfaceDiagnosis& interface : diagnosis.interfaces) {
        if (interface.interface.index == index) {
            return &interface;
        }
    }
    return nullptr;
}

std::string InterfaceName(const GigEDiagnosis& diagnosis, int index) {
    const InterfaceDiagnosis* interface = FindInterface(diagnosis, index);
    return interface != nullptr ? interface->interface.name : "interface " + std::to_string(index);
}

bool IsOwnAddress(const GigEDiagnosis& diagnosis, std::uint32_t ip) {
    for (const InterfaceDiagnosis& entry : diagnosis.interfaces) {
        for (const InterfaceAddress& address : entry.interface.addresses) {
            if (address.address == ip) {
                return true;
            }
        }
    }
    return false;
}

std::string FreeSubnetAddress(const GigEDiagnosis& diagnosis, std::size_t skip) {
    for (std::uint32_t third = 100; third < 255; ++third) {
        const InterfaceAddress candidate{0xC0A80001 | third << 8, 24};
        bool taken = false;
        for (const InterfaceDiagnosis& interface : diagnosis.interfaces) {
            for (const InterfaceAddress& address : interface.interface.addresses) {
                taken = taken || candidate.Contains(address.address) || address.Contains(candidate.address);
            }
        }
        if (!taken && skip-- == 0) {
            return AddressText(candidate);
        }
    }
    return "10.77.77.1/24";
}

std::optional<InterfaceAddress> WiderSubnet(const Platform::NetworkInterface& interface) {
    if (interface.addresses.empty() || HasRoomForCameras(interface) || interface.loopback || interface.pointToPoint) {
        return std::nullopt;
    }
    return InterfaceAddress{interface.addresses.front().address, 24};
}

std::uint32_t FreeAddress(const GigEDiagnosis& diagnosis, const InterfaceAddress& subnet) {
    std::set<std::uint32_t> taken;
    for (const InterfaceDiagnosis& interface : diagnosis.interfaces) {
        for (const InterfaceAddress& address : interface.interface.addresses) {
            taken.insert(address.address);
        }
    }
    for (const Platform::CameraDiagnosis& camera : diagnosis.cameras) {
        taken.insert({camera.record.ipAddress, camera.record.defaultGateway});
    }
    const std::vector<std::uint32_t> free = Platform::FindFreeAddresses(subnet, taken, 0, 1);
    return free.empty() ? 0 : free.front();
}

std::string Sudo(const std::vector<std::string>& words) {
    std::string command = "sudo";
    for (const std::string& word : words) {
        command += " " + QuoteForShell(word);
    }
    return command;
}

std::string FilterSetting(const std::string& interface, int value) {
    return "net/ipv4/conf/" + interface + "/rp_filter=" + std::to_string(value);
}

std::string ByHand(const std::string& text) { return "# " + text; }

}  // namespace Nimbrel2::Tool::Doctor
