// SPDX-License-Identifier: Apache-2.0
// `nimbrel reset`: asks for a bus reset. Main thread only; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_RESETCOMMAND_H
#define NIMBREL2_TOOLS_NIMBREL_RESETCOMMAND_H

#include "tools/nimbrel/CommandContext.h"

namespace Nimbrel2::Tool {

/// Adds the command. The context must outlive the app.
void AddResetCommand(CLI::App& app, CommandContext& context);

}  // namespace Nimbrel2::Tool

#endif
