// SPDX-License-Identifier: Apache-2.0
// Questions to the kernel over rtnetlink. Any thread; RouteSocket's leaf lock is held while the kernel answers, which
// it does without waiting for the network.
#include "platform/base/RouteSocket.h"

#include <arpa/inet.h>
#include <linux/neighbour.h>
#include <linux/netconf.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace Nimbrel2::Platform {

namespace {

// The kernel fills dumps with up to 32 KiB a datagram.
constexpr std::size_t BufferBytes = 65536;
// A dump that changes while it is read is read again; on a computer that never settles the last one must do.
constexpr int DumpTries = 5;

int OpenRouteSocket(std::uint32_t groups, int extraFlags, FileDescriptor* out) {
    FileDescriptor fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC | extraFlags, NETLINK_ROUTE));
    if (!fd.IsOpen()) {
        return errno;
    }
    sockaddr_nl local{};
    local.nl_family = AF_NETLINK;
    local.nl_groups = groups;
    if (::bind(fd.Get(), reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
        return errno;
    }
    *out = std::move(fd);
    return 0;
}

void Append(std::vector<std::uint8_t>& out, const void* data, std::size_t size) {
    const auto* bytes = static_cast<const std::uint8_t*>(data);
    out.insert(out.end(), bytes, bytes + size);
}

void AppendAttribute(std::vector<std::uint8_t>& out, std::uint16_t type, std::uint32_t value) {
    const rtattr header{static_cast<std::uint16_t>(sizeof(rtattr) + sizeof value), type};
    Append(out, &header, sizeof header);
    Append(out, &value, sizeof value);
}

std::uint32_t MaskOf(std::uint8_t prefixLength) { return InterfaceAddress{0, prefixLength, false}.GetMask(); }

}  // namespace

int RouteSocket::Open() {
    const LockGuard lock(m_mutex);
    const int error = OpenRouteSocket(0, 0, &m_socket);
    if (error != 0) {
        return error;
    }
    // The kernel answers before sendmsg returns; the time-out only bounds what cannot happen.
    const timeval limit{1, 0};
    if (::setsockopt(m_socket.Get(), SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit) != 0) {
        return errno;
    }
    // Lets a dump be limited to one interface. Kernels before 4.20 do not know it and send everything.
    const int on = 1;
    ::setsockopt(m_socket.Get(), SOL_NETLINK, NETLINK_GET_STRICT_CHK, &on, sizeof on);
    m_buffer.resize(BufferBytes);
    return 0;
}

bool RouteSocket::IsOpen() {
    const LockGuard lock(m_mutex);
    return m_socket.IsOpen();
}

int RouteSocket::AskOnce(std::uint16_t type, std::uint16_t flags, std::span<const std::uint8_t> body,
                         const Handler& handler, bool* interrupted) {
    nlmsghdr header{};
    header.nlmsg_len = static_cast<std::uint32_t>(sizeof header + body.size());
    header.nlmsg_type = type;
    header.nlmsg_flags = static_cast<std::uint16_t>(NLM_F_REQUEST | flags);
    header.nlmsg_seq = ++m_sequence;
    std::vector<std::uint8_t> request;
    Append(request, &header, sizeof header);
    Append(request, body.data(), body.size());
    sockaddr_nl kernel{};
    kernel.nl_family = AF_NETLINK;
    if (::sendto(m_socket.Get(), request.data(), request.size(), 0, reinterpret_cast<const sockaddr*>(&kernel),
                 sizeof kernel) < 0) {
        return errno;
    }
    while (true) {
        sockaddr_nl from{};
        socklen_t fromSize = sizeof from;
        const ssize_t size = ::recvfrom(m_socket.Get(), m_buffer.data(), m_buffer.size(), 0,
                                        reinterpret_cast<sockaddr*>(&from), &fromSize);
        if (size < 0 && errno == EINTR) {
            continue;
        }
        if (size < 0) {
            return errno;
        }
        if (from.nl_pid != 0) {
            continue;  // not from the kernel
        }
        Netlink::Bytes rest(m_buffer.data(), static_cast<std::size_t>(size));
        while (const auto message = Netlink::NextMessage(rest)) {
            if (message->sequence != m_sequence) {
                continue;  // of an earlier question that was given up
            }
            if ((message->flags & NLM_F_DUMP_INTR) != 0) {
                *interrupted = true;
            }
            if (message->type == NLMSG_DONE) {
                return 0;
            }
            if (message->type == NLMSG_ERROR) {
                const auto error = Netlink::Load<nlmsgerr>(message->payload);
                return error ? -error->error : EBADMSG;
            }
            handler(*message);
            if ((message->flags & NLM_F_MULTI) == 0) {
                return 0;
            }
        }
    }
}

