// SPDX-License-Identifier: Apache-2.0
// The diagnostic trace: composed texts that go nowhere unless a sink is installed.
#ifndef NIMBREL2_COMMON_TRACE_H
#define NIMBREL2_COMMON_TRACE_H

#include <string>

namespace Nimbrel2 {

/// Hands a finished text to the sink. Without one, which is every shipped build, the text is dropped.
/// @par Threads  Any, with any lock held: a sink must not call the bus master.
void Trace(const std::string& text);

using TraceSink = void (*)(const std::string& text);

/// Installs a sink (null: none) and returns the one before it. For tests and for debugging builds.
TraceSink SetTraceSink(TraceSink sink) noexcept;

}  // namespace Nimbrel2

#endif
