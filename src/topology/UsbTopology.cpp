// SPDX-License-Identifier: Apache-2.0
// From the device records of a USB host controller to its tree. Pure: no lock, no I/O, no state.
#include "topology/UsbTopology.h"

#include <unordered_map>
#include <utility>

namespace Nimbrel2 {

namespace {

constexpr unsigned int BitsPerTier = 4;
constexpr unsigned int PortCount = 16;  // values of one nibble
constexpr unsigned int NibblesPerRoute = 16;

// The port number, as a route string has it, on the hub of a tier: hubs stand on tiers 0 to 15.
unsigned int PortOnHub(std::uint64_t routeString, unsigned int hubTier) {
    return static_cast<unsigned int>(routeString >> (BitsPerTier * hubTier)) & 0xF;
}

TopologyNode MakeDevice(std::uint32_t deviceId) {
    return TopologyNode(ZevoGuid{}, static_cast<int>(deviceId), TopologyNode::NODE_DEVICE, INTERFACE_USB_3);
}

// The records of each tier by the port that they and their parent share, so that a parent finds its children without a
// look at all the others. Refers to the tiers that it was made from.
class ChildIndex {
public:
    explicit ChildIndex(const UsbTiers& tiers) {
        for (const UsbSelfId& record : tiers[1]) {
            m_tier1.push_back(&record);
        }
        for (unsigned int tier = 2; tier < UsbTierCount; ++tier) {
            for (const UsbSelfId& record : tiers[tier]) {
                m_deeper[tier][PortOnHub(record.routeString, tier - 2)].push_back(&record);
            }
        }
    }

    // tier is 1 to 4.
    const std::vector<const UsbSelfId*>& Below(std::uint64_t parentRoute, unsigned int tier) const {
        return tier == 1 ? m_tier1 : m_deeper[tier][PortOnHub(parentRoute, tier - 2)];
    }

private:
    using Records = std::vector<const UsbSelfId*>;

    Records m_tier1;  // One device is on a root port: all of tier 1 is attached to it.
    std::array<std::array<Records, PortCount>, UsbTierCount> m_deeper;
};

void Attach(TopologyNode& parent, std::uint64_t parentRoute, const ChildIndex& index, unsigned int tier) {
    if (tier >= UsbTierCount) {
        return;
    }
    for (const UsbSelfId* record : index.Below(parentRoute, tier)) {
        TopologyNode node = MakeDevice(record->deviceId);
        Attach(node, record->routeString, index, tier + 1);
        node.AddPortType(TopologyNode::PORT_TO_PARENT);
        parent.AddChild(std::move(node));
        parent.AddPortType(TopologyNode::PORT_TO_CHILD);
    }
}

// Empties the tiers that would make the subtree of a root port larger than the budget, and takes what is left from it.
// The size is known without building anything: a record stands below each node of the tier above that shares its port.
void FitToBudget(UsbTiers& tiers, std::size_t& budget) {
    std::array<std::uint64_t, PortCount> nodesOnPort{};  // of the tier above
    for (unsigned int tier = 1; tier < UsbTierCount; ++tier) {
        std::array<std::uint64_t, PortCount> deeper{};
        std::uint64_t nodes = 0;
        for (const UsbSelfId& record : tiers[tier]) {
            const std::uint64_t places = tier == 1 ? 1 : nodesOnPort[PortOnHub(record.routeString, tier - 2)];
            deeper[PortOnHub(record.routeString, tier - 1)] += places;
            nodes += places;
        }
        if (nodes > budget) {
            for (unsigned int left = tier; left < UsbTierCount; ++left) {
                tiers[left].clear();
            }
            return;
        }
        budget -= static_cast<std::size_t>(nodes);
        nodesOnPort = deeper;
    }
}

}  // namespace

unsigned int UsbTierOfRoute(std::uint64_t routeString) {
    unsigned int tier = 0;
    while (tier < NibblesPerRoute && PortOnHub(routeString, tier) != 0) {
        ++tier;
    }
    return tier;
}

std::vector<usbRootPort> GroupUsbRecords(std::span<const UsbSelfId> records) {
    std::vector<usbRootPort> rootPorts;
    std::unordered_map<std::uint64_t, std::size_t> positions;
    for (const UsbSelfId& record : records) {
        const unsigned int tier = UsbTierOfRoute(record.routeString);
        if (tier >= UsbTierCount) {
            continue;
        }
        const auto [position, isNew] = positions.try_emplace(record.rootPortId, rootPorts.size());
        if (isNew) {
            rootPorts.push_back(usbRootPort{record.rootPortId, {}});
        }
        rootPorts[position->second].tiers[tier].push_back(record);
    }
    return rootPorts;
}

void BuildUsbTopology(TopologyNode* parent, std::uint64_t parentRoute, const UsbTiers* tiers, unsigned int tier) {
    if (tier == 0 || tier >= UsbTierCount) {
        return;
    }
    Attach(*parent, parentRoute, ChildIndex(*tiers), tier);
}

TopologyNode BuildUsbHost(std::span<const UsbSelfId> records) {
    TopologyNode host = MakeDevice(UsbHostDeviceId);
    host.AddPortType(TopologyNode::PORT_TO_PARENT);
    std::size_t budget = MaxUsbNodes - 1;
    for (usbRootPort& rootPort : GroupUsbRecords(records)) {
        const std::vector<UsbSelfId>& onRootPort = rootPort.tiers[0];
        if (onRootPort.empty() || budget == 0) {
            continue;
        }
        --budget;
        FitToBudget(rootPort.tiers, budget);
        TopologyNode node = MakeDevice(onRootPort.front().deviceId);
        BuildUsbTopology(&node, 0, &rootPort.tiers, 1);
        node.AddPortType(TopologyNode::PORT_TO_PARENT);
        host.AddChild(std::move(node));
        host.AddPortType(TopologyNode::PORT_TO_CHILD);
    }
    return host;
}

}  // namespace Nimbrel2
