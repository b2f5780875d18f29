// SPDX-License-Identifier: Apache-2.0
#ifndef NIMBREL2_PLATFORM_RIG_CONFIGROM_H
#define NIMBREL2_PLATFORM_RIG_CONFIGROM_H

#include <cstdint>
#include <vector>

#include "platform/rig/RigDescription.h"

namespace Nimbrel2::Platform {

/// The configuration ROM of a node (IEEE 1212), in host order: bus information block, root directory and, for a camera,
/// the IIDC unit and unit dependent directories with the vendor and model texts. Empty for a repeater. Pure.
std::vector<std::uint32_t> BuildConfigRom(const PhyDescription& phy);

/// The CRC-16 of IEEE 1212 over whole quadlets.
std::uint16_t ConfigRomCrc(const std::uint32_t* quadlets, std::size_t count);

}  // namespace Nimbrel2::Platform

#endif
