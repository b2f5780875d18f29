// SPDX-License-Identifier: Apache-2.0
#ifndef NIMBREL2_PLATFORM_RIG_RIGGIGEBUS_H
#define NIMBREL2_PLATFORM_RIG_RIGGIGEBUS_H

#include <memory>

#include "platform/Drivers.h"

namespace Nimbrel2::Platform {

class Rig;

/// The GigE driver over a rig's cameras in memory. Needs no thread: what happens to the rig raises the events.
std::unique_ptr<GigEBus> MakeRigGigEBus(std::shared_ptr<Rig> rig, BusEventSink& sink);

}  // namespace Nimbrel2::Platform

#endif
