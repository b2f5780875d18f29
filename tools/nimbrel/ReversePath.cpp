// SPDX-License-Identifier: Apache-2.0
// Asks the kernel where packets to an address would leave. Any thread; no lock.
#include "tools/nimbrel/ReversePath.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdint>
#include <optional>

namespace Nimbrel2::Tool {
namespace {

constexpr int Strict = 1;
// RFC 5737: in documents only, so no computer has a route of its own for it.
constexpr IPAddress UnknownAddress{{198, 51, 100, 1}};

class Socket {
public:
    Socket(int domain, int type) : m_fd(socket(domain, type | SOCK_CLOEXEC, 0)) {}
    ~Socket() {
        if (m_fd >= 0) {
            close(m_fd);
        }
    }
    Socket(const Socket&) = delete;
    Socket& operator=(const Socket&) = delete;
    int Get() const { return m_fd; }

private:
    const int m_fd;
};

// The address from which this computer would send there; nothing without a route. Sends nothing.
std::optional<std::uint32_t> SourceTowards(const IPAddress& ip) {
    const Socket socket(AF_INET, SOCK_DGRAM);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(9);
    address.sin_addr.s_addr = htonl(PackIPAddress(ip));
    if (connect(socket.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
        return std::nullopt;
    }
    socklen_t size = sizeof address;
    if (getsockname(socket.Get(), reinterpret_cast<sockaddr*>(&address), &size) != 0) {
        return std::nullopt;
    }
    return ntohl(address.sin_addr.s_addr);
}

}  // namespace

bool IsDropped(const Platform::InterfaceDiagnosis& interface, const IPAddress& from) {
    if (interface.GetRpFilter() == 0 || interface.interface.loopback) {
        return false;
    }
    const std::optional<std::uint32_t> source = SourceTowards(from);
    if (!source) {
        return true;
    }
    if (interface.GetRpFilter() != Strict) {
        return false;
    }
    const auto& addresses = interface.interface.addresses;
    return std::none_of(addresses.begin(), addresses.end(),
                        [&source](const auto& address) { return address.address == *source; });
}

bool AreUnknownDropped(const Platform::InterfaceDiagnosis& interface) { return IsDropped(interface, UnknownAddress); }

}  // namespace Nimbrel2::Tool
