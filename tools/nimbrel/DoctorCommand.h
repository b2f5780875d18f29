// SPDX-License-Identifier: Apache-2.0
// `nimbrel doctor`: what keeps cameras from being seen or used on this computer. Main thread only.
#ifndef NIMBREL2_TOOLS_NIMBREL_DOCTORCOMMAND_H
#define NIMBREL2_TOOLS_NIMBREL_DOCTORCOMMAND_H

#include "tools/nimbrel/CommandContext.h"

namespace Nimbrel2::Tool {

void AddDoctorCommand(CLI::App& app, CommandContext& context);

}  // namespace Nimbrel2::Tool

#endif
