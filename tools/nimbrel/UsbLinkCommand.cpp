// SPDX-License-Identifier: Apache-2.0
// Tells how a USB camera is connected. Main thread only; no lock.
#include "tools/nimbrel/UsbLinkCommand.h"

#include <memory>
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

class UsbLinkCommand {
public:
    explicit UsbLinkCommand(CommandContext& context) : m_context(context) {}

    void AddOptions(CLI::App& command) {
        m_camera.AddTo(command);
        m_context.AddJsonOption(command, "Print one JSON document.");
        m_context.AddBusOptions(command);
    }

    int Run() {
        const BusMasterSession busMaster = m_context.StartBusMaster();
        const FoundCamera camera = m_camera.Find(m_context, *busMaster);
        unsigned int value = 0;
        CheckFor(camera, busMaster->GetUsbLinkInfo(camera.guid, &value));
        const UsbLink link = DecodeUsbLink(value);
        const std::string speed = DescribeUsbSpeed(link.speed);
        if (m_context.WantsJson()) {
            m_context.Print(
                Dump({{"ok", true}, {"value", value}, {"speed", speed}, {"port", link.port}, {"hubs", link.hubs}}));
        } else {
            m_context.Print("speed  " + speed + "\nport   " + std::to_string(link.port) +
                            (link.hubs == 0 ? " of the computer" : " of its hub") + "\nhubs   " +
                            std::to_string(link.hubs) + " above it\n");
        }
        return kDone;
    }

private:
    CommandContext& m_context;
    CameraArgument m_camera;
};

}  // namespace

void AddUsbLinkCommand(CLI::App& app, CommandContext& context) {
    const auto link = std::make_shared<UsbLinkCommand>(context);
    CLI::App* command =
        context.AddCommand(app, "usb-link", "Tells how a USB camera is connected.", [link] { return link->Run(); });
    link->AddOptions(*command);
    command->footer(kFooter);
}

}  // namespace Nimbrel2::Tool
