// SPDX-License-Identifier: Apache-2.0
// Asks the kernel about interfaces, addresses, routes, neighbours and settings, changes addresses, and hears when links
// and addresses change. RouteSocket: any thread, one question at a time under its own leaf lock; the kernel answers at
// once. ChangeSocket: the monitor thread only.
#ifndef NIMBREL2_PLATFORM_BASE_ROUTESOCKET_H
#define NIMBREL2_PLATFORM_BASE_ROUTESOCKET_H

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <span>
#include <vector>

#include "platform/base/FileDescriptor.h"
#include "platform/base/Mutex.h"
#include "platform/base/NetlinkMessages.h"

namespace Nimbrel2::Platform {

/// The socket belongs to the network namespace of the thread that opened it, whoever asks later.
class RouteSocket {
public:
    /// @return 0 or an errno.
    int Open();
    bool IsOpen();

    /// Every interface with its IPv4 addresses, by index. @return 0 or an errno.
    int ReadInterfaces(std::vector<NetworkInterface>* interfaces);

    /// Whether a route that somebody has set leads to that address through that interface and past no gateway. The
    /// default route does not count.
    bool HasDirectRoute(int interface, std::uint32_t ip);

    /// The interface by which an address is reached, past gateways or not; 0 when there is no way.
    int FindRoute(std::uint32_t ip);

    /// Gateways of the routes that leave by an interface. @return 0 or an errno.
    int ReadGateways(int interface, std::set<std::uint32_t>* gateways);

    /// Addresses on an interface's wire whose hosts have answered ARP, with their MACs. @return 0 or an errno.
    int ReadNeighbours(int interface, std::map<std::uint32_t, std::uint64_t>* neighbours);

    enum class Change : std::uint8_t { Add, Remove };
    /// Gives an interface an address, or takes one away. @return 0 or an errno: EPERM without CAP_NET_ADMIN, EEXIST for
    /// an address that it has.
    int ChangeAddress(Change change, int interface, std::uint32_t address, std::uint8_t prefixLength);

    /// The reverse path filter set for all interfaces and for one: 0 off, 1 strict, 2 loose. The larger is in force.
    void ReadRpFilter(int interface, int* ofAll, int* ofIt);

private:
    using Handler = std::function<void(const Netlink::Message&)>;
    int Ask(std::uint16_t type, std::uint16_t flags, std::span<const std::uint8_t> body, const Handler& handler);
    int AskOnce(std::uint16_t type, std::uint16_t flags, std::span<const std::uint8_t> body, const Handler& handler,
                bool* interrupted) NIMBREL2_REQUIRES(m_mutex);

    Mutex m_mutex;  ///< held during a question: one at a time
    FileDescriptor m_socket NIMBREL2_GUARDED_BY(m_mutex);
    std::uint32_t m_sequence NIMBREL2_GUARDED_BY(m_mutex) = 0;
    std::vector<std::uint8_t> m_buffer NIMBREL2_GUARDED_BY(m_mutex);
};

class ChangeSocket {
public:
    /// @return 0 or an errno.
    int Open();
    int GetFd() const { return m_socket.Get(); }
    bool IsOpen() const { return m_socket.IsOpen(); }

    /// Takes all notices off the socket, lost ones included. What they say is not read: the interfaces are looked at
    /// again.
    /// @return Whether there was any.
    bool Drain();

private:
    FileDescriptor m_socket;
};

}  // namespace Nimbrel2::Platform

#endif
