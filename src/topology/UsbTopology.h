// SPDX-License-Identifier: Apache-2.0
// From the device records of a USB host controller to its tree. Pure: no lock, no I/O, no state.
#ifndef NIMBREL2_TOPOLOGY_USBTOPOLOGY_H
#define NIMBREL2_TOPOLOGY_USBTOPOLOGY_H

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

#include "hal/HAL.h"
#include "topology/TopologyNode.h"

namespace Nimbrel2 {

/// Tiers 0 (the device on the root port) to 4 of one root port are shown.
constexpr unsigned int UsbTierCount = 5;

/// The device id of every host node. No device below a host controller has it.
constexpr int UsbHostDeviceId = 63;

/// The most records that one host controller reports.
constexpr std::uint64_t MaxUsbRecords = 1024;

/// The most nodes of one host tree. Because of the rule that BuildUsbTopology goes by, one record can become many
/// nodes, and records that repeat each other's routes far too many: 1024 of them could ask for 2^32. A tree of a real
/// controller always fits: it has at most 255 devices (xHCI 1.2, 4.5) whose routes differ, so that at most 15 hubs of
/// one tier share a port number, and the worst arrangement of 255 such devices comes to 108,077 nodes.
constexpr std::size_t MaxUsbNodes = 131072;

/// The records of one root port by tier, each tier in the order of the records.
using UsbTiers = std::array<std::vector<UsbSelfId>, UsbTierCount>;

/// One root port of a host controller while its subtree is being built.
struct usbRootPort {
    std::uint64_t rootPortId = 0;
    UsbTiers tiers;
};

/// The number of hubs between the root port and the device: the consecutive non-zero nibbles of the route string,
/// counted from the lowest (USB 3.2 10.1.3.2). 0 to 16; only 0 to 4 have a place in a tree.
unsigned int UsbTierOfRoute(std::uint64_t routeString);

/// Sorts records into root ports, in the order in which each root port's first record comes, and tiers. A record of
/// tier 5 and deeper is left out and does not fix its root port's place.
std::vector<usbRootPort> GroupUsbRecords(std::span<const UsbSelfId> records);

/// Attaches to the parent, with their subtrees, the records of a tier that belong below it. Tier 1 belongs below any
/// parent; of a deeper tier belongs what agrees with the parent's route in the one nibble that is the parent's own
/// port. Only that nibble is compared: below two hubs on the same port number of different hubs come the same devices.
///
/// Each node becomes a NODE_DEVICE without guid whose ports are one PORT_TO_CHILD a child and then PORT_TO_PARENT. The
/// parent gets a child and a PORT_TO_CHILD for each, through its virtual operations.
/// @param parent, tiers  Not null.
/// @param tier  1 to 4; nothing is attached for any other.
/// @par Cost  Linear in the records plus the nodes made, of which there may be very many: see MaxUsbNodes. Throws
///            std::bad_alloc, with part of the nodes attached.
void BuildUsbTopology(TopologyNode* parent, std::uint64_t parentRoute, const UsbTiers* tiers, unsigned int tier);

/// Builds the tree of one host controller: the host (device id 63, PORT_TO_PARENT first), a child for each root port
/// that has a tier 0, named by the first record of it, and below these what BuildUsbTopology attaches. Guids are all
/// zero.
///
/// No record is trusted. A root port without a tier 0 is left out. When the tree would pass MaxUsbNodes the tiers of a
/// root port that no longer fit are left out, the deepest first.
/// @par Cost  As for BuildUsbTopology, bounded by MaxUsbNodes. Throws std::bad_alloc.
TopologyNode BuildUsbHost(std::span<const UsbSelfId> records);

}  // namespace Nimbrel2

#endif
