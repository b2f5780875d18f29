// SPDX-License-Identifier: Apache-2.0
// A computer with as many cameras as a large one has. Any thread; no lock.
#ifndef NIMBREL2_TESTS_SUPPORT_LARGERIG_H
#define NIMBREL2_TESTS_SUPPORT_LARGERIG_H

#include "platform/rig/Rig.h"

namespace Nimbrel2::Testing {

/// 256 FireWire cameras on five buses, 128 USB cameras on 16 hosts, 128 GigE cameras on one network interface.
Platform::RigDescription RigOf512Cameras();

}  // namespace Nimbrel2::Testing

#endif
