// SPDX-License-Identifier: Apache-2.0
// Colours of what is printed for people. Main thread only; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_STYLE_H
#define NIMBREL2_TOOLS_NIMBREL_STYLE_H

#include <string>

#include "common/InterfaceType.h"

namespace Nimbrel2::Tool {

enum class Colour { None, Bold, Dim, Red, Green, Yellow, Blue, Magenta, Cyan };

enum class ColourChoice { Auto, Always, Never };

/// "auto", "always" or "never". @throws CommandError (wrong usage)
ColourChoice ParseColourChoice(const std::string& text);

/// Whether standard output gets colours. Auto: it is a terminal that has them, and NO_COLOR is unset or empty.
bool UsesColour(ColourChoice choice);

/// The text between the escape sequences of that colour; as it is for Colour::None or when enabled is false.
std::string Paint(const std::string& text, Colour colour, bool enabled);

/// The colour that a bus has in tables and trees.
Colour ColourOf(InterfaceType type);

}  // namespace Nimbrel2::Tool

#endif
