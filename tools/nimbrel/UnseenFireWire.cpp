// SPDX-License-Identifier: Apache-2.0
// Which IEEE 1394 buses this user sees only in part. Threads: see the header. No lock.
#include "tools/nimbrel/UnseenFireWire.h"

#include "hal/HAL.h"
#include "tools/nimbrel/Output.h"
#include "tools/nimbrel/Text.h"
#include "tools/nimbrel/doctor/FireWireTexts.h"

namespace Nimbrel2::Tool {

std::vector<std::string> DescribeUnseenFireWire(const Platform::FireWireDiagnosis& diagnosis, Shown shown) {
    std::vector<std::string> sentences;
    for (const Platform::FireWireBusDiagnosis& bus : diagnosis.buses) {
        const bool isSeen = shown == Shown::Resets ? bus.seesResets : bus.treeError == 0;
        if (isSeen) {
            continue;
        }
        sentences.push_back("IEEE 1394, " + Doctor::BusText(bus) +
                            (shown == Shown::Resets
                                 ? ": its resets cannot be seen, and departures only two seconds late"
                                 : ": how it is connected cannot be seen") +
                            "; `nimbrel doctor --bus 1394` tells why.");
    }
    return sentences;
}

void WarnOfUnseenFireWire(Shown shown) {
    Platform::FireWireDiagnosis diagnosis;
    if (Platform::DiagnoseFireWire(false, &diagnosis) != HAL_OK) {
        return;
    }
    for (const std::string& sentence : DescribeUnseenFireWire(diagnosis, shown)) {
        WriteError("nimbrel: " + ForTerminal(sentence) + "\n");
    }
}

}  // namespace Nimbrel2::Tool
