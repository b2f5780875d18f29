// SPDX-License-Identifier: Apache-2.0
// `nimbrel control`: whether this computer may control a GigE camera. Main thread only; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_CONTROLCOMMAND_H
#define NIMBREL2_TOOLS_NIMBREL_CONTROLCOMMAND_H

#include "tools/nimbrel/CommandContext.h"

namespace Nimbrel2::Tool {

/// Adds the command. The context must outlive the app.
void AddControlCommand(CLI::App& app, CommandContext& context);

}  // namespace Nimbrel2::Tool

#endif
