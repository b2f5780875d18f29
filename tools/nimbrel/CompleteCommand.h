// SPDX-License-Identifier: Apache-2.0
// `nimbrel complete`, which no help shows: the scripts of shells run it. Main thread only; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_COMPLETECOMMAND_H
#define NIMBREL2_TOOLS_NIMBREL_COMPLETECOMMAND_H

#include "tools/nimbrel/CommandContext.h"

namespace Nimbrel2::Tool {

// The context must outlive the app.
void AddCompleteCommand(CLI::App& app, CommandContext& context);

}  // namespace Nimbrel2::Tool

#endif
