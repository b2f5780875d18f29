// SPDX-License-Identifier: Apache-2.0
// Checks of cameras on whatever bus. Pure.
#ifndef NIMBREL2_TOOLS_NIMBREL_DOCTOR_CAMERACHECKS_H
#define NIMBREL2_TOOLS_NIMBREL_DOCTOR_CAMERACHECKS_H

#include <vector>

#include "tools/nimbrel/Cameras.h"
#include "tools/nimbrel/doctor/Finding.h"

namespace Nimbrel2::Tool::Doctor {

/// Cameras that share a guid: no program and no command can tell them apart. One finding for each guid.
Findings CheckGuids(const std::vector<Camera>& cameras);

/// Cameras that share a serial number, which then names neither; they have other names. Never wrong.
Findings CheckSerialNumbers(const std::vector<Camera>& cameras);

}  // namespace Nimbrel2::Tool::Doctor

#endif
