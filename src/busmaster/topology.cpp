// SPDX-License-Identifier: Apache-2.0
// The topology tree: the current cameras, placed in the trees of their buses. Any thread; m_busMasterMutex is held
// throughout, bus readings included, so that the list cannot change under the tree.
#include <algorithm>
#include <array>
#include <map>

#include "busmaster/BusMasterMembers.h"
#include "busmaster/Support.h"
#include "common/GigEInterface.h"
#include "topology/SelfIdParsing.h"
#include "topology/TopologyAssembly.h"
#include "topology/UsbTopology.h"

namespace Nimbrel2 {

// The tree of one GetTopology call, while camera after camera is put into it. What is known of a bus is kept together
// with the place of its tree, and only once that tree stands: a camera whose bus could not be read leaves nothing
// behind, and the next one of that bus tries again.
class NIMBREL2_INTERNAL BusMaster::TreeOfCameras {
public:
    void Add(const BusMasterHandle& camera) {
        switch (camera.hwInterface->GetInterfaceType()) {
            case INTERFACE_USB_2:
                AddFlat(camera, m_branches[INTERFACE_USB_2], INTERFACE_USB_2);
                break;
            case INTERFACE_GIGE:
                AddFlat(camera, m_branches[INTERFACE_GIGE], INTERFACE_GIGE);
                break;
            case INTERFACE_IEEE1394:
                if (dynamic_cast<GigEInterface*>(camera.hwInterface.get()) != nullptr) {
                    AddFlat(camera, m_branches[INTERFACE_GIGE], INTERFACE_IEEE1394);
                } else {
                    AddToFireWireBus(camera);
                }
                break;
            case INTERFACE_USB_3:
                AddToUsbHost(camera);
                break;
            default:
                break;
        }
    }

    // The whole tree. The object is empty afterwards.
    TopologyNode Finish() {
        std::vector<TopologyNode> buses;
        PortList ports;
        for (std::size_t type = 0; type < m_branches.size(); ++type) {
            Branch& branch = m_branches[type];
            if (branch.nodes.empty()) {
                continue;
            }
            TopologyNode& bus =
                buses.emplace_back(ZevoGuid{}, 0, TopologyNode::NODE_BUS, static_cast<InterfaceType>(type));
            AddNodesAsChildren(bus, branch.nodes);
            AddPortsAsChildren(bus, branch.ports);
            ports.push_back(TopologyNode::PORT_TO_CHILD);
        }
        TopologyNode computer(ZevoGuid{}, 0, TopologyNode::NODE_COMPUTER, INTERFACE_NONE);
        AddNodesAsChildren(computer, buses);
        AddPortsAsChildren(computer, ports);
        return computer;
    }

private:
    // What is attached to one kind of bus.
    struct Branch {
        std::vector<TopologyNode> nodes;
        PortList ports{TopologyNode::PORT_TO_PARENT};

        std::size_t Append(TopologyNode node) {
            nodes.push_back(std::move(node));
            ports.push_back(TopologyNode::PORT_TO_CHILD);
            return nodes.size() - 1;
        }
    };

    static void AddFlat(const BusMasterHandle& camera, Branch& branch, InterfaceType type) {
        TopologyNode node(camera.guid, static_cast<int>(branch.nodes.size()), TopologyNode::NODE_CAMERA, type);
        node.AddPortType(TopologyNode::PORT_TO_PARENT);
        branch.Append(std::move(node));
    }

    // The last node index at which the camera's serial number stands; 0 when it stands at none.
    static int NodeOf(const BusMasterHandle& camera, const std::vector<unsigned int>& serialNumbers) {
        const auto found = std::find(serialNumbers.rbegin(), serialNumbers.rend(), camera.serialNumber);
        return found == serialNumbers.rend() ? 0 : static_cast<int>(serialNumbers.rend() - found) - 1;
    }

    void AddToFireWireBus(const BusMasterHandle& camera) {
        HardwareInterface& hwInterface = *camera.hwInterface;
        unsigned int generation = 0;
        std::uint64_t busKey = 0;
        std::uint64_t count = 0;
        if (hwInterface.GetSelfIds(&generation, &busKey, &count, nullptr) != HAL_OK || count > MaxSelfIdPackets) {
            return;
        }
        Branch& branch = m_branches[INTERFACE_IEEE1394];
        if (const auto bus = m_fireWireBuses.find(busKey); bus != m_fireWireBuses.end()) {
            branch.nodes[bus->second].AssignGuidToNode(camera.guid, NodeOf(camera, m_serialNumbers[busKey]));
            return;
        }
        std::vector<unsigned int> serialNumbers(count, 0);
        hwInterface.GetNodeSerialNumbers(&serialNumbers);
        const int deviceId = NodeOf(camera, serialNumbers);
        m_serialNumbers.emplace(busKey, std::move(serialNumbers));  // What another camera found first is kept.

        // One packet at least: a null buffer would ask for the size again.
        std::vector<SelfIdPacket_t> packets(std::max<std::uint64_t>(count, 1));
        std::uint64_t filled = count;
        std::uint64_t keyOfFill = 0;
        if (hwInterface.GetSelfIds(&generation, &keyOfFill, &filled, packets.data()) != HAL_OK) {
            return;
        }
        TopologyNode tree;
        if (ParseSelfIdPackets(&tree, std::min(filled, count), packets.data()) != ERROR_OK) {
            return;
        }
        tree.AssignGuidToNode(camera.guid, deviceId);
        m_fireWireBuses.emplace(busKey, branch.Append(std::move(tree)));
    }

