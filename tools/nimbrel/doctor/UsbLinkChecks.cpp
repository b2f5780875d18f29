// SPDX-License-Identifier: Apache-2.0
// What is wrong with links, ports, power and memory of USB cameras. Pure.
#include <algorithm>

#include "tools/nimbrel/Values.h"
#include "tools/nimbrel/doctor/UsbChecks.h"
#include "tools/nimbrel/doctor/UsbTexts.h"

namespace Nimbrel2::Tool::Doctor {
namespace {

using Platform::UsbDeviceDiagnosis;
using Platform::UsbDiagnosis;
using Platform::UsbPortDiagnosis;

constexpr std::uint32_t FullSpeed = 12;
constexpr std::uint32_t HighSpeed = 480;
constexpr std::uint32_t SuperSpeed = 5000;
// One image of 20 million pixels, a few times over.
constexpr std::uint32_t StreamingMemory = 128;
constexpr std::uint32_t GenerousMemory = 1000;

bool HasCameraBelow(const UsbDiagnosis& diagnosis, const UsbDeviceDiagnosis& hub) {
    return std::any_of(diagnosis.devices.begin(), diagnosis.devices.end(), [&](const UsbDeviceDiagnosis& device) {
        if (!device.isCamera) {
            return false;
        }
        const auto hubs = HubsAbove(diagnosis, device);
        return std::find(hubs.begin(), hubs.end(), &hub) != hubs.end();
    });
}

// ---- Cameras that are slower than they could be --------------------------------------------------------------------

struct Blame {
    std::string what;
    std::string cure;
};

bool HasSuperSpeed(const UsbDiagnosis& diagnosis) {
    return std::any_of(diagnosis.devices.begin(), diagnosis.devices.end(), [](const UsbDeviceDiagnosis& device) {
        return device.hub.empty() && device.speed >= SuperSpeed;
    });
}

Blame BlameRootPort(const UsbDiagnosis& diagnosis, const UsbDeviceDiagnosis& device, const std::string& who) {
    const std::string port = UsbPortText(diagnosis, device);
    if (device.portSpeed == 0) {
        return {"the cable of " + who + ", or " + port + ", which may be able to do no more",
                "# plug " + who + " into another port of this computer with another USB 3 cable"};
    }
    if (HasSuperSpeed(diagnosis)) {
        return {port + " can do " + FormatSpeed(device.portSpeed) + " only",
                "# plug " + who + " into a SuperSpeed port of this computer"};
    }
    return {"this computer has no SuperSpeed ports", "# plug a USB 3 card into this computer"};
}

// Goes up from the camera to the first thing that keeps SuperSpeed from it.
Blame FindBlame(const UsbDiagnosis& diagnosis, const UsbDeviceDiagnosis& camera) {
    const UsbDeviceDiagnosis* device = &camera;
    for (const UsbDeviceDiagnosis* hub : HubsAbove(diagnosis, camera)) {
        const std::string who = device == &camera ? "the camera" : UsbHubText(*device);
        if (device->portSpeed >= SuperSpeed) {
            return {"the cable of " + who + ", for " + UsbPortText(diagnosis, *device) + " can do " +
                        FormatSpeed(device->portSpeed),
                    "# connect " + who + " with another USB 3 cable, pushed in all the way"};
        }
        if (hub->hub.empty()) {
            return BlameRootPort(diagnosis, *device, who);
        }
        if (hub->deviceSpeed != 0 && hub->deviceSpeed < SuperSpeed) {
            return {UsbHubText(*hub) + ", which is no USB 3 hub",
                    "# connect the camera past " + UsbHubText(*hub) + ", or put a USB 3 hub in its place"};
        }
        device = hub;
    }
    return {"something above " + UsbPortText(diagnosis, *device),
            "# plug the camera into another port of this computer"};
}

// ---- Power ---------------------------------------------------------------------------------------------------------

bool MaySuspend(const UsbDeviceDiagnosis& device) { return device.powerControl == "auto" && device.suspendDelay >= 0; }

Finding SuspendFinding(const UsbDeviceDiagnosis& device, const std::string& who) {
    const bool isAsleep = device.runtimeStatus == "suspended";
    return {"usb.suspend", false,
            who + (isAsleep ? " is suspended by the kernel" : " may be suspended by the kernel") + " after " +
                std::to_string(device.suspendDelay) + " ms without use (power/control is auto)",
            WriteUsbAttribute(UsbAttribute(device, "power/control"), "on")};
}

}  // namespace

Findings CheckUsbSpeed(const UsbExamination& examined) {
    const std::string check = "usb.speed";
    Findings findings;
    std::string measured;
    for (const UsbDeviceDiagnosis& device : examined.diagnosis.devices) {
        if (!device.isCamera) {
            continue;
        }
        if (device.speed == 0 || device.speed >= SuperSpeed || device.deviceSpeed < SuperSpeed) {
            measured += (measured.empty() ? "" : "; ") + UsbCameraText(device) + ": " +
                        (device.speed == 0 ? "speed unknown" : FormatSpeed(device.speed));
            continue;
        }
        const Blame blame = FindBlame(examined.diagnosis, device);
        findings.push_back({check, false,
                            UsbCameraText(device) + " can do " + FormatSpeed(device.deviceSpeed) + " and runs at " +
                                FormatSpeed(device.speed) + "; to blame: " + blame.what,
                            blame.cure});
    }
    if (findings.empty() && !measured.empty()) {
        findings.push_back(Fine(check, measured));
    }
    return findings;
}

Findings CheckUsbHubSpeed(const UsbExamination& examined) {
    const std::string check = "usb.hub-speed";
    Findings findings;
    std::size_t hubs = 0;
    for (const UsbDeviceDiagnosis& hub : examined.diagnosis.devices) {
        if (!hub.isHub || hub.hub.empty()) {
            continue;
        }
        const bool hasFallen = hub.deviceSpeed >= HighSpeed;
        // A hub of long ago matters to the cameras behind it only.
        if (hub.speed == 0 || hub.speed > FullSpeed || (!hasFallen && !HasCameraBelow(examined.diagnosis, hub))) {
            ++hubs;
            continue;
        }
        const std::string evidence =
            UsbHubText(hub) + " on " + UsbPortText(examined.diagnosis, hub) +
            (hasFallen ? " can do " + FormatSpeed(hub.deviceSpeed) + " and has fallen to " : " can do no more than ") +
            FormatSpeed(hub.speed);
        findings.push_back({check, false, evidence,
                            hasFallen ? "# pull " + UsbHubText(hub) + " out and plug it in again, with another cable"
                                      : "# put another hub in the place of " + UsbHubText(hub)});
    }
    if (findings.empty() && hubs != 0) {
        findings.push_back(Fine(check, "no hub has fallen to 12 Mbit/s, and none above a camera can do no more"));
    }
    return findings;
}

Findings CheckUsbOverCurrent(const UsbExamination& examined) {
    const std::string check = "usb.over-current";
    Findings findings;
    std::size_t ports = 0;
    for (const UsbDeviceDiagnosis& hub : examined.diagnosis.devices) {
        for (const UsbPortDiagnosis& port : hub.ports) {
            ++ports;
            if (port.overCurrents == 0) {
                continue;
            }
            findings.push_back({check, false,
                                "port " + std::to_string(port.number) + " of " + UsbHubText(hub) +
                                    " was switched off " + std::to_string(port.overCurrents) +
                                    (port.overCurrents == 1 ? " time" : " times") +
                                    ", for too much current was drawn from it",
                                "# connect what is on it through a hub with a power supply of its own"});
        }
    }
    if (findings.empty() && ports != 0) {
        findings.push_back(Fine(check, "no port was switched off for over-current"));
    }
    return findings;
}

Findings CheckUsbSuspend(const UsbExamination& examined) {
    Findings findings;
    std::vector<const UsbDeviceDiagnosis*> told;
    std::size_t cameras = 0;
    for (const UsbDeviceDiagnosis& device : examined.diagnosis.devices) {
        if (!device.isListed) {
            continue;
        }
        ++cameras;
        if (MaySuspend(device)) {
            findings.push_back(SuspendFinding(device, UsbCameraText(device)));
        }
        for (const UsbDeviceDiagnosis* hub : HubsAbove(examined.diagnosis, device)) {
            // A hub stays awake as long as what is on it does, and each hub is told of once.
            const bool matters = MaySuspend(*hub) && (MaySuspend(device) || hub->runtimeStatus == "suspended");
            if (!matters || std::find(told.begin(), told.end(), hub) != told.end()) {
                continue;
            }
            told.push_back(hub);
            findings.push_back(SuspendFinding(*hub, UsbHubText(*hub) + " above " + UsbCameraText(device)));
        }
    }
    if (findings.empty() && cameras != 0) {
        findings.push_back(Fine("usb.suspend", "the kernel suspends no USB camera, and so no hub above one"));
    }
    return findings;
}

Findings CheckUsbMemory(const UsbExamination& examined) {
    const std::string check = "usb.memory";
    const auto& devices = examined.diagnosis.devices;
    const bool hasFastCamera = std::any_of(devices.begin(), devices.end(), [](const UsbDeviceDiagnosis& device) {
        return device.isCamera && device.speed >= SuperSpeed;
    });
    if (!hasFastCamera || !examined.diagnosis.memoryLimit) {
        return {};
    }
    const std::uint32_t limit = *examined.diagnosis.memoryLimit;
    const std::string evidence = "usbfs_memory_mb is " + std::to_string(limit);
    if (limit == 0) {
        return {Fine(check, evidence + ": no limit")};
    }
    if (limit >= StreamingMemory) {
        return {Fine(check, evidence)};
    }
    return {{check, false,
             evidence + " for the transfers of all programs together; SuperSpeed cameras need " +
                 std::to_string(StreamingMemory) + " and more to stream",
             WriteUsbAttribute("/sys/module/usbcore/parameters/usbfs_memory_mb", std::to_string(GenerousMemory))}};
}

}  // namespace Nimbrel2::Tool::Doctor
