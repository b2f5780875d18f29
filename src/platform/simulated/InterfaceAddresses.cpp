// SPDX-License-Identifier: Apache-2.0
// Interface addresses, asked of and told to the kernel. Any thread, no lock.
#include "platform/simulated/InterfaceAddresses.h"

#include <fcntl.h>
#include <net/if.h>
#include <unistd.h>

#include <algorithm>
#include <bit>
#include <cerrno>
#include <vector>

#include "platform/base/FileDescriptor.h"
#include "platform/base/RouteSocket.h"

namespace Nimbrel2::Platform::Simulated {
namespace {

int ChangeAddress(RouteSocket::Change change, const std::string& interfaceName, std::uint32_t address,
                  std::uint32_t subnetMask) {
    const unsigned int index = if_nametoindex(interfaceName.c_str());
    if (index == 0) {
        return errno;
    }
    RouteSocket routes;
    if (const int error = routes.Open(); error != 0) {
        return error;
    }
    return routes.ChangeAddress(change, static_cast<int>(index), address,
                                static_cast<std::uint8_t>(std::countl_one(subnetMask)));
}

/// Without this the kernel removes all addresses of a subnet with the first of them.
int KeepOtherAddresses(const std::string& interfaceName) {
    const std::string path = "/proc/sys/net/ipv4/conf/" + interfaceName + "/promote_secondaries";
    const FileDescriptor file(open(path.c_str(), O_WRONLY | O_CLOEXEC));
    if (!file.IsOpen()) {
        return errno;
    }
    return write(file.Get(), "1", 1) == 1 ? 0 : errno;
}

bool HasAddress(const NetworkInterface& interface, std::uint32_t address) {
    if (interface.loopback && interface.up && address >> 24 == 127) {
        return true;
    }
    return std::any_of(interface.addresses.begin(), interface.addresses.end(),
                       [address](const InterfaceAddress& own) { return own.address == address; });
}

}  // namespace

std::string FindInterfaceOf(std::uint32_t address) {
    RouteSocket routes;
    std::vector<NetworkInterface> interfaces;
    if (routes.Open() != 0 || routes.ReadInterfaces(&interfaces) != 0) {
        return {};
    }
    for (const NetworkInterface& interface : interfaces) {
        if (HasAddress(interface, address)) {
            return interface.name;
        }
    }
    return {};
}

int AddInterfaceAddress(const std::string& interfaceName, std::uint32_t address, std::uint32_t subnetMask) {
    return ChangeAddress(RouteSocket::Change::Add, interfaceName, address, subnetMask);
}

int RemoveInterfaceAddress(const std::string& interfaceName, std::uint32_t address, std::uint32_t subnetMask) {
    const int error = KeepOtherAddresses(interfaceName);
    if (error != 0) {
        return error;
    }
    return ChangeAddress(RouteSocket::Change::Remove, interfaceName, address, subnetMask);
}

}  // namespace Nimbrel2::Platform::Simulated
