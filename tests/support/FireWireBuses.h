// SPDX-License-Identifier: Apache-2.0
// IEEE 1394 buses that tests and benchmarks share. Pure.
#ifndef NIMBREL2_TESTS_SUPPORT_FIREWIREBUSES_H
#define NIMBREL2_TESTS_SUPPORT_FIREWIREBUSES_H

#include <string>

#include "platform/rig/RigDescription.h"

namespace Nimbrel2::Testing {

/// A controller whose three ports lead to a hub with two cameras on it ("left" and "right") and to a disk; one is free.
Platform::FireWireBusDescription StandardFireWireBus();

/// A controller with cameras on its ports and, when there are more, on hubs: "camera0" and so on. All names begin with
/// the prefix.
Platform::FireWireBusDescription FireWireBusOfCameras(unsigned int numCameras, const std::string& prefix = "");

}  // namespace Nimbrel2::Testing

#endif
