// SPDX-License-Identifier: Apache-2.0
// Asks the C library for the network interfaces. Any thread; no lock.
#include "tools/nimbrel/NetworkInterfaces.h"

#include <ifaddrs.h>

#include <algorithm>
#include <memory>

namespace Nimbrel2::Tool {

std::vector<std::string> NetworkInterfaceNames() {
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0) {
        return {};
    }
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owned(first, freeifaddrs);
    std::vector<std::string> names;  // one entry an address in the list, one a name here
    for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next) {
        if (std::find(names.begin(), names.end(), entry->ifa_name) == names.end()) {
            names.emplace_back(entry->ifa_name);
        }
    }
    return names;
}

}  // namespace Nimbrel2::Tool
