// SPDX-License-Identifier: Apache-2.0
// Self-ID packets as PHYs that are connected to each other. Pure: no lock, no I/O, any thread.
#ifndef NIMBREL2_PLATFORM_BASE_SELFIDS_H
#define NIMBREL2_PLATFORM_BASE_SELFIDS_H

#include <optional>
#include <span>
#include <vector>

#include "hal/HAL.h"
#include "platform/FireWireDiagnostics.h"

namespace Nimbrel2::Platform {

/// @param packets  The self-ID stream of one bus: packet zero and extended packets of each PHY, in ascending phy id.
/// @return the PHYs in ascending phy id, the root last, or nothing when the stream is not that of a whole bus: a packet
///         is missing, out of order or malformed, or the ports do not make a tree.
std::optional<std::vector<FireWirePhy>> DecodeSelfIds(std::span<const SelfIdPacket_t> packets);

}  // namespace Nimbrel2::Platform

#endif
