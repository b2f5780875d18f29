// SPDX-License-Identifier: Apache-2.0
// Putting trees together. One thread.
#include <gtest/gtest.h>

#include "tests/topology/TreeSupport.h"
#include "topology/TopologyAssembly.h"

namespace Nimbrel2 {
namespace {

using Testing::Dump;

TopologyNode Device(int id) { return TopologyNode(ZevoGuid{}, id, TopologyNode::NODE_DEVICE, INTERFACE_IEEE1394); }

TEST(AddNodesAsChildren, AppendsInListOrderBehindWhatIsThere) {
    TopologyNode parent = Device(9);
    parent.AddChild(Device(4));
    std::vector<TopologyNode> nodes{Device(2), Device(1)};
    AddNodesAsChildren(parent, nodes);
    EXPECT_EQ(Dump(parent), "device 1394 9 []\n  device 1394 4 []\n  device 1394 2 []\n  device 1394 1 []\n");
}

TEST(AddNodesAsChildren, MovesTheSubtrees) {
    TopologyNode parent = Device(9);
    std::vector<TopologyNode> nodes{Device(2)};
    nodes[0].AddChild(Device(1));
    AddNodesAsChildren(parent, nodes);
    EXPECT_EQ(Dump(parent), "device 1394 9 []\n  device 1394 2 []\n    device 1394 1 []\n");
    ASSERT_EQ(nodes.size(), 1u);
    EXPECT_EQ(nodes[0].GetNumChildren(), 0u);
}

TEST(AddNodesAsChildren, AddsNothingFromAnEmptyList) {
    TopologyNode parent = Device(9);
    std::vector<TopologyNode> nodes;
    AddNodesAsChildren(parent, nodes);
    EXPECT_EQ(Dump(parent), "device 1394 9 []\n");
}

TEST(AddPortsAsChildren, AppendsPortsInListOrderAndNoChild) {
    TopologyNode parent = Device(9);
    parent.AddPortType(TopologyNode::PORT_NOT_CONNECTED);
    AddPortsAsChildren(parent,
                       {TopologyNode::PORT_TO_PARENT, TopologyNode::PORT_TO_CHILD, TopologyNode::PORT_TO_CHILD});
    EXPECT_EQ(Dump(parent), "device 1394 9 [-PCC]\n");
}

// A node of a caller's own class.
class CallersNode : public TopologyNode {
public:
    CallersNode& operator=(const TopologyNode& other) override {
        ++assignments;
        TopologyNode::operator=(other);
        return *this;
    }
    int assignments = 0;
};

TEST(AssignTree, GivesADerivedNodeTheTreeThroughItsOwnAssignment) {
    CallersNode receiver;
    TopologyNode tree = Device(2);
    tree.AddChild(Device(1));
    AssignTree(receiver, std::move(tree));
    EXPECT_EQ(receiver.assignments, 1);
    EXPECT_EQ(Dump(receiver), "device 1394 2 []\n  device 1394 1 []\n");
}

TEST(AssignTree, MovesTheTreeIntoAPlainNode) {
    TopologyNode receiver = Device(7);
    receiver.AddChild(Device(6));
    TopologyNode tree = Device(2);
    tree.AddChild(Device(1));
    const TopologyNode* const child = &tree.GetChild(0);
    AssignTree(receiver, std::move(tree));
    EXPECT_EQ(&receiver.GetChild(0), child);
    EXPECT_EQ(Dump(receiver), "device 1394 2 []\n  device 1394 1 []\n");
}

}  // namespace
}  // namespace Nimbrel2
