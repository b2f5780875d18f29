// SPDX-License-Identifier: Apache-2.0
// The packets of a USB3 Vision control channel (GenCP): commands to bytes, acknowledges from bytes. Little-endian.
// Pure: every length is checked, any bytes may come in.
#ifndef NIMBREL2_PLATFORM_LINUX_USB_GENCP_H
#define NIMBREL2_PLATFORM_LINUX_USB_GENCP_H

#include <cstdint>
#include <optional>
#include <span>
#include <vector>

namespace Nimbrel2::Platform::Usb::GenCp {

enum class Command : std::uint16_t {
    ReadMemory = 0x0800,
    ReadMemoryAcknowledge = 0x0801,
    WriteMemory = 0x0802,
    WriteMemoryAcknowledge = 0x0803,
    PendingAcknowledge = 0x0805,
};

enum class Status : std::uint16_t {
    Success = 0x0000,
    NotImplemented = 0x8001,
    InvalidParameter = 0x8002,
    InvalidAddress = 0x8003,
    WriteProtect = 0x8004,
    BadAlignment = 0x8005,
    AccessDenied = 0x8006,
    Busy = 0x8007,
};

/// The HALStatus for an acknowledge's status.
std::uint32_t ToHalStatus(std::uint16_t status);

inline constexpr std::uint32_t Prefix = 0x43563355;  // "U3VC"
inline constexpr std::uint16_t RequestAcknowledge = 0x4000;
inline constexpr std::size_t HeaderBytes = 12;

std::vector<std::uint8_t> EncodeRead(std::uint16_t id, std::uint64_t address, std::uint16_t size);
std::vector<std::uint8_t> EncodeWrite(std::uint16_t id, std::uint64_t address, std::uint32_t value);

struct Acknowledge {
    std::uint16_t status = 0;
    std::uint16_t command = 0;
    std::uint16_t id = 0;
    std::span<const std::uint8_t> payload;  ///< lies in the bytes that it was read from
};

/// Nothing for what is no acknowledge, or is longer or shorter than it says.
std::optional<Acknowledge> DecodeAcknowledge(std::span<const std::uint8_t> bytes);

/// The quadlet that a READMEM_ACK brings; nothing when it brings another number of bytes.
std::optional<std::uint32_t> DecodeQuadlet(const Acknowledge& acknowledge);
/// Whether a WRITEMEM_ACK says that the whole quadlet was written. Its payload may be missing.
bool HasWrittenQuadlet(const Acknowledge& acknowledge);
/// The time in milliseconds that a PENDING_ACK asks for; nothing when it is malformed.
std::optional<std::uint16_t> DecodePending(const Acknowledge& acknowledge);

}  // namespace Nimbrel2::Platform::Usb::GenCp

#endif
