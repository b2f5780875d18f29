// SPDX-License-Identifier: Apache-2.0
// Finds out where this program is and whether sudo would find it there. Any thread; no lock.
#include "tools/nimbrel/OwnCommand.h"

#include <algorithm>
#include <array>
#include <filesystem>
#include <system_error>

#include "tools/nimbrel/Words.h"

namespace Nimbrel2::Tool {

std::string SudoNimbrel() {
    std::error_code ignored;
    return SudoNimbrel(std::filesystem::read_symlink("/proc/self/exe", ignored).string());
}

std::string SudoNimbrel(const std::string& path) {
    // The secure_path that sudo is installed with.
    static const std::array<const char*, 6> searched{"/usr/local/sbin", "/usr/local/bin", "/usr/sbin",
                                                     "/usr/bin",        "/sbin",          "/bin"};
    const std::filesystem::path program(path);
    const bool isFound = program.filename() != "nimbrel" ||
                         std::find(searched.begin(), searched.end(), program.parent_path().string()) != searched.end();
    return "sudo " + (isFound ? "nimbrel" : QuoteForShell(path));
}

}  // namespace Nimbrel2::Tool
