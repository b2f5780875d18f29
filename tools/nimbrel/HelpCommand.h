// SPDX-License-Identifier: Apache-2.0
// `nimbrel help`. Main thread only.
#ifndef NIMBREL2_TOOLS_NIMBREL_HELPCOMMAND_H
#define NIMBREL2_TOOLS_NIMBREL_HELPCOMMAND_H

#include "tools/nimbrel/CommandContext.h"

namespace Nimbrel2::Tool {

/// Adds the command. App and context must live while it runs.
void AddHelpCommand(CLI::App& app, CommandContext& context);

}  // namespace Nimbrel2::Tool

#endif
