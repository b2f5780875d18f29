// SPDX-License-Identifier: Apache-2.0
// The network interfaces of this computer, by name. Any thread; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_NETWORKINTERFACES_H
#define NIMBREL2_TOOLS_NIMBREL_NETWORKINTERFACES_H

#include <string>
#include <vector>

namespace Nimbrel2::Tool {

/// All of them, in the order of the kernel.
std::vector<std::string> NetworkInterfaceNames();

}  // namespace Nimbrel2::Tool

#endif
