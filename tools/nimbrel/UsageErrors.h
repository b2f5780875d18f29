// SPDX-License-Identifier: Apache-2.0
// What is said of a command line that cannot be parsed. Pure.
#ifndef NIMBREL2_TOOLS_NIMBREL_USAGEERRORS_H
#define NIMBREL2_TOOLS_NIMBREL_USAGEERRORS_H

#include <CLI/CLI.hpp>
#include <string>
#include <vector>

namespace Nimbrel2::Tool {

/// The innermost command that the words name so far: "rig" of `nimbrel rig plya`.
const CLI::App& ChosenCommand(const CLI::App& app);

/// "nimbrel rig play"
std::string CommandName(const CLI::App& app);

/// The commands below this one, in the order of its help.
std::vector<std::string> CommandsOf(const CLI::App& command);

/// Names the word that is wrong and, where one is like it, the word that was meant.
std::string DescribeParseError(const CLI::App& app, const CLI::ParseError& error);

/// "unknown command 'lis'; did you mean list?"
std::string UnknownCommand(const CLI::App& above, const std::string& word);
/// The same of a command line that asks for help; empty when every command in it is known.
std::string UnknownCommandBesideHelp(const CLI::App& app);

}  // namespace Nimbrel2::Tool

#endif
