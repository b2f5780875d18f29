// SPDX-License-Identifier: Apache-2.0
// Texts of cameras made safe for a terminal. Any thread that has called UseLocaleOfUser; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_TEXT_H
#define NIMBREL2_TOOLS_NIMBREL_TEXT_H

#include <cstddef>
#include <string>

namespace Nimbrel2::Tool {

/// Makes the character encoding of this thread that of the user's locale.
void UseLocaleOfUser();

enum class Lines { Joined, Kept };  ///< Whether line feeds are replaced or kept.

/// The text in the encoding of the terminal. Invalid UTF-8, control characters, characters that change the direction of
/// writing and characters that this locale cannot show become a replacement character (U+FFFD or `?`) each. White space
/// at both ends is removed when lines are joined.
std::string ForTerminal(const std::string& text, Lines lines = Lines::Joined);

/// The characters of a text, independent of the locale. U+FFFD replaces each byte that is not UTF-8 and each character
/// that must not be shown: control characters, those that change the direction of writing, noncharacters.
std::u32string ToCharacters(const std::string& text);

/// How many columns a text from ForTerminal takes.
std::size_t DisplayWidth(const std::string& shown);

/// A text from ForTerminal cut to that many columns, ending in `...` if it was cut.
std::string CutToWidth(const std::string& shown, std::size_t width);

/// The characters of a field up to its first zero byte, or all of them.
template <std::size_t capacity>
std::string FromField(const char (&field)[capacity]) {
    std::size_t length = 0;
    while (length < capacity && field[length] != '\0') {
        ++length;
    }
    return std::string(field, length);
}

}  // namespace Nimbrel2::Tool

#endif
