// SPDX-License-Identifier: Apache-2.0
// Sockets of simulated cameras. One thread at a time, no lock; nothing blocks.
#include "platform/simulated/CameraSocket.h"

#include <netinet/in.h>
#include <sys/socket.h>

#include <cerrno>
#include <cstring>
#include <utility>

namespace Nimbrel2::Platform::Simulated {
namespace {

sockaddr_in MakeAddress(std::uint32_t address, std::uint16_t port) {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(port);
    name.sin_addr.s_addr = htonl(address);
    return name;
}

int SetFlag(int socket, int option) {
    const int on = 1;
    return setsockopt(socket, SOL_SOCKET, option, &on, sizeof(on)) == 0 ? 0 : errno;
}

int Bind(int socket, std::uint32_t address) {
    const sockaddr_in name = MakeAddress(address, Gvcp::Port);
    return bind(socket, reinterpret_cast<const sockaddr*>(&name), sizeof(name)) == 0 ? 0 : errno;
}

FileDescriptor OpenUdp() { return FileDescriptor(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)); }

}  // namespace

int OpenCameraSocket(std::uint32_t address, FileDescriptor* socket) {
    FileDescriptor opened = OpenUdp();
    if (!opened.IsOpen()) {
        return errno;
    }
    int error = SetFlag(opened.Get(), SO_BROADCAST);
    if (error == 0) {
        error = Bind(opened.Get(), address);
    }
    if (error == 0) {
        *socket = std::move(opened);
    }
    return error;
}

int OpenBroadcastSocket(const std::string& interfaceName, FileDescriptor* socket) {
    FileDescriptor opened = OpenUdp();
    if (!opened.IsOpen()) {
        return errno;
    }
    int error = SetFlag(opened.Get(), SO_REUSEADDR);
    if (error == 0 && setsockopt(opened.Get(), SOL_SOCKET, SO_BINDTODEVICE, interfaceName.c_str(),
                                 static_cast<socklen_t>(interfaceName.size() + 1)) != 0) {
        error = errno;
    }
    if (error == 0) {
        error = Bind(opened.Get(), INADDR_BROADCAST);
    }
    if (error == 0) {
        *socket = std::move(opened);
    }
    return error;
}

bool ReceiveDatagram(int socket, std::span<std::uint8_t> buffer, std::size_t* size, Endpoint* peer) {
    sockaddr_in name{};
    socklen_t nameSize = sizeof(name);
    ssize_t received = 0;
    do {
        received = recvfrom(socket, buffer.data(), buffer.size(), 0, reinterpret_cast<sockaddr*>(&name), &nameSize);
    } while (received < 0 && errno == EINTR);
    if (received < 0) {
        return false;
    }
    *size = static_cast<std::size_t>(received);
    *peer = {ntohl(name.sin_addr.s_addr), ntohs(name.sin_port)};
    return true;
}

void SendUnicast(int socket, const Endpoint& peer, Gvcp::Bytes datagram) {
    const sockaddr_in name = MakeAddress(peer.address, peer.port);
    // The result is not looked at: what cannot be sent is lost.
    (void)sendto(socket, datagram.data(), datagram.size(), MSG_NOSIGNAL, reinterpret_cast<const sockaddr*>(&name),
                 sizeof(name));
}

void SendBroadcast(int socket, unsigned int interfaceIndex, std::uint32_t from, std::uint16_t port,
                   Gvcp::Bytes datagram) {
    sockaddr_in name = MakeAddress(INADDR_BROADCAST, port);
    iovec part{const_cast<std::uint8_t*>(datagram.data()), datagram.size()};
    alignas(cmsghdr) char control[CMSG_SPACE(sizeof(in_pktinfo))] = {};
    msghdr message{};
    message.msg_name = &name;
    message.msg_namelen = sizeof(name);
    message.msg_iov = &part;
    message.msg_iovlen = 1;
    message.msg_control = control;
    message.msg_controllen = sizeof(control);
    // The interface is named for each datagram: a socket that was bound to it would no longer hear programs on this
    // very computer, whose datagrams come in by the loopback interface.
    cmsghdr* header = CMSG_FIRSTHDR(&message);
    header->cmsg_level = IPPROTO_IP;
    header->cmsg_type = IP_PKTINFO;
    header->cmsg_len = CMSG_LEN(sizeof(in_pktinfo));
    in_pktinfo info{};
    info.ipi_ifindex = static_cast<int>(interfaceIndex);
    info.ipi_spec_dst.s_addr = htonl(from);  // or the interface's first address would stand in for the socket's
    std::memcpy(CMSG_DATA(header), &info, sizeof(info));
    (void)sendmsg(socket, &message, MSG_NOSIGNAL);
}

}  // namespace Nimbrel2::Platform::Simulated
