// SPDX-License-Identifier: Apache-2.0
// Hears the answers that the reverse path filter keeps from the UDP socket. One thread at a time; no lock.
#include "platform/linux/gige/PacketListener.h"

#include <arpa/inet.h>
#include <linux/filter.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>

#include "platform/gvcp/ByteOrder.h"
#include "platform/gvcp/GvcpConstants.h"

namespace Nimbrel2::Platform::GigE {

namespace {

constexpr std::size_t IpHeaderBytes = 20;
constexpr std::size_t UdpHeaderBytes = 8;
constexpr std::uint8_t UdpProtocol = 17;

// Lets only unfragmented UDP from the GVCP port to our own port through: the rest of the wire's traffic, the cameras'
// streams above all, must not reach this process.
bool AttachFilter(int fd, std::uint16_t localPort) {
    std::array<sock_filter, 11> program{{
        BPF_STMT(BPF_LD | BPF_B | BPF_ABS, 9),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, UdpProtocol, 0, 8),
        BPF_STMT(BPF_LD | BPF_H | BPF_ABS, 6),
        BPF_JUMP(BPF_JMP | BPF_JSET | BPF_K, 0x3FFF, 6, 0),
        BPF_STMT(BPF_LDX | BPF_B | BPF_MSH, 0),
        BPF_STMT(BPF_LD | BPF_H | BPF_IND, 0),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, Gvcp::Port, 0, 3),
        BPF_STMT(BPF_LD | BPF_H | BPF_IND, 2),
        BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, localPort, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, 0xFFFF),
        BPF_STMT(BPF_RET | BPF_K, 0),
    }};
    const sock_fprog filter{static_cast<unsigned short>(program.size()), program.data()};
    return ::setsockopt(fd, SOL_SOCKET, SO_ATTACH_FILTER, &filter, sizeof filter) == 0;
}

}  // namespace

std::optional<UdpInIp> ParseUdpInIp(std::span<const std::uint8_t> packet) {
    if (packet.size() < IpHeaderBytes || packet[0] >> 4 != 4) {
        return std::nullopt;
    }
    const std::size_t headerBytes = static_cast<std::size_t>(packet[0] & 0x0F) * 4;
    const std::size_t totalBytes = Gvcp::LoadU16(&packet[2]);
    const bool isFragment = (Gvcp::LoadU16(&packet[6]) & 0x3FFF) != 0;
    if (headerBytes < IpHeaderBytes || isFragment || packet[9] != UdpProtocol) {
        return std::nullopt;
    }
    // Short frames are padded: the packet may be followed by bytes that are not its own.
    if (totalBytes > packet.size() || totalBytes < headerBytes + UdpHeaderBytes) {
        return std::nullopt;
    }

    const std::span<const std::uint8_t> udp = packet.subspan(headerBytes, totalBytes - headerBytes);
    const std::size_t udpBytes = Gvcp::LoadU16(&udp[4]);
    if (udpBytes < UdpHeaderBytes || udpBytes > udp.size()) {
        return std::nullopt;
    }
    return UdpInIp{Gvcp::LoadU32(&packet[12]), Gvcp::LoadU16(&udp[0]), Gvcp::LoadU16(&udp[2]),
                   udp.subspan(UdpHeaderBytes, udpBytes - UdpHeaderBytes)};
}

PacketListener::PacketListener(std::shared_ptr<UdpSocket> socket) : m_socket(std::move(socket)) {
    // Protocol 0 hears nothing until the filter is in place; the bind then switches it on.
    FileDescriptor fd(::socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.IsOpen() || !AttachFilter(fd.Get(), m_socket->GetLocalPort())) {
        return;
    }
    sockaddr_ll local{};
    local.sll_family = AF_PACKET;
    local.sll_protocol = htons(ETH_P_IP);
    local.sll_ifindex = m_socket->GetInterface();
    if (::bind(fd.Get(), reinterpret_cast<const sockaddr*>(&local), sizeof local) != 0) {
        return;
    }
    m_packets = std::move(fd);
}

void PacketListener::Drain(std::size_t budget, DatagramHandler& handler) {
    std::array<std::uint8_t, 1024> packet;
    for (std::size_t i = 0; i < budget; ++i) {
        const ssize_t size = ::recv(m_packets.Get(), packet.data(), packet.size(), MSG_TRUNC);
        if (size < 0 && (errno == EINTR || errno == ENETDOWN)) {
            continue;
        }
        if (size < 0) {
            return;
        }
        if (static_cast<std::size_t>(size) > packet.size()) {
            continue;
        }
        const auto udp = ParseUdpInIp({packet.data(), static_cast<std::size_t>(size)});
        if (!udp || udp->toPort != m_socket->GetLocalPort()) {
            continue;
        }
        handler.OnDatagram(*m_socket, udp->from, udp->fromPort, udp->payload);
    }
}

}  // namespace Nimbrel2::Platform::GigE
