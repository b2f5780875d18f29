// SPDX-License-Identifier: Apache-2.0
// One UDP socket on one network interface, from which this computer speaks GVCP.
// Sending: any thread. Reading: one thread at a time, which its owner sees to. No lock.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_UDPSOCKET_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_UDPSOCKET_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <span>
#include <string>

#include "platform/Platform.h"
#include "platform/base/FileDescriptor.h"
#include "platform/linux/gige/NetworkInterface.h"
#include "platform/linux/gige/Timings.h"

namespace Nimbrel2::Platform::GigE {

class UdpSocket;

class DatagramHandler {
public:
    virtual ~DatagramHandler() = default;
    /// @param from  IPv4 address of the sender, first octet in the most significant byte.
    virtual void OnDatagram(UdpSocket& socket, std::uint32_t from, std::uint16_t fromPort,
                            std::span<const std::uint8_t> bytes) = 0;
};

struct SocketOptions {
    int receiveBuffer = 0;              ///< octets; 0 leaves what the kernel gives everybody
    int sendBuffer = 0;                 ///< the same
    std::optional<PortRange> ports;     ///< to bind to; nothing for any
    std::uint16_t preferredPort = 0;    ///< tried first; 0 for none
    std::uint32_t localAddress = 0;     ///< to bind to; 0 for any
    std::optional<std::uint32_t> peer;  ///< talks to the GVCP port of this address only
};

class UdpSocket {
public:
    /// Requests leave on this interface only, whatever the routes say. Answers are taken from any: where two interfaces
    /// share a wire, the kernel answers ARP for the one's address on the other. Without an address of its own a socket
    /// hears answers by broadcast too. In the network namespace of the caller.
    /// @param where  Receives what failed, for a message.
    /// @return 0 or an errno; EADDRINUSE when all ports of the range are taken.
    static int Open(const NetworkInterface& interface, const SocketOptions& options, std::shared_ptr<UdpSocket>* socket,
                    std::string* where);

    int GetInterface() const { return m_interface; }
    int GetFd() const { return m_socket.Get(); }
    std::uint16_t GetLocalPort() const { return m_localPort; }
    /// Of a socket with a local address, and on loopback: where it talks from.
    std::uint32_t GetLocalAddress() const { return m_localAddress; }

    /// Sends to the GVCP port of an address and does not wait.
    /// @param from  The address of this interface to send from; 0 leaves it to the kernel.
    /// @return 0 or an errno; EAGAIN or ENOBUFS when the network does not take more now.
    int Send(std::span<const std::uint8_t> packet, std::uint32_t to, std::uint32_t from) const;
    int Broadcast(std::span<const std::uint8_t> packet) const { return Send(packet, 0xFFFFFFFF, 0); }
    /// To the peer.
    int SendToPeer(std::span<const std::uint8_t> packet) const;
    /// Sends one octet to an address, to the discard port or, where that is forbidden, the GVCP port: so that the
    /// kernel asks by ARP who has it. @return as Send.
    int TriggerArp(std::uint32_t to, std::uint32_t from) const;

    /// Reads what has arrived, at most budget datagrams. Those longer than any GVCP packet are dropped.
    /// @return How many were taken off the socket.
    std::size_t Drain(std::size_t budget, DatagramHandler& handler);

    /// Reads one datagram from the peer; those of others are dropped. @return its length; 0 when there is none, or one
    /// longer than the buffer.
    std::size_t ReceiveFromPeer(std::span<std::uint8_t> buffer) const;

private:
    int SendTo(std::span<const std::uint8_t> packet, std::uint32_t to, std::uint16_t toPort, std::uint32_t from) const;
    int Bind(const NetworkInterface& interface, const SocketOptions& options);
    int ReadLocalEnd();

    UdpSocket(int interface, std::uint32_t peer, FileDescriptor socket)
        : m_interface(interface), m_peer(peer), m_socket(std::move(socket)) {}

    const int m_interface;
    const std::uint32_t m_peer;
    const FileDescriptor m_socket;
    std::uint16_t m_localPort = 0;
    std::uint32_t m_localAddress = 0;
};

}  // namespace Nimbrel2::Platform::GigE

#endif
