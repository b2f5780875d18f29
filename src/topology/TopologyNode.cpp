// SPDX-License-Identifier: Apache-2.0
// The topology tree's node: a plain value with virtual accessors. No lock, no thread.
#include "topology/TopologyNode.h"

#include <utility>

namespace Nimbrel2 {

TopologyNode::TopologyNode(const ZevoGuid& guid, int deviceId, NodeType nodeType, InterfaceType interfaceType)
    : m_guid(guid), m_deviceId(deviceId), m_nodeType(nodeType), m_interfaceType(interfaceType) {}

TopologyNode& TopologyNode::operator=(const TopologyNode& other) {
    TopologyNode copy(other);
    *this = std::move(copy);
    return *this;
}

ZevoGuid TopologyNode::GetGuid() const { return m_guid; }

int TopologyNode::GetDeviceId() const { return m_deviceId; }

TopologyNode::NodeType TopologyNode::GetNodeType() const { return m_nodeType; }

InterfaceType TopologyNode::GetInterfaceType() const { return m_interfaceType; }

unsigned int TopologyNode::GetNumChildren() const { return static_cast<unsigned int>(m_children.size()); }

const TopologyNode& TopologyNode::GetChild(unsigned int index) const { return m_children.at(index); }

void TopologyNode::AddChild(TopologyNode child) { m_children.push_back(std::move(child)); }

unsigned int TopologyNode::GetNumPorts() const { return static_cast<unsigned int>(m_ports.size()); }

TopologyNode::PortType TopologyNode::GetPortType(unsigned int index) const { return m_ports.at(index); }

void TopologyNode::AddPortType(PortType type) { m_ports.push_back(type); }

bool TopologyNode::AssignGuidToNode(const ZevoGuid& guid, int deviceId) {
    if (m_deviceId == deviceId) {
        m_guid = guid;
        return true;
    }
    for (TopologyNode& child : m_children) {
        if (child.AssignGuidToNode(guid, deviceId)) {
            return true;
        }
    }
    return false;
}

}  // namespace Nimbrel2
