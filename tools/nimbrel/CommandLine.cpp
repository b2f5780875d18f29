// SPDX-License-Identifier: Apache-2.0
// Reads the declarations of commands and options. Pure.
#include "tools/nimbrel/CommandLine.h"

#include <algorithm>

namespace Nimbrel2::Tool {
namespace {

Json DescribeOption(const CLI::Option& option) {
    Json json;
    Json& names = json["names"] = Json::array();
    for (const std::string& name : option.get_snames()) {
        names.push_back("-" + name);
    }
    for (const std::string& name : option.get_lnames()) {
        names.push_back("--" + name);
    }
    if (TakesValue(option)) {
        json["value"] = PlaceholderOf(option);
    }
    json["description"] = DescriptionOf(option);
    return json;
}

Json DescribeArgument(const CLI::Option& argument) {
    return {{"name", argument.get_name()},
            {"required", argument.get_required()},
            {"repeatable", argument.get_items_expected_max() > 1},
            {"description", DescriptionOf(argument)}};
}

}  // namespace

std::vector<const CLI::App*> ShownCommands(const CLI::App& command) {
    return command.get_subcommands([](const CLI::App* below) { return !below->get_group().empty(); });
}

const CLI::App* FindCommand(const CLI::App& above, const std::string& name) {
    const std::vector<const CLI::App*> commands = ShownCommands(above);
    const auto found = std::find_if(commands.begin(), commands.end(),
                                    [&name](const CLI::App* command) { return command->check_name(name); });
    return found == commands.end() ? nullptr : *found;
}

const CLI::Option* FindOption(const CLI::App& command, const std::string& name) {
    const CLI::Option* option = command.get_option_no_throw(name);
    return option != nullptr && option->nonpositional() ? option : nullptr;
}

std::vector<const CLI::Option*> PositionalsOf(const CLI::App& command) {
    return command.get_options([](const CLI::Option* option) { return option->get_positional(); });
}

bool TakesValue(const CLI::Option& option) { return option.get_expected_max() != 0; }

std::string PlaceholderOf(const CLI::Option& option) { return TakesValue(option) ? option.get_type_name() : ""; }

std::string DescriptionOf(const CLI::Option& option) {
    std::string text = option.get_description();
    std::replace(text.begin(), text.end(), '\n', ' ');
    return text;
}

Json DescribeCommand(const CLI::App& command) {
    Json json{{"name", command.get_name()}, {"description", command.get_description()}};
    Json& options = json["options"] = Json::array();
    Json& arguments = json["arguments"] = Json::array();
    for (const CLI::Option* option : command.get_options()) {
        if (option->get_positional()) {
            arguments.push_back(DescribeArgument(*option));
        } else {
            options.push_back(DescribeOption(*option));
        }
    }
    Json& commands = json["commands"] = Json::array();
    for (const CLI::App* below : ShownCommands(command)) {
        commands.push_back(DescribeCommand(*below));
    }
    json["more"] = command.get_footer();
    return json;
}

}  // namespace Nimbrel2::Tool
