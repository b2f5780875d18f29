// SPDX-License-Identifier: Apache-2.0
// The whole command line. Main thread only.
#ifndef NIMBREL2_TOOLS_NIMBREL_PROGRAM_H
#define NIMBREL2_TOOLS_NIMBREL_PROGRAM_H

namespace Nimbrel2::Tool {

/// Does what the arguments say. @return the exit status of the process: see ExitStatus.
/// To be called from main before any thread starts.
int RunProgram(int argc, const char* const* argv);

}  // namespace Nimbrel2::Tool

#endif
