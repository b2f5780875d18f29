// SPDX-License-Identifier: Apache-2.0
// Uses the installed library as it ships, with every bus switched off so that the answer is known.
#include <busmaster/BusMaster.h>
#include <platform/Platform.h>

#include "print_counts.h"

int main() {
    Nimbrel2::Platform::Options options;
    options.fireWire = options.usb = options.gigE = Nimbrel2::Platform::Driver::None;
    if (!Nimbrel2::Platform::Configure(options)) return 2;
    return PrintCounts();
}
