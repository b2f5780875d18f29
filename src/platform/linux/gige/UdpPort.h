// SPDX-License-Identifier: Apache-2.0
// One network interface's UDP socket: everything this computer says to cameras there, and hears from them.
// Any thread; no lock. Whoever reads hands each datagram to a DatagramHandler on its own thread.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_UDPPORT_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_UDPPORT_H

#include <cstddef>
#include <cstdint>
#include <memory>
#include <span>
#include <string>

#include "platform/base/FileDescriptor.h"
#include "platform/linux/gige/NetworkInterface.h"
#include "platform/linux/gige/Timings.h"

namespace Nimbrel2::Platform::GigE {

class UdpPort;

class DatagramHandler {
public:
    virtual ~DatagramHandler() = default;
    /// @param from  IPv4 address of the sender, first octet in the most significant byte.
    virtual void OnDatagram(UdpPort& port, std::uint32_t from, std::uint16_t fromPort,
                            std::span<const std::uint8_t> bytes) = 0;
};

class UdpPort {
public:
    /// @param where  Receives what failed, for a message.
    /// @return 0 or an errno.
    static int Open(const NetworkInterface& interface, std::shared_ptr<UdpPort>* port, std::string* where);

    int GetInterface() const { return m_interface; }
    int GetFd() const { return m_socket.Get(); }
    std::uint16_t GetLocalPort() const { return m_localPort; }

    /// Sends to the GVCP port of an address and does not wait.
    /// @param from  The address of this interface to send from; 0 leaves it to the kernel.
    /// @return 0 or an errno; EAGAIN or ENOBUFS when the network does not take more now.
    int Send(std::span<const std::uint8_t> packet, std::uint32_t to, std::uint32_t from) const;
    /// Sends one octet to an address, to the discard port or, where that is forbidden, the GVCP port: so that the
    /// kernel asks by ARP who has it. @return as Send.
    int Knock(std::uint32_t to, std::uint32_t from) const;
    int Broadcast(std::span<const std::uint8_t> packet) const { return Send(packet, 0xFFFFFFFF, 0); }

    /// Reads what has arrived, at most budget datagrams. Those longer than any GVCP packet are dropped.
    /// @return How many were taken off the socket.
    std::size_t Drain(std::size_t budget, DatagramHandler& handler);

    /// Waits until a datagram can be read, stopFd can be read, or the deadline has come.
    void WaitReadable(TimePoint deadline, int stopFd) const;

    /// Who reads the socket now; guarded by PendingReplies' lock.
    bool beingRead = false;

private:
    int SendTo(std::span<const std::uint8_t> packet, std::uint32_t to, std::uint16_t toPort, std::uint32_t from) const;

    UdpPort(int interface, FileDescriptor socket, std::uint16_t localPort);

    const int m_interface;
    const FileDescriptor m_socket;
    const std::uint16_t m_localPort;
};

}  // namespace Nimbrel2::Platform::GigE

#endif
