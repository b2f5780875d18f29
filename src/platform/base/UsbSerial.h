// SPDX-License-Identifier: Apache-2.0
#ifndef NIMBREL2_PLATFORM_BASE_USBSERIAL_H
#define NIMBREL2_PLATFORM_BASE_USBSERIAL_H

#include <cstdint>
#include <string>

namespace Nimbrel2::Platform {

/// The 32-bit serial number of a USB camera, from the text that it tells: a decimal number that fits; a hexadecimal one
/// with the prefix 0x, or of exactly eight digits one of which is a letter; the last eight digits of a device GUID of
/// twelve hexadecimal digits that begins with the vendor id; else a hash (FNV-1a) of ids and text. Never 0.
/// @param place  Where the camera is: hashed instead of a text that is empty or means 0, for many cameras may have that
///               one. Empty: the text is hashed all the same.
/// Pure.
std::uint32_t UsbSerialNumber(std::uint16_t vendorId, std::uint16_t productId, const std::string& text,
                              const std::string& place = {});

}  // namespace Nimbrel2::Platform

#endif
