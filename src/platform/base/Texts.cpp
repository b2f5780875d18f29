// SPDX-License-Identifier: Apache-2.0
// Copies and reads texts. Pure: no lock, no I/O, any thread.
#include "platform/base/Texts.h"

#include <algorithm>

namespace Nimbrel2::Platform {

void CopyText(std::string_view text, char* buffer, std::uint32_t* size) {
    if (*size == 0) return;
    text = text.substr(0, text.find('\0'));
    text = text.substr(0, *size - 1);
    std::copy(text.begin(), text.end(), buffer);
    buffer[text.size()] = '\0';
    *size = static_cast<std::uint32_t>(text.size());
}

std::uint32_t LeadingNumber(std::string_view text) {
    std::uint32_t number = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') break;
        number = number * 10 + static_cast<std::uint32_t>(c - '0');
    }
    return number;
}

}  // namespace Nimbrel2::Platform
