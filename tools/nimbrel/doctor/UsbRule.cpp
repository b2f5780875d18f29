// SPDX-License-Identifier: Apache-2.0
// Finds the udev rule for USB3 Vision cameras. Any thread; a few look-ups of files.
#include "tools/nimbrel/doctor/UsbRule.h"

#include <filesystem>
#include <system_error>

namespace Nimbrel2::Tool::Doctor {
namespace {

namespace fs = std::filesystem;

constexpr char kName[] = "70-nimbrel2-usb3-vision.rules";
constexpr char kBelowPrefix[] = "lib/udev/rules.d";
// Where udevd looks (udev(7)).
constexpr const char* kRuleFolders[] = {"/etc/udev/rules.d", "/run/udev/rules.d", "/usr/local/lib/udev/rules.d",
                                        "/usr/lib/udev/rules.d", "/lib/udev/rules.d"};

bool Exists(const fs::path& path) {
    std::error_code error;
    return fs::exists(path, error);
}

}  // namespace

std::string UsbRuleName() { return kName; }

UsbRule FindUsbRule() {
    UsbRule rule;
    rule.installed = std::string(NIMBREL2_INSTALL_PREFIX) + "/" + kBelowPrefix + "/" + kName;
    std::error_code error;
    const fs::path program = fs::read_symlink("/proc/self/exe", error);
    if (!error) {
        // An installed tree may have been moved.
        const fs::path beside = program.parent_path().parent_path() / kBelowPrefix / kName;
        if (Exists(beside)) rule.installed = beside.string();
    }
    for (const char* folder : kRuleFolders) rule.isInForce = rule.isInForce || Exists(fs::path(folder) / kName);
    return rule;
}

std::string CommandForUsbRule(const UsbRule& rule) {
    return "sudo cp " + rule.installed +
           " /etc/udev/rules.d/ && sudo udevadm control --reload && "
           "sudo udevadm trigger --action=add --subsystem-match=usb";
}

std::string HintForUsbPermission() {
    const UsbRule rule = FindUsbRule();
    if (rule.isInForce) return "`nimbrel doctor --bus usb` finds out why.";
    return "Let users open USB cameras: `" + CommandForUsbRule(rule) + "`.";
}

}  // namespace Nimbrel2::Tool::Doctor
