// SPDX-License-Identifier: Apache-2.0
// Addresses for cameras that have none that fits. Pure functions; any thread.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_FREEADDRESS_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_FREEADDRESS_H

#include <cstddef>
#include <cstdint>
#include <set>
#include <vector>

#include "platform/linux/gige/NetworkInterface.h"

namespace Nimbrel2::Platform::GigE {

/// Host addresses of a subnet that are not taken: neither its first nor its last one (unless it has only two), nor one
/// in taken.
/// @param seed   Where the search begins, and so what it finds first: with the camera's MAC, a camera that asks again
/// gets
///               the same address again while that is free.
/// @param count  At most this many. The cost is that of count and of what is taken, not of the subnet's size.
std::vector<std::uint32_t> FindFreeAddresses(const InterfaceAddress& subnet, const std::set<std::uint32_t>& taken,
                                             std::uint64_t seed, std::size_t count);

}  // namespace Nimbrel2::Platform::GigE

#endif
