// SPDX-License-Identifier: Apache-2.0
// Hears the answers that the kernel's reverse path filter keeps from the UDP socket. Needs CAP_NET_RAW.
// One thread at a time; no lock.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_PACKETLISTENER_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_PACKETLISTENER_H

#include <cstdint>
#include <memory>
#include <optional>
#include <span>

#include "platform/base/FileDescriptor.h"
#include "platform/linux/gige/UdpSocket.h"

namespace Nimbrel2::Platform::GigE {

/// What an IPv4 packet with a whole UDP datagram in it says. Ports and addresses in host order.
struct UdpInIp {
    std::uint32_t from = 0;
    std::uint16_t fromPort = 0;
    std::uint16_t toPort = 0;
    std::span<const std::uint8_t> payload;
};

/// Pure. Nothing for anything else, for fragments, and where a length is wrong.
std::optional<UdpInIp> ParseUdpInIp(std::span<const std::uint8_t> packet);

class PacketListener {
public:
    /// Begins to listen for GVCP answers to the socket's port, on its interface. Not open when that is not allowed.
    explicit PacketListener(std::shared_ptr<UdpSocket> socket);

    bool IsOpen() const { return m_packets.IsOpen(); }
    int GetFd() const { return m_packets.Get(); }

    /// Hands what has arrived to the handler as if the socket had heard it; at most budget packets.
    void Drain(std::size_t budget, DatagramHandler& handler);

private:
    const std::shared_ptr<UdpSocket> m_socket;
    FileDescriptor m_packets;
};

}  // namespace Nimbrel2::Platform::GigE

#endif
