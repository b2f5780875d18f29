// SPDX-License-Identifier: Apache-2.0
#ifndef NIMBREL2_COMMON_IPADDRESS_H
#define NIMBREL2_COMMON_IPADDRESS_H

#include <cstdint>

namespace Nimbrel2 {

/// An IPv4 address, subnet mask or gateway. octets[0] is the first number of the dotted form.
struct IPAddress {
    std::uint8_t octets[4] = {0, 0, 0, 0};
};

/// octets[0] in bits 31 to 24: the form in which registers and the HAL hold addresses.
constexpr std::uint32_t PackIPAddress(const IPAddress& address) noexcept {
    return static_cast<std::uint32_t>(address.octets[0]) << 24 | static_cast<std::uint32_t>(address.octets[1]) << 16 |
           static_cast<std::uint32_t>(address.octets[2]) << 8 | static_cast<std::uint32_t>(address.octets[3]);
}

constexpr IPAddress UnpackIPAddress(std::uint32_t value) noexcept {
    return IPAddress{{static_cast<std::uint8_t>(value >> 24), static_cast<std::uint8_t>(value >> 16 & 0xFF),
                      static_cast<std::uint8_t>(value >> 8 & 0xFF), static_cast<std::uint8_t>(value & 0xFF)}};
}

}  // namespace Nimbrel2

#endif
