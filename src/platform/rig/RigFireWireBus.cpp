// SPDX-License-Identifier: Apache-2.0
// The FireWire driver over a rig. Any thread; the rig's lock for the length of one look at the model.
#include <algorithm>

#include "platform/rig/RigDrivers.h"

namespace Nimbrel2::Platform {

namespace {

class Device final : public FireWireDevice {
public:
    Device(std::shared_ptr<const RigDriverState> state, const PhyDescription& phy, unsigned int card)
        : m_state(std::move(state)), m_phy(phy), m_card(card) {}

    // Also of a node that has left since it was listed.
    std::uint32_t GetConfigInfo(ConfigInfo* info) override {
        info->numbers = {static_cast<std::uint32_t>(m_phy.eui64 >> 32), 0xFFFF, static_cast<std::uint32_t>(m_phy.eui64),
                         0xFFFF, m_phy.unitVersion};
        info->vendor = m_phy.vendor;
        info->model = m_phy.model;
        const std::uint32_t status = OnBus([&](FireWireModel& bus) -> std::uint32_t {
            info->numbers[1] = 0xFFC0U | bus.FindNode(m_phy.eui64)->phyId;
            info->numbers[3] = bus.Card();
            return HAL_OK;
        });
        return status == HAL_GONE ? std::uint32_t{HAL_OK} : status;
    }

    std::uint32_t GetEui64(std::uint32_t* high, std::uint32_t* low) override {
        return OnBus([&](FireWireModel&) -> std::uint32_t {
            *high = static_cast<std::uint32_t>(m_phy.eui64 >> 32);
            *low = static_cast<std::uint32_t>(m_phy.eui64);
            return HAL_OK;
        });
    }

    std::uint32_t GetNode(std::uint16_t* node, std::uint16_t* busNumber) override {
        return OnBus([&](FireWireModel& bus) -> std::uint32_t {
            *node = static_cast<std::uint16_t>(bus.FindNode(m_phy.eui64)->phyId);
            *busNumber = static_cast<std::uint16_t>(bus.Card());
            return HAL_OK;
        });
    }

    std::uint32_t ReadQuadlet(std::uint64_t offset, std::uint32_t* value) override {
        return OnBus([&](FireWireModel& bus) { return bus.ReadQuadlet(m_phy.eui64, offset, value); });
    }

    std::uint32_t WriteQuadlet(std::uint64_t offset, std::uint32_t value) override {
        return OnBus([&](FireWireModel& bus) { return bus.WriteQuadlet(m_phy.eui64, offset, value); });
    }

    std::uint32_t ReadPhy(std::uint32_t page, std::uint32_t port, std::uint32_t address,
                          std::uint32_t* value) override {
        return OnBus([&](FireWireModel& bus) { return bus.ReadPhy(m_phy.eui64, page, port, address, value); });
    }

    std::uint32_t WritePhy(std::uint32_t page, std::uint32_t port, std::uint32_t address,
                           std::uint32_t value) override {
        bool resetAsked = false;
        const std::uint32_t status = OnBus(
            [&](FireWireModel& bus) { return bus.WritePhy(m_phy.eui64, page, port, address, value, &resetAsked); });
        return resetAsked ? m_state->rig->ResetBusOf(m_card, m_phy.eui64) : status;
    }

    std::uint32_t FireBusReset() override {
        const std::uint32_t status = m_state->Check();
        return status != HAL_OK ? status : m_state->rig->ResetBusOf(m_card, m_phy.eui64);
    }

    std::uint32_t GetSelfIds(std::vector<SelfIdPacket_t>* packets, std::uint64_t* busKey,
                             std::uint32_t* generation) override {
        return OnBus([&](FireWireModel& bus) -> std::uint32_t {
            *packets = bus.SelfIds();
            *busKey = bus.Card() + 1;
            *generation = bus.Generation();
            return HAL_OK;
        });
    }

    std::uint32_t GetNodeSerialNumbers(std::vector<std::uint32_t>* serialNumbers) override {
        return OnBus([&](FireWireModel& bus) -> std::uint32_t {
            serialNumbers->clear();
            for (const FireWireModel::Node& node : bus.Nodes()) {
                serialNumbers->resize(std::max<std::size_t>(serialNumbers->size(), node.phyId + 1));
                (*serialNumbers)[node.phyId] = static_cast<std::uint32_t>(node.phy->eui64);
            }
            return HAL_OK;
        });
    }

private:
    // Runs an operation on the node's bus, if the node is on it now.
    template <class Operation>
    std::uint32_t OnBus(Operation operation) const {
        const std::uint32_t status = m_state->Check();
        if (status != HAL_OK) {
            return status;
        }
        return m_state->rig->WithFireWire([&](std::vector<FireWireModel>& buses) -> std::uint32_t {
            for (FireWireModel& bus : buses) {
                if (bus.Card() == m_card && bus.FindNode(m_phy.eui64) != nullptr) {
                    return operation(bus);
                }
            }
            return HAL_GONE;
        });
    }

    const std::shared_ptr<const RigDriverState> m_state;
    const PhyDescription m_phy;
    const unsigned int m_card;
};

// A camera without hardware: identification and a few registers, on no bus.
class VirtualCamera final : public FireWireDevice {
public:
    VirtualCamera(std::shared_ptr<const RigDriverState> state, std::uint32_t serialNumber)
        : m_state(std::move(state)), m_serialNumber(serialNumber) {}

