// SPDX-License-Identifier: Apache-2.0
// Makes the driver of each bus as the options choose it. The only file of the glue that knows the drivers by name.
#ifndef NIMBREL2_PLATFORM_HAL_DRIVERFACTORY_H
#define NIMBREL2_PLATFORM_HAL_DRIVERFACTORY_H

#include <functional>
#include <memory>

#include "platform/Drivers.h"
#include "platform/Platform.h"

namespace Nimbrel2::Platform {

/// One driver a bus kind; none is null. Made but not started.
struct Drivers {
    std::unique_ptr<FireWireBus> fireWire;
    std::unique_ptr<UsbBus> usb;
    std::unique_ptr<GigEBus> gigE;
    /// At the head of each HAL function: what is not HAL_OK is the function's answer. May wait. Empty: nothing happens.
    std::function<std::uint32_t(const char* function)> enter{};
};

/// Where each driver raises its events. They outlive the drivers.
struct BusEventSinks {
    BusEventSink& fireWire;
    BusEventSink& usb;
    BusEventSink& gigE;
};

using DriverFactory = std::function<Drivers(const Options& options, const BusEventSinks& sinks)>;

/// @throws std::bad_alloc. No I/O.
Drivers MakeDrivers(const Options& options, const BusEventSinks& sinks);

}  // namespace Nimbrel2::Platform

#endif
