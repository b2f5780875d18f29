// SPDX-License-Identifier: Apache-2.0
// Maps of host controllers, for who draws their trees. Pure.
#ifndef NIMBREL2_PLATFORM_LINUX_USB_MAP_H
#define NIMBREL2_PLATFORM_LINUX_USB_MAP_H

#include <vector>

#include "platform/BusMap.h"
#include "platform/Diagnostics.h"

namespace Nimbrel2::Platform::Usb {

/// One map per host controller, with all that is attached to either half of it. Root hubs are the controller itself.
/// @param devices  As in UsbDiagnosis.
std::vector<BusMap> MapControllers(const std::vector<UsbDeviceDiagnosis>& devices);

}  // namespace Nimbrel2::Platform::Usb

#endif
