// SPDX-License-Identifier: Apache-2.0
// Which answers of cameras on other subnets the kernel's reverse path filter drops. Any thread; no lock; a few system
// calls.
#ifndef NIMBREL2_TOOLS_NIMBREL_REVERSEPATH_H
#define NIMBREL2_TOOLS_NIMBREL_REVERSEPATH_H

#include "common/IPAddress.h"
#include "platform/Diagnostics.h"

namespace Nimbrel2::Tool {

/// Whether packets from the address that arrive on the interface are dropped: its filter is strict (1) and the route
/// back leaves by another interface, or it is loose (2) and there is no route back.
bool IsDropped(const Platform::InterfaceDiagnosis& interface, const IPAddress& from);

/// The same for a camera with an unknown address.
bool AreUnknownDropped(const Platform::InterfaceDiagnosis& interface);

}  // namespace Nimbrel2::Tool

#endif
