// SPDX-License-Identifier: Apache-2.0
// One network interface's UDP socket. Any thread; no lock.
#include "platform/linux/gige/UdpPort.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>

#include "platform/gvcp/GvcpConstants.h"

namespace Nimbrel2::Platform::GigE {

namespace {

// Room for a hundred answers to one broadcast; the kernel gives what it allows.
constexpr int kReceiveBufferBytes = 4 << 20;
constexpr int kSendBufferBytes = 1 << 20;
constexpr std::uint16_t kDiscardPort = 9;
constexpr std::size_t kBatch = 16;
// Longer than any packet, so that what does not fit is no packet.
constexpr std::size_t kDatagramBytes = Gvcp::kMaxPacketBytes + 28;

sockaddr_in AddressOf(std::uint32_t ip, std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(ip);
    address.sin_port = htons(port);
    return address;
}

}  // namespace

UdpPort::UdpPort(int interface, FileDescriptor socket, std::uint16_t localPort)
    : m_interface(interface), m_socket(std::move(socket)), m_localPort(localPort) {}

int UdpPort::Open(const NetworkInterface& interface, std::shared_ptr<UdpPort>* port, std::string* where) {
    *where = "socket";
    FileDescriptor fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.IsOpen()) return errno;

    const int on = 1;
    *where = "SO_BROADCAST";
    if (::setsockopt(fd.Get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof on) != 0) return errno;

    // Requests leave on this interface only, and broadcast acknowledges arrive: both need the device and no address.
    // The name could have changed since it was read; the kernel then answers ENODEV and the next look finds the new
    // one.
    *where = "SO_BINDTODEVICE";
    if (::setsockopt(fd.Get(), SOL_SOCKET, SO_BINDTODEVICE, interface.name.c_str(),
                     static_cast<socklen_t>(interface.name.size())) != 0) {
        return errno;
    }

    // Smaller buffers only lose more of a flood. An administrator is given what is asked for, others what the kernel
    // allows everybody.
    if (::setsockopt(fd.Get(), SOL_SOCKET, SO_RCVBUFFORCE, &kReceiveBufferBytes, sizeof kReceiveBufferBytes) != 0) {
        ::setsockopt(fd.Get(), SOL_SOCKET, SO_RCVBUF, &kReceiveBufferBytes, sizeof kReceiveBufferBytes);
    }
    ::setsockopt(fd.Get(), SOL_SOCKET, SO_SNDBUF, &kSendBufferBytes, sizeof kSendBufferBytes);

