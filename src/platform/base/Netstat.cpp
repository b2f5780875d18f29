// SPDX-License-Identifier: Apache-2.0
// Counters of the kernel's network. Pure.
#include "platform/base/Netstat.h"

#include <sstream>

namespace Nimbrel2::Platform {

std::optional<std::uint64_t> ParseNetstat(const std::string& netstat, std::string_view name) {
    std::istringstream lines(netstat);
    std::string names;
    std::string values;
    // Two lines a group: the names, then the values in the same order.
    while (std::getline(lines, names) && std::getline(lines, values)) {
        std::istringstream nameStream(names);
        std::istringstream valueStream(values);
        std::string nameWord;
        std::string valueWord;
        while (nameStream >> nameWord && valueStream >> valueWord) {
            if (nameWord != name) {
                continue;
            }
            std::istringstream number(valueWord);
            std::uint64_t count = 0;
            if (number >> count) {
                return count;
            }
        }
    }
    return std::nullopt;
}

}  // namespace Nimbrel2::Platform
