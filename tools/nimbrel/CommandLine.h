// SPDX-License-Identifier: Apache-2.0
// The declared command line, looked at by help, completion and the manual. Pure.
#ifndef NIMBREL2_TOOLS_NIMBREL_COMMANDLINE_H
#define NIMBREL2_TOOLS_NIMBREL_COMMANDLINE_H

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

#include "tools/nimbrel/Cameras.h"

namespace Nimbrel2::Tool {

/// The commands below a command, without those that are for programs and that no help shows.
std::vector<const CLI::App*> ShownCommands(const CLI::App& command);

/// Null if there is none of that name.
const CLI::App* FindCommand(const CLI::App& above, const std::string& name);

/// The option of that name, "--bus" or "-l"; null if the command has none.
const CLI::Option* FindOption(const CLI::App& command, const std::string& name);

/// Arguments without a name, in their order.
std::vector<const CLI::Option*> PositionalsOf(const CLI::App& command);

bool TakesValue(const CLI::Option& option);

/// What help shows for its value: "1394|usb|gige"; empty for flags.
std::string PlaceholderOf(const CLI::Option& option);

/// Its description as one line.
std::string DescriptionOf(const CLI::Option& option);

/// Everything that help says of a command and those below it.
Json DescribeCommand(const CLI::App& command);

}  // namespace Nimbrel2::Tool

#endif
