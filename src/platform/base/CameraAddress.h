// SPDX-License-Identifier: Apache-2.0
// Which addresses GigE cameras can have, which of them this computer can use, and which are free. Drivers, rigs, the
// glue and the doctor all go by these. Pure functions; any thread.
#ifndef NIMBREL2_PLATFORM_BASE_CAMERAADDRESS_H
#define NIMBREL2_PLATFORM_BASE_CAMERAADDRESS_H

#include <cstddef>
#include <cstdint>
#include <set>
#include <vector>

#include "hal/HAL.h"
#include "platform/Diagnostics.h"

namespace Nimbrel2::Platform {

/// Ones followed by zeros; 0 and 255.255.255.255 are some.
constexpr bool IsSubnetMask(std::uint32_t mask) { return (~mask & (~mask + 1)) == 0; }

/// Whether one host on a network can have it: not 0.x, not loopback, no group, no broadcast to all.
constexpr bool IsHostAddress(std::uint32_t ip) { return ip >> 24 != 0 && ip >> 24 != 127 && ip >> 28 < 0xE; }

/// Whether it is the first or the last address of its subnet, which name the subnet and all its hosts. In a subnet of
/// two (RFC 3021), or of one, none is.
constexpr bool IsSubnetEdge(std::uint32_t ip, std::uint32_t mask) {
    const std::uint32_t host = ip & ~mask;
    return ~mask > 1 && (host == 0 || host == ~mask);
}

/// Whether a camera can be given this configuration, as HAL_GvcpForceIp states it.
/// @return HAL_OK, HAL_BAD_MASK, HAL_BAD_ADDRESS or HAL_BAD_GATEWAY.
std::uint32_t CheckCameraAddress(std::uint32_t ip, std::uint32_t mask, std::uint32_t gateway);

/// The prefix of the smallest subnet with room for a camera beside this computer.
inline constexpr std::uint8_t LongestPrefix = 30;

/// The address that this computer talks from to that camera; 0 when the interface has none.
std::uint32_t LocalAddressFor(const NetworkInterface& interface, std::uint32_t ip);

/// What the addresses say about a camera that the interface has heard. Whether it answers they do not say.
/// @param hasRoute  Somebody has set a route to the camera's address that leaves by the interface, past no gateway.
GigEUsability UsabilityOfAddress(const NetworkInterface& interface, const GvcpDiscoveryRecord& record, bool hasRoute);

/// Whether the question is worth asking: the camera's address is a host's, and in none of the interface's subnets.
bool NeedsRoute(const NetworkInterface& interface, std::uint32_t ip);

/// The subnet of an interface with addresses that its cameras belong in: the first one with room for another host.
const InterfaceAddress& HomeSubnet(const NetworkInterface& interface);

/// Host addresses of a subnet that are neither its own interface's nor in taken. Subnets of two and of one have none:
/// no camera can be given such a mask.
/// @param seed   Where the search begins, and so what it finds first: with the camera's MAC, a camera that asks again
///               gets the same address again while that is free.
/// @param count  At most this many. The cost is that of count and of what is taken, not of the subnet's size.
std::vector<std::uint32_t> FindFreeAddresses(const InterfaceAddress& subnet, const std::set<std::uint32_t>& taken,
                                             std::uint64_t seed, std::size_t count);

}  // namespace Nimbrel2::Platform

#endif
