// SPDX-License-Identifier: Apache-2.0
// Hands questions of Diagnostics.h to the driver. Run on their caller's thread, which the driver may block for network
// I/O; no lock of the glue is held.
#include "platform/Diagnostics.h"

#include "platform/hal/Calls.h"

namespace Nimbrel2::Platform {

std::uint32_t DiagnoseGigE(bool askControl, GigEDiagnosis* diagnosis) {
    return InSession(__func__, diagnosis != nullptr, [&](Session& session) {
        *diagnosis = GigEDiagnosis{};
        return session.GigE().Diagnose(askControl, diagnosis);
    });
}

std::uint32_t TestGigEHearing(GigEHearing* hearing) {
    return InSession(__func__, hearing != nullptr, [&](Session& session) {
        *hearing = GigEHearing{};
        return session.GigE().TestHearing(hearing);
    });
}

std::uint32_t PlanGigEAddresses(std::optional<std::uint32_t> serialNumber, std::vector<AddressPlan>* plans) {
    return InSession(__func__, plans != nullptr, [&](Session& session) {
        plans->clear();
        return session.GigE().PlanAddresses(serialNumber, plans);
    });
}

}  // namespace Nimbrel2::Platform
