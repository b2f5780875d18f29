// SPDX-License-Identifier: Apache-2.0
// `nimbrel watch`. Main thread only.
#ifndef NIMBREL2_TOOLS_NIMBREL_WATCHCOMMAND_H
#define NIMBREL2_TOOLS_NIMBREL_WATCHCOMMAND_H

#include "tools/nimbrel/CommandContext.h"

namespace Nimbrel2::Tool {

/// Adds the command. The context must outlive the app.
void AddWatchCommand(CLI::App& app, CommandContext& context);

}  // namespace Nimbrel2::Tool

#endif
