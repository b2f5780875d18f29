// SPDX-License-Identifier: Apache-2.0
// `nimbrel simulate`. Main thread only; the simulated network has a thread of its own.
#ifndef NIMBREL2_TOOLS_NIMBREL_SIMULATECOMMAND_H
#define NIMBREL2_TOOLS_NIMBREL_SIMULATECOMMAND_H

#include "tools/nimbrel/CommandContext.h"

namespace Nimbrel2::Tool {

/// Adds the command. The context must outlive the app.
void AddSimulateCommand(CLI::App& app, CommandContext& context);

}  // namespace Nimbrel2::Tool

#endif
