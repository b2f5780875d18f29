// SPDX-License-Identifier: Apache-2.0
// What may keep IEEE 1394 cameras from being seen or used, check by check. All pure but Examine.
#ifndef NIMBREL2_TOOLS_NIMBREL_DOCTOR_FIREWIRECHECKS_H
#define NIMBREL2_TOOLS_NIMBREL_DOCTOR_FIREWIRECHECKS_H

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/FireWireDiagnostics.h"
#include "tools/nimbrel/doctor/Finding.h"
#include "tools/nimbrel/doctor/UdevRule.h"

namespace Nimbrel2::Tool::Doctor {

/// All that the checks of IEEE 1394 look at.
struct FireWireExamination {
    std::uint32_t status = 0;  ///< HALStatus: why the driver says nothing
    Platform::FireWireDiagnosis diagnosis;
    UdevRule rule;
    std::string user;  ///< who runs this; empty when nobody knows
};

/// Asks the driver and the buses, and watches them where one may be watched: a bus that resets again and again is seen
/// in no single look. Takes 5 s; up to a minute while a bus has been reset, but not so often that it is plain. The HAL
/// must be running.
/// @param simulated  On a simulated computer there is nothing to watch, and nothing is read of this one.
FireWireExamination ExamineFireWire(bool simulated);

Findings CheckFireWireDriver(const FireWireExamination& examined);
Findings CheckFireWirePermission(const FireWireExamination& examined);
Findings CheckFireWireAnswers(const FireWireExamination& examined);
Findings CheckFireWireManager(const FireWireExamination& examined);
Findings CheckFireWireGapCount(const FireWireExamination& examined);
Findings CheckFireWireSpeed(const FireWireExamination& examined);
Findings CheckFireWirePower(const FireWireExamination& examined);
Findings CheckFireWireResets(const FireWireExamination& examined);

/// Whether a bus that was seen to be reset this often needs no more watching. Pure.
bool IsWatchedLongEnough(const Platform::FireWireDiagnosis& diagnosis, std::chrono::steady_clock::duration watched);

/// In the order in which their findings are best cured.
const std::vector<Check<FireWireExamination>>& FireWireChecks();

}  // namespace Nimbrel2::Tool::Doctor

#endif
