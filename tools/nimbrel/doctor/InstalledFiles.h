// SPDX-License-Identifier: Apache-2.0
// The files that come with this program. Any thread; one look-up of a file.
#ifndef NIMBREL2_TOOLS_NIMBREL_DOCTOR_INSTALLEDFILES_H
#define NIMBREL2_TOOLS_NIMBREL_DOCTOR_INSTALLEDFILES_H

#include <string>

namespace Nimbrel2::Tool::Doctor {

/// Where this installation has a file, also after it was moved.
/// @param name  below share/nimbrel2: "sysctl.d/60-nimbrel2.conf"
std::string FindInstalledFile(const std::string& name);

}  // namespace Nimbrel2::Tool::Doctor

#endif
