// SPDX-License-Identifier: Apache-2.0
// From a USB serial text to a 32-bit number. Pure.
#include "platform/base/UsbSerial.h"

#include <algorithm>
#include <charconv>
#include <optional>
#include <string_view>

namespace Nimbrel2::Platform {

namespace {

bool IsDigit(char c) { return c >= '0' && c <= '9'; }
bool IsHexLetter(char c) { return (c >= 'a' && c <= 'f') || (c >= 'A' && c <= 'F'); }
bool IsHex(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return IsDigit(c) || IsHexLetter(c); });
}

// The whole text as a number of that base; nothing when it is none or does not fit.
std::optional<std::uint32_t> Number(std::string_view text, int base) {
    std::uint32_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    if (error != std::errc{} || end != text.data() + text.size()) {
        return std::nullopt;
    }
    return value;
}

std::optional<std::uint32_t> Parse(std::uint16_t vendorId, std::string_view text) {
    if (text.empty()) {
        return std::nullopt;
    }
    if (std::all_of(text.begin(), text.end(), IsDigit)) {
        if (const auto number = Number(text, 10)) {
            return number;
        }
    }
    if (text.substr(0, 2) == "0x" || text.substr(0, 2) == "0X") {
        return Number(text.substr(2), 16);
    }
    if (text.size() == 8 && IsHex(text)) {
        return Number(text, 16);
    }
    if (text.size() == 12 && IsHex(text) && Number(text.substr(0, 4), 16) == vendorId) {
        return Number(text.substr(4), 16);
    }
    return std::nullopt;
}

void Mix(std::uint32_t* hash, std::uint8_t byte) { *hash = (*hash ^ byte) * 16777619U; }

}  // namespace

std::uint32_t UsbSerialNumber(std::uint16_t vendorId, std::uint16_t productId, const std::string& text,
                              const std::string& place) {
    const std::optional<std::uint32_t> number = Parse(vendorId, text);
    if (number.has_value() && *number != 0) {
        return *number;
    }
    const bool tellsNothing = text.empty() || number.has_value();
    std::uint32_t hash = 2166136261U;
    for (const std::uint16_t id : {vendorId, productId}) {
        Mix(&hash, static_cast<std::uint8_t>(id >> 8));
        Mix(&hash, static_cast<std::uint8_t>(id & 0xFF));
    }
    for (const char c : tellsNothing && !place.empty() ? place : text) {
        Mix(&hash, static_cast<std::uint8_t>(c));
    }
    return hash != 0 ? hash : 1;
}

}  // namespace Nimbrel2::Platform
