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

    std::uint32_t Discover(const std::optional<GigECameraName>& /*until*/, GigEDiscovery* discovery) override {
        std::vector<GigE::DiscoveredCamera> cameras;
        const std::uint32_t status = m_core->Discover(&cameras);
        if (status != HAL_OK) return status;
        GigEDiagnosis diagnosis;
        m_core->Diagnose(false, &diagnosis);
        for (const GigE::DiscoveredCamera& camera : cameras) {
            CameraDiagnosis entry;
            entry.record = camera.record;
            entry.interface = camera.interface;
            entry.reachable = camera.reachable;
            for (const CameraDiagnosis& known : diagnosis.cameras) {
                if (known.interface != camera.interface || known.record.ipAddress != camera.record.ipAddress ||
                    GigE::KeyOf(known.record) != GigE::KeyOf(camera.record)) {
                    continue;
                }
                entry = known;
            }
            discovery->cameras.push_back(entry);
        }
        return GetSearchReport(&discovery->report);
    }

    std::uint32_t ForceAddress(const GigEAddress& address, ForceIpResult* result) override {
        return m_core->ForceAddress(address, result);
    }
    std::uint32_t PlanAddresses(std::optional<std::uint32_t> serialNumber, std::vector<AddressPlan>* plans) override {
        return m_core->PlanAddresses(serialNumber, plans);
    }
    std::uint32_t ApplyAddresses(std::vector<AddressPlan>* plans) override { return m_core->ApplyAddresses(plans); }
    std::uint32_t FindAddressHolder(std::uint32_t ip, AddressHolder* holder) override {
        return m_core->FindAddressHolder(ip, holder);
    }

    std::uint32_t Diagnose(bool askControl, GigEDiagnosis* diagnosis) override {
        return m_core->Diagnose(askControl, diagnosis);
    }

    std::uint32_t GetSearchReport(GigESearchReport* report) override {
        GigEDiagnosis diagnosis;
        const std::uint32_t status = m_core->Diagnose(false, &diagnosis);
        for (const InterfaceDiagnosis& entry : diagnosis.interfaces) {
            if (entry.error == 0 && entry.sendError == 0) continue;
            const auto kind = entry.error != 0 ? GigESearchProblem::Kind::Socket : GigESearchProblem::Kind::Broadcast;
            report->problems.push_back({entry.interface.index, entry.interface.name, kind,
                                        entry.error != 0 ? entry.error : entry.sendError, entry.reason});
        }
        return status;
    }

    std::uint32_t FindMutedCameras(GigEHearing* hearing) override { return m_core->FindMutedCameras(hearing); }

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
