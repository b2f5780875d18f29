// SPDX-License-Identifier: Apache-2.0
// The library's trace for -v and --log: one line per text, with time and thread. Any thread; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_TRACELOG_H
#define NIMBREL2_TOOLS_NIMBREL_TRACELOG_H

#include <string>

namespace Nimbrel2::Tool::TraceLog {

/// From here on lines go to standard error, to a file, or to both. A file is appended to.
/// @throws CommandError when it cannot be opened.
void ToStandardError();
void ToFile(const std::string& path);

/// Whether standard error belongs to the trace, so that nothing else may be drawn on it.
bool IsOnStandardError();

/// One line of our own. Nothing when nobody wants a trace. Never waits: a line that a terminal or pipe would not take
/// at once is left out, and how many were is said before the next.
void Write(const std::string& text) noexcept;

}  // namespace Nimbrel2::Tool::TraceLog

#endif
