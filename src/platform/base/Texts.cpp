// SPDX-License-Identifier: Apache-2.0
// Copies and reads texts. Pure: no lock, no I/O, any thread.
#include "platform/base/Texts.h"

#include <algorithm>
#include <cstdio>

namespace Nimbrel2::Platform {

void CopyText(std::string_view text, char* buffer, std::uint32_t* size) {
    if (*size == 0) {
        return;
    }
    text = text.substr(0, text.find('\0'));
    text = text.substr(0, *size - 1);
    std::copy(text.begin(), text.end(), buffer);
    buffer[text.size()] = '\0';
    *size = static_cast<std::uint32_t>(text.size());
}

std::uint32_t LeadingNumber(std::string_view text) {
    std::uint32_t number = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            break;
        }
        number = number * 10 + static_cast<std::uint32_t>(c - '0');
    }
    return number;
}

std::string FormatMac(std::uint64_t mac) {
    char text[18];
    const auto octet = [mac](int shift) { return static_cast<unsigned int>(mac >> shift & 0xFF); };
    std::snprintf(text, sizeof text, "%02x:%02x:%02x:%02x:%02x:%02x", octet(40), octet(32), octet(24), octet(16),
                  octet(8), octet(0));
    return text;
}

std::string FormatIp(std::uint32_t ip) {
    char text[16];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", ip >> 24, ip >> 16 & 0xFF, ip >> 8 & 0xFF, ip & 0xFF);
    return text;
}

}  // namespace Nimbrel2::Platform
