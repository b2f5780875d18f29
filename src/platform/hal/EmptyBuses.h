// SPDX-License-Identifier: Apache-2.0
// Buses with nothing attached: for a bus that nobody drives, and in place of a driver that could not start.
#ifndef NIMBREL2_PLATFORM_HAL_EMPTYBUSES_H
#define NIMBREL2_PLATFORM_HAL_EMPTYBUSES_H

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "platform/Drivers.h"

namespace Nimbrel2::Platform {

/// They list nothing and raise nothing. Any thread; no lock, no I/O.
class EmptyFireWireBus final : public FireWireBus {
public:
    std::uint32_t Start() override { return HAL_OK; }
    void Stop() override {}
    std::uint32_t ListCameras(std::vector<std::shared_ptr<FireWireDevice>>* cameras) override;
    std::uint32_t ListVirtualCameras(const std::vector<std::uint64_t>& taken,
                                     std::vector<std::shared_ptr<FireWireDevice>>* cameras) override;
    std::uint32_t ListDevices(std::vector<std::shared_ptr<FireWireDevice>>* devices) override;
};

class EmptyUsbBus final : public UsbBus {
public:
    std::uint32_t Start() override { return HAL_OK; }
    void Stop() override {}
    std::uint32_t ListCameras(std::vector<std::shared_ptr<UsbDevice>>* cameras) override;
};

class EmptyGigEBus final : public GigEBus {
public:
    /// @param reason  What the services answer: why no request can be sent.
    explicit EmptyGigEBus(std::uint32_t reason = HAL_NO_BUS) : m_reason(reason) {}
    std::uint32_t Start() override { return HAL_OK; }
    void Stop() override {}
    std::uint32_t ListCameras(std::vector<std::shared_ptr<GigEDevice>>* cameras) override;
    std::uint32_t Discover(std::vector<GvcpDiscoveryRecord>* records) override;
    std::uint32_t ForceIp(std::uint64_t mac, std::uint32_t ipAddress, std::uint32_t subnetMask,
                          std::uint32_t gateway) override;
    std::uint32_t ForceIpAuto() override;
    std::uint32_t AutoForceIpToCamera(std::uint32_t serialNumber) override;
    std::uint32_t Diagnose(bool askControl, GigEDiagnosis* diagnosis) override;
    std::uint32_t TestHearing(GigEHearing* hearing) override;
    std::uint32_t PlanAddresses(std::optional<std::uint32_t> serialNumber, std::vector<AddressPlan>* plans) override;

private:
    const std::uint32_t m_reason;
};

}  // namespace Nimbrel2::Platform

#endif
