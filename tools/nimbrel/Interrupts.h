// SPDX-License-Identifier: Apache-2.0
// What Ctrl-C, SIGTERM and a closed terminal do to the program. The handlers run on any thread and call nothing that is
// not async-signal-safe; the functions below are for the main thread; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_INTERRUPTS_H
#define NIMBREL2_TOOLS_NIMBREL_INTERRUPTS_H

namespace Nimbrel2::Tool::Interrupts {

/// From here on SIGINT, SIGTERM and SIGHUP (unless nohup has switched that one off) end the program by that signal, as
/// if nobody handled it, once the progress line has been wiped off the terminal: a shell loop around the program ends
/// with it. SIGPIPE is ignored; writes answer EPIPE. To be called before any thread starts.
void Install();

/// From here on those signals make the returned descriptor readable instead, for a command that ends in an orderly way.
/// Should it hang on that way, the program ends with exit status 0 after 700 ms all the same.
/// @throws std::system_error
int Catch();

/// Whether the last line of the terminal is to be wiped before a signal ends the program.
void SetProgressShown(bool shown);

}  // namespace Nimbrel2::Tool::Interrupts

#endif
