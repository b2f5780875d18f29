// SPDX-License-Identifier: Apache-2.0
// Texts that come from cameras, made fit for a terminal. Main thread only, because the locale is that thread's; no
// lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_TEXT_H
#define NIMBREL2_TOOLS_NIMBREL_TEXT_H

#include <cstddef>
#include <string>

namespace Nimbrel2::Tool {

/// Makes this thread's characters those of the user's locale: what a terminal can show depends on it.
void UseLocaleOfUser();

enum class Lines { Joined, Kept };  ///< Whether a line feed is a character to be replaced, or one to keep.

/// The text in the encoding of the terminal. Invalid UTF-8, control characters, characters that change the direction of
/// writing and characters that this locale cannot show become a replacement character (U+FFFD or `?`) each. White space
/// at both ends goes when lines are joined.
std::string ForTerminal(const std::string& text, Lines lines = Lines::Joined);

/// The characters of a text, whatever the locale. U+FFFD stands for each byte that is no UTF-8 and for each character
/// that is not for showing: control characters, those that change the direction of writing, noncharacters.
std::u32string ToCharacters(const std::string& text);

/// How many columns a text takes that ForTerminal has returned.
std::size_t DisplayWidth(const std::string& shown);

/// The text (from ForTerminal) cut to that many columns, with `...` in place of what is missing.
std::string CutToWidth(const std::string& shown, std::size_t width);

/// The characters of a field up to its first zero, all of them when there is none.
template <std::size_t capacity>
std::string FromField(const char (&field)[capacity]) {
    std::size_t length = 0;
    while (length < capacity && field[length] != '\0') ++length;
    return std::string(field, length);
}

}  // namespace Nimbrel2::Tool

#endif
