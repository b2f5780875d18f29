// SPDX-License-Identifier: Apache-2.0
// The IEEE 1394 buses of this computer.
// Any thread; see FireWireCore.h for the threads and locks below.
#ifndef NIMBREL2_PLATFORM_LINUX_FIREWIRE_LINUXFIREWIREBUS_H
#define NIMBREL2_PLATFORM_LINUX_FIREWIRE_LINUXFIREWIREBUS_H

#include <memory>

#include "platform/Drivers.h"

namespace Nimbrel2::Platform {

/// The driver of all IEEE 1394 controllers. From Start() on it keeps the files of all nodes open that this user may
/// open, /dev/fw*, and no other.
/// @param events  Must outlive the driver's Stop. Nothing is raised after that.
std::unique_ptr<FireWireBus> MakeLinuxFireWireBus(BusEventSink& events);

}  // namespace Nimbrel2::Platform

#endif
