// SPDX-License-Identifier: Apache-2.0
// Uses the installed library as it ships, on a simulated computer whose only camera is unplugged.
#include <busmaster/BusMaster.h>
#include <platform/SimulatedComputer.h>

#include "print_counts.h"

int main() {
    using namespace Nimbrel2::Platform;
    SimulatedComputer computer = SimulatedComputer::Parse(
        R"({"usb": [{"name": "host", "devices": [{"name": "one", "parent": "host", "port": 1, "serial": "1"}]}]})",
        "own");
    computer.Perform(R"({"unplug": "one"})");
    if (!Configure(computer.MakeOptions())) {
        return 2;
    }
    return PrintCounts();
}
