// SPDX-License-Identifier: Apache-2.0
#ifndef NIMBREL2_TOOLS_NIMBREL_RIGCOMMAND_H
#define NIMBREL2_TOOLS_NIMBREL_RIGCOMMAND_H

#include "tools/nimbrel/CommandContext.h"

namespace Nimbrel2::Tool {

/// `nimbrel rig check|play|schema|demo`.
void AddRigCommand(CLI::App& app, CommandContext& context);

}  // namespace Nimbrel2::Tool

#endif
