// SPDX-License-Identifier: Apache-2.0
// An application's UDP socket, as plain as can be, for asking simulated cameras over a network. One thread, no lock.
#ifndef NIMBREL2_TESTS_PLATFORM_SIMULATED_HOSTSOCKET_H
#define NIMBREL2_TESTS_PLATFORM_SIMULATED_HOSTSOCKET_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "platform/gvcp/GvcpCodec.h"
#include "platform/simulated/CameraSocket.h"

namespace Nimbrel2::Platform::Simulated {

/// A datagram and who sent it.
struct Received {
    Endpoint from;
    std::vector<std::uint8_t> bytes;

    Gvcp::DecodedAcknowledge Decode() const { return Gvcp::DecodeAcknowledge(bytes); }
};

class HostSocket {
public:
    /// Bound to the address, any port; or to every address of one interface. Made in the namespace of the calling
    /// thread.
    explicit HostSocket(std::uint32_t address);
    explicit HostSocket(const std::string& interfaceName);

    std::uint16_t GetPort() const;

    void Send(std::uint32_t address, const Gvcp::Packet& packet) { Send(address, packet.GetBytes()); }
    void Send(std::uint32_t address, Gvcp::Bytes datagram);
    void Broadcast(const Gvcp::Packet& packet) { Send(0xFFFFFFFF, packet); }

    /// The next datagram; none when none comes in time.
    std::optional<Received> Receive(std::chrono::milliseconds timeout = std::chrono::seconds(10));
    /// What comes until that many have come, or the time is over.
    std::vector<Received> Receive(std::size_t count, std::chrono::milliseconds timeout = std::chrono::seconds(10));

private:
    FileDescriptor m_socket;
};

}  // namespace Nimbrel2::Platform::Simulated

#endif
