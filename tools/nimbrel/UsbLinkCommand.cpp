// SPDX-License-Identifier: Apache-2.0
// Shows how a USB camera is connected. Main thread only; no lock.
#include <string>

#include "tools/nimbrel/CameraArgument.h"
#include "tools/nimbrel/Commands.h"
#include "tools/nimbrel/UsbStatus.h"

namespace Nimbrel2::Tool {
namespace {

const char Footer[] =
    R"(Shows how fast the link is now, which port of its hub (or of the computer) the
camera is plugged into, and how many hubs are between camera and computer. A
camera that is slower than it should be has a slow port or hub above it, or a
bad cable.

Exit status:
  0  Done.
  1  No such camera, it is not on USB, or its link cannot be read; standard
     error says why.
  2  Wrong usage; standard error names the option and the value.

JSON: {"ok":true,"value","speed","port","hubs"}; "speed" in Mbit/s; "value" is
the raw number: bits 31 to 16 the speed in units of 10 Mbit/s, 15 to 8 the port,
7 to 0 the hubs.

Examples:
  nimbrel usb-link 21000101
  nimbrel usb-link index:0 --bus usb --json
)";

std::string DescribeLink(BusMaster& busMaster, const FoundCamera& camera, bool asJson) {
    unsigned int value = 0;
    CheckFor(camera, busMaster.GetUsbLinkInfo(camera.guid, &value), "has a link that cannot be read");
    const UsbLink link = DecodeUsbLink(value);
    unsigned int speed = 0;  // exact, where the word above has units of 10 Mbit/s
    if (busMaster.GetLinkSpeed(camera.guid, &speed) != ERROR_OK) {
        speed = link.speed * 10;
    }
    if (asJson) {
        return Dump({{"ok", true}, {"value", value}, {"speed", speed}, {"port", link.port}, {"hubs", link.hubs}});
    }
    return "speed  " + DescribeUsbSpeed(speed) + "\nport   " + std::to_string(link.port) +
           (link.hubs == 0 ? " of the computer" : " of its hub") + "\nhubs   " + std::to_string(link.hubs) +
           " above it\n";
}

}  // namespace

void AddUsbLinkCommand(CLI::App& app, CommandContext& context) {
    AddCameraCommand(app, context,
                     {"usb-link", "Shows how a USB camera is connected.", Footer, Scope::Usb, DescribeLink});
}

}  // namespace Nimbrel2::Tool
