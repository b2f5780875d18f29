// SPDX-License-Identifier: Apache-2.0
// Has the bus master enumerate all buses again. Main thread only; no lock.
#include "tools/nimbrel/RescanCommand.h"

#include <chrono>
#include <memory>
#include <string>

#include "tools/nimbrel/Cameras.h"
#include "tools/nimbrel/CommandError.h"
#include "tools/nimbrel/Progress.h"
#include "tools/nimbrel/Values.h"

namespace Nimbrel2::Tool {
namespace {

constexpr std::chrono::milliseconds kPatience{10000};

const char kFooter[] =
    R"(Lists everything, as every command does, has it enumerated once more, and waits
until that is over. Other programs are not touched. To see what the second look
has found, use `nimbrel list`, which looks by itself.

Exit status:
  0  Done.
  1  It failed, or a bus cannot be searched; standard error says why.
  2  Wrong usage; standard error names the option and the value.

JSON: {"ok":true,"value":N}, with how many cameras there are.

Examples:
  nimbrel rescan
  nimbrel rescan --bus gige --interface eth1
)";

class RescanCommand {
public:
    explicit RescanCommand(CommandContext& context) : m_context(context) {}

    void AddOptions(CLI::App& command) {
        m_context.AddJsonOption(command, "Print one JSON document.");
        m_context.AddBusOptions(command);
    }

    int Run() {
        const BusMasterSession busMaster = m_context.StartBusMaster();
        Rescan(*busMaster);
        if (!m_context.CheckBuses(*busMaster)) return kFailed;
        const std::size_t count = ListCameras(*busMaster).size();
        m_context.Print(m_context.WantsJson()
                            ? Dump({{"ok", true}, {"value", count}})
                            : "Enumerated again: " + std::to_string(count) + (count == 1 ? " camera" : " cameras") +
                                  " on " + m_context.DescribeBuses() + ".\n");
        return kDone;
    }

private:
    static void Rescan(BusMaster& busMaster) {
        const Progress progress("Enumerating again");
        WaitUntilQuiet(busMaster);  // a request that finds the worker busy, as it is after the start, is lost
        Check(busMaster.RescanBus());
        WaitUntilQuiet(busMaster);
    }

    static void WaitUntilQuiet(BusMaster& busMaster) {
        if (busMaster.WaitUntilQuiet(static_cast<unsigned int>(kPatience.count()))) return;
        throw CommandError("the enumeration was not over after " + FormatSeconds(kPatience));
    }

    CommandContext& m_context;
};

}  // namespace

void AddRescanCommand(CLI::App& app, CommandContext& context) {
    const auto rescan = std::make_shared<RescanCommand>(context);
    CLI::App* command =
        context.AddCommand(app, "rescan", "Has all buses enumerated again.", [rescan] { return rescan->Run(); });
    rescan->AddOptions(*command);
    command->footer(kFooter);
}

}  // namespace Nimbrel2::Tool
