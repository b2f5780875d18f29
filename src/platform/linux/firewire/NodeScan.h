// SPDX-License-Identifier: Apache-2.0
// The nodes of all IEEE 1394 buses as sysfs shows them. Any thread; no lock. Opens no device and waits for none.
#ifndef NIMBREL2_PLATFORM_LINUX_FIREWIRE_NODESCAN_H
#define NIMBREL2_PLATFORM_LINUX_FIREWIRE_NODESCAN_H

#include <cstdint>
#include <string>
#include <vector>

namespace Nimbrel2::Platform::FireWire {

struct ScannedNode {
    std::string name;         ///< "fw0", the name of its file too; the kernel gives names to others when nodes leave
    std::string card;         ///< the controller's path below the root of sysfs, "/devices/pci0000:00/..."
    std::uint64_t inode = 0;  ///< another one stands for another node, also when that has the same name
    bool isLocal = false;     ///< the controller itself
    std::vector<std::uint32_t> rom;  ///< in host order
};

/// @param nodes  Overwritten; in no order. A node that leaves meanwhile is left out.
/// @return 0 or an errno; ENOENT when the kernel has no driver for IEEE 1394 loaded; also when this process has no
///         memory or descriptor left to read one of the nodes with, which does not say that it has left.
int ScanNodes(std::vector<ScannedNode>* nodes);

/// The controllers (PCI, OHCI 1394) that no driver serves, as their names on the PCI bus.
std::vector<std::string> FindIdleControllers();

}  // namespace Nimbrel2::Platform::FireWire

#endif
