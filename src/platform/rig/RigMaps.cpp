// SPDX-License-Identifier: Apache-2.0
// What stands where on the buses of a rig. Any thread; the rig's lock for the length of one look at the models.
#include <map>

#include "platform/base/UsbSerial.h"
#include "platform/rig/Rig.h"

namespace Nimbrel2::Platform {
namespace {

constexpr std::uint32_t SlowestPhy = 100;  // Mbit/s, doubled with each self-ID speed code

// What the device calls itself, else what the file calls it.
template <class Description>
std::string NameOf(const Description& description) {
    const std::string gap = description.vendor.empty() || description.model.empty() ? "" : " ";
    const std::string name = description.vendor + gap + description.model;
    return name.empty() ? description.name : name;
}

BusMapNode NodeOf(const FireWireModel::Node& node) {
    const PhyDescription& phy = *node.phy;
    BusMapNode entry;
    entry.id = node.phyId;
    entry.speed = SlowestPhy << phy.speed;
    entry.isThisComputer = phy.kind == PhyKind::Card;
    entry.isHub = phy.kind == PhyKind::Repeater;
    entry.name = NameOf(phy);
    if (phy.kind == PhyKind::Camera) {
        entry.isCamera = true;
        entry.serialNumber = static_cast<std::uint32_t>(phy.eui64);
        entry.vendor = phy.vendor;
        entry.model = phy.model;
    }
    return entry;
}

// The port that a record's device is plugged into: the last of its route, or the root port.
std::uint32_t PortOf(const UsbSelfId& record) {
    std::uint32_t port = record.rootPortId & 0xFF;
    for (std::uint64_t route = record.routeString; (route & 0xF) != 0; route >>= 4) {
        port = route & 0xF;
    }
    return port;
}

BusMapNode NodeOf(const UsbSelfId& record) {
    BusMapNode entry;
    entry.id = record.deviceId;
    entry.parent = static_cast<std::uint32_t>(record.parentId);
    entry.port = PortOf(record);
    entry.speed = record.speed;
    return entry;
}

// Names are those of the description, which a host that is given as records has for its cameras only.
std::vector<BusMapNode> NodesOf(const UsbModel& host) {
    std::map<std::uint32_t, BusMapNode> nodes;
    for (const UsbSelfId& record : host.Records()) {
        nodes.emplace(record.deviceId, NodeOf(record));
    }
    for (const auto& [id, node] : nodes) {
        if (const auto above = nodes.find(*node.parent); above != nodes.end()) {
            above->second.isHub = true;
        }
    }
    for (const UsbModel::Attached& attached : host.Devices()) {
        BusMapNode& entry = nodes[attached.deviceId];
        const UsbDeviceDescription& device = *attached.device;
        entry.speed = attached.speed;
        entry.isHub = entry.isHub || device.kind == UsbKind::Hub;
        entry.name = NameOf(device);
        if (device.kind != UsbKind::Camera) {
            continue;
        }
        entry.isCamera = true;
        entry.serialNumber = UsbSerialNumber(device.vendorId, device.productId, device.serial);
        entry.vendor = device.vendor;
        entry.model = device.model;
    }
    std::vector<BusMapNode> list;
    for (auto& [id, node] : nodes) {
        list.push_back(std::move(node));
    }
    return list;
}

}  // namespace

std::vector<BusMap> Rig::DescribeFireWire() const {
    const LockGuard lock(m_mutex);
    std::vector<BusMap> maps;
    for (std::size_t i = 0; i < m_fireWire.size(); ++i) {
        BusMap map;
        map.bus = HAL_INTERFACE_1394;
        map.name = m_fireWireNames[i];
        for (const FireWireModel::Node& node : m_fireWire[i].Nodes()) {
            map.nodes.push_back(NodeOf(node));
        }
        maps.push_back(std::move(map));
    }
    return maps;
}

std::vector<BusMap> Rig::DescribeUsb() const {
    const LockGuard lock(m_mutex);
    std::vector<BusMap> maps;
    for (std::size_t i = 0; i < m_usb.size(); ++i) {
        BusMap map;
        map.bus = HAL_INTERFACE_USB;
        map.name = m_usbNames[i];
        map.nodes = NodesOf(m_usb[i]);
        maps.push_back(std::move(map));
    }
    return maps;
}

}  // namespace Nimbrel2::Platform
