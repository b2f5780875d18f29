// SPDX-License-Identifier: Apache-2.0
// USB descriptors from bytes. Pure functions: any thread, no lock, no I/O.
#include "platform/linux/usb/Descriptors.h"

#include <algorithm>
#include <cstdio>

namespace Nimbrel2::Platform::Usb {

namespace {

using Bytes = std::span<const std::uint8_t>;

// Types and least lengths (USB 3.2 table 9-6, 9.6).
constexpr std::uint8_t DeviceType = 0x01;
constexpr std::uint8_t ConfigurationType = 0x02;
constexpr std::uint8_t InterfaceType = 0x04;
constexpr std::uint8_t EndpointType = 0x05;
constexpr std::uint8_t ClassInterface = 0x24;
constexpr std::size_t DeviceBytes = 18;
constexpr std::size_t ConfigurationBytes = 9;
constexpr std::size_t InterfaceBytes = 9;
constexpr std::size_t EndpointBytes = 7;
constexpr std::size_t HeaderBytes = 2;

constexpr std::uint8_t VisionDeviceInfo = 0x01;  // the subtype
constexpr std::uint8_t DirectionIn = 0x80;
constexpr std::uint8_t TransferType = 0x03;
constexpr std::uint8_t Bulk = 0x02;

constexpr std::uint16_t Usb30 = 0x0300;
constexpr std::uint16_t Usb21 = 0x0210;
constexpr std::uint16_t Usb20 = 0x0200;

std::uint16_t LoadU16(Bytes bytes, std::size_t offset) {
    return static_cast<std::uint16_t>(bytes[offset] | bytes[offset + 1] << 8);
}

// What lies behind the end of a descriptor is 0.
std::uint8_t ByteAt(Bytes descriptor, std::size_t offset) {
    return offset < descriptor.size() ? descriptor[offset] : std::uint8_t{0};
}
std::uint32_t WordAt(Bytes descriptor, std::size_t offset) {
    if (offset + 4 > descriptor.size()) {
        return 0;
    }
    return LoadU16(descriptor, offset) | static_cast<std::uint32_t>(LoadU16(descriptor, offset + 2)) << 16;
}

// Takes the first descriptor off bytes; empty at the end, and where a length is none or reaches behind the end.
Bytes NextDescriptor(Bytes* bytes) {
    if (bytes->size() < HeaderBytes) {
        return {};
    }
    const std::size_t length = (*bytes)[0];
    if (length < HeaderBytes || length > bytes->size()) {
        return {};
    }
    const Bytes descriptor = bytes->first(length);
    *bytes = bytes->subspan(length);
    return descriptor;
}

// Builds the configurations from one descriptor after the other.
class Builder {
public:
    void Add(Bytes descriptor) {
        switch (descriptor[1]) {
            case ConfigurationType:
                if (descriptor.size() >= ConfigurationBytes) {
                    m_configurations.push_back({descriptor[5], {}});
                }
                m_interface = nullptr;
                break;
            case InterfaceType:
                AddInterface(descriptor);
                break;
            case EndpointType:
                AddEndpoint(descriptor);
                break;
            case ClassInterface:
                AddVisionInfo(descriptor);
                break;
            default:
                break;
        }
    }

    std::vector<Configuration> Take() { return std::move(m_configurations); }

private:
    void AddInterface(Bytes descriptor) {
        m_interface = nullptr;
        if (descriptor.size() < InterfaceBytes || m_configurations.empty()) {
            return;
        }
        std::vector<InterfaceDescriptor>& interfaces = m_configurations.back().interfaces;
        // Another setting of one that was seen: the first is the one that the device starts in.
        const std::uint8_t number = descriptor[2];
        if (std::any_of(interfaces.begin(), interfaces.end(),
                        [&](const InterfaceDescriptor& other) { return other.number == number; })) {
            return;
        }
        InterfaceDescriptor interface;
        interface.number = number;
        interface.classCode = descriptor[5];
        interface.subclass = descriptor[6];
        interface.protocol = descriptor[7];
        interfaces.push_back(interface);
        m_interface = &interfaces.back();
    }

    void AddEndpoint(Bytes descriptor) {
        if (m_interface == nullptr || descriptor.size() < EndpointBytes) {
            return;
        }
        if ((descriptor[3] & TransferType) != Bulk) {
            return;
        }
        const std::uint8_t address = descriptor[2];
        std::uint8_t& endpoint = (address & DirectionIn) != 0 ? m_interface->bulkIn : m_interface->bulkOut;
        if (endpoint == 0) {
            endpoint = address;
        }
    }

