// SPDX-License-Identifier: Apache-2.0
// The topology tree joined with the list of cameras and the maps of the buses: what every rendering shows. Any thread;
// each look-up waits while the lists are rebuilt.
#ifndef NIMBREL2_TOOLS_NIMBREL_TOPOLOGYVIEW_H
#define NIMBREL2_TOOLS_NIMBREL_TOPOLOGYVIEW_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "busmaster/BusMaster.h"
#include "tools/nimbrel/Cameras.h"

namespace Nimbrel2::Tool {

/// The network interface through which a GigE camera is reached.
struct NetworkLink {
    std::string name;
    bool up = false;
    std::uint32_t speed = 0;  ///< Mbit/s; 0: unknown

    bool operator==(const NetworkLink&) const = default;
};

/// One node with everything below it. Texts of devices are the devices' own, so they may hold anything.
struct TopologyView {
    enum class Kind {
        Computer,
        Bus,
        Interface,  ///< A network interface: in drawings only, for the tree of the bus master has none.
        Camera,     ///< A camera that stands directly below its bus.
        Device,     ///< A node inside the tree of its bus, camera or not.
    };

    Kind kind = Kind::Computer;
    InterfaceType interfaceType = INTERFACE_NONE;
    int id = 0;
    ZevoGuid guid;  ///< All zero except for cameras.
    std::vector<TopologyNode::PortType> ports;
    std::vector<TopologyView> children;

    bool isCamera = false;         ///< Also of a Device that is one.
    std::optional<Camera> camera;  ///< Empty too for a camera that left while the tree was read.
    std::uint32_t speed = 0;       ///< Of the link, on IEEE 1394 of the PHY, in Mbit/s; 0: unknown.

    std::string name;             ///< What a device other than a camera calls itself; "eth0".
    std::string busName;          ///< Of the root of a bus: "fw0", "xhci0".
    bool isThisComputer = false;  ///< The computer's own IEEE 1394 card.
    bool isHub = false;
    std::optional<NetworkLink> link;  ///< Of a GigE camera and of an Interface.

    /// The port of the node above that this one is plugged into, as it is numbered there.
    std::optional<unsigned int> portAbove;
    /// The root of an IEEE 1394 bus: its first port stands for the bus and is no socket.
    bool isBusRoot = false;

    /// At how many places of the tree this device stands. Hubs on the same port of different hubs share what is below
    /// them in the tree; the map of the bus tells which place is the true one.
    unsigned int places = 1;
    bool isTruePlace = true;
    std::string truePath;  ///< "1.4.2", where places is more than 1 and the map tells.

    /// "Vendor Model", "USB host xhci0", "PHY 4", ...
    std::string GetName() const;
    /// The number of ports, and of those that nothing is plugged into. 0 and 0 where the bus does not tell: only
    /// IEEE 1394 does.
    unsigned int CountSockets() const;
    unsigned int CountFreeSockets() const;
    /// The number of cameras in this tree.
    unsigned int CountCameras() const;
    /// Computer, bus or network interface.
    bool Gathers() const { return kind == Kind::Computer || kind == Kind::Bus || kind == Kind::Interface; }
};

struct UnplacedCamera {
    Camera camera;
    std::string reason;  ///< "more than four hubs deep"
};

struct Topology {
    TopologyView computer;                 ///< The tree of the bus master, node by node.
    std::vector<UnplacedCamera> unplaced;  ///< Listed, but not in the tree.
    std::vector<std::string> cut;          ///< Sentences on buses that hold more cameras than a listing has room for.
};

/// @throws CommandError with the bus master's error.
Topology ReadTopology(BusMaster& busMaster);

/// The tree with GigE cameras below their network interfaces.
TopologyView WithInterfaces(const TopologyView& computer);

/// The node of that camera; null when it is not in the tree.
const TopologyView* FindInTree(const TopologyView& view, const ZevoGuid& guid);

}  // namespace Nimbrel2::Tool

#endif
