// SPDX-License-Identifier: Apache-2.0
// Asks the C library for the network interfaces. Any thread; no lock.
#include "tools/nimbrel/NetworkInterfaces.h"

#include <ifaddrs.h>
#include <net/if.h>
#include <sys/socket.h>

#include <algorithm>
#include <functional>
#include <memory>

namespace Nimbrel2::Tool {
namespace {

std::vector<std::string> NamesOf(const std::function<bool(const ifaddrs& entry)>& wanted) {
    ifaddrs* first = nullptr;
    if (getifaddrs(&first) != 0) {
        return {};
    }
    const std::unique_ptr<ifaddrs, void (*)(ifaddrs*)> owned(first, freeifaddrs);
    std::vector<std::string> names;  // one entry an address in the list, one a name here
    for (const ifaddrs* entry = first; entry != nullptr; entry = entry->ifa_next) {
        const bool isKnown = std::find(names.begin(), names.end(), entry->ifa_name) != names.end();
        if (!isKnown && wanted(*entry)) {
            names.emplace_back(entry->ifa_name);
        }
    }
    return names;
}

}  // namespace

std::vector<std::string> NetworkInterfaceNames() {
    return NamesOf([](const ifaddrs&) { return true; });
}

std::vector<std::string> UsualNetworkInterfaceNames() {
    return NamesOf([](const ifaddrs& entry) {
        constexpr unsigned int needed = IFF_UP | IFF_RUNNING | IFF_BROADCAST;
        const bool canReach = (entry.ifa_flags & (needed | IFF_LOOPBACK | IFF_POINTOPOINT)) == needed;
        return canReach && entry.ifa_addr != nullptr && entry.ifa_addr->sa_family == AF_INET;
    });
}

}  // namespace Nimbrel2::Tool
