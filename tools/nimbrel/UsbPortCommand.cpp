// SPDX-License-Identifier: Apache-2.0
// Asks the hub about the port that a USB camera is plugged into. Main thread only; no lock.
#include <cstdio>
#include <string>

#include "tools/nimbrel/CameraArgument.h"
#include "tools/nimbrel/Commands.h"
#include "tools/nimbrel/UsbStatus.h"
#include "tools/nimbrel/Words.h"

namespace Nimbrel2::Tool {
namespace {

const char Footer[] =
    R"(Shows the status of the port as its hub reports it: wPortStatus and wPortChange,
the changes that the kernel has not yet acknowledged. The bits are those of USB
3.2, 10.16.2.6, for a USB 3 camera and of USB 2.0, 11.24.2.7, for a USB 2
camera.

Exit status:
  0  Done.
  1  No such camera, it is not on USB, or the hub does not answer; standard
     error says why.
  2  Wrong usage; standard error names the option and the value.

JSON: {"ok":true,"value","status":[...],"change":[...],"link_state"}; "value" is
the raw number, wPortStatus in its low half; the lists name the bits that are
set; "link_state" on USB 3 only.

Examples:
  nimbrel usb-port 21000101
  nimbrel usb-port index:0 --bus usb --json
)";

std::string Line(const char* name, std::uint32_t bits, const std::string& words) {
    char number[16];
    std::snprintf(number, sizeof number, "0x%04x", bits);
    return std::string(name) + "  " + number + "  " + (words.empty() ? "nothing" : words) + "\n";
}

std::string DescribePort(BusMaster& busMaster, const FoundCamera& camera, bool asJson) {
    unsigned int value = 0;
    CheckFor(camera, busMaster.GetUsbPortStatus(camera.guid, &value), "has a port that cannot be read");
    const UsbPort port = DecodeUsbPort(value, camera.interfaceType == INTERFACE_USB_3);
    if (asJson) {
        Json json{{"ok", true}, {"value", value}, {"status", port.status}, {"change", port.changed}};
        if (!port.linkState.empty()) {
            json["link_state"] = port.linkState;
        }
        return Dump(json);
    }
    return Line("status", value & 0xFFFF, Enumerate(port.status)) +
           Line("change", value >> 16, Enumerate(port.changed)) +
           (port.linkState.empty() ? "" : "link    " + port.linkState + "\n");
}

}  // namespace

void AddUsbPortCommand(CLI::App& app, CommandContext& context) {
    AddCameraCommand(app, context,
                     {"usb-port", "Shows the status of the port of a USB camera.", Footer, Scope::Usb, DescribePort});
}

}  // namespace Nimbrel2::Tool
