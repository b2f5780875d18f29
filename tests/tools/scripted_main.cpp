// SPDX-License-Identifier: Apache-2.0
// The command line on scripted buses: nimbrel_scripted SCRIPT [ARGUMENT...]. Lines of the script (see ScriptedBuses.h)
// up to "start" hold from the beginning; a thread of its own does those that come later, which a FIFO brings as a test
// sends them.
#include <cstdio>
#include <exception>
#include <fstream>
#include <string>
#include <thread>

#include "platform/hal/Process.h"
#include "tests/tools/ScriptedBuses.h"
#include "tools/nimbrel/Program.h"

namespace {

using Nimbrel2::Tool::Testing::ScriptedBuses;

void Follow(std::ifstream& script, ScriptedBuses& buses) {
    try {
        for (std::string line; std::getline(script, line) && line != "start";) {
            buses.Do(line);
        }
    } catch (const std::exception& error) {
        std::fprintf(stderr, "script: %s\n", error.what());
        std::_Exit(99);
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 2) {
        return 98;
    }
    // Never destroyed: the thread below reads and writes them to the very end.
    auto& script = *new std::ifstream(argv[1]);
    auto& buses = *new ScriptedBuses;
    if (!script) {
        return 98;
    }
    Follow(script, buses);
    if (Nimbrel2::Platform::Process::Get().SetDriverFactory(
            [&buses](const auto& options, const auto& sinks) { return buses.MakeDrivers(options, sinks); }) != HAL_OK) {
        return 98;
    }
    std::thread([&script, &buses] { Follow(script, buses); }).detach();
    argv[1] = argv[0];
    return Nimbrel2::Tool::RunProgram(argc - 1, argv + 1);
}
