// SPDX-License-Identifier: Apache-2.0
// The fullest buses there are, as their drivers report them. Made once, then read by any thread.
#ifndef NIMBREL2_BENCH_LEANBUSES_H
#define NIMBREL2_BENCH_LEANBUSES_H

#include <cstdint>
#include <vector>

#include "hal/HAL.h"

namespace Nimbrel2::Bench {

/// 63 PHYs: eight hubs of six cameras on a hub of eight, which hangs with five more cameras on the card.
struct FireWireBus {
    std::vector<SelfIdPacket_t> stream;
    std::vector<unsigned int> cameras;  ///< Their phy ids.
};
const FireWireBus& FullFireWireBus();

/// 127 devices: three root ports with a hub of six hubs and 35 cameras each, and a camera on a fourth. Hubs stand in
/// front of what is attached to them.
struct UsbHost {
    std::vector<UsbSelfId> records;
    std::vector<std::uint32_t> cameras;  ///< Their device ids.
};
const UsbHost& FullUsbHost();

}  // namespace Nimbrel2::Bench

#endif
