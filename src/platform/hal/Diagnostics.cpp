// SPDX-License-Identifier: Apache-2.0
// Hands questions of Diagnostics.h to the driver. Run on their caller's thread, which the driver may block for network
// I/O; no lock of the glue is held.
#include "platform/Diagnostics.h"

#include "platform/FireWireDiagnostics.h"
#include "platform/base/CameraAddress.h"
#include "platform/hal/Calls.h"

namespace Nimbrel2::Platform {

namespace {

/// The glue hands the drivers empty containers.
template <class Answer, class Work>
std::uint32_t Ask(const char* function, Answer* answer, const Work& work) {
    return InSession(function, answer != nullptr, [&](Session& session) {
        *answer = Answer{};
        return work(session.GigE());
    });
}

}  // namespace

std::uint32_t DiagnoseFireWire(bool askNodes, FireWireDiagnosis* diagnosis) {
    return InSession(__func__, diagnosis != nullptr, [&](Session& session) {
        *diagnosis = FireWireDiagnosis{};
        return session.FireWire().Diagnose(askNodes, diagnosis);
    });
}

std::uint32_t DiagnoseGigE(bool askControl, GigEDiagnosis* diagnosis) {
    return Ask(__func__, diagnosis, [&](GigEBus& bus) { return bus.Diagnose(askControl, diagnosis); });
}

std::uint32_t GetGigESearchReport(GigESearchReport* report) {
    return Ask(__func__, report, [&](GigEBus& bus) { return bus.GetSearchReport(report); });
}

std::uint32_t DiscoverGigE(const std::optional<GigECameraName>& until, GigEDiscovery* discovery) {
    return Ask(__func__, discovery, [&](GigEBus& bus) { return bus.Discover(until, discovery); });
}

std::uint32_t FindMutedGigECameras(GigEHearing* hearing) {
    return Ask(__func__, hearing, [&](GigEBus& bus) { return bus.FindMutedCameras(hearing); });
}

std::uint32_t PlanGigEAddresses(std::optional<std::uint32_t> serialNumber, std::vector<AddressPlan>* plans) {
    return Ask(__func__, plans, [&](GigEBus& bus) { return bus.PlanAddresses(serialNumber, plans); });
}

std::uint32_t ApplyGigEAddresses(std::vector<AddressPlan>* plans) {
    return InSession(__func__, plans != nullptr,
                     [&](Session& session) { return session.GigE().ApplyAddresses(plans); });
}

std::uint32_t ForceGigEAddress(const GigEAddress& address, ForceIpResult* result) {
    return Ask(__func__, result, [&](GigEBus& bus) {
        const std::uint32_t status = CheckCameraAddress(address.ip, address.mask, address.gateway);
        return status == HAL_OK ? bus.ForceAddress(address, result) : status;
    });
}

std::uint32_t FindGigEAddressHolder(std::uint32_t ip, AddressHolder* holder) {
    return Ask(__func__, holder, [&](GigEBus& bus) { return bus.FindAddressHolder(ip, holder); });
}

std::uint32_t DiagnoseUsb(UsbDiagnosis* diagnosis) {
    return InSession(__func__, diagnosis != nullptr, [&](Session& session) {
        *diagnosis = UsbDiagnosis();
        return session.Usb().Diagnose(diagnosis);
    });
}

}  // namespace Nimbrel2::Platform
