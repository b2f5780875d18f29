// SPDX-License-Identifier: Apache-2.0
// The topology tree together with what is known of the cameras in it: what every rendering shows. Any thread; each
// look-up waits while the lists are rebuilt.
#ifndef NIMBREL2_TOOLS_NIMBREL_TOPOLOGYVIEW_H
#define NIMBREL2_TOOLS_NIMBREL_TOPOLOGYVIEW_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "busmaster/BusMaster.h"
#include "tools/nimbrel/Cameras.h"

namespace Nimbrel2::Tool {

/// One node with all that is below it. Texts of cameras are the cameras' own, so they may hold anything.
struct TopologyView {
    TopologyNode::NodeType type = TopologyNode::NODE_COMPUTER;
    InterfaceType interfaceType = INTERFACE_NONE;
    int id = 0;
    ZevoGuid guid;  ///< All zero for what is no camera.
    std::vector<TopologyNode::PortType> ports;
    std::vector<TopologyView> children;

    bool isCamera = false;         ///< Also of a device inside a bus tree that is one.
    std::optional<Camera> camera;  ///< Empty too for a camera that left while the tree was read.
    std::uint32_t speed = 0;       ///< Of the camera's link, in Mbit/s; 0: unknown.

    /// The port of the node above that this one hangs on, as it is numbered there. Empty when nobody knows.
    std::optional<unsigned int> portAbove;
    /// The root of an IEEE 1394 bus: its first port stands for the bus and is no socket.
    bool isFireWireRoot = false;

    /// "Vendor Model", "USB host", "PHY 4", …
    std::string GetName() const;
    /// How many ports there are, and how many of them nothing is plugged into. 0 and 0 where the bus does not tell:
    /// only IEEE 1394 does.
    unsigned int CountSockets() const;
    unsigned int CountFreeSockets() const;
    /// How many cameras are in this tree.
    unsigned int CountCameras() const;
};

struct Topology {
    TopologyView computer;
    std::vector<Camera> unplaced;  ///< Listed, and not in the tree: their bus cannot be read.
};

/// @throws CommandError with the bus master's error.
Topology ReadTopology(BusMaster& busMaster);

/// "480 Mbit/s", "5 Gbit/s", "2.5 Gbit/s".
std::string FormatSpeed(std::uint32_t megabits);

}  // namespace Nimbrel2::Tool

#endif
