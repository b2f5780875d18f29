// SPDX-License-Identifier: Apache-2.0
// Escape sequences for colours (ECMA-48, SGR). Main thread only; no lock.
#include "tools/nimbrel/Style.h"

#include <stdlib.h>
#include <unistd.h>

#include <string_view>

#include "tools/nimbrel/CommandError.h"

namespace Nimbrel2::Tool {
namespace {

const char* CodeOf(Colour colour) {
    switch (colour) {
        case Colour::Bold:
            return "1";
        case Colour::Dim:
            return "2";
        case Colour::Red:
            return "31";
        case Colour::Green:
            return "32";
        case Colour::Yellow:
            return "33";
        case Colour::Blue:
            return "34";
        case Colour::Magenta:
            return "35";
        case Colour::Cyan:
            return "36";
        case Colour::None:
            break;
    }
    return nullptr;
}

}  // namespace

ColourChoice ParseColourChoice(const std::string& text) {
    if (text == "auto") {
        return ColourChoice::Auto;
    }
    if (text == "always") {
        return ColourChoice::Always;
    }
    if (text == "never") {
        return ColourChoice::Never;
    }
    throw CommandError("--color: \"" + text + "\" is not one of auto, always or never", ExitUsage);
}

bool UsesColour(ColourChoice choice) {
    if (choice != ColourChoice::Auto) {
        return choice == ColourChoice::Always;
    }
    const char* noColor = secure_getenv("NO_COLOR");
    if (noColor != nullptr && *noColor != '\0') {
        return false;
    }
    const char* kind = secure_getenv("TERM");
    return isatty(STDOUT_FILENO) == 1 && kind != nullptr && std::string_view(kind) != "dumb";
}

std::string Paint(const std::string& text, Colour colour, bool enabled) {
    const char* code = CodeOf(colour);
    if (!enabled || code == nullptr || text.empty()) {
        return text;
    }
    return std::string("\033[") + code + "m" + text + "\033[0m";
}

Colour ColourOf(InterfaceType type) {
    switch (type) {
        case INTERFACE_IEEE1394:
            return Colour::Yellow;
        case INTERFACE_USB_2:
            return Colour::Cyan;
        case INTERFACE_USB_3:
            return Colour::Blue;
        case INTERFACE_GIGE:
            return Colour::Magenta;
        case INTERFACE_NONE:
            break;
    }
    return Colour::None;
}

}  // namespace Nimbrel2::Tool
