// SPDX-License-Identifier: Apache-2.0
// `nimbrel help`: the help of the program or of one command, as `--help` prints it. Main thread only; no lock.
#include <memory>
#include <string>
#include <vector>

#include "tools/nimbrel/CommandError.h"
#include "tools/nimbrel/CommandLine.h"
#include "tools/nimbrel/Commands.h"
#include "tools/nimbrel/UsageErrors.h"

namespace Nimbrel2::Tool {
namespace {

const char Footer[] =
    R"(Examples:
  nimbrel help                 all commands
  nimbrel help list            one command, like `nimbrel list --help`
  nimbrel help rig play        a command of a command

Exit status:
  0  The help was printed.
  2  There is no such command.

JSON: {"name","description","options":[{"names","value","description"}],
"arguments":[{"name","required","repeatable","description"}],"commands":[...],
"more"}. "value" is missing for options that take none; "commands" are those
below it, described in the same way; "more" is what help ends with.
)";

const CLI::App& Find(const CLI::App& app, const std::vector<std::string>& words) {
    const CLI::App* command = &app;
    for (const std::string& word : words) {
        const CLI::App* below = FindCommand(*command, word);
        if (below == nullptr) {
            throw CommandError(UnknownCommand(*command, word), ExitUsage);
        }
        command = below;
    }
    return *command;
}

std::string HelpOf(const CLI::App& app, const std::vector<std::string>& words) {
    std::string name = app.get_name();
    for (const std::string& word : words) {
        name += " " + word;
    }
    // App::help() would explain the command that is running, this one.
    return app.get_formatter()->make_help(&Find(app, words), name, CLI::AppFormatMode::Normal);
}

}  // namespace

void AddHelpCommand(CLI::App& app, CommandContext& context) {
    const auto words = std::make_shared<std::vector<std::string>>();
    const auto json = std::make_shared<bool>(false);
    CLI::App* command = context.AddCommand(app, "help", "Explains a command.", [&app, &context, words, json] {
        context.Print(*json ? Dump(DescribeCommand(Find(app, *words))) : HelpOf(app, *words));
        return static_cast<int>(ExitDone);
    });
    command->add_option("COMMAND", *words, "The command; without it: all of them.")->type_name("");
    command->add_flag("--json", *json,
                      "Print JSON: the commands and options for programs\nthat make menus or manuals.");
    command->footer(Footer);
}

}  // namespace Nimbrel2::Tool
