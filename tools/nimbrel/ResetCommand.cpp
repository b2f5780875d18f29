// SPDX-License-Identifier: Apache-2.0
// Asks for a bus reset through one camera. Main thread only; no lock.
#include "tools/nimbrel/ResetCommand.h"

#include <memory>

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

class ResetCommand {
public:
    explicit ResetCommand(CommandContext& context) : m_context(context) {}

    void AddOptions(CLI::App& command) {
        m_camera.AddTo(command);
        m_context.AddJsonOption(command, "Print one JSON document.");
        m_context.AddBusOptions(command);
    }

    int Run() {
        const BusMasterSession busMaster = m_context.StartBusMaster();
        FoundCamera camera = m_camera.Find(m_context, *busMaster);
        CheckFor(camera, busMaster->FireBusReset(&camera.guid));
        m_context.Print(m_context.WantsJson() ? Dump({{"ok", true}}) : "A reset was asked of " + camera.name + ".\n");
        return kDone;
    }

private:
    CommandContext& m_context;
    CameraArgument m_camera;
};

}  // namespace

void AddResetCommand(CLI::App& app, CommandContext& context) {
    const auto reset = std::make_shared<ResetCommand>(context);
    CLI::App* command =
        context.AddCommand(app, "reset", "Asks for a reset of a camera's bus.", [reset] { return reset->Run(); });
    reset->AddOptions(*command);
    command->footer(kFooter);
}

}  // namespace Nimbrel2::Tool
