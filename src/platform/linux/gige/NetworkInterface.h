// SPDX-License-Identifier: Apache-2.0
// Which network interfaces GigE uses. Pure functions; any thread.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_NETWORKINTERFACE_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_NETWORKINTERFACE_H

#include <string>
#include <vector>

#include "platform/Diagnostics.h"

namespace Nimbrel2::Platform::GigE {

/// Why cameras are not looked for on an interface; empty when they are.
/// @param wanted  The names that the user has limited GigE to; empty for no limit.
std::string ReasonNotUsed(const NetworkInterface& interface, const std::vector<std::string>& wanted);

/// Whether the interface could be used if only it were up: it keeps its socket, and so its local port, meanwhile.
bool IsEligible(const NetworkInterface& interface, const std::vector<std::string>& wanted);

}  // namespace Nimbrel2::Platform::GigE

#endif
