// SPDX-License-Identifier: Apache-2.0
// Finds udev rules. Any thread; a few look-ups of files.
#include "tools/nimbrel/doctor/UdevRule.h"

#include <filesystem>
#include <system_error>

#include "tools/nimbrel/doctor/InstalledFiles.h"

namespace Nimbrel2::Tool::Doctor {
namespace {

namespace fs = std::filesystem;

// Where udevd looks (udev(7)).
constexpr const char* RuleFolders[] = {"/etc/udev/rules.d", "/run/udev/rules.d", "/usr/local/lib/udev/rules.d",
                                       "/usr/lib/udev/rules.d", "/lib/udev/rules.d"};

bool Exists(const fs::path& path) {
    std::error_code error;
    return fs::exists(path, error);
}

}  // namespace

UdevRule FindUdevRule(const std::string& name) {
    UdevRule rule;
    rule.installed = FindInstalledFile("udev/" + name);
    for (const char* folder : RuleFolders) {
        rule.isInForce = rule.isInForce || Exists(fs::path(folder) / name);
    }
    return rule;
}

std::string CommandToReloadUdevRules(const std::string& subsystem) {
    return "sudo udevadm control --reload && sudo udevadm trigger --action=add --subsystem-match=" + subsystem;
}

std::string CommandForUdevRule(const UdevRule& rule, const std::string& subsystem) {
    return "sudo cp " + rule.installed + " /etc/udev/rules.d/ && " + CommandToReloadUdevRules(subsystem);
}

}  // namespace Nimbrel2::Tool::Doctor
