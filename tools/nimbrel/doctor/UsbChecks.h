// SPDX-License-Identifier: Apache-2.0
// What may keep USB cameras from being seen or used, check by check. All pure but Examine.
#ifndef NIMBREL2_TOOLS_NIMBREL_DOCTOR_USBCHECKS_H
#define NIMBREL2_TOOLS_NIMBREL_DOCTOR_USBCHECKS_H

#include <cstdint>
#include <vector>

#include "platform/Diagnostics.h"
#include "tools/nimbrel/doctor/Finding.h"
#include "tools/nimbrel/doctor/UsbRule.h"

namespace Nimbrel2::Tool::Doctor {

/// All that the checks of USB look at.
struct UsbExamination {
    std::uint32_t status = 0;  ///< HALStatus: why the driver says nothing
    Platform::UsbDiagnosis diagnosis;
    UsbRule rule;
};

/// Asks the driver and this computer. Takes milliseconds; the HAL must be running.
UsbExamination ExamineUsb();

Findings CheckUsbDriver(const UsbExamination& examined);
Findings CheckUsbEvents(const UsbExamination& examined);
Findings CheckUsbAuthorization(const UsbExamination& examined);
Findings CheckUsbPermission(const UsbExamination& examined);
Findings CheckUsbClaims(const UsbExamination& examined);
Findings CheckUsbSpeed(const UsbExamination& examined);
Findings CheckUsbHubSpeed(const UsbExamination& examined);
Findings CheckUsbOverCurrent(const UsbExamination& examined);
Findings CheckUsbSuspend(const UsbExamination& examined);
Findings CheckUsbMemory(const UsbExamination& examined);

/// In the order in which their findings are best cured.
const std::vector<Check<UsbExamination>>& UsbChecks();

}  // namespace Nimbrel2::Tool::Doctor

#endif
