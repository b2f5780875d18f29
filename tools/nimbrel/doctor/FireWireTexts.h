// SPDX-License-Identifier: Apache-2.0
// Names in the findings on IEEE 1394. Pure.
#ifndef NIMBREL2_TOOLS_NIMBREL_DOCTOR_FIREWIRETEXTS_H
#define NIMBREL2_TOOLS_NIMBREL_DOCTOR_FIREWIRETEXTS_H

#include <string>
#include <vector>

#include "platform/FireWireDiagnostics.h"

namespace Nimbrel2::Tool::Doctor {

/// "bus 0 (0000:06:01.0)", or "the bus of 0000:06:01.0" when nobody knows its number.
std::string BusText(const Platform::FireWireBusDiagnosis& bus);

/// "camera 200705 (Acme Zoom 1394)", "this computer's controller", "device 003094000000d15c (Disco)". The texts are the
/// node's own and may hold anything.
std::string NodeText(const Platform::FireWireNode& node);

/// The node behind a PHY when one is known, or else "hub, PHY 2".
std::string PhyText(const Platform::FireWireBusDiagnosis& bus, unsigned int phyId);

/// What resets a bus, so that its managers are found anew: by one of its cameras, if there is any.
std::string ResetCommand(const Platform::FireWireBusDiagnosis& bus);

bool HasCamera(const Platform::FireWireBusDiagnosis& bus);

}  // namespace Nimbrel2::Tool::Doctor

#endif
