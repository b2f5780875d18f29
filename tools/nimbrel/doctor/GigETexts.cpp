// SPDX-License-Identifier: Apache-2.0
// Names and numbers in the findings on GigE. Pure.
#include "tools/nimbrel/doctor/GigETexts.h"

#include <cstdio>
#include <set>

#include "tools/nimbrel/Text.h"

namespace Nimbrel2::Tool::Doctor {

using Platform::GigEDiagnosis;
using Platform::InterfaceAddress;
using Platform::InterfaceDiagnosis;

std::string IpText(std::uint32_t ip) {
    char text[16];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", ip >> 24, ip >> 16 & 0xFF, ip >> 8 & 0xFF, ip & 0xFF);
    return text;
}

std::string AddressText(const InterfaceAddress& address) {
    return IpText(address.address) + "/" + std::to_string(address.prefixLength);
}

std::string SubnetText(const InterfaceAddress& address) {
    return IpText(address.address & address.GetMask()) + "/" + std::to_string(address.prefixLength);
}

std::uint64_t MacOf(const GvcpDiscoveryRecord& record) {
    return static_cast<std::uint64_t>(record.macHigh & 0xFFFF) << 32 | record.macLow;
}

std::string MacText(std::uint64_t mac) {
    std::string text;
    for (int shift = 40; shift >= 0; shift -= 8) {
        char octet[4];
        std::snprintf(octet, sizeof octet, "%02x%s", static_cast<unsigned>(mac >> shift & 0xFF), shift == 0 ? "" : ":");
        text += octet;
    }
    return text;
}

std::uint32_t SerialNumberOf(const GvcpDiscoveryRecord& record) {
    std::uint32_t number = 0;  // its low 32 bits, as the bus master takes it
    for (const char c : FromField(record.serialNumber)) {
        if (c < '0' || c > '9') break;
        number = number * 10 + static_cast<std::uint32_t>(c - '0');
    }
    return number;
}

std::string CameraText(const GvcpDiscoveryRecord& record) {
    const std::string serial = FromField(record.serialNumber);
    return "camera " + (serial.empty() ? "without a serial number" : serial) + " (" + MacText(MacOf(record)) + ")";
}

const InterfaceDiagnosis* FindInterface(const GigEDiagnosis& diagnosis, int index) {
    for (const InterfaceDiagnosis& interface : diagnosis.interfaces) {
        if (interface.interface.index == index) return &interface;
    }
    return nullptr;
}

std::string InterfaceName(const GigEDiagnosis& diagnosis, int index) {
    const InterfaceDiagnosis* interface = FindInterface(diagnosis, index);
    return interface != nullptr ? interface->interface.name : "interface " + std::to_string(index);
}

std::string FreeSubnetAddress(const GigEDiagnosis& diagnosis) {
    for (std::uint32_t third = 100; third < 255; ++third) {
        const InterfaceAddress candidate{0xC0A80001 | third << 8, 24};
        bool taken = false;
        for (const InterfaceDiagnosis& interface : diagnosis.interfaces) {
            for (const InterfaceAddress& address : interface.interface.addresses) {
                taken = taken || candidate.Contains(address.address) || address.Contains(candidate.address);
            }
        }
        if (!taken) return AddressText(candidate);
    }
    return "10.77.77.1/24";
}

std::uint32_t FreeAddress(const GigEDiagnosis& diagnosis, const InterfaceAddress& subnet) {
    std::set<std::uint32_t> taken;
    for (const InterfaceDiagnosis& interface : diagnosis.interfaces) {
        for (const InterfaceAddress& address : interface.interface.addresses) taken.insert(address.address);
    }
    for (const Platform::CameraDiagnosis& camera : diagnosis.cameras) {
        taken.insert({camera.record.ipAddress, camera.record.defaultGateway});
    }
    // From the top, where few hosts and no address server are.
    const std::uint32_t first = subnet.address & subnet.GetMask();
    for (std::uint32_t ip = (first | ~subnet.GetMask()) - 1; ip > first && subnet.prefixLength < 31; --ip) {
        if (taken.count(ip) == 0) return ip;
    }
    return 0;
}

}  // namespace Nimbrel2::Tool::Doctor
