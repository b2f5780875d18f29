// SPDX-License-Identifier: Apache-2.0
// Asks for a bus reset through one camera. Main thread only; no lock.
#include "tools/nimbrel/ResetCommand.h"

#include "tools/nimbrel/CameraArgument.h"

namespace Nimbrel2::Tool {
namespace {

const char kFooter[] =
    R"(IEEE 1394: a bus reset, after which every node of that bus is enumerated anew.
USB: the camera's port is reset. GigE has no such thing. Applications that use
the cameras of that bus notice. The command asks and does not wait.

Exit status:
  0  The reset has been asked for.
  1  There is no such camera, or the bus refused; standard error says why.
  2  Wrong usage; standard error names the option and the value.

JSON: {"ok":true}

Examples:
  nimbrel reset 200705                            by serial number
  nimbrel reset index:0 --bus 1394                the first one of IEEE 1394
)";

std::string AskForReset(BusMaster& busMaster, FoundCamera& camera, bool asJson) {
    CheckFor(camera, busMaster.FireBusReset(&camera.guid));
    return asJson ? Dump({{"ok", true}}) : "A reset was asked of " + camera.name + ".\n";
}

}  // namespace

void AddResetCommand(CLI::App& app, CommandContext& context) {
    AddCameraCommand(app, context, "reset", "Asks for a reset of a camera's bus.", kFooter, AskForReset);
}

}  // namespace Nimbrel2::Tool
