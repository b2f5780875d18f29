// SPDX-License-Identifier: Apache-2.0
// Reads and writes addresses of GigE cameras. Pure.
#include "tools/nimbrel/GigEValues.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <iterator>

#include "tools/nimbrel/Cameras.h"
#include "tools/nimbrel/CommandError.h"
#include "tools/nimbrel/SimulateOptions.h"

namespace Nimbrel2::Tool {
namespace {

CommandError Refusal(const std::string& option, const std::string& text, const std::string& wanted) {
    return CommandError(option + ": \"" + text + "\" is not " + wanted, ExitUsage);
}

bool HasHoles(std::uint32_t mask) { return std::countl_one(mask) + std::countr_zero(mask) != 32; }

}  // namespace

IPAddress ParseIp(const std::string& option, const std::string& text) {
    const auto ip = ReadAddress(text);
    if (!ip) {
        throw Refusal(option, text, "an IP address, such as 192.168.77.50");
    }
    return UnpackIPAddress(*ip);
}

IPAddress ParseCameraIp(const std::string& option, const std::string& text) {
    constexpr std::uint8_t FirstMulticast = 224;
    const IPAddress ip = ParseIp(option, text);
    if (ip.octets[0] == 0 || ip.octets[0] >= FirstMulticast) {
        throw Refusal(option, text, "an address that a camera can have");
    }
    return ip;
}

IPAddress ParseMask(const std::string& option, const std::string& text) {
    const auto mask = ReadSubnetMask(text);
    if (!mask) {
        throw Refusal(option, text, "a subnet mask, such as /24 or 255.255.255.0");
    }
    return UnpackIPAddress(*mask);
}

MACAddress ParseMac(const std::string& option, const std::string& text) {
    const auto mac = ReadMac(text);
    if (!mac) {
        throw Refusal(option, text, "the MAC address of a device, such as 02:00:5e:00:00:01 or 02-00-5e-00-00-01");
    }
    MACAddress result;
    for (int i = 0; i < 6; ++i) {
        result.octets[i] = static_cast<std::uint8_t>(*mac >> (40 - 8 * i) & 0xFF);
    }
    return result;
}

std::string FormatMac(const MACAddress& mac) { return FormatMac(PackMac(mac)); }

std::string FormatSubnet(const IPAddress& ip, const IPAddress& mask) {
    const std::uint32_t packed = PackIPAddress(mask);
    return FormatIp(ip) + "/" + (HasHoles(packed) ? FormatIp(mask) : std::to_string(std::countl_one(packed)));
}

std::string SubnetOf(const IPAddress& ip, const IPAddress& mask) {
    return FormatSubnet(UnpackIPAddress(PackIPAddress(ip) & PackIPAddress(mask)), mask);
}

std::uint64_t PackMac(const MACAddress& mac) {
    std::uint64_t packed = 0;
    for (const std::uint8_t octet : mac.octets) {
        packed = packed << 8 | octet;
    }
    return packed;
}

bool IsSame(const MACAddress& first, const MACAddress& second) {
    return std::equal(std::begin(first.octets), std::end(first.octets), std::begin(second.octets));
}

}  // namespace Nimbrel2::Tool
