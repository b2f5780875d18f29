// SPDX-License-Identifier: Apache-2.0
// Addresses of GigE cameras. Pure functions; any thread.
#include "platform/base/CameraAddress.h"

#include <algorithm>

#include "platform/base/Random.h"

namespace Nimbrel2::Platform {

namespace {

constexpr std::uint32_t Loopback = 0x7F000001;

bool HasRoom(const InterfaceAddress& subnet) { return subnet.prefixLength > 0 && subnet.prefixLength <= LongestPrefix; }

}  // namespace

std::uint32_t CheckCameraAddress(std::uint32_t ip, std::uint32_t mask, std::uint32_t gateway) {
    // A camera that is told 0.0.0.0 configures itself; the rest says nothing to it.
    if (ip == 0) {
        return HAL_OK;
    }
    if (!IsSubnetMask(mask) || mask == 0 || ~mask <= 1) {
        return HAL_BAD_MASK;
    }
    if (!IsHostAddress(ip) || IsSubnetEdge(ip, mask)) {
        return HAL_BAD_ADDRESS;
    }
    if (gateway == 0) {
        return HAL_OK;
    }
    const bool inSubnet = ((gateway ^ ip) & mask) == 0;
    return gateway == ip || !inSubnet || IsSubnetEdge(gateway, mask) ? HAL_BAD_GATEWAY : HAL_OK;
}

std::uint32_t LocalAddressFor(const NetworkInterface& interface, std::uint32_t ip) {
    if (interface.loopback) {
        return Loopback;
    }
    const InterfaceAddress* subnet = interface.FindSubnet(ip);
    if (subnet != nullptr) {
        return subnet->address;
    }
    return interface.addresses.empty() ? 0 : interface.addresses.front().address;
}

bool NeedsRoute(const NetworkInterface& interface, std::uint32_t ip) {
    return !interface.loopback && IsHostAddress(ip) && interface.FindSubnet(ip) == nullptr;
}

GigEUsability UsabilityOfAddress(const NetworkInterface& interface, const GvcpDiscoveryRecord& record, bool hasRoute) {
    const std::uint32_t ip = record.ipAddress;
    if (ip == 0) {
        return GigEUsability::NoAddress;
    }
    // Whatever subnets cameras on loopback claim to be in, the kernel takes all of it for this computer.
    if (interface.loopback) {
        return ip >> 24 == 127 ? GigEUsability::Usable : GigEUsability::OtherSubnet;
    }
    if (!IsHostAddress(ip)) {
        return GigEUsability::InvalidAddress;
    }
    const InterfaceAddress* subnet = interface.FindSubnet(ip);
    if (subnet == nullptr && !hasRoute) {
        return GigEUsability::OtherSubnet;
    }
    if (subnet != nullptr && IsSubnetEdge(ip, subnet->GetMask())) {
        return GigEUsability::InvalidAddress;
    }
    const bool own = std::any_of(interface.addresses.begin(), interface.addresses.end(),
                                 [ip](const InterfaceAddress& address) { return address.address == ip; });
    if (own) {
        return GigEUsability::AddressTaken;
    }
    const std::uint32_t local = LocalAddressFor(interface, ip);
    const bool knowsWayBack = record.defaultGateway != 0 || ((local ^ ip) & record.subnetMask) == 0;
    return knowsWayBack ? GigEUsability::Usable : GigEUsability::OutsideItsSubnet;
}

const InterfaceAddress& HomeSubnet(const NetworkInterface& interface) {
    const auto roomy = std::find_if(interface.addresses.begin(), interface.addresses.end(), HasRoom);
    return roomy != interface.addresses.end() ? *roomy : interface.addresses.front();
}

std::vector<std::uint32_t> FindFreeAddresses(const InterfaceAddress& subnet, const std::set<std::uint32_t>& taken,
                                             std::uint64_t seed, std::size_t count) {
    if (!HasRoom(subnet)) {
        return {};
    }
    const std::uint32_t first = (subnet.address & subnet.GetMask()) + 1;
    const std::uint64_t hosts = (std::uint64_t{1} << (32 - subnet.prefixLength)) - 2;
    std::vector<std::uint32_t> free;
    const std::uint64_t start = Mix(seed) % hosts;
    for (std::uint64_t i = 0; i < hosts && free.size() < count; ++i) {
        const auto ip = static_cast<std::uint32_t>(first + (start + i) % hosts);
        if (ip != subnet.address && taken.count(ip) == 0) {
            free.push_back(ip);
        }
    }
    return free;
}

}  // namespace Nimbrel2::Platform