    void AddToUsbHost(const BusMasterHandle& camera) {
        HardwareInterface& hwInterface = *camera.hwInterface;
        unsigned int deviceId = 0;
        std::uint64_t hostKey = 0;
        std::uint64_t count = 0;
        const int status = hwInterface.GetUsbSelfIds(&deviceId, &hostKey, &count, nullptr);
        Branch& branch = m_branches[INTERFACE_USB_3];
        if (status == HAL_NO_TREE) {
            AddFlat(camera, branch, INTERFACE_USB_3);
            return;
        }
        if (status != HAL_OK || count > MaxUsbRecords) {
            return;
        }
        if (const auto host = m_usbHosts.find(hostKey); host != m_usbHosts.end()) {
            branch.nodes[host->second].AssignGuidToNode(camera.guid, static_cast<int>(deviceId));
            return;
        }
        std::vector<UsbSelfId> records(std::max<std::uint64_t>(count, 1));
        std::uint64_t filled = count;
        unsigned int idOfFill = 0;
        std::uint64_t keyOfFill = 0;
        if (hwInterface.GetUsbSelfIds(&idOfFill, &keyOfFill, &filled, records.data()) != HAL_OK) {
            return;
        }
        records.resize(std::min(filled, count));
        TopologyNode host = BuildUsbHost(records);
        host.AssignGuidToNode(camera.guid, static_cast<int>(deviceId));
        m_usbHosts.emplace(hostKey, branch.Append(std::move(host)));
    }

    std::array<Branch, INTERFACE_NONE> m_branches;  // by InterfaceType

    // Places in the branch of the bus, by the key of the bus or controller.
    std::map<std::uint64_t, std::size_t> m_fireWireBuses;
    std::map<std::uint64_t, std::size_t> m_usbHosts;
    std::map<std::uint64_t, std::vector<unsigned int>> m_serialNumbers;  // by phy id
};

Error BusMaster::GetTopology(TopologyNode* node) {
    const boost::unique_lock<boost::mutex> lock = m_members->LockMain();
    if (node == nullptr) {
        return NIMBREL2_ERROR(ERROR_INVALID_PARAMETER, "Invalid topology node address.");
    }
    if (!m_members->GetInitialized()) {
        return NIMBREL2_ERROR(ERROR_NOT_INITIALIZED, "Object not initialized.");
    }
    TreeOfCameras tree;
    for (const BusMasterHandle* camera : m_members->m_cameraList) {
        tree.Add(*camera);
    }
    AssignTree(*node, tree.Finish());
    return InternalError(ERROR_OK);
}

void BusMaster::ParseSelfIdPacketZero(const SelfIdPacket_t* packet, PortList& ports, std::uint32_t& childCount) {
    Nimbrel2::ParseSelfIdPacketZero(*packet, ports, childCount);
}

void BusMaster::ParseSelfIdPacketMore(const SelfIdPacket_t* packet, PortList& ports, std::uint32_t& childCount) {
    Nimbrel2::ParseSelfIdPacketMore(*packet, ports, childCount);
}

Error BusMaster::ParseSelfIdPackets(TopologyNode* node, std::uint64_t count, const SelfIdPacket_t* packets) {
    AssignTree(*node, Nimbrel2::ParseSelfIdPackets({packets, static_cast<std::size_t>(count)}));
    return InternalError(ERROR_OK);
}

void BusMaster::BuildUsbTopology(TopologyNode* parent, std::uint64_t parentRoute, const UsbTiers* tiers,
                                 unsigned int tier) {
    Nimbrel2::BuildUsbTopology(parent, parentRoute, tiers, tier);
}

void BusMaster::AddNodesAsChildren(TopologyNode& parent, std::vector<TopologyNode>& nodes) {
    Nimbrel2::AddNodesAsChildren(parent, nodes);
}

void BusMaster::AddPortsAsChildren(TopologyNode& parent, const PortList& ports) {
    Nimbrel2::AddPortsAsChildren(parent, ports);
}

}  // namespace Nimbrel2
