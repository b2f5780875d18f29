// SPDX-License-Identifier: Apache-2.0
// The GenICam description that a simulated GigE camera carries, and the registers that it describes. Constants only.
#ifndef NIMBREL2_PLATFORM_SIMULATED_GENICAMDESCRIPTION_H
#define NIMBREL2_PLATFORM_SIMULATED_GENICAMDESCRIPTION_H

#include <cstddef>
#include <cstdint>
#include <string_view>

namespace Nimbrel2::Platform::Simulated {

/// Where the description lies in the camera's memory.
inline constexpr std::uint32_t DescriptionAddress = 0x10000;

/// Manufacturer registers, all 32 bits.
namespace ImageRegister {
inline constexpr std::uint32_t First = 0xA000;
inline constexpr std::uint32_t Width = 0xA000;
inline constexpr std::uint32_t Height = 0xA004;
inline constexpr std::uint32_t PixelFormat = 0xA008;
inline constexpr std::uint32_t AcquisitionMode = 0xA00C;
inline constexpr std::uint32_t AcquisitionCommand = 0xA010;
inline constexpr std::uint32_t ExposureTime = 0xA014;  ///< microseconds
inline constexpr std::uint32_t TransportLayerLocked = 0xA018;
inline constexpr std::size_t Bytes = 0x100;  ///< the rest is memory without a meaning
}  // namespace ImageRegister

/// XML in UTF-8, of a length that is a multiple of four.
std::string_view GetGenicamDescription();

}  // namespace Nimbrel2::Platform::Simulated

#endif
