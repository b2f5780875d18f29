// SPDX-License-Identifier: Apache-2.0
// `nimbrel usb-port`: the status of the port that a USB camera is plugged into. Main thread only; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_USBPORTCOMMAND_H
#define NIMBREL2_TOOLS_NIMBREL_USBPORTCOMMAND_H

#include "tools/nimbrel/CommandContext.h"

namespace Nimbrel2::Tool {

/// Adds the command. The context must outlive the app.
void AddUsbPortCommand(CLI::App& app, CommandContext& context);

}  // namespace Nimbrel2::Tool

#endif
