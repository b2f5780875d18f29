// SPDX-License-Identifier: Apache-2.0
// Listings have room for so many cameras of a bus; what is attached beyond that is not listed. Any thread; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_CAPACITY_H
#define NIMBREL2_TOOLS_NIMBREL_CAPACITY_H

#include <string>
#include <vector>

#include "tools/nimbrel/Cameras.h"

namespace Nimbrel2::Tool {

/// A sentence for each bus on which more cameras are attached than were listed: "128 of 140 GigE cameras are listed,
/// which is as many as there is room for."
std::vector<std::string> FindCutListings(const std::vector<Camera>& listed);

}  // namespace Nimbrel2::Tool

#endif
