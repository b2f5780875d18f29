// SPDX-License-Identifier: Apache-2.0
// Putting trees together. Pure: no lock, no I/O, no state.
#ifndef NIMBREL2_TOPOLOGY_TOPOLOGYASSEMBLY_H
#define NIMBREL2_TOPOLOGY_TOPOLOGYASSEMBLY_H

#include <vector>

#include "topology/TopologyNode.h"

namespace Nimbrel2 {

/// Hands each node of the list to the parent's AddChild, in order. The nodes move: the list keeps empty ones.
void AddNodesAsChildren(TopologyNode& parent, std::vector<TopologyNode>& nodes);

/// Hands each port of the list to the parent's AddPortType, in order. No child is added.
void AddPortsAsChildren(TopologyNode& parent, const std::vector<TopologyNode::PortType>& ports);

/// Assigns a tree to a node. A node of a derived class gets it through its own assignment, as a copy; a plain node
/// takes it over.
void AssignTree(TopologyNode& receiver, TopologyNode&& tree);

}  // namespace Nimbrel2

#endif
