// SPDX-License-Identifier: Apache-2.0
// What the numbers about a USB port mean. Pure.
#ifndef NIMBREL2_TOOLS_NIMBREL_USBSTATUS_H
#define NIMBREL2_TOOLS_NIMBREL_USBSTATUS_H

#include <cstdint>
#include <string>
#include <vector>

namespace Nimbrel2::Tool {

/// How a device is connected, from BusMaster::GetUsbLinkInfo.
struct UsbLink {
    std::uint32_t speed = 0;  ///< units of 10 Mbit/s
    std::uint32_t port = 0;
    std::uint32_t hubs = 0;
};
UsbLink DecodeUsbLink(std::uint32_t link);

/// "5 Gbit/s (SuperSpeed)". @param megabits  1 for 1.5 Mbit/s, 0 for a speed that nobody knows.
std::string DescribeUsbSpeed(std::uint32_t megabits);

/// A port's status, from BusMaster::GetUsbPortStatus.
struct UsbPort {
    std::vector<std::string> status;   ///< wPortStatus: what is so
    std::vector<std::string> changed;  ///< wPortChange: what has changed since the hub was last told that it is known
    std::string linkState;             ///< "U0"; empty on a USB 2 port
};
/// @param superSpeed  The port is one of USB 3 (USB 3.2 10.16.2.6), else of USB 2 (USB 2.0 11.24.2.7).
UsbPort DecodeUsbPort(std::uint32_t status, bool superSpeed);

}  // namespace Nimbrel2::Tool

#endif
