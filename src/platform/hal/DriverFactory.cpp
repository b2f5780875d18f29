// SPDX-License-Identifier: Apache-2.0
// Makes the driver of each bus. Runs on the thread that calls HAL_InitLibrary; takes no lock.
#include "platform/hal/DriverFactory.h"

#include "platform/linux/firewire/LinuxFireWireBus.h"
#include "platform/linux/gige/LinuxGigEBus.h"
#include "platform/linux/usb/LinuxUsbBus.h"

namespace Nimbrel2::Platform {

Drivers MakeDrivers(const Options& options, const BusEventSinks& sinks) {
    Drivers drivers;
    if (options.makeDrivers) {
        drivers = options.makeDrivers(options, sinks);
    }
    if (options.fireWire != Driver::Rig) {
        drivers.fireWire = nullptr;
    }
    if (options.usb != Driver::Rig) {
        drivers.usb = nullptr;
    }
    if (options.gigE != Driver::Rig) {
        drivers.gigE = nullptr;
    }
    if (options.fireWire == Driver::Linux) {
        drivers.fireWire = MakeLinuxFireWireBus(sinks.fireWire);
    }
    if (options.usb == Driver::Linux) {
        drivers.usb = MakeLinuxUsbBus({options.usbCameraIds, options.trace}, sinks.usb);
    }
    if (options.gigE == Driver::Linux) {
        drivers.gigE = MakeLinuxGigEBus(
            {options.networkInterfaces, options.discoveryWindow, options.searchFor, options.sourcePorts}, sinks.gigE);
    }
    return drivers;
}

}  // namespace Nimbrel2::Platform
