// SPDX-License-Identifier: Apache-2.0
// What may keep GigE cameras from being seen or used, check by check. All pure but ExamineGigE.
//
// A finding is wrong only when something was lost or cannot work. One cause makes one finding: a check leaves alone
// what another one explains.
#ifndef NIMBREL2_TOOLS_NIMBREL_DOCTOR_GIGECHECKS_H
#define NIMBREL2_TOOLS_NIMBREL_DOCTOR_GIGECHECKS_H

#include <cstdint>
#include <map>
#include <optional>
#include <vector>

#include "platform/Diagnostics.h"
#include "tools/nimbrel/doctor/Finding.h"
#include "tools/nimbrel/doctor/HostSettings.h"

namespace Nimbrel2::Tool::Doctor {

/// What the reverse path filter of an interface would drop.
struct FilterReach {
    bool ofUnknownSubnets = false;  ///< answers of cameras on subnets that this computer is not on
    bool ofOwnSubnet = false;       ///< even those of its own subnet, for the route there leaves by another interface
};

/// All that the checks of GigE look at.
struct GigEExamination {
    std::uint32_t status = 0;  ///< HALStatus: why the driver says nothing
    Platform::GigEDiagnosis diagnosis;
    Platform::GigEHearing hearing;
    HostSettings host;
    std::map<int, FilterReach> filters;            ///< by NetworkInterface::index
    std::optional<std::uint64_t> filteredPackets;  ///< dropped by reverse path filters since the program began
};

/// Asks the driver, the cameras and this computer. Takes a discovery window and more; the HAL must be running.
/// @param simulated       Reads nothing of this computer.
/// @param filteredBefore  What ReadFilteredPackets said before the HAL began.
GigEExamination ExamineGigE(bool simulated, std::optional<std::uint64_t> filteredBefore);

Findings CheckDriver(const GigEExamination& examined);
Findings CheckInterfaces(const GigEExamination& examined);
Findings CheckSubnetOverlap(const GigEExamination& examined);
Findings CheckRpFilter(const GigEExamination& examined);
Findings CheckFirewall(const GigEExamination& examined);
Findings CheckForeignSubnet(const GigEExamination& examined);
Findings CheckAddressConflict(const GigEExamination& examined);
Findings CheckNoAnswer(const GigEExamination& examined);
Findings CheckControl(const GigEExamination& examined);
Findings CheckMtu(const GigEExamination& examined);
Findings CheckReceiveBuffer(const GigEExamination& examined);

/// In the order in which their findings are best cured.
const std::vector<Check<GigEExamination>>& GigEChecks();

}  // namespace Nimbrel2::Tool::Doctor

#endif