    // On loopback a socket without an address would send from 0.0.0.0, where nobody can answer.
    *where = "bind";
    const sockaddr_in local = AddressOf(interface.loopback ? INADDR_LOOPBACK : INADDR_ANY, 0);
    if (::bind(fd.Get(), reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) return errno;

    *where = "getsockname";
    sockaddr_in bound{};
    socklen_t size = sizeof bound;
    if (::getsockname(fd.Get(), reinterpret_cast<sockaddr*>(&bound), &size) != 0) return errno;

    *port = std::shared_ptr<UdpPort>(new UdpPort(interface.index, std::move(fd), ntohs(bound.sin_port)));
    return 0;
}

int UdpPort::Send(std::span<const std::uint8_t> packet, std::uint32_t to, std::uint32_t from) const {
    return SendTo(packet, to, Gvcp::kPort, from);
}

int UdpPort::Knock(std::uint32_t to, std::uint32_t from) const {
    const std::uint8_t nothing = 0;
    const int error = SendTo({&nothing, 1}, to, kDiscardPort, from);
    // A firewall that lets out GVCP and little else must not keep the question from being asked.
    return error == EPERM ? SendTo({&nothing, 1}, to, Gvcp::kPort, from) : error;
}

int UdpPort::SendTo(std::span<const std::uint8_t> packet, std::uint32_t to, std::uint16_t toPort,
                    std::uint32_t from) const {
    sockaddr_in address = AddressOf(to, toPort);
    iovec data{const_cast<std::uint8_t*>(packet.data()), packet.size()};
    msghdr message{};
    message.msg_name = &address;
    message.msg_namelen = sizeof address;
    message.msg_iov = &data;
    message.msg_iovlen = 1;

    alignas(cmsghdr) std::array<char, CMSG_SPACE(sizeof(in_pktinfo))> control{};
    if (from != 0) {
        message.msg_control = control.data();
        message.msg_controllen = control.size();
        cmsghdr* header = CMSG_FIRSTHDR(&message);
        header->cmsg_level = IPPROTO_IP;
        header->cmsg_type = IP_PKTINFO;
        header->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
        in_pktinfo info{};
        info.ipi_spec_dst.s_addr = htonl(from);
        std::memcpy(CMSG_DATA(header), &info, sizeof info);
    }
    // A device that went down leaves its error on the socket for the next call, whatever that call is: the second send
    // tells whether this one can be made.
    for (int i = 0; i < 2; ++i) {
        ssize_t sent;
        do {
            sent = ::sendmsg(m_socket.Get(), &message, MSG_DONTWAIT);
        } while (sent < 0 && errno == EINTR);
        if (sent >= 0) return 0;
        if (errno == EAGAIN || errno == ENOBUFS) break;
    }
    return errno;
}

std::size_t UdpPort::Drain(std::size_t budget, DatagramHandler& handler) {
    std::array<std::array<std::uint8_t, kDatagramBytes>, kBatch> buffers;
    std::array<sockaddr_in, kBatch> senders;
    std::array<iovec, kBatch> data;
    std::array<mmsghdr, kBatch> messages;
    std::size_t taken = 0;
    while (taken < budget) {
        for (std::size_t i = 0; i < kBatch; ++i) {
            data[i] = iovec{buffers[i].data(), buffers[i].size()};
            messages[i] = mmsghdr{};
            messages[i].msg_hdr.msg_name = &senders[i];
            messages[i].msg_hdr.msg_namelen = sizeof senders[i];
            messages[i].msg_hdr.msg_iov = &data[i];
            messages[i].msg_hdr.msg_iovlen = 1;
        }
        // An error that is left on the socket (the device went down) is taken off by this and is no reason to stop.
        const int count = ::recvmmsg(m_socket.Get(), messages.data(), kBatch, MSG_DONTWAIT, nullptr);
        if (count < 0 && (errno == EINTR || errno == ENETDOWN)) {
            ++taken;
            continue;
        }
        if (count <= 0) return taken;
        for (std::size_t i = 0; i < static_cast<std::size_t>(count); ++i) {
            const msghdr& header = messages[i].msg_hdr;
            if ((header.msg_flags & MSG_TRUNC) != 0 || senders[i].sin_family != AF_INET) continue;
            handler.OnDatagram(*this, ntohl(senders[i].sin_addr.s_addr), ntohs(senders[i].sin_port),
                               std::span<const std::uint8_t>(buffers[i].data(), messages[i].msg_len));
        }
        taken += static_cast<std::size_t>(count);
        if (static_cast<std::size_t>(count) < kBatch) return taken;
    }
    return taken;
}

void UdpPort::WaitReadable(TimePoint deadline, int stopFd) const {
    const auto left = std::chrono::duration_cast<std::chrono::nanoseconds>(deadline - Clock::now()).count();
    if (left <= 0) return;
    timespec limit{};
    limit.tv_sec = static_cast<std::time_t>(left / 1'000'000'000);
    limit.tv_nsec = static_cast<long>(left % 1'000'000'000);
    std::array<pollfd, 2> fds{pollfd{m_socket.Get(), POLLIN, 0}, pollfd{stopFd, POLLIN, 0}};
    ::ppoll(fds.data(), fds.size(), &limit, nullptr);
}

}  // namespace Nimbrel2::Platform::GigE
