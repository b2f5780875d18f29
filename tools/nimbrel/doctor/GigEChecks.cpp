// SPDX-License-Identifier: Apache-2.0
// Examines GigE and lists its checks. Any thread but an event callback; no lock.
#include "tools/nimbrel/doctor/GigEChecks.h"

#include "hal/HAL.h"

namespace Nimbrel2::Tool::Doctor {

GigEExamination ExamineGigE(bool simulated, std::optional<std::uint64_t> filteredBefore) {
    GigEExamination examined;
    examined.status = Platform::FindMutedGigECameras(&examined.hearing);
    if (examined.status == HAL_OK) examined.status = Platform::DiagnoseGigE(true, &examined.diagnosis);
    if (simulated) {
        examined.host.inputChains.emplace();
        return examined;
    }
    examined.host = ReadHostSettings();
    const std::optional<std::uint64_t> filtered = ReadFilteredPackets();
    if (filteredBefore && filtered) examined.filteredPackets = *filtered - *filteredBefore;
    return examined;
}

const std::vector<Check<GigEExamination>>& GigEChecks() {
    static const std::vector<Check<GigEExamination>> checks{
        CheckDriver,        CheckInterfaces,      CheckSubnetOverlap, CheckRpFilter, CheckFirewall,
        CheckForeignSubnet, CheckAddressConflict, CheckControl,       CheckMtu,      CheckReceiveBuffer};
    return checks;
}

}  // namespace Nimbrel2::Tool::Doctor
