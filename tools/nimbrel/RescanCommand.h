// SPDX-License-Identifier: Apache-2.0
// `nimbrel rescan`: has all buses enumerated again. Main thread only; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_RESCANCOMMAND_H
#define NIMBREL2_TOOLS_NIMBREL_RESCANCOMMAND_H

#include "tools/nimbrel/CommandContext.h"

namespace Nimbrel2::Tool {

/// Adds the command. The context must outlive the app.
void AddRescanCommand(CLI::App& app, CommandContext& context);

}  // namespace Nimbrel2::Tool

#endif
