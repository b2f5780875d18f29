// SPDX-License-Identifier: Apache-2.0
// `nimbrel usb-link`: how a USB camera is connected. Main thread only; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_USBLINKCOMMAND_H
#define NIMBREL2_TOOLS_NIMBREL_USBLINKCOMMAND_H

#include "tools/nimbrel/CommandContext.h"

namespace Nimbrel2::Tool {

/// Adds the command. The context must outlive the app.
void AddUsbLinkCommand(CLI::App& app, CommandContext& context);

}  // namespace Nimbrel2::Tool

#endif
