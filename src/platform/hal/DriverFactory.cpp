// SPDX-License-Identifier: Apache-2.0
// Makes the driver of each bus. Runs on the thread that calls HAL_InitLibrary; takes no lock.
#include "platform/hal/DriverFactory.h"

#include "platform/hal/EmptyBuses.h"
#include "platform/linux/gige/LinuxGigEBus.h"
#include "platform/rig/Rig.h"
#include "platform/rig/RigFireWireBus.h"
#include "platform/rig/RigGigEBus.h"
#include "platform/rig/RigUsbBus.h"

namespace Nimbrel2::Platform {

Drivers MakeDrivers(const Options& options, const BusEventSinks& sinks) {
    Drivers drivers{std::make_unique<EmptyFireWireBus>(), std::make_unique<EmptyUsbBus>(),
                    std::make_unique<EmptyGigEBus>()};
    if (options.gigE == Driver::Linux) {
        drivers.gigE = MakeLinuxGigEBus({options.networkInterfaces, options.discoveryWindow}, sinks.gigE);
    }
    if (options.fireWire == Driver::Rig) drivers.fireWire = MakeRigFireWireBus(options.rig, sinks.fireWire);
    if (options.usb == Driver::Rig) drivers.usb = MakeRigUsbBus(options.rig, sinks.usb);
    if (options.gigE == Driver::Rig) drivers.gigE = MakeRigGigEBus(options.rig, sinks.gigE);
    if (options.rig != nullptr) {
        drivers.enter = [rig = options.rig](const char* function) { return rig->Enter(function); };
    }
    return drivers;
}

}  // namespace Nimbrel2::Platform
