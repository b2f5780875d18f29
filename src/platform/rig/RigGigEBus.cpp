// SPDX-License-Identifier: Apache-2.0
// The GigE driver over a rig. Any thread; the rig's lock for the length of one look at the model.
#include "platform/base/Texts.h"
#include "platform/gvcp/GvcpCodec.h"
#include "platform/rig/RigDrivers.h"

namespace Nimbrel2::Platform {

namespace {

using Gvcp::Register::CurrentIpAddress;

constexpr std::uint16_t ApplicationPort = 49152;  // from which this computer talks to every camera of a rig

// A camera is known by its MAC.
class Device final : public GigEDevice {
public:
    Device(std::shared_ptr<const RigDriverState> state, const GvcpDiscoveryRecord& record)
        : m_state(std::move(state)), m_mac(static_cast<std::uint64_t>(record.macHigh) << 32 | record.macLow) {}

    std::uint32_t GetRecord(GvcpDiscoveryRecord* record) override {
        return OnCamera([&](GigEModel&, GigEModel::Camera& camera) -> std::uint32_t {
            *record = camera.registers->GetDiscoveryRecord();
            return HAL_OK;
        });
    }

    std::uint32_t ReadRegister(std::uint32_t address, std::uint32_t* value) override {
        std::uint32_t answer = 0;
        const bool listed = address == CurrentIpAddress;  // what every listing asks each camera for
        const auto read = [&](const Simulated::Endpoint& self, auto& camera) {
            return camera.registers->Read(self, address, &answer);
        };
        const std::uint32_t status = Ask(read, listed ? WhenUnanswered::NoTime : WhenUnanswered::AllTries);
        if (status == HAL_OK) {
            *value = answer;
        }
        if (status != HAL_OK && status != HAL_CLOSED && listed) {
            GvcpDiscoveryRecord record{};
            if (GetRecord(&record) == HAL_OK) {  // a camera that is there has the address that it is listed with
                *value = record.ipAddress;
                return HAL_OK;
            }
        }
        return status;
    }

    std::uint32_t WriteRegister(std::uint32_t address, std::uint32_t value) override {
        const auto write = [&](const Simulated::Endpoint& self, auto& camera) {
            return camera.registers->Write(self, address, value, std::chrono::steady_clock::now());
        };
        return Ask(write, WhenUnanswered::AllTries);
    }

    std::uint32_t IsInMonitorMode(bool* monitor) override {
        return OnCamera([&](GigEModel& model, GigEModel::Camera& camera) -> std::uint32_t {
            camera.registers->ExpireControl(std::chrono::steady_clock::now());
            *monitor = camera.registers->IsControlHeld() &&
                       camera.registers->GetPrimaryApplication() != SelfTowards(model, camera);
            return HAL_OK;
        });
    }

    std::uint32_t GetLocalPort(std::uint32_t* port) override {
        *port = ApplicationPort;
        return m_state->Check();
    }

    std::uint32_t GetLocalAddress(std::uint32_t* ipAddress) override {
        return OnCamera([&](GigEModel& model, GigEModel::Camera& camera) -> std::uint32_t {
            *ipAddress = model.InterfaceOf(camera).address;
            return HAL_OK;
        });
    }

private:
    static Simulated::Endpoint SelfTowards(const GigEModel& model, const GigEModel::Camera& camera) {
        return {model.InterfaceOf(camera).address, ApplicationPort};
    }

    template <class Operation>
    std::uint32_t OnCamera(Operation operation) const {
        const std::uint32_t status = m_state->Check();
        if (status != HAL_OK) {
            return status;
        }
        return m_state->rig->WithGigE([&](GigEModel& model) -> std::uint32_t {
            GigEModel::Camera* camera = model.FindHeard(m_mac);
            return camera == nullptr ? static_cast<std::uint32_t>(HAL_GONE) : operation(model, *camera);
        });
    }

    // How long an unanswered command takes. The driver of a real network does not ask a camera that has missed a round
    // of its discovery, as one that loses all tries has: when the listing knows the answer, it gives it.
    enum class WhenUnanswered { AllTries, NoTime };

    // One command over the wire: it takes the time that the camera takes, and only a camera on the subnet hears it.
    template <class Command>
    std::uint32_t Ask(Command command, WhenUnanswered whenUnanswered) const {
        GigEModel::Exchange exchange;
        const std::uint32_t status = OnCamera([&](GigEModel& model, GigEModel::Camera& camera) -> std::uint32_t {
            if (!model.CanBeTalkedTo(camera)) {
                return HAL_UNREACHABLE;
            }
            exchange = model.Send(camera);
            std::uint32_t result = HAL_TIMED_OUT;
            if (exchange.arrived) {
                camera.registers->ExpireControl(std::chrono::steady_clock::now());
                const Simulated::Endpoint self = SelfTowards(model, camera);
                result = Gvcp::ToHalStatus(command(self, camera));
                camera.registers->Touch(self, std::chrono::steady_clock::now());
            }
            return exchange.answered ? result : static_cast<std::uint32_t>(HAL_TIMED_OUT);
        });
        if (exchange.answered || whenUnanswered == WhenUnanswered::AllTries) {
            m_state->rig->Wait(exchange.time);
        }
        return status;
    }

