// SPDX-License-Identifier: Apache-2.0
// `nimbrel phy`: reads and writes PHY registers of IEEE 1394 nodes. Main thread only; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_PHYCOMMAND_H
#define NIMBREL2_TOOLS_NIMBREL_PHYCOMMAND_H

#include "tools/nimbrel/CommandContext.h"

namespace Nimbrel2::Tool {

/// Adds the command. The context must outlive the app.
void AddPhyCommand(CLI::App& app, CommandContext& context);

}  // namespace Nimbrel2::Tool

#endif
