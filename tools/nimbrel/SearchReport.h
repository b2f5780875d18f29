// SPDX-License-Identifier: Apache-2.0
// What a search for GigE cameras did not see, in a user's words. Main thread only; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_SEARCHREPORT_H
#define NIMBREL2_TOOLS_NIMBREL_SEARCHREPORT_H

#include <string>
#include <vector>

#include "platform/Diagnostics.h"
#include "tools/nimbrel/CommandError.h"

namespace Nimbrel2::Tool {

/// What keeps the searches of this process from seeing everything; empty while nobody drives GigE.
Platform::GigESearchReport ReadSearchReport();

/// Why GigE could not be searched at all, with the names of the network interfaces.
/// @param status  What the search answered; told when no interface says more.
CommandError ExplainSearchFailure(std::uint32_t status);

/// A line for each network interface that was not searched, or in part only: what, why, and the next step.
std::vector<std::string> DescribeProblems(const Platform::GigESearchReport& report);

/// A line for each reverse path filter that may have hidden cameras from the search.
std::vector<std::string> DescribeFilters(const Platform::GigESearchReport& report);

}  // namespace Nimbrel2::Tool

#endif
