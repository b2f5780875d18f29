// SPDX-License-Identifier: Apache-2.0
// `nimbrel doctor`: examines each bus, runs its checks and prints what they found. Main thread only; no lock.
#include <algorithm>
#include <optional>
#include <string>

#include "tools/nimbrel/Cameras.h"
#include "tools/nimbrel/Commands.h"
#include "tools/nimbrel/Locations.h"
#include "tools/nimbrel/OwnCommand.h"
#include "tools/nimbrel/Progress.h"
#include "tools/nimbrel/Text.h"
#include "tools/nimbrel/Words.h"
#include "tools/nimbrel/doctor/CameraChecks.h"
#include "tools/nimbrel/doctor/FireWireChecks.h"
#include "tools/nimbrel/doctor/GigEChecks.h"
#include "tools/nimbrel/doctor/InstalledFiles.h"
#include "tools/nimbrel/doctor/UsbChecks.h"

namespace Nimbrel2::Tool {
namespace {

using Doctor::Finding;
using Doctor::Findings;

const char Footer[] =
    R"help(Changes nothing: each finding comes with the command that cures it. Root may see
more (the rules of a firewall and what they drop). What could not be checked is
said. Buses of IEEE 1394 are watched for 5 s.

Exit status:
  0  Nothing is wrong.
  1  Something is, or the command failed; standard error says why it failed.
  2  Wrong usage; standard error names the option and the value.

JSON: {"findings":[{"check","ok","evidence","cure"}]}; "cure" is a command for a
POSIX shell, or a comment where only a person can help; empty when "ok" is true.

Examples:
  nimbrel doctor                       what is wrong, and what cures it
  nimbrel doctor --interface eth1      on that network only
  nimbrel doctor --json | jq -r '.findings[] | select(.ok | not) | .cure'
)help";

template <class Diagnosed>
void Run(const std::vector<Doctor::Check<Diagnosed>>& checks, const Diagnosed& diagnosed, Findings* all) {
    for (const auto check : checks) {
        const Findings findings = check(diagnosed);
        all->insert(all->end(), findings.begin(), findings.end());
    }
}

// A build without a driver is no fault of the computer.
void AddMissingDrivers(const CommandContext& context, Findings* all) {
    for (const BusKind& bus : BusKinds()) {
        if (!context.UsesBus(bus.name) || context.IsSearched(bus)) {
            continue;
        }
        all->push_back(
            {std::string(bus.name) + ".driver", true,
             std::string("this build of nimbrel has no driver for ") + bus.forPeople + ", so it is not searched", ""});
    }
}

void AddFailedBuses(const CommandContext& context, BusMaster& busMaster, Findings* all) {
    // The checks of GigE name the cause themselves.
    const auto isAsked = [&context](const BusKind& bus) {
        return bus.type != HAL_INTERFACE_GIGE && context.UsesBus(bus.name);
    };
    for (const BusFailure& failure : FindFailedBuses(busMaster, isAsked)) {
        const std::string check = std::string(failure.bus.name) + ".driver";
        const bool isNamed = std::any_of(all->begin(), all->end(), [&check](const Finding& finding) {
            return !finding.ok && finding.check == check;
        });
        if (isNamed) {
            continue;
        }
        all->push_back({check, false, failure.Describe(), SudoNimbrel() + " doctor --bus " + failure.bus.name});
    }
}

Findings Examine(CommandContext& context) {
    Findings findings;
    const auto filteredBefore = Doctor::ReadFilteredPackets();
    const BusMasterSession busMaster = context.StartBusMaster();
    const bool isSimulated = context.GetRig() != nullptr;
    const Progress progress("Examining the buses");
    AddMissingDrivers(context, &findings);
    if (context.UsesBus("1394")) {
        Run(Doctor::FireWireChecks(), Doctor::ExamineFireWire(isSimulated), &findings);
    }
    if (context.UsesBus("usb")) {
        Run(Doctor::UsbChecks(), Doctor::ExamineUsb(), &findings);
    }
    AddFailedBuses(context, *busMaster, &findings);
    if (context.UsesBus("gige")) {
        Run(Doctor::GigEChecks(), Doctor::ExamineGigE(isSimulated, filteredBefore), &findings);
    }
    std::vector<Camera> cameras = ListCameras(*busMaster);
    AddLocations(ReadBusMaps(), &cameras);
    Run<std::vector<Camera>>({Doctor::CheckGuids, Doctor::CheckSerialNumbers}, cameras, &findings);
    return findings;
}

std::string AsJson(const Findings& findings) {
    Json json{{"findings", Json::array()}};
    for (const Finding& finding : findings) {
        json["findings"].push_back(
            {{"check", finding.check}, {"ok", finding.ok}, {"evidence", finding.evidence}, {"cure", finding.cure}});
    }
    return Dump(json, 2);
}

std::string ForPeople(const Findings& findings, std::size_t numWrong, bool coloured) {
    std::string text;
    for (const Finding& finding : findings) {
        text += (finding.ok ? Paint("ok", Colour::Green, coloured) + "     "
                            : Paint("WRONG", Colour::Red, coloured) + "  ") +
                finding.check + "\n";
        text += "       " + ForTerminal(finding.evidence) + "\n";
        if (!finding.cure.empty()) {
            text += "       cure: " + ForTerminal(finding.cure) + "\n";
        }
    }
    text += findings.empty() ? "" : "\n";
    return text + (numWrong == 0 ? "Nothing is wrong.\n"
                                 : CountOf(numWrong, "thing") + (numWrong == 1 ? " is wrong.\n" : " are wrong.\n"));
}

// What `sysctl -w` sets is gone after the next start.
std::string HowToKeepSettings(const Findings& findings) {
    const bool anySetting = std::any_of(findings.begin(), findings.end(), [](const Finding& finding) {
        return finding.cure.find("sysctl -w") != std::string::npos;
    });
    if (!anySetting) {
        return {};
    }
    return "Settings made by sysctl are lost at the next start; to keep them, copy " +
           Doctor::FindInstalledFile("sysctl.d/60-nimbrel2.conf") + " to /etc/sysctl.d and edit it.\n";
}

int RunDoctor(CommandContext& context) {
    const Findings findings = Examine(context);
    const auto numWrong = static_cast<std::size_t>(
        std::count_if(findings.begin(), findings.end(), [](const Finding& finding) { return !finding.ok; }));
    context.Print(context.WantsJson()
                      ? AsJson(findings)
                      : ForPeople(findings, numWrong, context.UsesColour()) + HowToKeepSettings(findings));
    return numWrong == 0 ? ExitDone : ExitFailed;
}

}  // namespace

void AddDoctorCommand(CLI::App& app, CommandContext& context) {
    CLI::App* command = context.AddCommand(app, "doctor", "Finds what keeps cameras from being seen or used.",
                                           [&context] { return RunDoctor(context); });
    context.AddJsonOption(*command, "Print JSON.");
    context.AddBusOptions(*command);
    command->footer(Footer);
}

}  // namespace Nimbrel2::Tool
