// SPDX-License-Identifier: Apache-2.0
// The drivers over a rig. They need no thread: whoever changes the rig reports what became of it.
#ifndef NIMBREL2_PLATFORM_RIG_RIGDRIVERS_H
#define NIMBREL2_PLATFORM_RIG_RIGDRIVERS_H

#include <atomic>
#include <functional>
#include <memory>
#include <utility>

#include "platform/Drivers.h"
#include "platform/Platform.h"
#include "platform/rig/Rig.h"

namespace Nimbrel2::Platform {

/// What belongs into Options::makeDrivers for that rig. The drivers, and the entries made by them, hold the rig.
std::function<Drivers(const Options& options, const BusEventSinks& sinks)> MakeRigDrivers(std::shared_ptr<Rig> rig);

std::unique_ptr<FireWireBus> MakeRigFireWireBus(std::shared_ptr<Rig> rig, BusEventSink& sink);
std::unique_ptr<UsbBus> MakeRigUsbBus(std::shared_ptr<Rig> rig, BusEventSink& sink);
std::unique_ptr<GigEBus> MakeRigGigEBus(std::shared_ptr<Rig> rig, BusEventSink& sink);

/// What a rig's driver shares with the devices that it made, which may outlive it.
/// @par Threads  Any.
struct RigDriverState {
    explicit RigDriverState(std::shared_ptr<Rig> theRig) : rig(std::move(theRig)) {}

    /// HAL_CLOSED once the driver has stopped.
    std::uint32_t Check() const { return static_cast<std::uint32_t>(stopped ? HAL_CLOSED : HAL_OK); }

    const std::shared_ptr<Rig> rig;
    std::atomic<bool> stopped{false};
};

}  // namespace Nimbrel2::Platform

#endif
