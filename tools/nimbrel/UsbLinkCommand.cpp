// SPDX-License-Identifier: Apache-2.0
// Tells how a USB camera is connected. Main thread only; no lock.
#include "tools/nimbrel/UsbLinkCommand.h"

#include <string>

#include "tools/nimbrel/CameraArgument.h"
#include "tools/nimbrel/UsbStatus.h"

namespace Nimbrel2::Tool {
namespace {

const char kFooter[] =
    R"(Tells how fast the link is now, which port of its hub (or of the computer) the
camera is plugged into, and how many hubs are between the camera and the
computer. A camera that is slower than it can be hangs on a slow port or hub, or
on a bad cable.

Exit status:
  0  Done.
  1  There is no such camera, it is no USB camera, or it does not tell; standard
     error says why.
  2  Wrong usage; standard error names the option and the value.

JSON: {"ok":true,"value","speed","port","hubs"}; "value" is the whole number:
bits 31 to 16 the speed in units of 10 Mbit/s, 15 to 8 the port, 7 to 0 the
hubs. "speed" says the same in words.

Examples:
  nimbrel usb-link 21000101
  nimbrel usb-link index:0 --bus usb --json
)";

std::string DescribeLink(BusMaster& busMaster, const FoundCamera& camera, bool asJson) {
    unsigned int value = 0;
    CheckFor(camera, busMaster.GetUsbLinkInfo(camera.guid, &value));
    const UsbLink link = DecodeUsbLink(value);
    const std::string speed = DescribeUsbSpeed(link.speed);
    if (asJson) {
        return Dump({{"ok", true}, {"value", value}, {"speed", speed}, {"port", link.port}, {"hubs", link.hubs}});
    }
    return "speed  " + speed + "\nport   " + std::to_string(link.port) +
           (link.hubs == 0 ? " of the computer" : " of its hub") + "\nhubs   " + std::to_string(link.hubs) +
           " above it\n";
}

}  // namespace

void AddUsbLinkCommand(CLI::App& app, CommandContext& context) {
    AddCameraCommand(app, context, "usb-link", "Tells how a USB camera is connected.", kFooter, DescribeLink);
}

}  // namespace Nimbrel2::Tool
