// SPDX-License-Identifier: Apache-2.0
// Texts that cross the HAL line, and addresses as people read them. Pure: no lock, no I/O, any thread.
#ifndef NIMBREL2_PLATFORM_BASE_TEXTS_H
#define NIMBREL2_PLATFORM_BASE_TEXTS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace Nimbrel2::Platform {

/// Copies a text and its terminating zero, cut to fit. A text ends at its first zero byte.
/// @param size  In: bytes at buffer. Out: length of what was copied, without the zero. With 0 nothing is written.
void CopyText(std::string_view text, char* buffer, std::uint32_t* size);

/// The text of a fixed field, which ends at its first zero byte or fills the field.
template <std::size_t Size>
std::string_view FieldText(const char (&field)[Size]) {
    const std::string_view whole(field, Size);
    return whole.substr(0, whole.find('\0'));
}

/// The decimal number at the start of a text, 0 when it starts with no digit. Of a larger one the low 32 bits.
std::uint32_t LeadingNumber(std::string_view text);

/// 02:00:5e:00:00:01. Octet 0 is in bits 47 to 40.
std::string FormatMac(std::uint64_t mac);

/// 192.168.77.50. The first octet is in the most significant byte.
std::string FormatIp(std::uint32_t ip);

}  // namespace Nimbrel2::Platform

#endif
