// SPDX-License-Identifier: Apache-2.0
// The trace: one line per action of the bus master, for an application's sink. Off until one is installed.
#ifndef NIMBREL2_COMMON_TRACE_H
#define NIMBREL2_COMMON_TRACE_H

#include <string>

#include "hal/Export.h"

namespace Nimbrel2 {

/// Receives a line of the trace: plain text, without time or thread, which a sink adds when it wants them, sometimes
/// with a line feed at its end. Texts may change between releases. What the drivers of the buses have to say comes to
/// Platform::Options::trace instead.
/// @par Threads  Called on the library's threads and on those that call the bus master, several at once, with locks
///               held. A sink must not call the bus master and must not wait for anything: it would hold up the worker
///               and every look-up. What it throws is dropped.
using TraceSink = void (*)(const std::string& text);

/// Installs a sink and returns the one before it; null is none, as at the start of a program.
/// @par Threads  Any. A thread may still be in the old sink for a moment: neither that function nor what it uses may
/// go.
NIMBREL2_API TraceSink SetTraceSink(TraceSink sink) noexcept;

/// Hands a line to the sink, if there is one: for programs that want their own lines in the same trace.
/// @par Threads  Any, with any lock held.
NIMBREL2_API void Trace(const std::string& text) noexcept;

}  // namespace Nimbrel2

#endif
