// SPDX-License-Identifier: Apache-2.0
// Asks on a wire who has an address. One thread at a time; no lock.
#include "platform/linux/gige/ArpProbe.h"

#include <arpa/inet.h>
#include <linux/if_arp.h>
#include <linux/if_ether.h>
#include <linux/if_packet.h>
#include <sys/socket.h>

#include <algorithm>

#include "platform/gvcp/ByteOrder.h"

namespace Nimbrel2::Platform::GigE {

namespace {

constexpr std::array<std::uint8_t, 6> EthernetAndIpv4{0, 1, 8, 0, 6, 4};
constexpr std::size_t MacBytes = 6;
constexpr int MostPackets = 256;

void StoreMac(std::uint8_t* bytes, std::uint64_t mac) {
    for (std::size_t i = 0; i < MacBytes; ++i) {
        bytes[i] = static_cast<std::uint8_t>(mac >> (40 - 8 * i));
    }
}

std::uint64_t LoadMac(const std::uint8_t* bytes) {
    std::uint64_t mac = 0;
    for (std::size_t i = 0; i < MacBytes; ++i) {
        mac = mac << 8 | bytes[i];
    }
    return mac;
}

sockaddr_ll LinkAddress(int interface) {
    sockaddr_ll address{};
    address.sll_family = AF_PACKET;
    address.sll_protocol = htons(ETH_P_ARP);
    address.sll_ifindex = interface;
    return address;
}

}  // namespace

std::array<std::uint8_t, ArpBytes> EncodeArpProbe(std::uint64_t ownMac, std::uint32_t ip) {
    std::array<std::uint8_t, ArpBytes> packet{};
    std::copy(EthernetAndIpv4.begin(), EthernetAndIpv4.end(), packet.begin());
    packet[7] = 1;  // a request
    StoreMac(&packet[8], ownMac);
    Gvcp::StoreU32(&packet[24], ip);
    return packet;
}

std::optional<std::uint64_t> ParseArpOwner(std::span<const std::uint8_t> packet, std::uint32_t ip) {
    if (packet.size() < ArpBytes) {
        return std::nullopt;
    }
    if (!std::equal(EthernetAndIpv4.begin(), EthernetAndIpv4.end(), packet.begin())) {
        return std::nullopt;
    }
    const std::uint16_t operation = Gvcp::LoadU16(&packet[6]);
    if (operation != 1 && operation != 2) {
        return std::nullopt;
    }
    if (Gvcp::LoadU32(&packet[14]) != ip) {
        return std::nullopt;
    }
    return LoadMac(&packet[8]);
}

ArpProbe::ArpProbe(int interface) : m_interface(interface) {
    FileDescriptor fd(::socket(AF_PACKET, SOCK_DGRAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_ll own = LinkAddress(interface);
    socklen_t size = sizeof own;
    if (!fd.IsOpen() || ::bind(fd.Get(), reinterpret_cast<const sockaddr*>(&own), sizeof own) != 0) {
        return;
    }
    if (::getsockname(fd.Get(), reinterpret_cast<sockaddr*>(&own), &size) != 0) {
        return;
    }
    if (own.sll_hatype != ARPHRD_ETHER || own.sll_halen != MacBytes) {
        return;
    }
    m_ownMac = LoadMac(own.sll_addr);
    m_socket = std::move(fd);
}

void ArpProbe::Ask(std::uint32_t ip) const {
    sockaddr_ll everybody = LinkAddress(m_interface);
    everybody.sll_halen = MacBytes;
    std::fill_n(everybody.sll_addr, MacBytes, std::uint8_t{0xFF});
    const auto packet = EncodeArpProbe(m_ownMac, ip);
    // What is not sent is not answered; it is asked more than once.
    (void)::sendto(m_socket.Get(), packet.data(), packet.size(), MSG_DONTWAIT,
                   reinterpret_cast<const sockaddr*>(&everybody), sizeof everybody);
}

std::optional<std::uint64_t> ArpProbe::Receive(std::uint32_t ip) const {
    std::array<std::uint8_t, 64> packet;
    std::optional<std::uint64_t> owner;
    for (int i = 0; i < MostPackets && !owner; ++i) {
        const ssize_t size = ::recv(m_socket.Get(), packet.data(), packet.size(), MSG_DONTWAIT);
        if (size < 0) {
            break;
        }
        owner = ParseArpOwner({packet.data(), static_cast<std::size_t>(size)}, ip);
    }
    return owner;
}

}  // namespace Nimbrel2::Platform::GigE
