// SPDX-License-Identifier: Apache-2.0
// An application's UDP socket for tests. One thread, no lock.
#include "HostSocket.h"

#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <system_error>

namespace Nimbrel2::Platform::Simulated {
namespace {

void Check(int result, const char* what) {
    if (result < 0) {
        throw std::system_error(errno, std::generic_category(), what);
    }
}

sockaddr_in MakeAddress(std::uint32_t address, std::uint16_t port) {
    sockaddr_in name{};
    name.sin_family = AF_INET;
    name.sin_port = htons(port);
    name.sin_addr.s_addr = htonl(address);
    return name;
}

FileDescriptor OpenBroadcastingSocket() {
    FileDescriptor opened(socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    Check(opened.Get(), "socket");
    const int on = 1;
    Check(setsockopt(opened.Get(), SOL_SOCKET, SO_BROADCAST, &on, sizeof(on)), "SO_BROADCAST");
    const int buffer = 1 << 20;
    Check(setsockopt(opened.Get(), SOL_SOCKET, SO_RCVBUF, &buffer, sizeof(buffer)), "SO_RCVBUF");
    return opened;
}

void Bind(int socket, std::uint32_t address) {
    const sockaddr_in name = MakeAddress(address, 0);
    Check(bind(socket, reinterpret_cast<const sockaddr*>(&name), sizeof(name)), "bind");
}

}  // namespace

HostSocket::HostSocket(std::uint32_t address) : m_socket(OpenBroadcastingSocket()) { Bind(m_socket.Get(), address); }

HostSocket::HostSocket(const std::string& interfaceName) : m_socket(OpenBroadcastingSocket()) {
    Check(setsockopt(m_socket.Get(), SOL_SOCKET, SO_BINDTODEVICE, interfaceName.c_str(),
                     static_cast<socklen_t>(interfaceName.size() + 1)),
          "SO_BINDTODEVICE");
    Bind(m_socket.Get(), INADDR_ANY);
}

std::uint16_t HostSocket::GetPort() const {
    sockaddr_in name{};
    socklen_t size = sizeof(name);
    Check(getsockname(m_socket.Get(), reinterpret_cast<sockaddr*>(&name), &size), "getsockname");
    return ntohs(name.sin_port);
}

void HostSocket::Send(std::uint32_t address, Gvcp::Bytes datagram) {
    const sockaddr_in name = MakeAddress(address, Gvcp::Port);
    Check(static_cast<int>(sendto(m_socket.Get(), datagram.data(), datagram.size(), 0,
                                  reinterpret_cast<const sockaddr*>(&name), sizeof(name))),
          "sendto");
}

std::optional<Received> HostSocket::Receive(std::chrono::milliseconds timeout) {
    pollfd wait{m_socket.Get(), POLLIN, 0};
    if (poll(&wait, 1, static_cast<int>(timeout.count())) <= 0) {
        return std::nullopt;
    }
    Received received;
    received.bytes.resize(65536);
    std::size_t size = 0;
    if (!ReceiveDatagram(m_socket.Get(), received.bytes, &size, &received.from)) {
        return std::nullopt;
    }
    received.bytes.resize(size);
    return received;
}

std::vector<Received> HostSocket::Receive(std::size_t count, std::chrono::milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    std::vector<Received> all;
    while (all.size() < count) {
        const auto left = std::chrono::ceil<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        std::optional<Received> received = Receive(std::max(left, std::chrono::milliseconds(0)));
        if (!received) {
            break;
        }
        all.push_back(std::move(*received));
    }
    return all;
}

}  // namespace Nimbrel2::Platform::Simulated
