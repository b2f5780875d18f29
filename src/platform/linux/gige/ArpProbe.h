// SPDX-License-Identifier: Apache-2.0
// Asks on a wire who has an address, with ARP requests that name no sender (RFC 5227), so that nobody takes the asker
// for its owner. Needs CAP_NET_RAW. One thread at a time; no lock.
#ifndef NIMBREL2_PLATFORM_LINUX_GIGE_ARPPROBE_H
#define NIMBREL2_PLATFORM_LINUX_GIGE_ARPPROBE_H

#include <array>
#include <cstdint>
#include <optional>
#include <span>

#include "platform/base/FileDescriptor.h"

namespace Nimbrel2::Platform::GigE {

/// An ARP packet for IPv4 over Ethernet (RFC 826).
constexpr std::size_t ArpBytes = 28;

std::array<std::uint8_t, ArpBytes> EncodeArpProbe(std::uint64_t ownMac, std::uint32_t ip);

/// The MAC of whoever says in that packet that the address is its own; nothing for any other packet. Pure.
std::optional<std::uint64_t> ParseArpOwner(std::span<const std::uint8_t> packet, std::uint32_t ip);

class ArpProbe {
public:
    /// In the network namespace of the caller. Not open when that is not allowed, or the interface is no Ethernet.
    explicit ArpProbe(int interface);

    bool IsOpen() const { return m_socket.IsOpen(); }
    int GetFd() const { return m_socket.Get(); }
    void Ask(std::uint32_t ip) const;
    /// Reads what has come. @return the MAC of the address's owner, if one has said so.
    std::optional<std::uint64_t> Receive(std::uint32_t ip) const;

private:
    const int m_interface;
    FileDescriptor m_socket;
    std::uint64_t m_ownMac = 0;
};

}  // namespace Nimbrel2::Platform::GigE

#endif
