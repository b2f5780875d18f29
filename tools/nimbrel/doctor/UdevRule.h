// SPDX-License-Identifier: Apache-2.0
// The udev rules that come with this program: where one is, and what puts it in force. Any thread; a few look-ups of
// files.
#ifndef NIMBREL2_TOOLS_NIMBREL_DOCTOR_UDEVRULE_H
#define NIMBREL2_TOOLS_NIMBREL_DOCTOR_UDEVRULE_H

#include <string>

namespace Nimbrel2::Tool::Doctor {

struct UdevRule {
    std::string installed;   ///< where this installation has the rule
    bool isInForce = false;  ///< udevd has it among its rules
};

/// Looks for a rule beside this program and where udevd looks.
/// @param name  "70-nimbrel2-firewire.rules"
UdevRule FindUdevRule(const std::string& name);

/// The command after which udevd's rules are in force for the devices of that subsystem. Pure.
std::string CommandToReloadUdevRules(const std::string& subsystem);
/// The command that puts a rule in force. Pure.
std::string CommandForUdevRule(const UdevRule& rule, const std::string& subsystem);

}  // namespace Nimbrel2::Tool::Doctor

#endif
