// SPDX-License-Identifier: Apache-2.0
// Turns bytes of unknown origin into characters that a terminal only shows. Any thread; no lock.
#include "tools/nimbrel/Text.h"

#include <locale.h>
#include <wchar.h>

#include <climits>
#include <cstdint>
#include <string_view>
#include <vector>

namespace Nimbrel2::Tool {
namespace {

constexpr char32_t Invalid = 0xFFFFFFFF;
constexpr char32_t Replacement = 0xFFFD;

// Removes one character from the front; Invalid removes one byte. Overlong forms and surrogates are invalid.
char32_t TakeCharacter(std::string_view* text) {
    const auto byte = [text](std::size_t i) { return static_cast<std::uint8_t>((*text)[i]); };
    const std::uint8_t first = byte(0);
    std::size_t length = 1;
    char32_t value = first;
    char32_t smallest = 0;
    if (first >= 0xF0 && first <= 0xF4) {
        length = 4;
        value = first & 0x07;
        smallest = 0x10000;
    } else if (first >= 0xE0 && first <= 0xEF) {
        length = 3;
        value = first & 0x0F;
        smallest = 0x800;
    } else if (first >= 0xC2 && first <= 0xDF) {
        length = 2;
        value = first & 0x1F;
        smallest = 0x80;
    } else if (first >= 0x80) {
        value = Invalid;
    }
    for (std::size_t i = 1; i < length && value != Invalid; ++i) {
        const bool continues = i < text->size() && (byte(i) & 0xC0) == 0x80;
        value = continues ? value << 6 | (byte(i) & 0x3F) : Invalid;
    }
    if (value != Invalid && (value < smallest || value > 0x10FFFF || (value >= 0xD800 && value <= 0xDFFF))) {
        value = Invalid;
    }
    text->remove_prefix(value == Invalid ? 1 : length);
    return value;
}

// Terminals with bidirectional text would let these rearrange the text beside them.
bool ChangesDirection(char32_t c) {
    return c == 0x061C || c == 0x200E || c == 0x200F || (c >= 0x202A && c <= 0x202E) || (c >= 0x2066 && c <= 0x2069);
}

// The character in the encoding of the locale; empty when it has none or must not be shown.
std::string Encode(char32_t c) {
    if (c == Invalid || ChangesDirection(c) || wcwidth(static_cast<wchar_t>(c)) < 0) {
        return {};
    }
    char bytes[MB_LEN_MAX];
    mbstate_t state{};
    // NOLINTNEXTLINE(concurrency-mt-unsafe): it is safe with a state of its own
    const std::size_t size = wcrtomb(bytes, static_cast<wchar_t>(c), &state);
    return size == static_cast<std::size_t>(-1) ? std::string() : std::string(bytes, size);
}

std::string EncodeOrReplace(char32_t c) {
    std::string bytes = Encode(c);
    if (bytes.empty()) {
        bytes = Encode(Replacement);
    }
    return bytes.empty() ? "?" : bytes;
}

struct Glyph {
    std::string_view bytes;
    std::size_t width;
};

// A text from ForTerminal, character by character.
std::vector<Glyph> Glyphs(const std::string& shown) {
    std::vector<Glyph> glyphs;
    mbstate_t state{};
    for (std::string_view left = shown; !left.empty();) {
        wchar_t character = 0;
        // NOLINTNEXTLINE(concurrency-mt-unsafe): it is safe with a state of its own
        std::size_t size = mbrtowc(&character, left.data(), left.size(), &state);
        if (size == 0 || size > left.size()) {
            size = 1;
            character = L'?';
            state = mbstate_t{};
        }
        const int width = wcwidth(character);
        glyphs.push_back({left.substr(0, size), width < 0 ? 1 : static_cast<std::size_t>(width)});
        left.remove_prefix(size);
    }
    return glyphs;
}

std::string Trim(const std::string& text) {
    const std::size_t first = text.find_first_not_of(' ');
    return first == std::string::npos ? std::string() : text.substr(first, text.find_last_not_of(' ') - first + 1);
}

}  // namespace

void UseLocaleOfUser() {
    // Not setlocale, which would change it for the whole process. The locale object lives as long as the program.
    static const locale_t locale = newlocale(LC_CTYPE_MASK, "", nullptr);
    if (locale != nullptr) {
        uselocale(locale);
    }
}

std::string ForTerminal(const std::string& text, Lines lines) {
    std::string shown;
    for (std::string_view left = text; !left.empty();) {
        const char32_t c = TakeCharacter(&left);
        shown += c == U'\n' && lines == Lines::Kept ? "\n" : EncodeOrReplace(c);
    }
    return lines == Lines::Joined ? Trim(shown) : shown;
}

std::u32string ToCharacters(const std::string& text) {
    std::u32string characters;
    for (std::string_view left = text; !left.empty();) {
        const char32_t c = TakeCharacter(&left);
        const bool isControl = c < 0x20 || (c >= 0x7F && c < 0xA0) || c == 0x2028 || c == 0x2029;
        const bool isNone = c == Invalid || (c & 0xFFFE) == 0xFFFE || (c >= 0xFDD0 && c <= 0xFDEF);
        characters += isControl || isNone || ChangesDirection(c) ? Replacement : c;
    }
    return characters;
}

std::size_t DisplayWidth(const std::string& shown) {
    std::size_t width = 0;
    for (const Glyph& glyph : Glyphs(shown)) {
        width += glyph.width;
    }
    return width;
}

std::string CutToWidth(const std::string& shown, std::size_t width) {
    if (DisplayWidth(shown) <= width) {
        return shown;
    }
    const std::string dots(width < 3 ? width : 3, '.');
    std::string cut;
    std::size_t room = width - dots.size();
    for (const Glyph& glyph : Glyphs(shown)) {
        if (glyph.width > room) {
            break;
        }
        cut += glyph.bytes;
        room -= glyph.width;
    }
    return cut + dots;
}

}  // namespace Nimbrel2::Tool
