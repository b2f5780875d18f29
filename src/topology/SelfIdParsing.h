// SPDX-License-Identifier: Apache-2.0
// From the self-ID packets of an IEEE 1394 bus to its tree of PHYs. Pure: no lock, no I/O, no state.
#ifndef NIMBREL2_TOPOLOGY_SELFIDPARSING_H
#define NIMBREL2_TOPOLOGY_SELFIDPARSING_H

#include <cstdint>
#include <span>
#include <vector>

#include "hal/HAL.h"
#include "topology/TopologyNode.h"

namespace Nimbrel2 {

/// The ports of one node, in order.
using PortList = std::vector<TopologyNode::PortType>;

/// The longest self-ID stream of one bus: 63 PHYs of one packet zero and three extended packets each.
constexpr std::uint64_t MaxSelfIdPackets = 252;

/// Reads ports 0 to 2 of a PHY's packet zero (IEEE 1394-1995 4.3.4.1).
/// @param ports       Each port that is there is appended, in order, as its two-bit status code.
/// @param childCount  Grows by one for each port that leads to a child.
void ParseSelfIdPacketZero(const SelfIdPacket_t& packet, PortList& ports, std::uint32_t& childCount);

/// The same for the eight ports a to h of an extended packet (IEEE 1394a-2000 4.3.4.1).
void ParseSelfIdPacketMore(const SelfIdPacket_t& packet, PortList& ports, std::uint32_t& childCount);

/// Builds the tree of one bus: one NODE_DEVICE a PHY with its phy id as device id, no guid, and its ports. The root,
/// the PHY whose packets end the stream, has a PORT_TO_PARENT in front of its own ports: the link to what it is hung
/// under.
///
/// The children of a PHY are the subtrees that come immediately before it in phy id order, as many as it has ports that
/// lead to one. Nothing in the stream is trusted: a PHY whose ports promise more subtrees than there are takes those
/// that are there, a PHY of which no subtree can be told is left out, and nothing behind the last packet is read.
/// @param packets  In the order received: PHYs in ascending phy id, each one's packet zero followed by its extended
///                 packets.
/// @return the root with its subtree; an empty node when there are no packets. The tree is at most as deep as there are
///         packets, and nodes free their subtrees recursively: pass no more than MaxSelfIdPackets of unknown origin.
/// @par Cost  Linear for a stream in ascending order. Throws std::bad_alloc.
TopologyNode ParseSelfIdPackets(std::span<const SelfIdPacket_t> packets);

}  // namespace Nimbrel2

#endif
