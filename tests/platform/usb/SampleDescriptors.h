// SPDX-License-Identifier: Apache-2.0
// Descriptors as real devices were seen to tell them, with ids of one's own. Pure.
#ifndef NIMBREL2_TESTS_PLATFORM_USB_SAMPLEDESCRIPTORS_H
#define NIMBREL2_TESTS_PLATFORM_USB_SAMPLEDESCRIPTORS_H

#include <cstdint>
#include <vector>

namespace Nimbrel2::Testing {

/// A USB3 Vision camera: control, events and images.
std::vector<std::uint8_t> CameraDescriptors(bool superSpeed, std::uint16_t vendor = 0x1209, std::uint16_t product = 1);
std::vector<std::uint8_t> HubDescriptors(std::uint16_t usbVersion);
/// One interface of a maker's own class: what cameras with no class of theirs have.
std::vector<std::uint8_t> VendorDescriptors(std::uint16_t vendor, std::uint16_t product);

}  // namespace Nimbrel2::Testing

#endif
