// SPDX-License-Identifier: Apache-2.0
// Finds files of this installation. Any thread; one look-up of a file.
#include "tools/nimbrel/doctor/InstalledFiles.h"

#include <filesystem>
#include <system_error>

namespace Nimbrel2::Tool::Doctor {
namespace {

namespace fs = std::filesystem;

constexpr char BelowPrefix[] = "share/nimbrel2";

}  // namespace

std::string FindInstalledFile(const std::string& name) {
    std::error_code error;
    const fs::path program = fs::read_symlink("/proc/self/exe", error);
    if (!error) {
        const fs::path beside = program.parent_path().parent_path() / BelowPrefix / name;
        if (fs::exists(beside, error)) {
            return beside.string();
        }
    }
    return std::string(NIMBREL2_INSTALL_PREFIX) + "/" + BelowPrefix + "/" + name;
}

}  // namespace Nimbrel2::Tool::Doctor
