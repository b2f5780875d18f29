// SPDX-License-Identifier: Apache-2.0
// Big-endian numbers in byte buffers, without alignment or host-order assumptions. Pure functions.
#ifndef NIMBREL2_PLATFORM_GVCP_BYTEORDER_H
#define NIMBREL2_PLATFORM_GVCP_BYTEORDER_H

#include <cstddef>
#include <cstdint>

namespace Nimbrel2::Platform::Gvcp {

inline std::uint16_t LoadU16(const std::uint8_t* bytes) { return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]); }

inline std::uint32_t LoadU32(const std::uint8_t* bytes) {
    return static_cast<std::uint32_t>(bytes[0]) << 24 | static_cast<std::uint32_t>(bytes[1]) << 16 |
           static_cast<std::uint32_t>(bytes[2]) << 8 | bytes[3];
}

inline void StoreU16(std::uint8_t* bytes, std::uint16_t value) {
    bytes[0] = static_cast<std::uint8_t>(value >> 8);
    bytes[1] = static_cast<std::uint8_t>(value);
}

inline void StoreU32(std::uint8_t* bytes, std::uint32_t value) {
    bytes[0] = static_cast<std::uint8_t>(value >> 24);
    bytes[1] = static_cast<std::uint8_t>(value >> 16);
    bytes[2] = static_cast<std::uint8_t>(value >> 8);
    bytes[3] = static_cast<std::uint8_t>(value);
}

}  // namespace Nimbrel2::Platform::Gvcp

#endif
