// SPDX-License-Identifier: Apache-2.0
// `nimbrel topology`. Main thread only.
#ifndef NIMBREL2_TOOLS_NIMBREL_TOPOLOGYCOMMAND_H
#define NIMBREL2_TOOLS_NIMBREL_TOPOLOGYCOMMAND_H

#include "tools/nimbrel/CommandContext.h"

namespace Nimbrel2::Tool {

/// Adds the command. The context must outlive the app.
void AddTopologyCommand(CLI::App& app, CommandContext& context);

}  // namespace Nimbrel2::Tool

#endif
