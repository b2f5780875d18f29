// SPDX-License-Identifier: Apache-2.0
// What tests of topology trees share: a text form, the rules every tree keeps, and streams from made-up trees. Pure.
#ifndef NIMBREL2_TESTS_TOPOLOGY_TREESUPPORT_H
#define NIMBREL2_TESTS_TOPOLOGY_TREESUPPORT_H

#include <random>
#include <string>
#include <vector>

#include "hal/HAL.h"
#include "topology/TopologyNode.h"

namespace Nimbrel2::Testing {

/// One node a line, indented by depth: what it is, its bus, its device id, its ports (P parent, C child, - not
/// connected) and, when it has one, its guid.
std::string Dump(const TopologyNode& tree);

unsigned int CountNodes(const TopologyNode& tree);

/// How far the input of a tree can be trusted.
enum class Input {
    WellFormed,  ///< A real bus.
    Anything     ///< Whatever a broken or hostile driver may report.
};

/// Every rule that the tree breaks, one sentence each; the root may be a computer, an IEEE 1394 bus or a USB host.
/// Empty when all is well.
std::vector<std::string> Violations(const TopologyNode& tree, Input input = Input::WellFormed);

/// One PHY of a made-up bus, with its subtree. Port statuses are the two-bit codes of self-ID packets, 0 included.
struct Phy {
    std::vector<unsigned int> ports;
    std::vector<Phy> children;
};

/// A random tree of 1 to 63 PHYs of 1 to 27 ports, shapes from chains to stars.
Phy RandomBus(std::mt19937& random);

/// The self-ID stream of a bus: phy ids in the order in which a bus hands them out, children first.
std::vector<SelfIdPacket_t> SelfIdStream(const Phy& root);

/// The packets of one PHY: three ports in packet zero and eight in each extended packet, as many as its ports need.
void AppendPhy(unsigned int phyId, const std::vector<unsigned int>& ports, std::vector<SelfIdPacket_t>& stream);

/// The tree that the stream of the bus must become.
TopologyNode ExpectedTree(const Phy& root);

/// One device of a made-up USB tree, with what is attached to its ports.
struct UsbDevice {
    std::uint32_t deviceId = 0;
    unsigned int port = 0;  ///< On the hub above, 1 to 15; the root port's number on a root port.
    std::vector<UsbDevice> children;
};

/// Root ports with up to 1 + 4 tiers of devices, 127 at most. No two hubs of one tier of a root port that have
/// something below them share a port number, so that the tree can be told from its routes.
std::vector<UsbDevice> RandomUsbTree(std::mt19937& random);

/// Its records, each hub before what is attached to it.
std::vector<UsbSelfId> UsbRecords(const std::vector<UsbDevice>& rootPorts);

/// The tree that the records must become.
TopologyNode ExpectedHost(const std::vector<UsbDevice>& rootPorts);

}  // namespace Nimbrel2::Testing

#endif
