// SPDX-License-Identifier: Apache-2.0
// The topology map that a bus manager keeps (IEEE 1394-1995 8.2.3.4.1, CSR 0xFFFFF0001000). Pure: no lock, no I/O, any
// thread.
#ifndef NIMBREL2_PLATFORM_LINUX_FIREWIRE_TOPOLOGYMAP_H
#define NIMBREL2_PLATFORM_LINUX_FIREWIRE_TOPOLOGYMAP_H

#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "hal/HAL.h"

namespace Nimbrel2::Platform::FireWire {

inline constexpr std::uint64_t TopologyMapOffset = 0xFFFFF0001000;
/// The whole map, in one transaction: two could be of two bus resets.
inline constexpr std::size_t TopologyMapBytes = 1024;

/// @param bytes    The map as it was read.
/// @param packets  Receives the self-ID stream: packet zero and extended packets of each PHY, in ascending phy id.
/// @return HAL_OK; HAL_BAD_ANSWER when the lengths do not fit each other or the stream is not that of a whole bus,
/// which
///         happens when PHYs are at odds after a reset: a tree of it would be a wrong one.
std::uint32_t ParseTopologyMap(std::span<const std::uint8_t> bytes, std::vector<SelfIdPacket_t>* packets);

}  // namespace Nimbrel2::Platform::FireWire

#endif
