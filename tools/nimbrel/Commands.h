// SPDX-License-Identifier: Apache-2.0
// The commands. Each function adds one, from the source file of its name, with its options and help. Main thread only.
#ifndef NIMBREL2_TOOLS_NIMBREL_COMMANDS_H
#define NIMBREL2_TOOLS_NIMBREL_COMMANDS_H

#include "tools/nimbrel/CommandContext.h"

namespace Nimbrel2::Tool {

// The context must outlive the app.
void AddAutoIpCommand(CLI::App& app, CommandContext& context);
void AddControlCommand(CLI::App& app, CommandContext& context);
void AddDiscoverCommand(CLI::App& app, CommandContext& context);
void AddDoctorCommand(CLI::App& app, CommandContext& context);
void AddForceIpCommand(CLI::App& app, CommandContext& context);
void AddHelpCommand(CLI::App& app, CommandContext& context);
void AddListCommand(CLI::App& app, CommandContext& context);
void AddPhyCommand(CLI::App& app, CommandContext& context);
void AddRescanCommand(CLI::App& app, CommandContext& context);
void AddResetCommand(CLI::App& app, CommandContext& context);
void AddRigCommand(CLI::App& app, CommandContext& context);
void AddSimulateCommand(CLI::App& app, CommandContext& context);
void AddTopologyCommand(CLI::App& app, CommandContext& context);
void AddUsbLinkCommand(CLI::App& app, CommandContext& context);
void AddUsbPortCommand(CLI::App& app, CommandContext& context);
void AddWatchCommand(CLI::App& app, CommandContext& context);

}  // namespace Nimbrel2::Tool

#endif
