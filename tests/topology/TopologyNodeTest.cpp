// SPDX-License-Identifier: Apache-2.0
// The node of a topology tree as a value. One thread.
#include <gtest/gtest.h>

#include <stdexcept>
#include <utility>

#include "tests/topology/TreeSupport.h"
#include "topology/TopologyNode.h"

namespace Nimbrel2 {
namespace {

using Testing::Dump;

constexpr ZevoGuid SomeGuid{{1, 2, 3, 4}};

TopologyNode Device(int id) { return TopologyNode(ZevoGuid{}, id, TopologyNode::NODE_DEVICE, INTERFACE_IEEE1394); }

TEST(TopologyNode, IsEmptyWhenMadeFromNothing) {
    const TopologyNode node;
    EXPECT_EQ(node.GetGuid(), ZevoGuid{});
    EXPECT_EQ(node.GetDeviceId(), 0);
    EXPECT_EQ(node.GetNodeType(), TopologyNode::NODE_COMPUTER);
    EXPECT_EQ(node.GetInterfaceType(), INTERFACE_NONE);
    EXPECT_EQ(node.GetNumChildren(), 0u);
    EXPECT_EQ(node.GetNumPorts(), 0u);
}

TEST(TopologyNode, AnswersWhatItWasMadeFrom) {
    const TopologyNode node(SomeGuid, 17, TopologyNode::NODE_CAMERA, INTERFACE_GIGE);
    EXPECT_EQ(node.GetGuid(), SomeGuid);
    EXPECT_EQ(node.GetDeviceId(), 17);
    EXPECT_EQ(node.GetNodeType(), TopologyNode::NODE_CAMERA);
    EXPECT_EQ(node.GetInterfaceType(), INTERFACE_GIGE);
    EXPECT_EQ(node.GetNumChildren(), 0u);
    EXPECT_EQ(node.GetNumPorts(), 0u);
}

TEST(TopologyNode, NumbersItsKindsAsTheInterfaceFixesThem) {
    EXPECT_EQ(TopologyNode::NODE_COMPUTER, 0);
    EXPECT_EQ(TopologyNode::NODE_BUS, 1);
    EXPECT_EQ(TopologyNode::NODE_CAMERA, 2);
    EXPECT_EQ(TopologyNode::NODE_DEVICE, 3);
    EXPECT_EQ(TopologyNode::PORT_NOT_CONNECTED, 1);
    EXPECT_EQ(TopologyNode::PORT_TO_PARENT, 2);
    EXPECT_EQ(TopologyNode::PORT_TO_CHILD, 3);
}

TEST(TopologyNode, KeepsChildrenAndPortsInTheOrderInWhichTheyWereAdded) {
    TopologyNode node = Device(9);
    node.AddPortType(TopologyNode::PORT_TO_CHILD);
    node.AddPortType(TopologyNode::PORT_NOT_CONNECTED);
    node.AddPortType(TopologyNode::PORT_TO_PARENT);
    node.AddChild(Device(5));
    node.AddChild(Device(3));
    ASSERT_EQ(node.GetNumPorts(), 3u);
    EXPECT_EQ(node.GetPortType(0), TopologyNode::PORT_TO_CHILD);
    EXPECT_EQ(node.GetPortType(1), TopologyNode::PORT_NOT_CONNECTED);
    EXPECT_EQ(node.GetPortType(2), TopologyNode::PORT_TO_PARENT);
    ASSERT_EQ(node.GetNumChildren(), 2u);
    EXPECT_EQ(node.GetChild(0).GetDeviceId(), 5);
    EXPECT_EQ(node.GetChild(1).GetDeviceId(), 3);
}

TEST(TopologyNode, RefusesAnIndexPastTheEnd) {
    TopologyNode node = Device(1);
    EXPECT_THROW(node.GetChild(0), std::out_of_range);
    EXPECT_THROW(node.GetPortType(0), std::out_of_range);
}

TEST(TopologyNode, CopiesAreIndependentOfTheirSource) {
    TopologyNode source = Device(2);
    source.AddChild(Device(1));
    TopologyNode copy(source);
    copy.AddChild(Device(7));
    copy.AddPortType(TopologyNode::PORT_TO_CHILD);
    EXPECT_TRUE(copy.AssignGuidToNode(SomeGuid, 1));
    EXPECT_EQ(Dump(source), "device 1394 2 []\n  device 1394 1 []\n");
    EXPECT_EQ(Dump(copy), "device 1394 2 [C]\n  device 1394 1 [] 1-2-3-4\n  device 1394 7 []\n");
}

TEST(TopologyNode, AddChildTakesACopyUnlessGivenAnRvalue) {
    TopologyNode parent = Device(3);
    TopologyNode child = Device(2);
    child.AddChild(Device(1));
    parent.AddChild(child);
    EXPECT_EQ(child.GetNumChildren(), 1u);
    parent.AddChild(std::move(child));
    EXPECT_EQ(Dump(parent),
              "device 1394 3 []\n  device 1394 2 []\n    device 1394 1 []\n  device 1394 2 []\n    device 1394 1 []\n");
}

TEST(TopologyNode, AssignmentReplacesTheWholeNode) {
    TopologyNode target(SomeGuid, 4, TopologyNode::NODE_CAMERA, INTERFACE_USB_2);
    target.AddPortType(TopologyNode::PORT_TO_PARENT);
    target.AddChild(Device(1));
    TopologyNode source = Device(8);
    source.AddChild(Device(6));
    target = source;
    EXPECT_EQ(Dump(target), "device 1394 8 []\n  device 1394 6 []\n");
    EXPECT_EQ(Dump(source), Dump(target));
}

TEST(TopologyNode, SurvivesAssignmentFromItselfAndFromItsOwnChild) {
    TopologyNode node = Device(3);
    node.AddChild(Device(2));
    const TopologyNode& itself = node;
    node = itself;
    EXPECT_EQ(Dump(node), "device 1394 3 []\n  device 1394 2 []\n");
    node = node.GetChild(0);
    EXPECT_EQ(Dump(node), "device 1394 2 []\n");
}

TEST(TopologyNode, GivesAGuidToTheFirstNodeInPreOrderWithThatId) {
    TopologyNode first = Device(5);
    first.AddChild(Device(7));
    TopologyNode root = Device(1);
    root.AddChild(std::move(first));
    root.AddChild(Device(7));
    EXPECT_TRUE(root.AssignGuidToNode(SomeGuid, 7));
    EXPECT_EQ(Dump(root), "device 1394 1 []\n  device 1394 5 []\n    device 1394 7 [] 1-2-3-4\n  device 1394 7 []\n");
}

TEST(TopologyNode, GivesAGuidToItselfBeforeItsChildren) {
    TopologyNode root = Device(7);
    root.AddChild(Device(7));
    EXPECT_TRUE(root.AssignGuidToNode(SomeGuid, 7));
    EXPECT_EQ(Dump(root), "device 1394 7 [] 1-2-3-4\n  device 1394 7 []\n");
}

TEST(TopologyNode, LeavesTheTypeOfANodeAloneThatGetsAGuid) {
    TopologyNode root = Device(7);
    EXPECT_TRUE(root.AssignGuidToNode(SomeGuid, 7));
    EXPECT_EQ(root.GetNodeType(), TopologyNode::NODE_DEVICE);
}

TEST(TopologyNode, ChangesNothingWhenNoNodeHasTheId) {
    TopologyNode root = Device(1);
    root.AddChild(Device(2));
    EXPECT_FALSE(root.AssignGuidToNode(SomeGuid, 3));
    EXPECT_EQ(Dump(root), "device 1394 1 []\n  device 1394 2 []\n");
}

TEST(TopologyNode, ReplacesAGuidThatWasGivenBefore) {
    TopologyNode root = Device(1);
    EXPECT_TRUE(root.AssignGuidToNode(SomeGuid, 1));
    EXPECT_TRUE(root.AssignGuidToNode(ZevoGuid{{9, 9, 9, 9}}, 1));
    EXPECT_EQ(Dump(root), "device 1394 1 [] 9-9-9-9\n");
}

// A caller's node that watches what it is given.
class RecordingNode : public TopologyNode {
public:
    using TopologyNode::TopologyNode;
    RecordingNode& operator=(const TopologyNode& other) override {
        ++assignments;
        TopologyNode::operator=(other);
        return *this;
    }
    void AddChild(TopologyNode child) override {
        ++children;
        TopologyNode::AddChild(std::move(child));
    }
    void AddPortType(PortType type) override {
        ++ports;
        TopologyNode::AddPortType(type);
    }
    int assignments = 0;
    int children = 0;
    int ports = 0;
};

TEST(TopologyNode, ReachesADerivedNodeThroughItsVirtualOperations) {
    RecordingNode derived;
    TopologyNode& node = derived;
    node = static_cast<const TopologyNode&>(Device(4));
    node.AddChild(Device(1));
    node.AddPortType(TopologyNode::PORT_TO_CHILD);
    EXPECT_EQ(derived.assignments, 1);
    EXPECT_EQ(derived.children, 1);
    EXPECT_EQ(derived.ports, 1);
    EXPECT_EQ(Dump(node), "device 1394 4 [C]\n  device 1394 1 []\n");
}

}  // namespace
}  // namespace Nimbrel2