    std::uint32_t GetConfigInfo(ConfigInfo* info) override {
        const std::uint32_t status = m_state->Check();
        info->numbers = {0, 0, m_serialNumber, 0, 0};
        info->vendor = "Nimbrel2";
        info->model = "Virtual camera";
        return status;
    }
    std::uint32_t GetEui64(std::uint32_t* high, std::uint32_t* low) override {
        *high = 0;
        *low = m_serialNumber;
        return m_state->Check();
    }
    std::uint32_t GetNode(std::uint16_t* node, std::uint16_t* busNumber) override {
        *node = 0;
        *busNumber = 0;
        return m_state->Check();
    }
    std::uint32_t ReadQuadlet(std::uint64_t, std::uint32_t*) override { return HAL_NO_SUCH_REGISTER; }
    std::uint32_t WriteQuadlet(std::uint64_t, std::uint32_t) override { return HAL_NO_SUCH_REGISTER; }
    std::uint32_t ReadPhy(std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t*) override {
        return HAL_NOT_SUPPORTED;
    }
    std::uint32_t WritePhy(std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t) override {
        return HAL_PHY_WRITE_NOT_IMPLEMENTED;
    }
    std::uint32_t FireBusReset() override { return HAL_NOT_SUPPORTED; }
    std::uint32_t GetSelfIds(std::vector<SelfIdPacket_t>*, std::uint64_t*, std::uint32_t*) override {
        return HAL_NOT_SUPPORTED;
    }
    std::uint32_t GetNodeSerialNumbers(std::vector<std::uint32_t>*) override { return HAL_NOT_SUPPORTED; }

private:
    const std::shared_ptr<const RigDriverState> m_state;
    const std::uint32_t m_serialNumber;
};

class RigFireWireBus final : public FireWireBus {
public:
    RigFireWireBus(std::shared_ptr<Rig> rig, BusEventSink& sink)
        : m_state(std::make_shared<RigDriverState>(std::move(rig))), m_sink(sink) {}

    std::uint32_t Start() override {
        m_state->rig->ConnectFireWire(&m_sink);
        return HAL_OK;
    }

    void Stop() override {
        m_state->stopped = true;
        m_state->rig->ConnectFireWire(nullptr);
    }

    std::uint32_t ListCameras(Listing<FireWireDevice>* cameras) override { return List(PhyKind::Camera, cameras); }

    std::uint32_t ListVirtualCameras(const std::vector<std::uint64_t>& taken,
                                     std::vector<std::shared_ptr<FireWireDevice>>* cameras) override {
        const std::uint32_t status = m_state->Check();
        if (status == HAL_OK) {
            for (const std::uint32_t serialNumber : m_state->rig->VirtualSerialNumbers(taken)) {
                cameras->push_back(std::make_shared<VirtualCamera>(m_state, serialNumber));
            }
        }
        return status;
    }

    std::uint32_t ListDevices(Listing<FireWireDevice>* devices) override { return List(PhyKind::Device, devices); }

    // Everything may be opened, and nobody has watched.
    std::uint32_t Diagnose(bool /*askNodes*/, FireWireDiagnosis* diagnosis) override {
        const std::uint32_t status = m_state->Check();
        if (status != HAL_OK) {
            return status;
        }
        diagnosis->driverLoaded = true;
        m_state->rig->WithFireWire([&](std::vector<FireWireModel>& buses) {
            for (const FireWireModel& bus : buses) {
                diagnosis->buses.push_back(bus.Diagnose());
            }
        });
        return HAL_OK;
    }

    std::uint32_t Describe(std::vector<BusMap>* maps) override {
        const std::uint32_t status = m_state->Check();
        if (status == HAL_OK) {
            *maps = m_state->rig->DescribeFireWire();
        }
        return status;
    }

private:
    // In the order of cards, then EUI-64.
    std::uint32_t List(PhyKind kind, Listing<FireWireDevice>* listing) {
        const std::uint32_t status = m_state->Check();
        if (status != HAL_OK) {
            return status;
        }
        listing->state = m_state->rig->ListFireWire([&](std::vector<FireWireModel>& buses) {
            for (const FireWireModel& bus : buses) {
                std::vector<const PhyDescription*> found;
                for (const FireWireModel::Node& node : bus.Nodes()) {
                    if (node.phy->kind == kind) {
                        found.push_back(node.phy);
                    }
                }
                std::sort(found.begin(), found.end(),
                          [](const PhyDescription* a, const PhyDescription* b) { return a->eui64 < b->eui64; });
                for (const PhyDescription* phy : found) {
                    listing->devices.push_back(std::make_shared<Device>(m_state, *phy, bus.Card()));
                }
            }
        });
        return HAL_OK;
    }

    const std::shared_ptr<RigDriverState> m_state;
    BusEventSink& m_sink;
};

}  // namespace

std::unique_ptr<FireWireBus> MakeRigFireWireBus(std::shared_ptr<Rig> rig, BusEventSink& sink) {
    return std::make_unique<RigFireWireBus>(std::move(rig), sink);
}

std::function<Drivers(const Options& options, const BusEventSinks& sinks)> MakeRigDrivers(std::shared_ptr<Rig> rig) {
    return [rig = std::move(rig)](const Options& options, const BusEventSinks& sinks) {
        Drivers drivers;
        if (options.fireWire == Driver::Rig) {
            drivers.fireWire = MakeRigFireWireBus(rig, sinks.fireWire);
        }
        if (options.usb == Driver::Rig) {
            drivers.usb = MakeRigUsbBus(rig, sinks.usb);
        }
        if (options.gigE == Driver::Rig) {
            drivers.gigE = MakeRigGigEBus(rig, sinks.gigE);
        }
        drivers.enter = [rig](const char* function) { return rig->Enter(function); };
        return drivers;
    };
}

}  // namespace Nimbrel2::Platform
