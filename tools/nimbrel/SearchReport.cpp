// SPDX-License-Identifier: Apache-2.0
// Words for the report of a search. Main thread only; no lock.
#include "tools/nimbrel/SearchReport.h"

#include "tools/nimbrel/ErrorTexts.h"
#include "tools/nimbrel/Text.h"

namespace Nimbrel2::Tool {
namespace {

using Platform::GigESearchProblem;

std::string WhatIsMissing(const GigESearchProblem& problem) {
    const std::string name = problem.interfaceName.empty() ? "GigE" : ForTerminal(problem.interfaceName);
    return name + (problem.inPart ? " is searched in part" : " is not searched");
}

std::string NextStepFor(GigESearchProblem::Kind kind) {
    if (kind == GigESearchProblem::Kind::SourcePorts) {
        return "give --source-port a wider range";
    }
    return "`nimbrel doctor` finds out why";
}

}  // namespace

Platform::GigESearchReport ReadSearchReport() {
    Platform::GigESearchReport report;
    if (Platform::GetGigESearchReport(&report) != HAL_OK) {
        return {};
    }
    return report;
}

CommandError ExplainSearchFailure(std::uint32_t status) {
    std::string reasons;
    for (const GigESearchProblem& problem : ReadSearchReport().problems) {
        const std::string name = problem.interfaceName.empty() ? "" : ForTerminal(problem.interfaceName) + ": ";
        reasons += (reasons.empty() ? "" : "; ") + name + problem.reason;
    }
    if (reasons.empty()) {
        return CommandError("GigE cannot be searched: " + DescribeStatus(status))
            .WithHint(NextStep(status, INTERFACE_GIGE));
    }
    return CommandError("GigE cannot be searched: " + reasons).WithHint("`nimbrel doctor` finds out why.");
}

std::vector<std::string> DescribeProblems(const Platform::GigESearchReport& report) {
    std::vector<std::string> lines;
    for (const GigESearchProblem& problem : report.problems) {
        lines.push_back(WhatIsMissing(problem) + ": " + problem.reason + "; " + NextStepFor(problem.kind));
    }
    return lines;
}

std::vector<std::string> DescribeFilters(const Platform::GigESearchReport& report) {
    std::vector<std::string> lines;
    for (const Platform::FilteredInterface& interface : report.filtered) {
        if (!report.MayHideCameras(interface)) {
            continue;
        }
        lines.push_back("cameras on other subnets may be hidden: the reverse path filter of " +
                        ForTerminal(interface.interfaceName) + " (rp_filter " + std::to_string(interface.rpFilter) +
                        ") drops their answers; `nimbrel doctor` explains");
    }
    return lines;
}

}  // namespace Nimbrel2::Tool
