// SPDX-License-Identifier: Apache-2.0
// The GigE driver as the HAL sees it: the bus, and an entry for each camera of a listing. Any thread; no lock of its
// own.
#include "platform/linux/gige/LinuxGigEBus.h"

#include <atomic>
#include <utility>

#include "platform/gvcp/GvcpConstants.h"
#include "platform/linux/gige/GigEDriver.h"

namespace Nimbrel2::Platform {

namespace {

using GigE::GigEDriver;

/// Names a camera and has the driver find it at each call. Its first questions are answered from what its listing has
/// read of all cameras at once; every later one goes to the camera.
class Device final : public GigEDevice {
public:
    Device(std::shared_ptr<GigEDriver> driver, GigE::ListedCamera listed)
        : m_driver(std::move(driver)), m_listed(std::move(listed)) {}

    std::uint32_t GetRecord(GvcpDiscoveryRecord* record) override { return m_driver->GetRecord(m_listed, record); }

    std::uint32_t ReadRegister(std::uint32_t address, std::uint32_t* value) override {
        if (address != Gvcp::Register::CurrentIpAddress || !IsAnswered(m_addressAsked)) {
            return m_driver->ReadRegister(m_listed, address, value);
        }
        *value = m_listed.readings.value;
        return m_driver->ConcludeAddress(m_listed, m_listed.readings.valueStatus, value);
    }

    std::uint32_t WriteRegister(std::uint32_t address, std::uint32_t value) override {
        // What was read before it may no longer be true.
        m_addressAsked = m_controlAsked = true;
        return m_driver->WriteRegister(m_listed, address, value);
    }

    std::uint32_t IsInMonitorMode(bool* monitor) override {
        if (!IsAnswered(m_controlAsked)) {
            return m_driver->IsInMonitorMode(m_listed, monitor);
        }
        const GigE::Readings& readings = m_listed.readings;
        return m_driver->ConcludeMonitorMode(m_listed, readings.controlStatus, readings.control, monitor);
    }

    std::uint32_t GetLocalPort(std::uint32_t* port) override {
        std::uint32_t ip = 0;
        std::uint16_t localPort = 0;
        const std::uint32_t status = m_driver->GetRegisters().GetLocalEnd(m_listed.key, &ip, &localPort);
        *port = localPort;
        return status;
    }

    std::uint32_t GetLocalAddress(std::uint32_t* ipAddress) override {
        std::uint16_t localPort = 0;
        return m_driver->GetRegisters().GetLocalEnd(m_listed.key, ipAddress, &localPort);
    }

private:
    bool IsAnswered(std::atomic<bool>& asked) const {
        return !asked.exchange(true) && !m_listed.readings.skipped && m_driver->IsFresh(m_listed);
    }

    const std::shared_ptr<GigEDriver> m_driver;
    const GigE::ListedCamera m_listed;
    std::atomic<bool> m_addressAsked{false};
    std::atomic<bool> m_controlAsked{false};
};

class Bus final : public GigEBus {
public:
    explicit Bus(std::shared_ptr<GigEDriver> driver) : m_driver(std::move(driver)) {}
    ~Bus() override { m_driver->Stop(); }

    std::uint32_t Start() override { return m_driver->Start(); }
    void Stop() override { m_driver->Stop(); }

    std::uint32_t ListCameras(Listing<GigEDevice>* cameras) override {
        std::vector<GigE::ListedCamera> listed;
        const std::uint32_t status = m_driver->ListCameras(&listed, &cameras->state);
        for (GigE::ListedCamera& camera : listed) {
            cameras->devices.push_back(std::make_shared<Device>(m_driver, std::move(camera)));
        }
        return status;
    }

    std::uint32_t Discover(const std::optional<GigECameraName>& until, GigEDiscovery* discovery) override {
        return m_driver->GetDiscovery().Run(until, discovery);
    }
    std::uint32_t ForceAddress(const GigEAddress& address, ForceIpResult* result) override {
        return m_driver->GetAddresses().Force(address, result);
    }
    std::uint32_t PlanAddresses(std::optional<std::uint32_t> serialNumber, std::vector<AddressPlan>* plans) override {
        return m_driver->GetAddresses().Plan(serialNumber, plans);
    }
    std::uint32_t ApplyAddresses(std::vector<AddressPlan>* plans) override {
        return m_driver->GetAddresses().Apply(plans);
    }
    std::uint32_t FindAddressHolder(std::uint32_t ip, AddressHolder* holder) override {
        return m_driver->GetAddresses().FindHolder(ip, holder);
    }
    std::uint32_t Diagnose(bool askControl, GigEDiagnosis* diagnosis) override {
        return m_driver->Diagnose(askControl, diagnosis);
    }
    std::uint32_t GetSearchReport(GigESearchReport* report) override { return m_driver->GetSearchReport(report); }
    std::uint32_t FindMutedCameras(GigEHearing* hearing) override {
        return m_driver->GetHearing().FindMutedCameras(hearing);
    }

private:
    // Entries hold it too and may outlive the bus.
    const std::shared_ptr<GigEDriver> m_driver;
};

}  // namespace

std::unique_ptr<GigEBus> MakeLinuxGigEBus(const LinuxGigEOptions& options, BusEventSink& events) {
    GigE::DriverOptions driver;
    driver.networkInterfaces = options.networkInterfaces;
    driver.searchFor = options.searchFor;
    driver.sourcePorts = options.sourcePorts;
    driver.timings.discoveryWindow = options.discoveryWindow;
    return std::make_unique<Bus>(std::make_shared<GigE::GigEDriver>(driver, events));
}

}  // namespace Nimbrel2::Platform
