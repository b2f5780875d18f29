// SPDX-License-Identifier: Apache-2.0
// What Ctrl-C, SIGTERM and a closed terminal do. The handlers run on any thread and call async-signal-safe functions
// only; the functions below are for the main thread; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_INTERRUPTS_H
#define NIMBREL2_TOOLS_NIMBREL_INTERRUPTS_H

namespace Nimbrel2::Tool::Interrupts {

/// From here on SIGINT, SIGTERM and SIGHUP end the program as if unhandled, after the progress line was wiped, so that
/// a shell loop around the program ends too. Those that the parent has set to be ignored stay ignored (nohup,
/// background jobs of scripts). SIGPIPE is ignored; writes fail with EPIPE. Call before any thread starts.
void Install();

/// Whether the program ignores that signal.
bool IsIgnored(int number);

/// How a command ends that catches these signals.
enum class End {
    Orderly,   ///< With 0: a signal is the way to end it.
    BySignal,  ///< With 128 and the number of the signal: it was cut short.
};

/// From here on those signals make the returned descriptor readable instead, for a command that cleans up before it
/// ends. If it hangs while it does, the program ends after 700 ms with the exit status of that end.
/// @throws std::system_error
int Catch(End end);

/// 128 and the number of the signal that was caught; 0 when none was.
int GetExitStatus();

/// Ends the process by the signal that was caught, as the parent expects of a program that was cut short.
void EndBySignal();

/// Whether a progress line must be wiped before a signal ends the program.
void SetProgressShown(bool shown);

}  // namespace Nimbrel2::Tool::Interrupts

#endif
