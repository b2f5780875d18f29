// SPDX-License-Identifier: Apache-2.0
// Where a USB device is: on which controller, and by which ports. Pure.
#ifndef NIMBREL2_PLATFORM_LINUX_USB_PLACE_H
#define NIMBREL2_PLATFORM_LINUX_USB_PLACE_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace Nimbrel2::Platform::Usb {

/// The kernel's name of a device, taken apart: "usb2" is the root hub of bus 2, "2-1.3" the device on port 3 of the hub
/// on its root port 1.
struct DeviceName {
    std::uint32_t bus = 0;
    std::vector<std::uint8_t> ports;  ///< from the root port on; empty for a root hub

    bool operator==(const DeviceName&) const = default;
};

/// Nothing for another kind of name, an interface's ("2-1.3:1.0") included.
std::optional<DeviceName> ParseDeviceName(std::string_view name);

/// "1.3"; empty for a root hub.
std::string PortPath(const std::vector<std::uint8_t>& ports);

/// How many hubs are between a device and its root port.
std::uint32_t CountHubsAbove(const std::vector<std::uint8_t>& ports);

/// The route string (USB 3.2 10.1.3.2): four bits per hub, the hub next to the root port in bits 3..0, a port above 15
/// as 15. 0 on a root port.
std::uint64_t RouteString(const std::vector<std::uint8_t>& ports);

/// Tells controllers apart, as long as the computer is not rebuilt: domain, bus, device and function of one on PCI,
/// else a hash of its path with the top bit set. Bus numbers do not serve: another order of loading drivers changes
/// them.
/// @param path  Of the controller in sysfs: "/devices/pci0000:00/0000:00:14.0".
std::uint64_t ControllerKey(std::string_view path);

/// The id of a device in its controller's tree: never 63, which is the host's, for buses are numbered from 1.
constexpr std::uint32_t DeviceId(std::uint32_t bus, std::uint32_t device) { return bus << 7 | device; }
inline constexpr std::uint32_t HostDeviceId = 63;

/// The same for all devices below one root port. The two halves of a controller have different ones.
constexpr std::uint64_t RootPortId(std::uint32_t bus, std::uint8_t port) { return std::uint64_t{bus} << 8 | port; }

}  // namespace Nimbrel2::Platform::Usb

#endif