int RouteSocket::ReadInterfaces(std::vector<NetworkInterface>* interfaces) {
    const LockGuard lock(m_mutex);
    if (!m_socket.IsOpen()) {
        return EBADF;
    }
    for (int i = 0; i < DumpTries; ++i) {
        interfaces->clear();
        bool interrupted = false;

        std::vector<std::uint8_t> body;
        ifinfomsg links{};
        links.ifi_family = AF_UNSPEC;
        Append(body, &links, sizeof links);
        AppendAttribute(body, IFLA_EXT_MASK, RTEXT_FILTER_SKIP_STATS);
        int error = AskOnce(
            RTM_GETLINK, NLM_F_DUMP, body,
            [&](const Netlink::Message& message) {
                if (message.type != RTM_NEWLINK) {
                    return;
                }
                if (auto link = Netlink::ParseLink(message.payload)) {
                    interfaces->push_back(*link);
                }
            },
            &interrupted);
        if (error != 0) {
            return error;
        }
        std::sort(interfaces->begin(), interfaces->end(),
                  [](const NetworkInterface& a, const NetworkInterface& b) { return a.index < b.index; });

        ifaddrmsg addresses{};
        addresses.ifa_family = AF_INET;
        body.clear();
        Append(body, &addresses, sizeof addresses);
        error = AskOnce(
            RTM_GETADDR, NLM_F_DUMP, body,
            [&](const Netlink::Message& message) {
                if (message.type != RTM_NEWADDR) {
                    return;
                }
                const auto address = Netlink::ParseAddress(message.payload);
                if (!address) {
                    return;
                }
                for (NetworkInterface& interface : *interfaces) {
                    if (interface.index == address->interface) {
                        interface.addresses.push_back(address->address);
                    }
                }
            },
            &interrupted);
        if (error != 0) {
            return error;
        }
        if (!interrupted) {
            return 0;
        }
    }
    return 0;
}

int RouteSocket::Ask(std::uint16_t type, std::uint16_t flags, std::span<const std::uint8_t> body,
                     const Handler& handler) {
    const LockGuard lock(m_mutex);
    if (!m_socket.IsOpen()) {
        return EBADF;
    }
    bool interrupted = false;
    return AskOnce(type, flags, body, handler, &interrupted);
}

bool RouteSocket::HasDirectRoute(int interface, std::uint32_t ip) {
    rtmsg header{};
    header.rtm_family = AF_INET;
    header.rtm_dst_len = 32;
    header.rtm_flags = RTM_F_FIB_MATCH;  // the route itself, not what the kernel makes of it
    std::vector<std::uint8_t> body;
    Append(body, &header, sizeof header);
    AppendAttribute(body, RTA_DST, htonl(ip));
    AppendAttribute(body, RTA_OIF, static_cast<std::uint32_t>(interface));
    bool direct = false;
    const int error = Ask(RTM_GETROUTE, 0, body, [&](const Netlink::Message& message) {
        const auto route = Netlink::ParseRoute(message.payload);
        direct = route && route->direct && route->interface == interface && route->prefixLength > 0;
    });
    return error == 0 && direct;
}

int RouteSocket::FindRoute(std::uint32_t ip) {
    rtmsg header{};
    header.rtm_family = AF_INET;
    header.rtm_dst_len = 32;
    std::vector<std::uint8_t> body;
    Append(body, &header, sizeof header);
    AppendAttribute(body, RTA_DST, htonl(ip));
    int interface = 0;
    const int error = Ask(RTM_GETROUTE, 0, body, [&](const Netlink::Message& message) {
        const auto route = Netlink::ParseRoute(message.payload);
        if (route) {
            interface = route->interface;
        }
    });
    return error == 0 ? interface : 0;
}

