// SPDX-License-Identifier: Apache-2.0
// `nimbrel discover`: every GigE camera on the wire. Main thread only; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_DISCOVERCOMMAND_H
#define NIMBREL2_TOOLS_NIMBREL_DISCOVERCOMMAND_H

#include "tools/nimbrel/CommandContext.h"

namespace Nimbrel2::Tool {

/// Adds the command. The context must outlive the app.
void AddDiscoverCommand(CLI::App& app, CommandContext& context);

}  // namespace Nimbrel2::Tool

#endif
