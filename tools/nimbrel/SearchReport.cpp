// SPDX-License-Identifier: Apache-2.0
// Words for the report of a search. Pure.
#include "tools/nimbrel/SearchReport.h"

#include "tools/nimbrel/Text.h"

namespace Nimbrel2::Tool {
namespace {

using Platform::GigESearchProblem;

std::string WhatIsMissing(const GigESearchProblem& problem) {
    const std::string name = problem.interfaceName.empty() ? "GigE" : ForTerminal(problem.interfaceName);
    const bool inPart =
        problem.kind == GigESearchProblem::Kind::Request || problem.kind == GigESearchProblem::Kind::SourcePorts;
    return name + (inPart ? " is searched in part" : " is not searched");
}

std::string NextStepFor(GigESearchProblem::Kind kind) {
    if (kind == GigESearchProblem::Kind::SourcePorts) {
        return "give --source-port a wider range";
    }
    return "`nimbrel doctor` finds out why";
}

}  // namespace

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
