// SPDX-License-Identifier: Apache-2.0
// Which IEEE 1394 buses this user sees only in part. Describe: pure. Warn: main thread only.
#ifndef NIMBREL2_TOOLS_NIMBREL_UNSEENFIREWIRE_H
#define NIMBREL2_TOOLS_NIMBREL_UNSEENFIREWIRE_H

#include <string>
#include <vector>

#include "platform/FireWireDiagnostics.h"

namespace Nimbrel2::Tool {

/// What a command shows of a bus.
enum class Shown { Resets, Tree };

/// A sentence for each bus of which this user cannot see that.
std::vector<std::string> DescribeUnseenFireWire(const Platform::FireWireDiagnosis& diagnosis, Shown shown);

/// The same on standard error, for the buses that the driver drives. The HAL must be running.
void WarnOfUnseenFireWire(Shown shown);

}  // namespace Nimbrel2::Tool

#endif
