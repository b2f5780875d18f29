// SPDX-License-Identifier: Apache-2.0
// What a controller's tree is made of, and what can be said of a device's link and port. Pure.
#ifndef NIMBREL2_PLATFORM_LINUX_USB_TREE_H
#define NIMBREL2_PLATFORM_LINUX_USB_TREE_H

#include <cstdint>
#include <map>
#include <vector>

#include "hal/HAL.h"
#include "platform/linux/usb/DeviceRecord.h"

namespace Nimbrel2::Platform::Usb {

/// The devices below one controller, its root hubs left out, each after the hub above it. Both halves of a hub are
/// there, each among the devices of its own half.
using TreeRecords = std::vector<UsbSelfId>;

bool AreEqual(const TreeRecords& a, const TreeRecords& b);

/// The trees of all controllers by their keys; one that has nothing attached has an empty tree.
/// @param devices  In the order of IsBefore.
std::map<std::uint64_t, TreeRecords> BuildTrees(const std::vector<DevicePointer>& devices);

/// Bits 31..16 the speed in units of 10 Mbit/s, bits 15..8 the port on the hub above, bits 7..0 the number of hubs
/// above.
std::uint32_t LinkInfo(const DeviceRecord& device);

/// wPortStatus of the port that a device is on, without asking its hub: what sysfs tells of a device that is there.
/// Every other bit is 0, and so is wPortChange.
///
///     both     bit 0      1: connected
///              bit 1      1: enabled, for the kernel has talked to the device
///              bit 3      0: no over-current, which no port with a working device has
///              bit 4      0: no reset, which is over when the kernel shows a device
///     USB 2.0  bit 2      suspended
///              bit 8      1: powered
///              bit 9      low speed, below 12 Mbit/s
///              bit 10     high speed, 480 Mbit/s
///     USB 3    bits 8..5  state of the link: 3 (U3) when suspended, else 0 (U0), which stands for U1 and U2 too
///              bit 9      1: powered
///              bits 12..10  0: 5 Gbit/s and more
///
/// @param suspended  As power/runtime_status of the device says.
std::uint32_t PortStatus(std::uint32_t speed, bool suspended);

}  // namespace Nimbrel2::Platform::Usb

#endif
