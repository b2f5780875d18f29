// SPDX-License-Identifier: Apache-2.0
// One UDP socket on one network interface. No lock.
#include "platform/linux/gige/UdpSocket.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>

#include "platform/gvcp/GvcpConstants.h"

namespace Nimbrel2::Platform::GigE {

namespace {

constexpr std::uint16_t DiscardPort = 9;
constexpr std::size_t Batch = 16;
// Longer than any packet, so that what does not fit is no packet.
constexpr std::size_t DatagramBytes = Gvcp::MaxPacketBytes + 28;
// Sends may find an error that an earlier one has left on the socket: the next one tells whether this packet can be
// sent.
constexpr int SendTries = 2;
// Datagrams of others that are dropped before whoever waits looks at its deadline again.
constexpr int MostStrangers = 64;

sockaddr_in AddressOf(std::uint32_t ip, std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(ip);
    address.sin_port = htons(port);
    return address;
}

int BindTo(int fd, std::uint32_t ip, std::uint16_t port) {
    const sockaddr_in local = AddressOf(ip, port);
    return ::bind(fd, reinterpret_cast<const sockaddr*>(&local), sizeof local) == 0 ? 0 : errno;
}

// An administrator is given what is asked for, others what the kernel allows everybody.
void SetBuffer(int fd, int forced, int usual, int octets) {
    if (octets == 0) {
        return;
    }
    if (::setsockopt(fd, SOL_SOCKET, forced, &octets, sizeof octets) != 0) {
        ::setsockopt(fd, SOL_SOCKET, usual, &octets, sizeof octets);
    }
}

bool IsFull(int error) { return error == EAGAIN || error == ENOBUFS; }

}  // namespace

int UdpSocket::Open(const NetworkInterface& interface, const SocketOptions& options, std::shared_ptr<UdpSocket>* socket,
                    std::string* where) {
    *where = "socket";
    FileDescriptor fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.IsOpen()) {
        return errno;
    }

    const int on = 1;
    *where = "SO_BROADCAST";
    if (::setsockopt(fd.Get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0) {
        return errno;
    }

    // Smaller buffers only lose more of a flood.
    SetBuffer(fd.Get(), SO_RCVBUFFORCE, SO_RCVBUF, options.receiveBuffer);
    SetBuffer(fd.Get(), SO_SNDBUFFORCE, SO_SNDBUF, options.sendBuffer);

    const std::shared_ptr<UdpSocket> opened(new UdpSocket(interface.index, options.peer.value_or(0), std::move(fd)));
    *where = "bind";
    int error = opened->Bind(interface, options);
    if (error != 0) {
        return error;
    }
    *where = "getsockname";
    error = opened->ReadLocalEnd();
    if (error == 0) {
        *socket = opened;
    }
    return error;
}

int UdpSocket::Bind(const NetworkInterface& interface, const SocketOptions& options) {
    // On loopback a socket without an address would send from 0.0.0.0, where nobody can answer.
    const std::uint32_t ip = interface.loopback ? INADDR_LOOPBACK : options.localAddress;
    if (options.preferredPort != 0 && BindTo(GetFd(), ip, options.preferredPort) == 0) {
        return 0;
    }
    if (!options.ports) {
        return BindTo(GetFd(), ip, 0);
    }
    int error = EADDRINUSE;
    for (std::uint32_t port = options.ports->first; port <= options.ports->last && error == EADDRINUSE; ++port) {
        error = BindTo(GetFd(), ip, static_cast<std::uint16_t>(port));
    }
    return error;
}

int UdpSocket::ReadLocalEnd() {
    sockaddr_in bound{};
    socklen_t size = sizeof bound;
    if (::getsockname(GetFd(), reinterpret_cast<sockaddr*>(&bound), &size) != 0) {
        return errno;
    }
    m_localPort = ntohs(bound.sin_port);
    m_localAddress = ntohl(bound.sin_addr.s_addr);
    return 0;
}

int UdpSocket::Send(std::span<const std::uint8_t> packet, std::uint32_t to, std::uint32_t from) const {
    return SendTo(packet, to, Gvcp::Port, from);
}

int UdpSocket::TriggerArp(std::uint32_t to, std::uint32_t from) const {
    const std::uint8_t nothing = 0;
    const int error = SendTo({&nothing, 1}, to, DiscardPort, from);
    // A firewall that lets out GVCP and little else must not keep the question from being asked.
    return error == EPERM ? SendTo({&nothing, 1}, to, Gvcp::Port, from) : error;
}

int UdpSocket::SendTo(std::span<const std::uint8_t> packet, std::uint32_t to, std::uint16_t toPort,
                      std::uint32_t from) const {
    sockaddr_in address = AddressOf(to, toPort);
    iovec data{const_cast<std::uint8_t*>(packet.data()), packet.size()};
    msghdr message{};
    message.msg_name = &address;
    message.msg_namelen = sizeof address;
    message.msg_iov = &data;
    message.msg_iovlen = 1;

    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(in_pktinfo))> control{};
    message.msg_control = control.data();
    message.msg_controllen = control.size();
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = IPPROTO_IP;
    header->cmsg_type = IP_PKTINFO;
    header->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
    in_pktinfo info{};
    info.ipi_ifindex = m_interface;
    info.ipi_spec_dst.s_addr = htonl(from != 0 ? from : m_localAddress);
    std::memcpy(CMSG_DATA(header), &info, sizeof info);
    for (int i = 0; i < SendTries; ++i) {
        ssize_t sent;
        do {
            sent = ::sendmsg(m_socket.Get(), &message, MSG_DONTWAIT);
        } while (sent < 0 && errno == EINTR);
        if (sent >= 0) {
            return 0;
        }
        if (IsFull(errno)) {
            break;
        }
    }
    return errno;
}

