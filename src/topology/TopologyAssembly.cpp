// SPDX-License-Identifier: Apache-2.0
// Putting trees together. Pure: no lock, no I/O, no state.
#include "topology/TopologyAssembly.h"

#include <typeinfo>
#include <utility>

namespace Nimbrel2 {

void AddNodesAsChildren(TopologyNode& parent, std::vector<TopologyNode>& nodes) {
    for (TopologyNode& node : nodes) {
        parent.AddChild(std::move(node));
    }
}

void AddPortsAsChildren(TopologyNode& parent, const std::vector<TopologyNode::PortType>& ports) {
    for (const TopologyNode::PortType port : ports) {
        parent.AddPortType(port);
    }
}

void AssignTree(TopologyNode& receiver, TopologyNode&& tree) {
    if (typeid(receiver) == typeid(TopologyNode)) {
        receiver = std::move(tree);
    } else {
        receiver = static_cast<const TopologyNode&>(tree);
    }
}

}  // namespace Nimbrel2
