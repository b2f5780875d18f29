// SPDX-License-Identifier: Apache-2.0
// Reads what is on the USB buses from sysfs. Opens no device and asks none. One thread at a time; no lock.
#ifndef NIMBREL2_PLATFORM_LINUX_USB_SCAN_H
#define NIMBREL2_PLATFORM_LINUX_USB_SCAN_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "platform/Platform.h"
#include "platform/base/Sysfs.h"
#include "platform/linux/usb/DeviceRecord.h"

namespace Nimbrel2::Platform::Usb {

/// The driver that has taken an interface of a device; empty when none has, or nobody knows. "usbfs" stands for a
/// program.
std::string DriverOf(const DeviceRecord& device, std::uint8_t interface);

class Scanner {
public:
    /// @param cameraIds  Of the cameras that no class tells.
    /// @param trace      Receives a word on each device that cannot be read; may be empty.
    Scanner(std::vector<UsbId> cameraIds, std::function<void(const std::string&)> trace);

    /// Looks at every device. One that is known from the last scan and still is the same is the same object again.
    /// Devices that leave meanwhile are left out, and so is one that makes no sense.
    /// @return 0, or the errno for which nothing could be read or not everything: *devices is untouched then.
    int Scan(std::vector<DevicePointer>* devices);

    /// The kernel has said that it removes the device at that path. It says so before the directory is gone: what still
    /// lies there does not count.
    void Removed(std::string_view path);
    /// The kernel has said that it adds one there: what lies there counts again.
    void Added(std::string_view path);
    /// The kernel may have said anything.
    void EventsLost() { m_removed.clear(); }

private:
    DevicePointer Find(const std::string& name) const;
    int ReadDevice(const SysfsDirectory& devices, const std::string& name, DevicePointer* device);
    int ReadNew(const SysfsDirectory& directory, DeviceRecord* record) const;
    int Identify(const SysfsDirectory& directory, DeviceRecord* record) const;
    bool IsNamed(const Descriptors& descriptors) const;
    /// A word on a device that cannot be read though it has not left. @param nonsense  What is wrong, for Nonsense.
    /// @return the error
    int LeaveOut(const DeviceRecord& device, int error, const char* nonsense);

    const std::vector<UsbId> m_cameraIds;
    const std::function<void(const std::string&)> m_trace;
    bool m_hasScanned = false;
    std::vector<DevicePointer> m_last;
    std::map<std::string, std::uint64_t, std::less<>> m_removed;  ///< inodes of devices by path
    std::map<std::string, std::uint64_t> m_traced;                ///< inodes by name
};

}  // namespace Nimbrel2::Platform::Usb

#endif
