// SPDX-License-Identifier: Apache-2.0
// Errors of the bus master and statuses of the HAL in a user's words. Pure.
#ifndef NIMBREL2_TOOLS_NIMBREL_ERRORTEXTS_H
#define NIMBREL2_TOOLS_NIMBREL_ERRORTEXTS_H

#include <cstdint>
#include <optional>
#include <string>

#include "common/Error.h"
#include "common/InterfaceType.h"
#include "tools/nimbrel/CommandError.h"

namespace Nimbrel2::Tool {

/// A HALStatus as the reason of a sentence: "no permission", "no answer in time".
std::string DescribeStatus(std::uint32_t status);

/// The HALStatus at the end of an error's message, or of one of its causes'.
std::optional<std::uint32_t> FindStatus(const Error& error);

/// Why, without the places and numbers that only developers read.
std::string DescribeCause(const Error& error);

/// Of a camera that is asked for a name and tells none: "does not name", or "did not name: " and what kept it.
std::string WhyNotNamed(std::uint32_t status);

/// What a user can do about a status on that bus: a sentence with a command, or nothing.
std::string NextStep(std::uint32_t status, InterfaceType bus);

/// "WHAT: CAUSE", with the chain of errors as details and the next step on that bus.
CommandError Explain(const Error& error, const std::string& what, InterfaceType bus = INTERFACE_NONE);

/// @throws CommandError as Explain makes it, unless the error is ERROR_OK.
void Check(const Error& error, const std::string& what);

/// "IEEE 1394", "USB 2", "USB 3" or "GigE".
std::string BusName(InterfaceType type);

}  // namespace Nimbrel2::Tool

#endif
