// SPDX-License-Identifier: Apache-2.0
// Examines USB, lists its checks, and has those of the driver and of what it may open. Any thread; no lock.
#include "tools/nimbrel/doctor/UsbChecks.h"

#include <cerrno>
#include <cstdio>
#include <system_error>

#include "hal/HAL.h"
#include "tools/nimbrel/ErrorTexts.h"
#include "tools/nimbrel/OwnCommand.h"
#include "tools/nimbrel/doctor/UsbTexts.h"

namespace Nimbrel2::Tool::Doctor {
namespace {

using Platform::UsbClaim;
using Platform::UsbDeviceDiagnosis;

constexpr char ProgramsDriver[] = "usbfs";
constexpr char Group[] = "plugdev";

// A rule for a camera that no class tells.
std::string CommandForIds(const UsbDeviceDiagnosis& camera) {
    char text[256];
    std::snprintf(text, sizeof text,
                  "echo 'SUBSYSTEM==\"usb\", ATTR{idVendor}==\"%04x\", ATTR{idProduct}==\"%04x\", MODE=\"0664\", "
                  "GROUP=\"%s\", TAG+=\"uaccess\"' | sudo tee /etc/udev/rules.d/70-nimbrel2-%04x-%04x.rules && ",
                  camera.vendorId, camera.productId, Group, camera.vendorId, camera.productId);
    return text + CommandToReloadUdevRules("usb");
}

std::string CureOfPermission(const UsbExamination& examined, const UsbDeviceDiagnosis& camera) {
    if (camera.nodeError == ENOENT) {
        return "# start this container with the device nodes: /dev/bus/usb must be visible in it";
    }
    if (!examined.diagnosis.isUdevRunning) {
        return "sudo chmod a+rw " + camera.node;
    }
    if (!camera.isVision) {
        return CommandForIds(camera);
    }
    if (!examined.rule.isInForce) {
        return CommandForUsbRule(examined.rule);
    }
    return std::string("sudo usermod -aG ") + Group + " \"$USER\" && newgrp " + Group;
}

std::string WhyItMayNot(const UsbExamination& examined, const UsbDeviceDiagnosis& camera) {
    std::string text = UsbCameraText(camera) + ": this user may not open " + camera.node + " (" +
                       std::generic_category().message(camera.nodeError) + ")";
    if (camera.nodeError == ENOENT || !examined.diagnosis.isUdevRunning) {
        return text;
    }
    if (!camera.isVision || !examined.rule.isInForce) {
        return text + "; no udev rule gives it to users";
    }
    return text + "; " + UsbRuleName() + " gives it to users at this computer's screen and to the group " + Group;
}

std::string ProgramText(const UsbClaim& claim) {
    if (claim.process == 0) {
        return "a program that this user may not see";
    }
    return "process " + std::to_string(claim.process) + (claim.command.empty() ? "" : " (" + claim.command + ")");
}

}  // namespace

UsbExamination ExamineUsb() {
    UsbExamination examined;
    examined.status = Platform::DiagnoseUsb(&examined.diagnosis);
    examined.rule = FindUsbRule();
    return examined;
}

Findings CheckUsbDriver(const UsbExamination& examined) {
    const std::string check = "usb.driver";
    // Nobody drives it: not asked for, or on a simulated computer.
    if (examined.status == HAL_NO_BUS) {
        return {};
    }
    if (examined.status != HAL_OK) {
        return {{check, false, "USB cannot be searched: " + DescribeStatus(examined.status),
                 SudoNimbrel() + " doctor --bus usb"}};
    }
    if (examined.diagnosis.error != 0) {
        return {{check, false,
                 std::string("sysfs cannot be read: ") + std::generic_category().message(examined.diagnosis.error),
                 SudoNimbrel() + " doctor --bus usb"}};
    }
    std::size_t cameras = 0;
    for (const UsbDeviceDiagnosis& device : examined.diagnosis.devices) {
        cameras += device.isCamera ? 1 : 0;
    }
    return {Fine(check, std::to_string(examined.diagnosis.devices.size()) + " USB devices, root hubs included; " +
                            std::to_string(cameras) + (cameras == 1 ? " is a camera" : " are cameras"))};
}

Findings CheckUsbEvents(const UsbExamination& examined) {
    const std::string check = "usb.events";
    if (examined.status != HAL_OK) {
        return {};
    }
    if (examined.diagnosis.hearsUevents) {
        return {Fine(check, "the kernel tells when a device is plugged in or pulled out")};
    }
    const std::string late = ": what is plugged in is noticed up to two seconds late";
    if (examined.diagnosis.ueventError != 0) {
        return {{check, false,
                 std::string("the kernel's uevents cannot be heard (") +
                     std::generic_category().message(examined.diagnosis.ueventError) + ")" + late,
                 "# let this program open sockets of the family AF_NETLINK"}};
    }
    return {{check, false, "the kernel sends no uevents into this user or network namespace" + late,
             "# run this program outside of the container, or in one without a user namespace of its own"}};
}

Findings CheckUsbAuthorization(const UsbExamination& examined) {
    const std::string check = "usb.authorization";
    Findings findings;
    std::size_t cameras = 0;
    for (const UsbDeviceDiagnosis& device : examined.diagnosis.devices) {
        if (!device.isCamera) {
            continue;
        }
        ++cameras;
        if (!device.isAuthorized) {
            findings.push_back({check, false, UsbCameraText(device) + " is not authorized, so it is not listed",
                                WriteUsbAttribute(UsbAttribute(device, "authorized"), "1")});
        } else if (device.configuration == 0) {
            findings.push_back({check, false, UsbCameraText(device) + " has no configuration, so it is not listed",
                                WriteUsbAttribute(UsbAttribute(device, "bConfigurationValue"), "1")});
        }
    }
    if (findings.empty() && cameras != 0) {
        findings.push_back(Fine(check, "every USB camera is authorized and configured"));
    }
    return findings;
}

Findings CheckUsbPermission(const UsbExamination& examined) {
    const std::string check = "usb.permission";
    Findings findings;
    std::size_t cameras = 0;
    for (const UsbDeviceDiagnosis& device : examined.diagnosis.devices) {
        if (!device.isListed) {
            continue;
        }
        ++cameras;
        if (device.nodeError == 0) {
            continue;
        }
        findings.push_back({check, false, WhyItMayNot(examined, device), CureOfPermission(examined, device)});
    }
    if (findings.empty() && cameras != 0) {
        findings.push_back(Fine(check, "this user may open every USB camera"));
    }
    return findings;
}

Findings CheckUsbClaims(const UsbExamination& examined) {
    const std::string check = "usb.claimed";
    Findings findings;
    std::size_t cameras = 0;
    for (const UsbDeviceDiagnosis& device : examined.diagnosis.devices) {
        if (!device.isListed) {
            continue;
        }
        ++cameras;
        for (const UsbClaim& claim : device.claims) {
            const std::string interface = "interface " + std::to_string(claim.interface);
            if (claim.driver == ProgramsDriver) {
                findings.push_back(
                    {check, false,
                     UsbCameraText(device) + " is in use: " + interface + " is claimed by " + ProgramText(claim),
                     claim.process != 0 ? "kill " + std::to_string(claim.process)
                                        : SudoNimbrel() + " doctor --bus usb"});
                break;  // a program takes all that it uses
            }
            if (!claim.isControl) {
                continue;
            }
            const std::string name =
                device.name + ":" + std::to_string(device.configuration) + "." + std::to_string(claim.interface);
            findings.push_back({check, false,
                                UsbCameraText(device) + ": " + interface +
                                    ", by which its registers are reached, is taken "
                                    "by the kernel's driver " +
                                    claim.driver,
                                WriteUsbAttribute("/sys/bus/usb/drivers/" + claim.driver + "/unbind", name)});
        }
    }
    if (findings.empty() && cameras != 0) {
        findings.push_back(Fine(check, "no other program has claimed a USB camera"));
    }
    return findings;
}

const std::vector<Check<UsbExamination>>& UsbChecks() {
    static const std::vector<Check<UsbExamination>> checks{
        CheckUsbDriver, CheckUsbEvents,   CheckUsbAuthorization, CheckUsbPermission, CheckUsbClaims,
        CheckUsbSpeed,  CheckUsbHubSpeed, CheckUsbOverCurrent,   CheckUsbSuspend,    CheckUsbMemory};
    return checks;
}

}  // namespace Nimbrel2::Tool::Doctor
