// SPDX-License-Identifier: Apache-2.0
// Why a bus shows nothing. Main thread only; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_BUSHEALTH_H
#define NIMBREL2_TOOLS_NIMBREL_BUSHEALTH_H

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "busmaster/BusMaster.h"

namespace Nimbrel2::Tool {

/// A HALStatus in words.
std::string DescribeStatus(std::uint32_t status);

/// To the bus master a bus that cannot be listed is one without cameras. This asks the buses themselves, those on which
/// it lists none, and returns a sentence for each that fails. What it finds meanwhile the bus master lists afterwards.
/// @param isWanted  Whether to ask the bus `1394`, `usb` or `gige`.
/// @throws CommandError with the bus master's error.
std::vector<std::string> FindFailedBuses(BusMaster& busMaster,
                                         const std::function<bool(const std::string& bus)>& isWanted);

}  // namespace Nimbrel2::Tool

#endif