    void AddVisionInfo(Bytes descriptor) {
        if (m_interface == nullptr || !m_interface->IsVisionControl() || m_interface->vision) {
            return;
        }
        if (ByteAt(descriptor, 2) != VisionDeviceInfo) {
            return;
        }
        VisionInfo info;
        info.genCpVersion = WordAt(descriptor, 3);
        info.visionVersion = WordAt(descriptor, 7);
        info.guidIndex = ByteAt(descriptor, 11);
        info.vendorIndex = ByteAt(descriptor, 12);
        info.modelIndex = ByteAt(descriptor, 13);
        info.serialIndex = ByteAt(descriptor, 17);
        info.speeds = ByteAt(descriptor, 19);
        m_interface->vision = info;
    }

    std::vector<Configuration> m_configurations;
    InterfaceDescriptor* m_interface = nullptr;  // of the last configuration; null between them
};

std::string IdText(std::uint16_t id) {
    char text[8];
    std::snprintf(text, sizeof text, "%04x", id);
    return text;
}

}  // namespace

const InterfaceDescriptor* Configuration::FindVisionControl() const {
    const auto found = std::find_if(interfaces.begin(), interfaces.end(),
                                    [](const InterfaceDescriptor& interface) { return interface.IsVisionControl(); });
    return found == interfaces.end() ? nullptr : &*found;
}

const Configuration* Descriptors::FindConfiguration(std::uint32_t value) const {
    const auto found = std::find_if(configurations.begin(), configurations.end(),
                                    [value](const Configuration& other) { return other.value == value; });
    return found == configurations.end() ? nullptr : &*found;
}

const InterfaceDescriptor* Descriptors::FindVisionControl(std::uint32_t configuration) const {
    for (const Configuration& candidate : configurations) {
        if (configuration != 0 && candidate.value != configuration) {
            continue;
        }
        if (const InterfaceDescriptor* control = candidate.FindVisionControl()) {
            return control;
        }
    }
    return nullptr;
}

std::optional<Descriptors> ParseDescriptors(std::span<const std::uint8_t> bytes) {
    const Bytes device = NextDescriptor(&bytes);
    if (device.size() < DeviceBytes || device[1] != DeviceType) {
        return std::nullopt;
    }
    Descriptors descriptors;
    descriptors.usbVersion = LoadU16(device, 2);
    descriptors.deviceClass = device[4];
    descriptors.deviceProtocol = device[6];
    descriptors.vendorId = LoadU16(device, 8);
    descriptors.productId = LoadU16(device, 10);
    descriptors.manufacturerIndex = device[14];
    descriptors.productIndex = device[15];
    descriptors.serialIndex = device[16];
    Builder builder;
    for (Bytes next = NextDescriptor(&bytes); !next.empty(); next = NextDescriptor(&bytes)) {
        builder.Add(next);
    }
    descriptors.configurations = builder.Take();
    return descriptors;
}

ShownTexts ChooseTexts(const Descriptors& descriptors, const VisionInfo* info, const DeviceTexts& texts) {
    // The text with that index, when it is one of the three that the kernel has read; else the one that stands for it.
    const auto choose = [&](std::uint8_t index, const std::string& otherwise) -> const std::string& {
        if (index == 0) {
            return otherwise;
        }
        if (index == descriptors.manufacturerIndex && !texts.manufacturer.empty()) {
            return texts.manufacturer;
        }
        if (index == descriptors.productIndex && !texts.product.empty()) {
            return texts.product;
        }
        if (index == descriptors.serialIndex && !texts.serial.empty()) {
            return texts.serial;
        }
        return otherwise;
    };
    ShownTexts shown{choose(info != nullptr ? info->vendorIndex : std::uint8_t{0}, texts.manufacturer),
                     choose(info != nullptr ? info->modelIndex : std::uint8_t{0}, texts.product),
                     choose(info != nullptr ? info->serialIndex : std::uint8_t{0}, texts.serial)};
    if (shown.vendor.empty()) {
        shown.vendor = IdText(descriptors.vendorId);
    }
    if (shown.model.empty()) {
        shown.model = IdText(descriptors.productId);
    }
    return shown;
}

std::uint32_t FastestSpeedOf(const Descriptors& descriptors, const VisionInfo* info) {
    if (info != nullptr && (info->speeds & VisionInfo::SuperSpeed) != 0) {
        return 5000;
    }
    if (info != nullptr && (info->speeds & VisionInfo::HighSpeed) != 0) {
        return 480;
    }
    if (descriptors.usbVersion >= Usb30) {
        return 5000;
    }
    if (descriptors.usbVersion >= Usb21) {
        return 0;
    }
    return descriptors.usbVersion >= Usb20 ? 480 : 12;
}

}  // namespace Nimbrel2::Platform::Usb
