// SPDX-License-Identifier: Apache-2.0
// Names the udev rule for USB3 Vision cameras. Any thread; a few look-ups of files.
#include "tools/nimbrel/doctor/UsbRule.h"

#include <filesystem>
#include <system_error>

namespace Nimbrel2::Tool::Doctor {
namespace {

constexpr char RuleName[] = "70-nimbrel2-usb3-vision.rules";

}  // namespace

std::string UsbRuleName() { return RuleName; }

UsbRule FindUsbRule() { return FindUdevRule(RuleName); }

std::string CommandForUsbRule(const UsbRule& rule) { return CommandForUdevRule(rule, "usb"); }

std::string HintForUsbPermission(const UsbRule& rule, bool hasNodes) {
    // A container that was not given the nodes needs no rule.
    if (rule.isInForce || !hasNodes) {
        return "`nimbrel doctor --bus usb` finds out why.";
    }
    return "Let users open USB cameras: `" + CommandForUsbRule(rule) + "`.";
}

std::string HintForUsbPermission() {
    std::error_code error;
    return HintForUsbPermission(FindUsbRule(), std::filesystem::exists("/dev/bus/usb", error));
}

}  // namespace Nimbrel2::Tool::Doctor
