// SPDX-License-Identifier: Apache-2.0
// One USB device as sysfs shows it. A value that nobody changes once it is made: any thread.
#ifndef NIMBREL2_PLATFORM_LINUX_USB_DEVICERECORD_H
#define NIMBREL2_PLATFORM_LINUX_USB_DEVICERECORD_H

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "platform/base/Clock.h"
#include "platform/linux/usb/Descriptors.h"
#include "platform/linux/usb/Place.h"

namespace Nimbrel2::Platform::Usb {

// Mbit/s. From the last one on a link is USB 3.
inline constexpr std::uint32_t FullSpeed = 12;
inline constexpr std::uint32_t HighSpeed = 480;
inline constexpr std::uint32_t SuperSpeed = 5000;

/// How a camera's registers are reached.
enum class Protocol : std::uint8_t {
    None,            ///< it is no camera
    Vision,          ///< USB3 Vision: its control interface
    VendorRequests,  ///< named by its ids: requests to the device itself
};

struct DeviceRecord {
    std::string name;        ///< "2-1.3", "usb2"
    std::string path;        ///< below the root of sysfs: "/devices/pci0000:00/0000:00:14.0/usb2/2-1/2-1.3"
    std::string controller;  ///< the same of its host controller
    std::uint64_t hostKey = 0;
    std::uint64_t inode = 0;  ///< of its directory: another one is another visit of a device
    std::uint32_t bus = 0;
    std::vector<std::uint8_t> ports;
    std::uint32_t number = 0;  ///< devnum, 1 to 127; a device that comes back has another one
    std::uint32_t speed = 0;   ///< Mbit/s; 0 when the kernel does not know it
    Descriptors descriptors;
    std::uint32_t configuration = 0;  ///< 0 while it has been given none; of what can be no camera its first one
    bool authorized = true;           ///< of what may be a camera

    // Of cameras only.
    Protocol protocol = Protocol::None;
    ShownTexts texts;
    std::uint32_t serialNumber = 0;
    TimePoint firstSeen;  ///< the clock's zero for one that was there from the start

    std::uint32_t GetId() const { return DeviceId(bus, number); }
    bool IsRootHub() const { return ports.empty(); }
    /// A camera that users may be shown: the kernel lets it work.
    bool IsListed() const { return protocol != Protocol::None && authorized && configuration != 0; }
    /// Null when it has none.
    const InterfaceDescriptor* FindControl() const { return descriptors.FindVisionControl(configuration); }
    const VisionInfo* FindVisionInfo() const {
        const InterfaceDescriptor* control = FindControl();
        return control != nullptr && control->vision ? &*control->vision : nullptr;
    }
};

using DevicePointer = std::shared_ptr<const DeviceRecord>;

/// Where it is: the two halves of a controller have ports of the same numbers, which are other sockets.
inline std::string PlaceText(const DeviceRecord& device) {
    return device.controller + (device.speed >= SuperSpeed ? "/3-" : "/2-") + PortPath(device.ports);
}

/// Controllers one after the other; of each the buses, and each device after the hub above it.
inline bool IsBefore(const DeviceRecord& a, const DeviceRecord& b) {
    if (a.controller != b.controller) {
        return a.controller < b.controller;
    }
    if (a.bus != b.bus) {
        return a.bus < b.bus;
    }
    return a.ports < b.ports;
}

}  // namespace Nimbrel2::Platform::Usb

#endif
