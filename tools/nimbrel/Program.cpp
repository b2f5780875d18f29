// SPDX-License-Identifier: Apache-2.0
// Declares the commands, parses the command line and turns failures into messages and exit statuses. Main thread only.
#include "tools/nimbrel/Program.h"

#include <CLI/CLI.hpp>
#include <exception>
#include <memory>
#include <optional>
#include <sstream>
#include <string>
#include <utility>

#include "tools/nimbrel/CommandContext.h"
#include "tools/nimbrel/CommandError.h"
#include "tools/nimbrel/Commands.h"
#include "tools/nimbrel/CompleteCommand.h"
#include "tools/nimbrel/Interrupts.h"
#include "tools/nimbrel/Output.h"
#include "tools/nimbrel/OwnCommand.h"
#include "tools/nimbrel/Text.h"
#include "tools/nimbrel/TraceLog.h"
#include "tools/nimbrel/UsageErrors.h"
#include "tools/nimbrel/Words.h"

namespace Nimbrel2::Tool {
namespace {

const char DescriptionText[] = "Finds and watches machine-vision cameras on IEEE 1394, USB and GigE.";

const char Footer[] =
    R"(`nimbrel help COMMAND` explains a command.

Exit status:
  0  Done.
  1  The operation failed; standard error says why.
  2  Wrong usage; standard error names the option and the value.

Examples:
  nimbrel list                    what is attached
  nimbrel topology                how it is connected
  nimbrel topology --demo         the same on the built-in simulated computer
  nimbrel list --interface lo     on loopback, where simulated cameras live
  nimbrel watch --json            what happens, for a program to read
  nimbrel doctor                  why a camera does not show
)";

const char BusOptions[] = "Options of the commands that look at the buses, before or after the command";

// The user's own words, as a shell takes them, run by root.
std::string AgainAsRoot(int argc, const char* const* argv) {
    std::string line = SudoNimbrel();
    for (int i = 1; i < argc; ++i) {
        line += " " + QuoteForShell(argv[i]);
    }
    return line;
}

// One empty line between two groups of options, where CLI11 writes two.
class HelpFormatter : public CLI::Formatter {
public:
    std::string make_help(const CLI::App* app, std::string name, CLI::AppFormatMode mode) const override {
        std::string text = CLI::Formatter::make_help(app, std::move(name), mode);
        for (std::size_t at = text.find("\n\n\n"); at != std::string::npos; at = text.find("\n\n\n", at)) {
            text.erase(at, 1);
        }
        return text;
    }
};

// A line of the trace for each line of the text.
void TraceLines(const std::string& text) {
    std::istringstream lines(text);
    for (std::string line; std::getline(lines, line);) {
        TraceLog::Write(line);
    }
}

int ReportError(const CLI::App& app, const CommandError& error, const std::string& againAsRoot = "") {
    const std::string name = CommandName(app);
    std::string hint = error.GetHint();
    if (const std::size_t at = hint.find(AgainAsRootMark); at != std::string::npos) {
        hint.replace(at, sizeof AgainAsRootMark - 1, againAsRoot);
    }
    if (hint.empty() && error.GetStatus() == ExitUsage) {
        hint = "Try `" + name + " --help`.";
    }
    TraceLines("exit status " + std::to_string(error.GetStatus()) + ": " + error.what());
    TraceLines(error.GetDetails());
    WriteError(name + ": " + error.what() + "\n" + (hint.empty() ? "" : hint + "\n"));
    return error.GetStatus();
}

// What the library traces, for every command, before its name or after it.
struct LogOptions {
    bool verbose = false;
    std::optional<std::string> file;
};

void AddLogOptions(CLI::App& app, LogOptions& options) {
    app.add_flag("-v,--verbose", options.verbose, "Print what the library does to standard error.");
    CommandContext::AddValue(app, "--log", "FILE",
                             "Append what the library does to this file, with\ntime and thread: good for bug reports.",
                             [&options](const std::string& file) {
                                 if (options.file && *options.file != file) {
                                     throw CommandError("--log: two different files are given", ExitUsage);
                                 }
                                 options.file = file;
                             });
    for (CLI::App* command : app.get_subcommands([](CLI::App*) { return true; })) {
        AddLogOptions(*command, options);
    }
}

void StartLog(const LogOptions& options, int argc, const char* const* argv) {
    if (options.verbose) {
        TraceLog::ToStandardError();
    }
    if (options.file) {
        TraceLog::ToFile(*options.file);
    }
    std::string line = "nimbrel " NIMBREL2_VERSION ":";
    for (int i = 1; i < argc; ++i) {
        line += std::string(" ") + argv[i];
    }
    TraceLog::Write(line);
}

void Declare(CLI::App& app, CommandContext& context, LogOptions& log) {
    app.set_version_flag("-V,--version", std::string("nimbrel ") + NIMBREL2_VERSION, "Print the version and end.");
    app.set_help_flag("-h,--help", "Print this help and end.");
    app.require_subcommand(0, 1);  // a missing command is found below, where a misspelt one can be named
    app.footer(Footer);
    const auto formatter = std::make_shared<HelpFormatter>();
    formatter->column_width(29);
    app.formatter(formatter);
    AddListCommand(app, context);
    AddWatchCommand(app, context);
    AddTopologyCommand(app, context);
    AddDiscoverCommand(app, context);
    AddForceIpCommand(app, context);
    AddAutoIpCommand(app, context);
    AddControlCommand(app, context);
    AddResetCommand(app, context);
    AddPhyCommand(app, context);
    AddUsbLinkCommand(app, context);
    AddUsbPortCommand(app, context);
    AddRescanCommand(app, context);
    AddDoctorCommand(app, context);
    AddRigCommand(app, context);
    AddSimulateCommand(app, context);
    AddHelpCommand(app, context);
    AddCompleteCommand(app, context);
    // They may stand before the command as well. After the commands, which would inherit the group.
    app.option_defaults()->group(BusOptions);
    context.AddBusOptions(app);
    app.option_defaults()->group("Options");
    AddLogOptions(app, log);
}

// Refuses an option in front of a command that does not have it: it would be ignored.
void CheckBusOptions(const CLI::App& app) {
    const CLI::App& command = ChosenCommand(app);
    for (const CLI::Option* option : app.get_options()) {
        if (option->get_group() != BusOptions || option->count() == 0) {
            continue;
        }
        if (command.get_option_no_throw(option->get_name()) == nullptr) {
            throw CommandError(option->get_name() + ": `" + CommandName(app) + "` does not look at the buses",
                               ExitUsage);
        }
    }
}

int Run(CLI::App& app, CommandContext& context, const LogOptions& log, int argc, const char* const* argv) {
    try {
        app.parse(argc, argv);
    } catch (const CLI::CallForHelp&) {
        if (const std::string unknown = UnknownCommandBesideHelp(app); !unknown.empty()) {
            throw CommandError(unknown, ExitUsage);
        }
        context.Print(app.help());
        return ExitDone;
    } catch (const CLI::CallForVersion&) {
        context.Print(app.version() + "\n");
        return ExitDone;
    } catch (const CLI::ParseError& error) {
        throw CommandError(DescribeParseError(app, error), ExitUsage);
    }
    if (!context.GetAction()) {
        throw CommandError("a command is missing", ExitUsage);
    }
    CheckBusOptions(app);
    StartLog(log, argc, argv);
    return context.GetAction()();
}

}  // namespace

namespace {

int RunCommandLine(int argc, const char* const* argv) {
    CLI::App app(DescriptionText, "nimbrel");
    try {
        UseLocaleOfUser();
        CommandContext context;
        LogOptions log;
        Declare(app, context, log);
        const int status = Run(app, context, log, argc, argv);
        TraceLog::Write("exit status " + std::to_string(status));
        return status;
    } catch (const CommandError& error) {
        return ReportError(app, error, AgainAsRoot(argc, argv));
    } catch (const std::exception& error) {
        return ReportError(app, CommandError(error.what()));
    }
}

}  // namespace

int RunProgram(int argc, const char* const* argv) {
    KeepStandardDescriptors();
    Interrupts::Install();
    const int status = RunCommandLine(argc, argv);
    if (status != 0 && status == Interrupts::GetExitStatus()) {
        Interrupts::EndBySignal();
    }
    return status;
}

}  // namespace Nimbrel2::Tool
