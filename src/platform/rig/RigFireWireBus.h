// SPDX-License-Identifier: Apache-2.0
#ifndef NIMBREL2_PLATFORM_RIG_RIGFIREWIREBUS_H
#define NIMBREL2_PLATFORM_RIG_RIGFIREWIREBUS_H

#include <memory>

#include "platform/Drivers.h"

namespace Nimbrel2::Platform {

class Rig;

/// The FireWire driver over a rig. Needs no thread: what happens to the rig raises the events.
std::unique_ptr<FireWireBus> MakeRigFireWireBus(std::shared_ptr<Rig> rig, BusEventSink& sink);

}  // namespace Nimbrel2::Platform

#endif
