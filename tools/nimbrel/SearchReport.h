// SPDX-License-Identifier: Apache-2.0
// What a search for GigE cameras did not see, in a user's words. Pure.
#ifndef NIMBREL2_TOOLS_NIMBREL_SEARCHREPORT_H
#define NIMBREL2_TOOLS_NIMBREL_SEARCHREPORT_H

#include <string>
#include <vector>

#include "platform/Diagnostics.h"

namespace Nimbrel2::Tool {

/// A line for each network interface that was not searched, or in part only: what, why, and the next step.
std::vector<std::string> DescribeProblems(const Platform::GigESearchReport& report);

/// A line for each reverse path filter that may have hidden cameras from the search.
std::vector<std::string> DescribeFilters(const Platform::GigESearchReport& report);

}  // namespace Nimbrel2::Tool

#endif
