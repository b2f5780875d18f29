// SPDX-License-Identifier: Apache-2.0
// The GigE driver as the HAL sees it: hands everything to the core. Any thread; no lock of its own.
#include "platform/linux/gige/LinuxGigEBus.h"

#include "platform/linux/gige/GigECore.h"
#include "platform/linux/gige/LinuxGigEDevice.h"

namespace Nimbrel2::Platform {

namespace {

class Bus final : public GigEBus {
public:
    explicit Bus(std::shared_ptr<GigE::GigECore> core) : m_core(std::move(core)) {}
    ~Bus() override { m_core->Stop(); }

    std::uint32_t Start() override { return m_core->Start(); }
    void Stop() override { m_core->Stop(); }

    std::uint32_t ListCameras(Listing<GigEDevice>* cameras) override {
        std::vector<GigE::ListedCamera> listed;
        const std::uint32_t status = m_core->ListCameras(&listed, &cameras->state);
        for (GigE::ListedCamera& camera : listed) {
            cameras->devices.push_back(std::make_shared<GigE::LinuxGigEDevice>(m_core, std::move(camera)));
        }
        return status;
    }

    std::uint32_t Discover(std::vector<GvcpDiscoveryRecord>* records) override {
        std::vector<GigE::DiscoveredCamera> cameras;
        const std::uint32_t status = m_core->Discover(&cameras);
        records->clear();
        for (const GigE::DiscoveredCamera& camera : cameras) records->push_back(camera.record);
        return status;
    }

    std::uint32_t ForceIp(std::uint64_t mac, std::uint32_t ipAddress, std::uint32_t subnetMask,
                          std::uint32_t gateway) override {
        return m_core->ForceIp(mac, ipAddress, subnetMask, gateway);
    }

    std::uint32_t AutoForceIp(std::optional<std::uint32_t> serialNumber) override {
        return m_core->AutoForceIp(serialNumber);
    }

    std::uint32_t Diagnose(bool askControl, GigEDiagnosis* diagnosis) override {
        return m_core->Diagnose(askControl, diagnosis);
    }
    std::uint32_t TestHearing(GigEHearing* hearing) override { return m_core->TestHearing(hearing); }
    std::uint32_t PlanAddresses(std::optional<std::uint32_t> serialNumber, std::vector<AddressPlan>* plans) override {
        return m_core->PlanAddresses(serialNumber, plans);
    }

private:
    // Entries hold it too and may outlive the bus.
    const std::shared_ptr<GigE::GigECore> m_core;
};

}  // namespace

std::unique_ptr<GigEBus> MakeLinuxGigEBus(const LinuxGigEOptions& options, BusEventSink& events) {
    GigE::Timings timings;
    timings.discoveryWindow = options.discoveryWindow;
    return std::make_unique<Bus>(std::make_shared<GigE::GigECore>(options.networkInterfaces, timings, events));
}

}  // namespace Nimbrel2::Platform
