// SPDX-License-Identifier: Apache-2.0
// `nimbrel doctor`: examines each bus, runs its checks and prints what they found. Main thread only; no lock.
#include "tools/nimbrel/DoctorCommand.h"

#include <algorithm>
#include <memory>
#include <string>

#include "tools/nimbrel/Cameras.h"
#include "tools/nimbrel/Progress.h"
#include "tools/nimbrel/Text.h"
#include "tools/nimbrel/doctor/FireWireChecks.h"
#include "tools/nimbrel/doctor/GigEChecks.h"
#include "tools/nimbrel/doctor/UsbChecks.h"

namespace Nimbrel2::Tool {
namespace {

using Doctor::Finding;
using Doctor::Findings;

const char kFooter[] =
    R"help(It changes nothing: each finding comes with the command that cures it. Root may see
more (what a firewall drops, and its rules); what could not be checked is said.

Exit status:
  0  Nothing is wrong.
  1  Something is, or it failed; standard error says why it failed.
  2  Wrong usage; standard error names the option and the value.

JSON: [{"check","ok","evidence","cure"}]; "cure" is empty when "ok" is true.

Examples:
  nimbrel doctor                       what is wrong, and what cures it
  nimbrel doctor --interface eth1      on that network only
  nimbrel doctor --bus 1394            IEEE 1394 only; watches the buses for 5 s
  nimbrel doctor --json | jq -r '.[] | select(.ok | not) | .cure'
)help";

template <class Diagnosed>
void Run(const std::vector<Doctor::Check<Diagnosed>>& checks, const Diagnosed& diagnosed, Findings* all) {
    for (const auto check : checks) {
        const Findings findings = check(diagnosed);
        all->insert(all->end(), findings.begin(), findings.end());
    }
}

int RunDoctor(CommandContext& context) {
    Findings findings;
    const auto filteredBefore = Doctor::ReadFilteredPackets();
    const BusMasterSession busMaster = context.StartBusMaster();
    const bool isSimulated = context.GetRig() != nullptr;
    if (context.UsesBus("1394")) {
        const Progress progress("Examining IEEE 1394");
        Run(Doctor::FireWireChecks(), Doctor::ExamineFireWire(isSimulated), &findings);
    }
    if (context.UsesBus("usb")) Run(Doctor::UsbChecks(), Doctor::ExamineUsb(), &findings);
    if (context.UsesBus("gige")) {
        const Progress progress("Examining the network");
        Run(Doctor::GigEChecks(), Doctor::ExamineGigE(isSimulated, filteredBefore), &findings);
    }
    const auto numWrong = std::count_if(findings.begin(), findings.end(), [](const Finding& f) { return !f.ok; });
    if (context.WantsJson()) {
        Json json = Json::array();
        for (const Finding& finding : findings) {
            json.push_back(
                {{"check", finding.check}, {"ok", finding.ok}, {"evidence", finding.evidence}, {"cure", finding.cure}});
        }
        context.Print(Dump(json, 2));
    } else {
        std::string text;
        for (const Finding& finding : findings) {
            text += std::string(finding.ok ? "ok     " : "WRONG  ") + finding.check + "\n";
            text += "       " + ForTerminal(finding.evidence) + "\n";
            if (!finding.cure.empty()) text += "       cure: " + ForTerminal(finding.cure) + "\n";
        }
        if (findings.empty())
            text = "There are no checks for " + context.DescribeBuses() + " yet.";
        else if (numWrong == 0)
            text += "\nNothing is wrong.";
        else
            text += "\n" + std::to_string(numWrong) + (numWrong == 1 ? " thing is wrong." : " things are wrong.");
        context.Print(text + "\n");
    }
    return numWrong == 0 ? kDone : kFailed;
}

}  // namespace

void AddDoctorCommand(CLI::App& app, CommandContext& context) {
    CLI::App* command = context.AddCommand(app, "doctor", "Finds out why cameras cannot be seen or used.",
                                           [&context] { return RunDoctor(context); });
    context.AddJsonOption(*command, "Print one JSON document.");
    context.AddBusOptions(*command);
    command->footer(kFooter);
}

}  // namespace Nimbrel2::Tool
