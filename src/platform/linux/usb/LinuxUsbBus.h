// SPDX-License-Identifier: Apache-2.0
// USB cameras on this computer's own host controllers.
// Any thread; see UsbCore.h for the threads and locks below.
#ifndef NIMBREL2_PLATFORM_LINUX_USB_LINUXUSBBUS_H
#define NIMBREL2_PLATFORM_LINUX_USB_LINUXUSBBUS_H

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "platform/Drivers.h"
#include "platform/Platform.h"

namespace Nimbrel2::Platform {

struct LinuxUsbOptions {
    /// Cameras that no class tells, in addition to those of USB3 Vision.
    std::vector<UsbId> cameraIds;
    /// As Options::trace.
    std::function<void(const std::string&)> trace;
};

/// The driver of the USB bus. It listens from Start() on, in the network namespace of the thread that calls it.
/// @param events  Must outlive the driver's Stop. Nothing is raised after that.
std::unique_ptr<UsbBus> MakeLinuxUsbBus(LinuxUsbOptions options, BusEventSink& events);

}  // namespace Nimbrel2::Platform

#endif
