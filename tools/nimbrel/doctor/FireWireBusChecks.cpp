// SPDX-License-Identifier: Apache-2.0
// What the self-IDs of an IEEE 1394 bus say of its managers, gaps, speeds and power. Pure.
#include <algorithm>
#include <array>
#include <deque>
#include <optional>
#include <set>

#include "hal/HAL.h"
#include "tools/nimbrel/Words.h"
#include "tools/nimbrel/doctor/FireWireChecks.h"
#include "tools/nimbrel/doctor/FireWireTexts.h"

namespace Nimbrel2::Tool::Doctor {
namespace {

using Platform::FireWireBusDiagnosis;
using Platform::FireWireNode;
using Platform::FireWirePhy;
using Platform::FireWirePort;

constexpr unsigned int LargestGapCount = 63;
constexpr unsigned int Beta = 3;  // speed code

/// IEEE 1394a-2000, table C-2: the gap count that suffices for a bus of so many hops.
constexpr std::array<unsigned int, 16> GapCounts{63, 5, 7, 8, 10, 13, 16, 18, 21, 24, 26, 29, 32, 35, 37, 40};

std::string SpeedText(unsigned int code) { return code >= Beta ? "S800 or more" : "S" + std::to_string(100U << code); }

unsigned int WattsProvided(unsigned int powerClass) { return powerClass >= 1 && powerClass <= 3 ? 15 * powerClass : 0; }
unsigned int WattsTaken(unsigned int powerClass) {
    switch (powerClass) {
        case 4:
            return 3;
        case 6:
            return 6;
        case 7:
            return 10;
        default:
            return 0;
    }
}

/// For each PHY the one before it on the way from a PHY; that one itself has itself. PHYs that are not reached: none.
std::vector<std::optional<unsigned int>> WaysFrom(const std::vector<FireWirePhy>& phys, unsigned int from) {
    std::vector<std::optional<unsigned int>> before(phys.size());
    if (from >= phys.size()) {
        return before;
    }
    before[from] = from;
    std::deque<unsigned int> next{from};
    while (!next.empty()) {
        const unsigned int phy = next.front();
        next.pop_front();
        for (const FireWirePort& port : phys[phy].ports) {
            if (!port.neighbour || *port.neighbour >= phys.size() || before[*port.neighbour]) {
                continue;
            }
            before[*port.neighbour] = phy;
            next.push_back(*port.neighbour);
        }
    }
    return before;
}

/// Cables between the two PHYs that are furthest from each other.
std::size_t CountHops(const std::vector<FireWirePhy>& phys) {
    std::size_t longest = 0;
    for (const FireWirePhy& from : phys) {
        const auto before = WaysFrom(phys, from.phyId);
        for (const FireWirePhy& to : phys) {
            std::size_t hops = 0;
            for (unsigned int phy = to.phyId; before[phy] && *before[phy] != phy; phy = *before[phy]) {
                ++hops;
            }
            longest = std::max(longest, hops);
        }
    }
    return longest;
}

/// What is wrong with who manages the bus, each with its reason; nothing when all is well or nobody knows.
std::vector<std::string> MissingManagers(const FireWireBusDiagnosis& bus) {
    std::vector<std::string> missing;
    if (!bus.resourceManager) {
        missing.emplace_back("no node gives out channels and bandwidth");
    }
    if (!bus.busManager) {
        missing.emplace_back("no node is the bus manager");
    }
    if (bus.hasCycleMaster == false) {
        missing.emplace_back("the root, " + PhyText(bus, bus.root.value_or(0)) +
                             ", sends no cycle starts: no camera can transmit");
    } else if (!bus.hasCycleMaster && bus.root && *bus.root < bus.phys.size() && !bus.phys[*bus.root].linkActive) {
        missing.emplace_back("the root, " + PhyText(bus, *bus.root) +
                             ", has no link to send cycle starts with: no camera can transmit");
    }
    return missing;
}

}  // namespace

Findings CheckFireWireManager(const FireWireExamination& examined) {
    const std::string check = "1394.manager";
    Findings wrong;
    std::vector<std::string> measured;
    for (const FireWireBusDiagnosis& bus : examined.diagnosis.buses) {
        if (!bus.root || !HasCamera(bus)) {
            continue;  // not known, or nothing to manage
        }
        const std::vector<std::string> missing = MissingManagers(bus);
        if (!missing.empty()) {
            wrong.push_back({check, false, BusText(bus) + ": " + Enumerate(missing), ResetCommand(bus)});
            continue;
        }
        std::string evidence = BusText(bus) + " is managed by " + PhyText(bus, *bus.busManager);
        if (bus.hasCycleMaster) {
            evidence += "; " + PhyText(bus, *bus.root) + " sends the cycle starts";
        }
        measured.push_back(evidence);
    }
    return OrOk(wrong, check, measured);
}

Findings CheckFireWireGapCount(const FireWireExamination& examined) {
    const std::string check = "1394.gap-count";
    Findings wrong;
    std::vector<std::string> measured;
    for (const FireWireBusDiagnosis& bus : examined.diagnosis.buses) {
        if (bus.phys.size() < 2) {
            continue;
        }
        const FireWirePhy& first = bus.phys.front();
        const auto other = std::find_if(bus.phys.begin(), bus.phys.end(),
                                        [&](const FireWirePhy& phy) { return phy.gapCount != first.gapCount; });
        if (other != bus.phys.end()) {
            wrong.push_back({check, false,
                             BusText(bus) + ": the gap counts of its PHYs differ, " + PhyText(bus, first.phyId) +
                                 " has " + std::to_string(first.gapCount) + " and " + PhyText(bus, other->phyId) +
                                 " has " + std::to_string(other->gapCount) +
                                 ": they talk at the same time, and cameras stop",
                             ResetCommand(bus)});
            continue;
        }
        const std::size_t hops = CountHops(bus.phys);
        const std::string evidence = BusText(bus) + ": the gap count is " + std::to_string(first.gapCount) + " for " +
                                     std::to_string(hops) + (hops == 1 ? " hop" : " hops");
        // PHYs of IEEE 1394b repeat so late that the table does not hold.
        const bool hasBeta =
            std::any_of(bus.phys.begin(), bus.phys.end(), [](const FireWirePhy& phy) { return phy.speed == Beta; });
        if (first.gapCount != LargestGapCount || hasBeta || hops >= GapCounts.size()) {
            measured.push_back(evidence);
        } else {
            wrong.push_back({check, false,
                             evidence + ", where " + std::to_string(GapCounts[hops]) +
                                 " suffices: the bus waits longer than it needs to after each packet",
                             ResetCommand(bus)});
        }
    }
    return OrOk(wrong, check, measured);
}

Findings CheckFireWireSpeed(const FireWireExamination& examined) {
    const std::string check = "1394.speed";
    Findings wrong;
    std::vector<std::string> measured;
    for (const FireWireBusDiagnosis& bus : examined.diagnosis.buses) {
        if (!bus.local || *bus.local >= bus.phys.size()) {
            continue;
        }
        const auto before = WaysFrom(bus.phys, *bus.local);
        for (const FireWireNode& node : bus.nodes) {
            if (!node.camera || !node.phyId || *node.phyId >= bus.phys.size() || !before[*node.phyId]) {
                continue;
            }
            const unsigned int own = bus.phys[*node.phyId].speed;
            unsigned int slowest = *before[*node.phyId];
            for (unsigned int phy = slowest;; phy = *before[phy]) {
                if (bus.phys[phy].speed < bus.phys[slowest].speed) {
                    slowest = phy;
                }
                if (phy == *bus.local) {
                    break;
                }
            }
            if (bus.phys[slowest].speed >= own) {
                measured.push_back(NodeText(node) + " transmits at up to " + SpeedText(own));
                continue;
            }
            const bool isController = slowest == *bus.local;
            wrong.push_back({check, false,
                             BusText(bus) + ": " + NodeText(node) + " can do " + SpeedText(own) + ", but " +
                                 PhyText(bus, slowest) + " before it only " + SpeedText(bus.phys[slowest].speed),
                             isController ? "# put a faster controller in"
                                          : "# connect the camera past " + PhyText(bus, slowest) +
                                                ", to this computer's controller itself or a faster hub"});
        }
    }
    return OrOk(wrong, check, measured);
}

Findings CheckFireWirePower(const FireWireExamination& examined) {
    const std::string check = "1394.power";
    Findings wrong;
    std::vector<std::string> measured;
    for (const FireWireBusDiagnosis& bus : examined.diagnosis.buses) {
        unsigned int provided = 0;
        unsigned int taken = 0;
        std::vector<std::string> dark;
        for (const FireWirePhy& phy : bus.phys) {
            provided += WattsProvided(phy.powerClass);
            taken += WattsTaken(phy.powerClass);
            if (WattsTaken(phy.powerClass) != 0 && !phy.linkActive) {
                dark.push_back(PhyText(bus, phy.phyId));
            }
        }
        if (taken == 0) {
            continue;
        }
        const std::string evidence = BusText(bus) + ": devices take up to " + std::to_string(taken) +
                                     " W from the bus, and " +
                                     (provided == 0 ? std::string("none says that it feeds the bus")
                                                    : "others provide " + std::to_string(provided) + " W");
        const std::string cure = "# give the devices supplies of their own, or plug in a hub that has one";
        if (provided != 0 && taken > provided) {
            wrong.push_back({check, false, evidence, cure});
        } else if (provided == 0 && !dark.empty()) {
            // Many controllers feed the bus without a word, so it only counts where a device is seen to be off.
            wrong.push_back({check, false, evidence + "; off: " + Enumerate(dark), cure});
        } else {
            measured.push_back(evidence);
        }
    }
    return OrOk(wrong, check, measured);
}

}  // namespace Nimbrel2::Tool::Doctor
