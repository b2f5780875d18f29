// SPDX-License-Identifier: Apache-2.0
// The command line on a rig to which everything has happened already: nimbrel_on_rig FILE [ARGUMENT...]. The whole
// timeline of the rig file is played before the program starts, so its faults wait for the command.
#include <cstdio>
#include <exception>
#include <memory>
#include <utility>

#include "platform/hal/Process.h"
#include "platform/rig/RigDrivers.h"
#include "platform/rig/RigFile.h"
#include "tools/nimbrel/Program.h"

namespace {

using namespace Nimbrel2;

Platform::Options OnRig(Platform::Options options, const std::shared_ptr<Platform::Rig>& rig) {
    for (Platform::Driver* driver : {&options.fireWire, &options.usb, &options.gigE}) {
        if (*driver == Platform::Driver::Linux) {
            *driver = Platform::Driver::Rig;
        }
    }
    options.makeDrivers = Platform::MakeRigDrivers(rig);
    return options;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        return 98;
    }
    try {
        Platform::RigPlan plan = Platform::ReadRigFile(argv[1]);
        const auto rig = std::make_shared<Platform::Rig>(std::move(plan.rig));
        for (const Platform::RigStep& step : plan.timeline) {
            if (Platform::Apply(*rig, step.action)) {
                return 98;
            }
        }
        Platform::Process::Get().SetDriverFactory([rig](const auto& options, const auto& sinks) {
            return Platform::MakeDrivers(OnRig(options, rig), sinks);
        });
    } catch (const std::exception& error) {
        std::fprintf(stderr, "rig: %s\n", error.what());
        return 98;
    }
    argv[1] = argv[0];
    return Tool::RunProgram(argc - 1, argv + 1);
}
