// SPDX-License-Identifier: Apache-2.0
// USB descriptors from bytes, as far as a bus of cameras needs them. Pure: every length is checked, any bytes may come.
#ifndef NIMBREL2_PLATFORM_LINUX_USB_DESCRIPTORS_H
#define NIMBREL2_PLATFORM_LINUX_USB_DESCRIPTORS_H

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace Nimbrel2::Platform::Usb {

/// The device information of a USB3 Vision control interface. A field that the descriptor is too short for is 0, which
/// no text has for an index.
struct VisionInfo {
    std::uint32_t genCpVersion = 0;  ///< major in the high half, minor in the low one
    std::uint32_t visionVersion = 0;
    std::uint8_t guidIndex = 0;
    std::uint8_t vendorIndex = 0;
    std::uint8_t modelIndex = 0;
    std::uint8_t serialIndex = 0;
    std::uint8_t speeds = 0;  ///< LowSpeed and so on

    static constexpr std::uint8_t HighSpeed = 0x04;
    static constexpr std::uint8_t SuperSpeed = 0x08;

    bool operator==(const VisionInfo&) const = default;
};

/// One interface in its first setting.
struct InterfaceDescriptor {
    std::uint8_t number = 0;
    std::uint8_t classCode = 0;
    std::uint8_t subclass = 0;
    std::uint8_t protocol = 0;
    std::uint8_t bulkIn = 0;  ///< address of its first bulk endpoint of that direction; 0 when there is none
    std::uint8_t bulkOut = 0;
    std::optional<VisionInfo> vision;

    /// The control interface of a USB3 Vision camera.
    bool IsVisionControl() const { return classCode == 0xEF && subclass == 0x05 && protocol == 0x00; }
};

struct Configuration {
    std::uint8_t value = 0;
    std::vector<InterfaceDescriptor> interfaces;

    /// Null when it has none.
    const InterfaceDescriptor* FindVisionControl() const;
};

struct Descriptors {
    std::uint16_t usbVersion = 0;  ///< bcdUSB
    std::uint8_t deviceClass = 0;
    std::uint8_t deviceProtocol = 0;
    std::uint16_t vendorId = 0;
    std::uint16_t productId = 0;
    std::uint8_t manufacturerIndex = 0;
    std::uint8_t productIndex = 0;
    std::uint8_t serialIndex = 0;
    std::vector<Configuration> configurations;

    bool IsHub() const { return deviceClass == 0x09; }
    /// A USB3 Vision control interface in that configuration; in any, when the device has not been given one (0).
    const InterfaceDescriptor* FindVisionControl(std::uint32_t configuration) const;
    /// Null when there is no such configuration.
    const Configuration* FindConfiguration(std::uint32_t value) const;
};

/// Reads a device descriptor and the configurations behind it, as the kernel hands them out in an attribute
/// "descriptors". What wTotalLength says is not believed: the bytes that are there count, and reading ends where a
/// length makes no sense. Nothing when even the device descriptor is not whole.
std::optional<Descriptors> ParseDescriptors(std::span<const std::uint8_t> bytes);

/// The texts that the kernel has read of a device, each empty when it has none.
struct DeviceTexts {
    std::string manufacturer;
    std::string product;
    std::string serial;

    bool operator==(const DeviceTexts&) const = default;
};

/// What a device is called: as its USB3 Vision information says when that names a text that the kernel has read too,
/// else as every USB device is. A missing vendor or model is shown as its id, four hexadecimal digits.
struct ShownTexts {
    std::string vendor;
    std::string model;
    std::string serial;
};
ShownTexts ChooseTexts(const Descriptors& descriptors, const VisionInfo* info, const DeviceTexts& texts);

/// The most that a device says it can do, in Mbit/s: by its USB3 Vision information, else by its USB version. 0 when
/// neither tells: a version 2.10 may be that of a SuperSpeed device or not.
std::uint32_t FastestSpeedOf(const Descriptors& descriptors, const VisionInfo* info);

}  // namespace Nimbrel2::Platform::Usb

#endif
