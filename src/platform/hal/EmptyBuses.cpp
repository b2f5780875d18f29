// SPDX-License-Identifier: Apache-2.0
// Buses with nothing attached. Any thread; no lock, no I/O.
#include "platform/hal/EmptyBuses.h"

namespace Nimbrel2::Platform {

std::uint32_t EmptyFireWireBus::ListCameras(std::vector<std::shared_ptr<FireWireDevice>>* cameras) {
    cameras->clear();
    return HAL_OK;
}

std::uint32_t EmptyFireWireBus::ListVirtualCameras(const std::vector<std::uint64_t>& /*taken*/,
                                                   std::vector<std::shared_ptr<FireWireDevice>>* cameras) {
    cameras->clear();
    return HAL_OK;
}

std::uint32_t EmptyFireWireBus::ListDevices(std::vector<std::shared_ptr<FireWireDevice>>* devices) {
    devices->clear();
    return HAL_OK;
}

std::uint32_t EmptyUsbBus::ListCameras(std::vector<std::shared_ptr<UsbDevice>>* cameras) {
    cameras->clear();
    return HAL_OK;
}

std::uint32_t EmptyGigEBus::ListCameras(std::vector<std::shared_ptr<GigEDevice>>* cameras) {
    cameras->clear();
    return HAL_OK;
}

std::uint32_t EmptyGigEBus::Discover(std::vector<GvcpDiscoveryRecord>* records) {
    records->clear();
    return m_reason;
}

std::uint32_t EmptyGigEBus::ForceIp(std::uint64_t /*mac*/, std::uint32_t /*ipAddress*/, std::uint32_t /*subnetMask*/,
                                    std::uint32_t /*gateway*/) {
    return m_reason;
}

std::uint32_t EmptyGigEBus::ForceIpAuto() { return m_reason; }

std::uint32_t EmptyGigEBus::AutoForceIpToCamera(std::uint32_t /*serialNumber*/) { return m_reason; }

std::uint32_t EmptyGigEBus::Diagnose(bool /*askControl*/, GigEDiagnosis* diagnosis) {
    *diagnosis = GigEDiagnosis{};
    return m_reason;
}

std::uint32_t EmptyGigEBus::TestHearing(GigEHearing* hearing) {
    *hearing = GigEHearing{};
    return m_reason;
}

std::uint32_t EmptyGigEBus::PlanAddresses(std::optional<std::uint32_t> /*serialNumber*/,
                                          std::vector<AddressPlan>* plans) {
    plans->clear();
    return m_reason;
}

}  // namespace Nimbrel2::Platform
