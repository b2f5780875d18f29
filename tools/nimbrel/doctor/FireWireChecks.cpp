// SPDX-License-Identifier: Apache-2.0
// Examines IEEE 1394, lists its checks, and tells whether cameras can be reached at all. Examine: any thread but an
// event callback; no lock. The rest is pure.
#include "tools/nimbrel/doctor/FireWireChecks.h"

#include <pwd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <system_error>
#include <thread>

#include "hal/HAL.h"
#include "tools/nimbrel/ErrorTexts.h"
#include "tools/nimbrel/OwnCommand.h"
#include "tools/nimbrel/Values.h"
#include "tools/nimbrel/doctor/FireWireTexts.h"

namespace Nimbrel2::Tool::Doctor {
namespace {

using Platform::FireWireBusDiagnosis;
using Platform::FireWireNode;

// A bus that is quiet this long counts as quiet; one that is not is watched for a whole minute, or until it is plain.
constexpr std::chrono::seconds Watch{5};
constexpr std::chrono::seconds LongWatch{60};
constexpr std::chrono::milliseconds WatchStep{500};
/// A cable that is plugged in costs two: its own, and the one with which the kernel sets the bus up for it.
constexpr unsigned int TooManyResets = 3;

constexpr char Rule[] = "70-nimbrel2-firewire.rules";

bool IsPermission(int error) { return error == EACCES || error == EPERM; }

std::string PermissionCure(const FireWireExamination& examined) {
    const std::string group = "sudo usermod -aG video " +
                              (examined.user.empty() ? std::string("\"$USER\"") : examined.user) +
                              "  # and log in again";
    return examined.rule.isInForce ? group : CommandForUdevRule(examined.rule, "firewire") + " && " + group;
}

std::string Count(std::size_t number, const std::string& one, const std::string& many) {
    return std::to_string(number) + " " + (number == 1 ? one : many);
}

std::string SecondsText(std::chrono::milliseconds time) {
    return FormatSeconds(std::chrono::round<std::chrono::seconds>(time));
}

}  // namespace

bool IsWatchedLongEnough(const Platform::FireWireDiagnosis& diagnosis, std::chrono::steady_clock::duration watched) {
    unsigned int mostResets = 0;
    bool seesResets = false;
    for (const FireWireBusDiagnosis& bus : diagnosis.buses) {
        mostResets = std::max(mostResets, bus.resets);
        seesResets = seesResets || bus.seesResets;
    }
    const bool isPlain = mostResets == 0 || mostResets >= TooManyResets;
    return !seesResets || watched >= LongWatch || (isPlain && watched >= Watch);
}

FireWireExamination ExamineFireWire(bool simulated) {
    FireWireExamination examined;
    examined.status = Platform::DiagnoseFireWire(false, &examined.diagnosis);
    const auto begin = std::chrono::steady_clock::now();
    while (!simulated && examined.status == HAL_OK &&
           !IsWatchedLongEnough(examined.diagnosis, std::chrono::steady_clock::now() - begin)) {
        std::this_thread::sleep_for(WatchStep);
        examined.status = Platform::DiagnoseFireWire(false, &examined.diagnosis);
    }
    // Asked last, for what a reset has changed counts.
    examined.status = Platform::DiagnoseFireWire(true, &examined.diagnosis);
    if (simulated || examined.status != HAL_OK) {
        return examined;
    }
    examined.rule = FindUdevRule(Rule);
    passwd entry{};
    passwd* found = nullptr;
    std::array<char, 4096> texts{};
    if (::getpwuid_r(::getuid(), &entry, texts.data(), texts.size(), &found) == 0 && found != nullptr) {
        examined.user = found->pw_name;
    }
    return examined;
}

const std::vector<Check<FireWireExamination>>& FireWireChecks() {
    static const std::vector<Check<FireWireExamination>> checks{
        CheckFireWireDriver,   CheckFireWirePermission, CheckFireWireResets, CheckFireWireAnswers,
        CheckFireWireGapCount, CheckFireWireManager,    CheckFireWirePower,  CheckFireWireSpeed};
    return checks;
}

Findings CheckFireWireDriver(const FireWireExamination& examined) {
    const std::string check = "1394.driver";
    if (examined.status == HAL_NO_BUS) {
        return {};  // nobody drives it, or a driver that tells nothing
    }
    if (examined.status != HAL_OK) {
        return {{check, false, "IEEE 1394 cannot be searched: " + DescribeStatus(examined.status),
                 SudoNimbrel() + " doctor --bus 1394"}};
    }
    Findings wrong;
    std::vector<std::string> measured;
    for (const std::string& controller : examined.diagnosis.idleControllers) {
        wrong.push_back({check, false,
                         "no driver serves the IEEE 1394 controller " + controller + ": no camera on it can be seen",
                         "sudo modprobe firewire-ohci"});
    }
    for (const FireWireBusDiagnosis& bus : examined.diagnosis.buses) {
        std::size_t cameras = 0;
        std::size_t others = 0;
        for (const FireWireNode& node : bus.nodes) {
            if (!node.local) {
                ++(node.camera ? cameras : others);
            }
        }
        measured.push_back(BusText(bus) + " has " + Count(cameras, "camera", "cameras") + " and " +
                           Count(others, "other device", "other devices"));
    }
    if (measured.empty()) {
        measured.emplace_back("this computer has no IEEE 1394 controller");
    }
    return OrOk(wrong, check, measured);
}

Findings CheckFireWirePermission(const FireWireExamination& examined) {
    const std::string check = "1394.permission";
    Findings wrong;
    std::vector<std::string> measured;
    for (const FireWireBusDiagnosis& bus : examined.diagnosis.buses) {
        std::size_t numOpen = 0;
        std::vector<std::string> refused;
        for (const FireWireNode& node : bus.nodes) {
            if (node.error == 0) {
                ++numOpen;
                continue;
            }
            // No rule opens the files of disks and the like to users, and nothing here takes them.
            if (!node.local && !node.camera) {
                continue;
            }
            std::string text = "/dev/" + node.name + " of " + NodeText(node) + " cannot be opened";
            if (node.local) {
                text += ", so nobody sees how the bus is connected, or a PHY register";
            }
            text += ": " + std::generic_category().message(node.error);
            if (!IsPermission(node.error)) {
                wrong.push_back({check, false, BusText(bus) + ": " + text, "ls -l /dev/" + node.name});
            } else {
                refused.push_back(std::move(text));
            }
        }
        if (refused.empty()) {
            const bool isEach = numOpen == bus.nodes.size();
            measured.push_back(BusText(bus) + ": " + Count(numOpen, "file is open", "files are open") +
                               (isEach ? ", that of each node" : ", all that it takes"));
            continue;
        }
        std::string evidence = BusText(bus) + ": ";
        for (const std::string& text : refused) {
            evidence += (&text == &refused.front() ? "" : "; ") + text;
        }
        evidence += examined.rule.isInForce ? "; the udev rule " + std::string(Rule) + " is there"
                                            : "; the udev rule " + std::string(Rule) + " is not there";
        wrong.push_back({check, false, evidence, PermissionCure(examined)});
    }
    return OrOk(wrong, check, measured);
}

Findings CheckFireWireAnswers(const FireWireExamination& examined) {
    const std::string check = "1394.answers";
    Findings wrong;
    std::vector<std::string> measured;
    for (const FireWireBusDiagnosis& bus : examined.diagnosis.buses) {
        std::size_t answering = 0;
        for (const FireWireNode& node : bus.nodes) {
            if (!node.camera || node.error != 0) {
                continue;
            }
            if (!node.mute) {
                ++answering;
                continue;
            }
            wrong.push_back({check, false, BusText(bus) + ": " + NodeText(node) + " does not answer when it is asked",
                             ResetCommand(bus) + "  # if that does not help, take its power away for a moment"});
        }
        if (answering != 0) {
            measured.push_back(BusText(bus) + ": " + Count(answering, "camera answers", "cameras answer"));
        }
    }
    return OrOk(wrong, check, measured);
}

Findings CheckFireWireResets(const FireWireExamination& examined) {
    const std::string check = "1394.resets";
    Findings wrong;
    std::vector<std::string> measured;
    for (const FireWireBusDiagnosis& bus : examined.diagnosis.buses) {
        if (!bus.seesResets || bus.watched.count() == 0) {
            continue;
        }
        std::string evidence =
            BusText(bus) + ": " + Count(bus.resets, "bus reset", "bus resets") + " in " + SecondsText(bus.watched);
        std::string cure = "# replace the cables of the bus one after the other";
        for (const Platform::FireWirePortChanges& socket : bus.portChanges) {
            const std::string where = "port " + std::to_string(socket.port) + " of " + PhyText(bus, socket.phyId);
            evidence += "; what is connected to " + where + " came or went " + Count(socket.changes, "time", "times");
            if (&socket == &bus.portChanges.front()) {
                cure = "# replace the cable in " + where + ", and see that what it leads to has power";
            }
        }
        if (bus.resets < TooManyResets) {
            measured.push_back(evidence);
        } else {
            wrong.push_back({check, false, evidence + ": each one interrupts all transmissions", cure});
        }
    }
    return OrOk(wrong, check, measured);
}

}  // namespace Nimbrel2::Tool::Doctor
