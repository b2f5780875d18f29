// SPDX-License-Identifier: Apache-2.0
// Resets a bus through one of its cameras. Main thread only; no lock.
#include "tools/nimbrel/CameraArgument.h"
#include "tools/nimbrel/Commands.h"

namespace Nimbrel2::Tool {
namespace {

const char Footer[] =
    R"(On IEEE 1394 resets the bus, so that all its nodes are enumerated again; on USB
resets the port of the camera. GigE has no bus reset. Applications that use
cameras of that bus are disturbed. The command does not wait for the reset to
complete.

Exit status:
  0  The reset was requested.
  1  No such camera, or the bus refused; standard error says why.
  2  Wrong usage; standard error names the option and the value.

JSON: {"ok":true}

Examples:
  nimbrel reset 200705                            by serial number
  nimbrel reset index:0 --bus 1394                the first camera on IEEE 1394
)";

std::string RequestReset(BusMaster& busMaster, FoundCamera& camera, bool asJson) {
    CheckFor(camera, busMaster.FireBusReset(&camera.guid), "cannot be reset");
    return asJson ? Dump({{"ok", true}}) : "Reset requested: " + camera.GetNameWithBus() + ".\n";
}

}  // namespace

void AddResetCommand(CLI::App& app, CommandContext& context) {
    AddCameraCommand(app, context,
                     {"reset", "Resets the bus or port of a camera.", Footer, Scope::BusesWithReset, RequestReset});
}

}  // namespace Nimbrel2::Tool
