// SPDX-License-Identifier: Apache-2.0
// `nimbrel force-ip`: gives a GigE camera an address. Main thread only; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_FORCEIPCOMMAND_H
#define NIMBREL2_TOOLS_NIMBREL_FORCEIPCOMMAND_H

#include "tools/nimbrel/CommandContext.h"

namespace Nimbrel2::Tool {

/// Adds the command. The context must outlive the app.
void AddForceIpCommand(CLI::App& app, CommandContext& context);

}  // namespace Nimbrel2::Tool

#endif
