// SPDX-License-Identifier: Apache-2.0
// Re-enumerates all buses. Main thread only; no lock.
#include <chrono>
#include <memory>
#include <string>

#include "tools/nimbrel/Cameras.h"
#include "tools/nimbrel/CommandError.h"
#include "tools/nimbrel/Commands.h"
#include "tools/nimbrel/ErrorTexts.h"
#include "tools/nimbrel/Progress.h"
#include "tools/nimbrel/Values.h"
#include "tools/nimbrel/Words.h"

namespace Nimbrel2::Tool {
namespace {

constexpr std::chrono::milliseconds Patience{10000};

const char Footer[] =
    R"(Enumerates all buses, then enumerates them again and waits until that is done: a
test of the buses and their drivers. Other programs are not disturbed. To see
what is attached, use `nimbrel list`, which searches by itself.

Exit status:
  0  Done.
  1  Failed, or a bus cannot be searched; standard error says why.
  2  Wrong usage; standard error names the option and the value.

JSON: {"ok":true,"value":N,"searched":[...]}; N is the number of cameras,
"searched" the buses: 1394, usb, gige.

Examples:
  nimbrel rescan
  nimbrel rescan --bus gige --interface eth1
)";

class RescanCommand {
public:
    explicit RescanCommand(CommandContext& context) : m_context(context) {}

    void AddOptions(CLI::App& command) {
        m_context.AddJsonOption(command, "Print JSON.");
        m_context.AddBusOptions(command);
    }

    int Run() {
        const BusMasterSession busMaster = m_context.StartBusMaster();
        Rescan(*busMaster);
        if (!m_context.CheckBuses(*busMaster)) {
            return ExitFailed;
        }
        const std::size_t count = ListCameras(*busMaster).size();
        const Json json{{"ok", true}, {"value", count}, {"searched", m_context.SearchedAsJson()}};
        m_context.Print(m_context.WantsJson() ? Dump(json)
                                              : "Enumerated again: " + CountOf(count, "camera") + " on " +
                                                    m_context.DescribeBuses() + ".\n");
        m_context.NoteBusesWithoutDriver("rescan");
        return ExitDone;
    }

private:
    static void Rescan(BusMaster& busMaster) {
        const Progress progress("Enumerating again");
        WaitUntilQuiet(busMaster);  // a request that finds the worker busy, as it is after the start, is ignored
        Check(busMaster.RescanBus(), "the buses cannot be enumerated again");
        WaitUntilQuiet(busMaster);
    }

    static void WaitUntilQuiet(BusMaster& busMaster) {
        if (busMaster.WaitUntilQuiet(static_cast<unsigned int>(Patience.count()))) {
            return;
        }
        throw CommandError("the enumeration did not end within " + FormatSeconds(Patience) + ": a bus driver hangs")
            .WithHint("Search one bus at a time to find it: `nimbrel rescan --bus usb`.");
    }

    CommandContext& m_context;
};

}  // namespace

void AddRescanCommand(CLI::App& app, CommandContext& context) {
    const auto rescan = std::make_shared<RescanCommand>(context);
    CLI::App* command =
        context.AddCommand(app, "rescan", "Re-enumerates all buses.", [rescan] { return rescan->Run(); });
    rescan->AddOptions(*command);
    command->footer(Footer);
}

}  // namespace Nimbrel2::Tool
