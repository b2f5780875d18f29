// SPDX-License-Identifier: Apache-2.0
// Looks at what is left over of a command line. Pure.
#include "tools/nimbrel/UsageErrors.h"

#include <algorithm>

#include "tools/nimbrel/CommandLine.h"
#include "tools/nimbrel/Words.h"

namespace Nimbrel2::Tool {
namespace {

std::string Quoted(const std::string& word) { return "'" + word + "'"; }

// Long names, as they are written.
std::vector<std::string> OptionsOf(const CLI::App& command) {
    std::vector<std::string> names;
    for (const CLI::Option* option : command.get_options()) {
        for (const std::string& name : option->get_lnames()) {
            names.push_back("--" + name);
        }
    }
    return names;
}

std::string UnknownOption(const CLI::App& command, const std::string& word) {
    const std::string name = word.substr(0, word.find('='));
    const bool isTop = command.get_parent() == nullptr;
    const std::string text = "unknown option " + name;
    const std::string meant = DidYouMean(name, OptionsOf(command));
    if (!meant.empty() || !isTop) {
        return text + meant;
    }
    for (const CLI::App* below : command.get_subcommands({})) {
        const std::vector<std::string> options = OptionsOf(*below);
        if (std::find(options.begin(), options.end(), name) != options.end()) {
            return (text + " before the command; write it after the command: nimbrel ")
                .append(below->get_name())
                .append(" ")
                .append(name);
        }
    }
    return text;
}

}  // namespace

const CLI::App& ChosenCommand(const CLI::App& app) {
    const CLI::App* command = &app;
    while (!command->get_subcommands().empty()) {
        command = command->get_subcommands().front();
    }
    return *command;
}

std::string CommandName(const CLI::App& app) {
    const auto chosen = app.get_subcommands();
    return app.get_name() + (chosen.empty() ? "" : " " + CommandName(*chosen.front()));
}

std::vector<std::string> CommandsOf(const CLI::App& command) {
    std::vector<std::string> names;
    for (const CLI::App* below : ShownCommands(command)) {
        names.push_back(below->get_name());
    }
    return names;
}

std::string UnknownCommand(const CLI::App& above, const std::string& word) {
    const std::vector<std::string> known = CommandsOf(above);
    const std::string text = "unknown command " + Quoted(word);
    const std::string meant = DidYouMean(word, known);
    const bool few = above.get_parent() != nullptr;
    return text + (meant.empty() && few ? "; " + CommandName(above) + " has " + Enumerate(known) : meant);
}

std::string UnknownCommandBesideHelp(const CLI::App& app) {
    const CLI::App& command = ChosenCommand(app);
    if (command.get_subcommands({}).empty()) {
        return "";
    }
    for (const std::string& word : command.remaining()) {
        if (!word.empty() && word.front() != '-') {
            return UnknownCommand(command, word);
        }
    }
    return "";
}

std::string DescribeParseError(const CLI::App& app, const CLI::ParseError& error) {
    const bool isUnexpected = error.get_exit_code() == static_cast<int>(CLI::ExitCodes::ExtrasError);
    const bool isMissing = error.get_exit_code() == static_cast<int>(CLI::ExitCodes::RequiredError);
    // The words that nobody took are with the command that they were given to.
    for (const CLI::App* command = &app;; command = command->get_subcommands().front()) {
        const bool hasCommands = !command->get_subcommands({}).empty();
        const std::vector<std::string> left = command->remaining();
        if (!left.empty() && (isUnexpected || hasCommands)) {
            const std::string& word = left.front();
            if (word.size() > 1 && word.front() == '-') {
                return UnknownOption(*command, word);
            }
            return hasCommands ? UnknownCommand(*command, word) : "unexpected word " + Quoted(word);
        }
        if (!command->get_subcommands().empty()) {
            continue;
        }
        if (hasCommands && isMissing) {
            return "a command is missing: " + Enumerate(CommandsOf(*command), "or");
        }
        return error.what();
    }
}

}  // namespace Nimbrel2::Tool
