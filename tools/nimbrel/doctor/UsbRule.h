// SPDX-License-Identifier: Apache-2.0
// The udev rule that lets users open USB3 Vision cameras: where it is, and what puts it in force. Any thread.
#ifndef NIMBREL2_TOOLS_NIMBREL_DOCTOR_USBRULE_H
#define NIMBREL2_TOOLS_NIMBREL_DOCTOR_USBRULE_H

#include <string>

#include "tools/nimbrel/doctor/UdevRule.h"

namespace Nimbrel2::Tool::Doctor {

using UsbRule = UdevRule;

/// Looks for the rule beside this program and where udevd looks.
UsbRule FindUsbRule();

/// "70-nimbrel2-usb3-vision.rules"
std::string UsbRuleName();

/// The command that puts it in force. Pure.
std::string CommandForUsbRule(const UsbRule& rule);

/// What whoever may not open a USB camera can do: one sentence with a command.
std::string HintForUsbPermission();
/// The same, pure. @param hasNodes  This computer shows device nodes of USB at all.
std::string HintForUsbPermission(const UsbRule& rule, bool hasNodes);

}  // namespace Nimbrel2::Tool::Doctor

#endif
