// SPDX-License-Identifier: Apache-2.0
// rtnetlink messages from bytes. Pure functions: every length is checked, nothing is assumed about alignment.
// Any thread.
#ifndef NIMBREL2_PLATFORM_BASE_NETLINKMESSAGES_H
#define NIMBREL2_PLATFORM_BASE_NETLINKMESSAGES_H

#include <cstdint>
#include <cstring>
#include <functional>
#include <optional>
#include <span>
#include <string>

#include "platform/Diagnostics.h"

namespace Nimbrel2::Platform::Netlink {

using Bytes = std::span<const std::uint8_t>;

/// Reads a plain value from the start of bytes; nothing when they are too few.
template <typename T>
std::optional<T> Load(Bytes bytes) {
    if (bytes.size() < sizeof(T)) {
        return std::nullopt;
    }
    T value;
    std::memcpy(&value, bytes.data(), sizeof value);
    return value;
}

struct Message {
    std::uint16_t type = 0;
    std::uint16_t flags = 0;
    std::uint32_t sequence = 0;
    Bytes payload;
};

/// Takes the first message off buffer; nothing at its end or where a length is wrong.
std::optional<Message> NextMessage(Bytes& buffer);

struct Attribute {
    std::uint16_t type = 0;  ///< without the flags in its high bits
    Bytes payload;
};

/// Takes the first attribute off buffer; nothing at its end or where a length is wrong.
std::optional<Attribute> NextAttribute(Bytes& buffer);

/// A text attribute up to its zero byte.
std::string TextOf(Bytes payload);

/// An RTM_NEWLINK payload, without addresses.
std::optional<NetworkInterface> ParseLink(Bytes payload);

struct AddressMessage {
    int interface = 0;
    InterfaceAddress address;
};

/// An RTM_NEWADDR payload; nothing for what is no IPv4 address.
std::optional<AddressMessage> ParseAddress(Bytes payload);

struct RouteMessage {
    int interface = 0;  ///< 0 when it leaves by several
    std::uint8_t prefixLength = 0;
    std::uint32_t gateway = 0;  ///< 0 for none that has an IPv4 address
    bool direct = false;        ///< to hosts on the wire itself, past no gateway
};

/// An RTM_NEWROUTE payload; nothing for what is no IPv4 route to other hosts.
std::optional<RouteMessage> ParseRoute(Bytes payload);

struct NeighbourMessage {
    int interface = 0;
    std::uint32_t ip = 0;
    bool answers = false;   ///< has told its hardware address, now or some time ago
    std::uint64_t mac = 0;  ///< octet 0 in bits 47 to 40; 0 when it has told none
};

/// An RTM_NEWNEIGH payload; nothing for what is no IPv4 neighbour.
std::optional<NeighbourMessage> ParseNeighbour(Bytes payload);

/// The reverse path filter of an RTM_NEWNETCONF payload.
std::optional<std::uint32_t> ParseRpFilter(Bytes payload);

}  // namespace Nimbrel2::Platform::Netlink

#endif
