// SPDX-License-Identifier: Apache-2.0
// `nimbrel auto-ip`: gives addresses to GigE cameras on wrong subnets. Main thread only; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_AUTOIPCOMMAND_H
#define NIMBREL2_TOOLS_NIMBREL_AUTOIPCOMMAND_H

#include "tools/nimbrel/CommandContext.h"

namespace Nimbrel2::Tool {

/// Adds the command. The context must outlive the app.
void AddAutoIpCommand(CLI::App& app, CommandContext& context);

}  // namespace Nimbrel2::Tool

#endif