int RouteSocket::ReadGateways(int interface, std::set<std::uint32_t>* gateways) {
    rtmsg header{};
    header.rtm_family = AF_INET;
    std::vector<std::uint8_t> body;
    Append(body, &header, sizeof header);
    AppendAttribute(body, RTA_OIF, static_cast<std::uint32_t>(interface));
    return Ask(RTM_GETROUTE, NLM_F_DUMP, body, [&](const Netlink::Message& message) {
        const auto route = Netlink::ParseRoute(message.payload);
        if (route && route->interface == interface && route->gateway != 0) {
            gateways->insert(route->gateway);
        }
    });
}

int RouteSocket::ReadNeighbours(int interface, std::map<std::uint32_t, std::uint64_t>* neighbours) {
    ndmsg header{};
    header.ndm_family = AF_INET;
    std::vector<std::uint8_t> body;
    Append(body, &header, sizeof header);
    AppendAttribute(body, NDA_IFINDEX, static_cast<std::uint32_t>(interface));
    return Ask(RTM_GETNEIGH, NLM_F_DUMP, body, [&](const Netlink::Message& message) {
        const auto neighbour = Netlink::ParseNeighbour(message.payload);
        if (!neighbour || neighbour->interface != interface || !neighbour->answers) {
            return;
        }
        (*neighbours)[neighbour->ip] = neighbour->mac;
    });
}

int RouteSocket::ChangeAddress(Change change, int interface, std::uint32_t address, std::uint8_t prefixLength) {
    ifaddrmsg header{};
    header.ifa_family = AF_INET;
    header.ifa_prefixlen = prefixLength;
    header.ifa_index = static_cast<unsigned int>(interface);
    std::vector<std::uint8_t> body;
    Append(body, &header, sizeof header);
    AppendAttribute(body, IFA_LOCAL, htonl(address));
    AppendAttribute(body, IFA_ADDRESS, htonl(address));
    const bool add = change == Change::Add;
    if (add && prefixLength < 31) {
        AppendAttribute(body, IFA_BROADCAST, htonl(address | ~MaskOf(prefixLength)));
    }
    const int flags = NLM_F_ACK | (add ? NLM_F_CREATE | NLM_F_EXCL : 0);
    return Ask(add ? RTM_NEWADDR : RTM_DELADDR, static_cast<std::uint16_t>(flags), body,
               [](const Netlink::Message&) {});
}

void RouteSocket::ReadRpFilter(int interface, int* ofAll, int* ofIt) {
    for (const auto& [which, filter] : {std::pair{NETCONFA_IFINDEX_ALL, ofAll}, std::pair{interface, ofIt}}) {
        netconfmsg header{};
        header.ncm_family = AF_INET;
        std::vector<std::uint8_t> body;
        Append(body, &header, sizeof header);
        body.resize(NLMSG_ALIGN(body.size()));
        AppendAttribute(body, NETCONFA_IFINDEX, static_cast<std::uint32_t>(which));
        int* const out = filter;
        *out = 0;
        Ask(RTM_GETNETCONF, 0, body, [out](const Netlink::Message& message) {
            *out = static_cast<int>(Netlink::ParseRpFilter(message.payload).value_or(0));
        });
    }
}

int ChangeSocket::Open() { return OpenRouteSocket(RTMGRP_LINK | RTMGRP_IPV4_IFADDR, SOCK_NONBLOCK, &m_socket); }

bool ChangeSocket::Drain() {
    bool any = false;
    std::uint8_t byte;
    while (true) {
        // MSG_TRUNC: a notice's contents are of no interest. ENOBUFS says that notices were lost, which is one too.
        const ssize_t size = ::recv(m_socket.Get(), &byte, sizeof byte, MSG_TRUNC);
        if (size < 0 && errno == EINTR) {
            continue;
        }
        if (size < 0 && errno == ENOBUFS) {
            any = true;
            continue;
        }
        if (size < 0) {
            return any;
        }
        any = true;
    }
}

}  // namespace Nimbrel2::Platform
