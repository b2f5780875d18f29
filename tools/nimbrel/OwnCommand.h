// SPDX-License-Identifier: Apache-2.0
// How root calls this program. Any thread; no lock.
#ifndef NIMBREL2_TOOLS_NIMBREL_OWNCOMMAND_H
#define NIMBREL2_TOOLS_NIMBREL_OWNCOMMAND_H

#include <string>

namespace Nimbrel2::Tool {

/// "sudo nimbrel", for a POSIX shell; with the whole path where sudo does not look for programs, such as in the folder
/// of a build, whatever the user's own PATH is.
std::string SudoNimbrel();
/// The same for a program at that path. Pure.
std::string SudoNimbrel(const std::string& path);

}  // namespace Nimbrel2::Tool

#endif
