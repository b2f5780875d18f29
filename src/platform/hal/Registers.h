// SPDX-License-Identifier: Apache-2.0
// Arguments that the register functions of IEEE 1394 and USB share. Pure: no lock, no I/O, any thread.
#ifndef NIMBREL2_PLATFORM_HAL_REGISTERS_H
#define NIMBREL2_PLATFORM_HAL_REGISTERS_H

#include <cstdint>

namespace Nimbrel2::Platform {

/// The only selector: the device of the entry itself.
inline constexpr std::uint32_t kDeviceOfEntry = 0xFFFFFFFF;

/// A quadlet of the 48-bit address space (IEEE 1212), given whole or by its low 32 bits.
constexpr bool IsRegisterAddress(std::uint64_t address) { return address < std::uint64_t{1} << 48 && address % 4 == 0; }

/// The low 32 bits alone mean the initial register space, where configuration ROM and camera registers are.
constexpr std::uint64_t WholeRegisterAddress(std::uint64_t address) {
    return address <= 0xFFFFFFFF ? address + 0xFFFF00000000 : address;
}

}  // namespace Nimbrel2::Platform

#endif
