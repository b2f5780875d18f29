// SPDX-License-Identifier: Apache-2.0
// Reads what the kernel says of devices below /sys. Any thread; no lock. Nothing here waits, and no device is asked.
#ifndef NIMBREL2_PLATFORM_BASE_SYSFS_H
#define NIMBREL2_PLATFORM_BASE_SYSFS_H

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "platform/base/FileDescriptor.h"

namespace Nimbrel2::Platform {

inline constexpr char SysfsRoot[] = "/sys";

/// One directory, held open: all that is read from it is of one device, whatever takes that device's name meanwhile.
/// Anything may vanish between two calls. A device that has left answers with ENOENT or ENODEV.
class SysfsDirectory {
public:
    /// @param path  Below the root: "bus/usb/devices/2-1". A leading slash, as in a uevent's path, is allowed.
    /// @return 0 or an errno.
    int Open(std::string_view path);
    /// The same, from another directory.
    int Open(const SysfsDirectory& parent, const std::string& name);
    bool IsOpen() const { return m_directory.IsOpen(); }

    /// Another number stands for another directory, also when that has the name of one that was removed. 0 when it
    /// cannot be told.
    std::uint64_t GetInode() const;

    /// An attribute without its line end. @return 0 or an errno.
    int ReadText(const char* name, std::string* text) const;
    /// An attribute as it is. @return 0 or an errno.
    int ReadBytes(const char* name, std::vector<std::uint8_t>* bytes) const;
    /// The number that a whole attribute is; nothing when there is none, it is another thing or too large.
    std::optional<std::uint32_t> ReadNumber(const char* name, int base = 10) const;
    /// Where a link of the kernel's leads, below the root and with a leading slash: "/devices/pci0000:00/..." for "2-1"
    /// in "bus/usb/devices". One system call: such links go up to the root and straight down to the device. Empty when
    /// there is no link.
    std::string ReadLinkPath(const char* name) const;
    /// The last name of what a link leads to, "usbfs" for "../../bus/usb/drivers/usbfs"; empty when there is no link.
    std::string ReadLinkName(const char* name) const;
    bool Has(const char* name) const;

    /// The names in it, in no order. @return 0 or an errno.
    int List(std::vector<std::string>* names) const;

private:
    FileDescriptor m_directory;
};

/// A whole text as a number; nothing when it is another thing or does not fit. Blanks around it do not count.
std::optional<std::uint32_t> ParseNumber(std::string_view text, int base = 10);

}  // namespace Nimbrel2::Platform

#endif