    const std::shared_ptr<const RigDriverState> m_state;
    const std::uint64_t m_mac;
};

class RigGigEBus final : public GigEBus {
public:
    RigGigEBus(std::shared_ptr<Rig> rig, BusEventSink& sink)
        : m_state(std::make_shared<RigDriverState>(std::move(rig))), m_sink(sink) {}

    std::uint32_t Start() override {
        m_state->rig->ConnectGigE(&m_sink);
        return HAL_OK;
    }

    void Stop() override {
        m_state->stopped = true;
        m_state->rig->ConnectGigE(nullptr);
    }

    std::uint32_t ListCameras(Listing<GigEDevice>* cameras) override {
        const std::uint32_t status = m_state->Check();
        if (status == HAL_OK) {
            cameras->state = m_state->rig->ListGigE([&](GigEModel& model) {
                for (const GigEModel::Camera* camera : model.Reached()) {
                    cameras->devices.push_back(
                        std::make_shared<Device>(m_state, camera->registers->GetDiscoveryRecord()));
                }
            });
        }
        return status;
    }

    // All cameras answer at once: there is nothing to wait for.
    std::uint32_t Discover(const std::optional<GigECameraName>& /*until*/, GigEDiscovery* discovery) override {
        const std::uint32_t status = m_state->Check();
        if (status != HAL_OK) {
            return status;
        }
        return m_state->rig->WithGigE([&](GigEModel& model) -> std::uint32_t {
            if (!model.HasInterfaceUp()) {
                return HAL_NO_BUS;
            }
            for (const GigEModel::Camera* camera : model.Heard()) {
                discovery->cameras.push_back(model.DescribeCamera(*camera));
            }
            return HAL_OK;
        });
    }

    std::uint32_t ForceAddress(const GigEAddress& address, ForceIpResult* result) override {
        const std::uint32_t status = m_state->Check();
        return status != HAL_OK ? status : m_state->rig->ForceAddress(address, result);
    }

    std::uint32_t ApplyAddresses(std::vector<AddressPlan>* plans) override {
        const std::uint32_t status = m_state->Check();
        return status != HAL_OK ? status : m_state->rig->ApplyAddresses(plans);
    }

    std::uint32_t FindAddressHolder(std::uint32_t ip, AddressHolder* holder) override {
        const std::uint32_t status = m_state->Check();
        if (status != HAL_OK) {
            return status;
        }
        return m_state->rig->WithGigE([&](GigEModel& model) -> std::uint32_t {
            if (!model.HasInterfaceUp()) {
                return HAL_NO_BUS;
            }
            *holder = model.FindAddressHolder(ip);
            return HAL_OK;
        });
    }

    // Nothing refuses a rig a search, and nothing filters.
    std::uint32_t GetSearchReport(GigESearchReport* /*report*/) override { return m_state->Check(); }

    std::uint32_t Diagnose(bool askControl, GigEDiagnosis* diagnosis) override {
        if (const std::uint32_t status = m_state->Check(); status != HAL_OK) {
            return status;
        }
        *diagnosis = m_state->rig->WithGigE([&](GigEModel& model) {
            return model.Diagnose(askControl, ApplicationPort, std::chrono::steady_clock::now());
        });
        return HAL_OK;
    }

    // Nothing lies between this computer and the cameras that it hears.
    std::uint32_t FindMutedCameras(GigEHearing* hearing) override {
        GigEDiagnosis diagnosis;
        const std::uint32_t status = Diagnose(false, &diagnosis);
        for (const InterfaceDiagnosis& diagnosed : diagnosis.interfaces) {
            if (!diagnosed.used) {
                continue;
            }
            InterfaceHearing entry;
            entry.interface = diagnosed.interface.index;
            entry.seesWire = true;
            entry.heard = diagnosed.heard;
            hearing->interfaces.push_back(entry);
        }
        return status;
    }

    std::uint32_t PlanAddresses(std::optional<std::uint32_t> serialNumber, std::vector<AddressPlan>* plans) override {
        const std::uint32_t status = m_state->Check();
        if (status != HAL_OK) {
            return status;
        }
        return m_state->rig->WithGigE([&](GigEModel& model) -> std::uint32_t {
            if (!model.HasInterfaceUp()) {
                return HAL_NO_BUS;
            }
            *plans = model.PlanAddresses([&](const GvcpDiscoveryRecord& record) {
                return !serialNumber || LeadingNumber(FieldText(record.serialNumber)) == *serialNumber;
            });
            return serialNumber && plans->empty() ? HAL_GONE : HAL_OK;
        });
    }

private:
    const std::shared_ptr<RigDriverState> m_state;
    BusEventSink& m_sink;
};

}  // namespace

std::unique_ptr<GigEBus> MakeRigGigEBus(std::shared_ptr<Rig> rig, BusEventSink& sink) {
    return std::make_unique<RigGigEBus>(std::move(rig), sink);
}

}  // namespace Nimbrel2::Platform
