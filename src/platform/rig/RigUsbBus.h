// SPDX-License-Identifier: Apache-2.0
#ifndef NIMBREL2_PLATFORM_RIG_RIGUSBBUS_H
#define NIMBREL2_PLATFORM_RIG_RIGUSBBUS_H

#include <memory>

#include "platform/Drivers.h"

namespace Nimbrel2::Platform {

class Rig;

/// The USB driver over a rig. Needs no thread: what happens to the rig raises the events.
std::unique_ptr<UsbBus> MakeRigUsbBus(std::shared_ptr<Rig> rig, BusEventSink& sink);

}  // namespace Nimbrel2::Platform

#endif
