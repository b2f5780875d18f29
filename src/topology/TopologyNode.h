// SPDX-License-Identifier: Apache-2.0
#ifndef NIMBREL2_TOPOLOGY_TOPOLOGYNODE_H
#define NIMBREL2_TOPOLOGY_TOPOLOGYNODE_H

#include <vector>

#include "common/InterfaceType.h"
#include "common/ZevoGuid.h"
#include "hal/Export.h"

namespace Nimbrel2 {

/// A node of the bus topology tree, with its whole subtree: a value. A copy is independent of its source.
/// @par Threads  One object from one thread at a time.
class NIMBREL2_API TopologyNode {
public:
    enum NodeType {
        NODE_COMPUTER = 0,  ///< The root of the tree.
        NODE_BUS = 1,       ///< One kind of bus below the computer.
        NODE_CAMERA = 2,    ///< A camera shown directly below its bus.
        NODE_DEVICE = 3     ///< A PHY (IEEE 1394) or a host, root port, hub or device (USB 3) inside a bus tree.
    };

    /// The port status codes of IEEE 1394 self-ID packets. 0, a port that is not there, is never stored.
    enum PortType { PORT_NOT_CONNECTED = 1, PORT_TO_PARENT = 2, PORT_TO_CHILD = 3 };

    /// An empty node: no guid, device id 0, a computer on no bus, no children, no ports.
    TopologyNode() = default;
    TopologyNode(const ZevoGuid& guid, int deviceId, NodeType nodeType, InterfaceType interfaceType);
    TopologyNode(const TopologyNode&) = default;
    TopologyNode(TopologyNode&&) noexcept = default;

    // The order of the virtual operations is part of the interface: derived nodes of users are compiled against it.
    virtual ~TopologyNode() = default;

    /// Replaces the whole node with its subtree.
    virtual TopologyNode& operator=(const TopologyNode& other);

    virtual ZevoGuid GetGuid() const;  ///< The camera's, also in a NODE_DEVICE of a bus tree; else all zero.
    virtual int GetDeviceId() const;   ///< Phy id (IEEE 1394), number below the host (USB 3; 63: host), else position.
    virtual NodeType GetNodeType() const;
    virtual InterfaceType GetInterfaceType() const;

    virtual unsigned int GetNumChildren() const;
    /// @pre index < GetNumChildren(); std::out_of_range otherwise. The reference lives until the node changes.
    virtual const TopologyNode& GetChild(unsigned int index) const;
    /// Appends the node. Pass an rvalue and nothing of its subtree is copied.
    virtual void AddChild(TopologyNode child);

    virtual unsigned int GetNumPorts() const;
    /// @pre index < GetNumPorts(); std::out_of_range otherwise.
    virtual PortType GetPortType(unsigned int index) const;
    virtual void AddPortType(PortType type);

    /// Gives the guid to the first node in pre-order, this one included, with that device id. Its NodeType stays.
    /// @return whether there was one.
    virtual bool AssignGuidToNode(const ZevoGuid& guid, int deviceId);

    /// Takes the whole of another node, leaving it empty.
    TopologyNode& operator=(TopologyNode&& other) noexcept = default;

private:
    ZevoGuid m_guid;
    int m_deviceId = 0;
    NodeType m_nodeType = NODE_COMPUTER;
    InterfaceType m_interfaceType = INTERFACE_NONE;
    std::vector<TopologyNode> m_children;
    std::vector<PortType> m_ports;
};

}  // namespace Nimbrel2

#endif
