// SPDX-License-Identifier: Apache-2.0
// The IEEE 1394 driver as the HAL sees it: hands everything to the core. Any thread; no lock of its own.
#include "platform/linux/firewire/LinuxFireWireBus.h"

#include <utility>

#include "platform/linux/firewire/FireWireCore.h"

namespace Nimbrel2::Platform {

namespace {

using FireWire::FireWireCore;
using FireWire::ListedNode;
using FireWire::NodeKind;

class Device final : public FireWireDevice {
public:
    Device(std::shared_ptr<FireWireCore> core, ListedNode listed)
        : m_core(std::move(core)), m_listed(std::move(listed)) {}

    // Also of a node that has left since it was listed: to the bus master a camera that cannot be identified is a bus
    // that cannot be listed, and all others would seem to have left with it.
    std::uint32_t GetConfigInfo(ConfigInfo* info) override {
        std::uint16_t nodeId = FireWire::UnknownNode;
        std::uint32_t card = FireWire::UnknownCard;
        const std::uint32_t status = m_core->GetIds(m_listed.key, &nodeId, &card);
        info->numbers = {High(), nodeId, Low(), card, m_listed.unitVersion};
        info->vendor = m_listed.vendor;
        info->model = m_listed.model;
        return status == HAL_GONE ? std::uint32_t{HAL_OK} : status;
    }
    std::uint32_t GetEui64(std::uint32_t* high, std::uint32_t* low) override {
        *high = High();
        *low = Low();
        std::uint16_t nodeId = 0;
        std::uint32_t card = 0;
        return m_core->GetIds(m_listed.key, &nodeId, &card);
    }
    std::uint32_t GetNode(std::uint16_t* node, std::uint16_t* busNumber) override {
        std::uint16_t nodeId = 0;
        std::uint32_t card = 0;
        const std::uint32_t status = m_core->GetIds(m_listed.key, &nodeId, &card);
        *node = nodeId == FireWire::UnknownNode ? nodeId : static_cast<std::uint16_t>(nodeId & 0x3F);
        *busNumber = static_cast<std::uint16_t>(card);
        return status;
    }
    std::uint32_t ReadQuadlet(std::uint64_t offset, std::uint32_t* value) override {
        return m_core->ReadQuadlet(m_listed.key, offset, value);
    }
    std::uint32_t WriteQuadlet(std::uint64_t offset, std::uint32_t value) override {
        return m_core->WriteQuadlet(m_listed.key, offset, value);
    }
    std::uint32_t ReadPhy(std::uint32_t page, std::uint32_t port, std::uint32_t address,
                          std::uint32_t* value) override {
        return m_core->ReadPhy(m_listed.key, page, port, address, value);
    }
    std::uint32_t WritePhy(std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t) override {
        return m_core->WritePhy();
    }
    std::uint32_t FireBusReset() override { return m_core->FireBusReset(m_listed.key); }
    std::uint32_t GetSelfIds(std::vector<SelfIdPacket_t>* packets, std::uint64_t* busKey,
                             std::uint32_t* generation) override {
        return m_core->GetSelfIds(m_listed.key, packets, busKey, generation);
    }
    std::uint32_t GetNodeSerialNumbers(std::vector<std::uint32_t>* serialNumbers) override {
        return m_core->GetNodeSerialNumbers(m_listed.key, serialNumbers);
    }

private:
    std::uint32_t High() const { return static_cast<std::uint32_t>(m_listed.key.eui64 >> 32); }
    std::uint32_t Low() const { return static_cast<std::uint32_t>(m_listed.key.eui64); }

    const std::shared_ptr<FireWireCore> m_core;
    const ListedNode m_listed;
};

class Bus final : public FireWireBus {
public:
    explicit Bus(std::shared_ptr<FireWireCore> core) : m_core(std::move(core)) {}
    ~Bus() override { m_core->Stop(); }

    std::uint32_t Start() override { return m_core->Start(); }
    void Stop() override { m_core->Stop(); }
    std::uint32_t ListCameras(Listing<FireWireDevice>* cameras) override { return List(NodeKind::Camera, cameras); }
    std::uint32_t ListDevices(Listing<FireWireDevice>* devices) override { return List(NodeKind::Device, devices); }
    std::uint32_t Describe(std::vector<BusMap>* maps) override { return m_core->Describe(maps); }
    std::uint32_t Diagnose(bool askNodes, FireWireDiagnosis* diagnosis) override {
        return m_core->Diagnose(askNodes, diagnosis);
    }

private:
    std::uint32_t List(NodeKind kind, Listing<FireWireDevice>* listing) {
        std::vector<ListedNode> nodes;
        const std::uint32_t status = m_core->List(kind, &nodes, &listing->state);
        for (ListedNode& node : nodes) {
            listing->devices.push_back(std::make_shared<Device>(m_core, std::move(node)));
        }
        return status;
    }

    // Entries hold it too and may outlive the bus.
    const std::shared_ptr<FireWireCore> m_core;
};

}  // namespace

std::unique_ptr<FireWireBus> MakeLinuxFireWireBus(BusEventSink& events) {
    return std::make_unique<Bus>(std::make_shared<FireWireCore>(FireWire::Timings(), events));
}

}  // namespace Nimbrel2::Platform
