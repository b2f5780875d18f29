// SPDX-License-Identifier: Apache-2.0
// Examines GigE and lists its checks. Any thread but an event callback; no lock.
#include "tools/nimbrel/doctor/GigEChecks.h"

#include "hal/HAL.h"
#include "tools/nimbrel/ReversePath.h"
#include "tools/nimbrel/doctor/GigETexts.h"

namespace Nimbrel2::Tool::Doctor {
namespace {

FilterReach ReachOf(const Platform::GigEDiagnosis& diagnosis, const Platform::InterfaceDiagnosis& entry) {
    FilterReach reach;
    reach.ofUnknownSubnets = AreUnknownDropped(entry);
    for (const Platform::InterfaceAddress& address : entry.interface.addresses) {
        // Not one of this computer's, to which no packet leaves.
        const std::uint32_t other = FreeAddress(diagnosis, address);
        reach.ofOwnSubnet = reach.ofOwnSubnet || (other != 0 && IsDropped(entry, UnpackIPAddress(other)));
    }
    return reach;
}

}  // namespace

GigEExamination ExamineGigE(bool simulated, std::optional<std::uint64_t> filteredBefore) {
    GigEExamination examined;
    examined.status = Platform::FindMutedGigECameras(&examined.hearing);
    if (examined.status == HAL_OK) {
        examined.status = Platform::DiagnoseGigE(true, &examined.diagnosis);
    }
    if (simulated) {
        examined.host.rules.known = true;
        return examined;
    }
    examined.host = ReadHostSettings();
    for (const Platform::InterfaceDiagnosis& entry : examined.diagnosis.interfaces) {
        examined.filters[entry.interface.index] = ReachOf(examined.diagnosis, entry);
    }
    const std::optional<std::uint64_t> filtered = ReadFilteredPackets();
    if (filteredBefore && filtered) {
        examined.filteredPackets = *filtered - *filteredBefore;
    }
    return examined;
}

const std::vector<Check<GigEExamination>>& GigEChecks() {
    static const std::vector<Check<GigEExamination>> checks{
        CheckDriver,          CheckInterfaces, CheckSubnetOverlap, CheckFirewall, CheckRpFilter,     CheckForeignSubnet,
        CheckAddressConflict, CheckNoAnswer,   CheckControl,       CheckMtu,      CheckReceiveBuffer};
    return checks;
}

}  // namespace Nimbrel2::Tool::Doctor