int UdpSocket::SendToPeer(std::span<const std::uint8_t> packet) const {
    return SendTo(packet, m_peer, Gvcp::Port, m_localAddress);
}

std::size_t UdpSocket::Drain(std::size_t budget, DatagramHandler& handler) {
    std::array<std::array<std::uint8_t, DatagramBytes>, Batch> buffers;
    std::array<sockaddr_in, Batch> senders;
    std::array<iovec, Batch> data;
    std::array<mmsghdr, Batch> messages;
    std::size_t taken = 0;
    while (taken < budget) {
        for (std::size_t i = 0; i < Batch; ++i) {
            data[i] = iovec{buffers[i].data(), buffers[i].size()};
            messages[i] = mmsghdr{};
            messages[i].msg_hdr.msg_name = &senders[i];
            messages[i].msg_hdr.msg_namelen = sizeof senders[i];
            messages[i].msg_hdr.msg_iov = &data[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
        // An error that is left on the socket (the device went down) is taken off by this and is no reason to stop.
        const int count = ::recvmmsg(m_socket.Get(), messages.data(), Batch, MSG_DONTWAIT, nullptr);
        if (count < 0 && (errno == EINTR || errno == ENETDOWN)) {
            ++taken;
            continue;
        }
        if (count <= 0) {
            return taken;
        }
        for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
            const msghdr& header = messages[i].msg_hdr;
            if ((header.msg_flags & MSG_TRUNC) != 0 || senders[i].sin_family != AF_INET) {
                continue;
            }
            handler.OnDatagram(*this, ntohl(senders[i].sin_addr.s_addr), ntohs(senders[i].sin_port),
                               std::span<const std::uint8_t>(buffers[i].data(), messages[i].msg_len));
        }
        taken += static_cast<std::size_t>(count);
        if (static_cast<std::size_t>(count) < Batch) {
            return taken;
        }
    }
    return taken;
}

std::size_t UdpSocket::ReceiveFromPeer(std::span<std::uint8_t> buffer) const {
    for (int i = 0; i < MostStrangers; ++i) {
        sockaddr_in from{};
        socklen_t fromSize = sizeof from;
        const ssize_t size = ::recvfrom(m_socket.Get(), buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC,
                                        reinterpret_cast<sockaddr*>(&from), &fromSize);
        if (size < 0 && errno == EAGAIN) {
            return 0;
        }
        if (size < 0 || ntohl(from.sin_addr.s_addr) != m_peer || ntohs(from.sin_port) != Gvcp::Port) {
            continue;
        }
        return static_cast<std::size_t>(size) <= buffer.size() ? static_cast<std::size_t>(size) : 0;
    }
    return 0;
}

}  // namespace Nimbrel2::Platform::GigE
