// SPDX-License-Identifier: Apache-2.0
// Which answers of cameras on other subnets the kernel's reverse path filter keeps from this program. Any thread; no
// lock; a few system calls.
#ifndef NIMBREL2_TOOLS_NIMBREL_REVERSEPATH_H
#define NIMBREL2_TOOLS_NIMBREL_REVERSEPATH_H

#include <string>

#include "common/IPAddress.h"
#include "platform/Diagnostics.h"

namespace Nimbrel2::Tool {

/// Whether packets from the address that come in on the interface are dropped: its filter is strict (1) and the way
/// back does not leave by it, or the filter is loose (2) and there is no way back at all.
bool IsSwallowed(const Platform::InterfaceDiagnosis& interface, const IPAddress& from);

/// The same for a camera of which nothing is known.
bool AreStrangersSwallowed(const Platform::InterfaceDiagnosis& interface);

/// Whether this program hears what the filter drops.
bool MayListenToPackets();

/// The commands that let such answers in, for people. @param from  "10.9.9.9", or what stands for it.
std::string CuresForSwallowing(const std::string& interfaceName, const std::string& from);

}  // namespace Nimbrel2::Tool

#endif
