// SPDX-License-Identifier: Apache-2.0
// A HAL that costs next to nothing: three buses in static arrays, nothing recorded, nothing allocated. One a process.
// Any thread; what can change while a listing runs is atomic.
#ifndef NIMBREL2_BENCH_LEANHAL_H
#define NIMBREL2_BENCH_LEANHAL_H

#include <chrono>
#include <cstdint>

#include "hal/HAL.h"

namespace Nimbrel2::Bench {

/// How many cameras each bus lists from now on: at most 256, 128 and 128. Serial numbers start at 1 on IEEE 1394, at
/// 1001 on USB and at 2001 on GigE.
void AttachCameras(unsigned int fireWire, unsigned int usb, unsigned int gigE);

/// How long each bus takes to list its cameras from now on.
void SetListingTime(std::chrono::milliseconds fireWire, std::chrono::milliseconds usb, std::chrono::milliseconds gigE);

/// Calls what is registered for IEEE 1394 events, on this thread.
void RaiseBusReset();

/// Listings of the GigE bus so far: one a re-enumeration cycle.
std::uint64_t CountListings();

}  // namespace Nimbrel2::Bench

#endif
