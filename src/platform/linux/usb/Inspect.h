// SPDX-License-Identifier: Apache-2.0
// What sysfs says of a device beyond what a listing needs, for diagnosis. Opens no device. Any thread; no lock.
#ifndef NIMBREL2_PLATFORM_LINUX_USB_INSPECT_H
#define NIMBREL2_PLATFORM_LINUX_USB_INSPECT_H

#include <string>
#include <string_view>
#include <vector>

#include "platform/Diagnostics.h"
#include "platform/linux/usb/DeviceRecord.h"

namespace Nimbrel2::Platform::Usb {

/// What can be said of one device by itself: the speed of its port, what is plugged into the ports of a hub that does
/// not list them, and who has claimed it are left out.
UsbDeviceDiagnosis Inspect(const DeviceRecord& device);

/// Who has claimed a camera. Where a program has, all processes that this user may see are looked at.
std::vector<UsbClaim> FindClaims(const DeviceRecord& camera);

/// Takes the kernel's name of a port, "2-1-port4" or "usb2-port1", apart. @return false when it is none.
bool ParsePortName(std::string_view name, std::string* hub, std::uint8_t* port);

/// Says of each port what the devices tell of each other: what is plugged in, and how fast each device's port can be.
/// Pure. @param devices  Each after the hub above it.
void RelatePorts(std::vector<UsbDeviceDiagnosis>* devices);

}  // namespace Nimbrel2::Platform::Usb

#endif
