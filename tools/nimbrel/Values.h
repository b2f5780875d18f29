// SPDX-License-Identifier: Apache-2.0
// Values of options, from text. Pure.
#ifndef NIMBREL2_TOOLS_NIMBREL_VALUES_H
#define NIMBREL2_TOOLS_NIMBREL_VALUES_H

#include <chrono>
#include <cstdint>
#include <string>
#include <vector>

#include "platform/Platform.h"

namespace Nimbrel2::Tool {

/// A decimal number of seconds within bounds, to the millisecond, such as "0.2" or "60"; no signs, exponents, commas or
/// blanks.
/// @throws CommandError (wrong usage) that names the option and the value.
std::chrono::milliseconds ParseSeconds(const std::string& option, const std::string& text,
                                       std::chrono::milliseconds smallest, std::chrono::milliseconds largest);

/// A decimal number from 1 up. @throws CommandError as above.
std::uint64_t ParseCount(const std::string& option, const std::string& text);

/// A number within bounds, decimal, or hexadecimal after 0x. @throws CommandError as above.
std::uint32_t ParseNumber(const std::string& option, const std::string& text, std::uint32_t smallest,
                          std::uint32_t largest);

/// Two UDP ports from 1024 up, joined by "-". @throws CommandError as above.
Platform::PortRange ParsePortRange(const std::string& option, const std::string& text);

/// Serial numbers separated by commas, each once, in the order given. @throws CommandError as above.
std::vector<std::uint32_t> ParseSerialNumbers(const std::string& option, const std::string& text);

/// "0.2 s": without zeros at the end.
std::string FormatSeconds(std::chrono::milliseconds time);

/// "480 Mbit/s", "5 Gbit/s", "2.5 Gbit/s".
std::string FormatSpeed(std::uint32_t megabits);

/// The words between the separators, empty ones included.
std::vector<std::string> SplitAt(const std::string& text, char separator);

}  // namespace Nimbrel2::Tool

#endif
