// SPDX-License-Identifier: Apache-2.0
// rtnetlink messages from bytes. Pure functions; any thread.
#include "platform/base/NetlinkMessages.h"

#include <arpa/inet.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/netconf.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <algorithm>

namespace Nimbrel2::Platform::Netlink {

namespace {

std::size_t Aligned(std::size_t length) { return (length + NLMSG_ALIGNTO - 1) & ~std::size_t{NLMSG_ALIGNTO - 1}; }

Bytes Skip(Bytes bytes, std::size_t length) { return bytes.subspan(std::min(Aligned(length), bytes.size())); }

std::string PortKindOf(Bytes linkInfo) {
    while (const auto attribute = NextAttribute(linkInfo)) {
        if (attribute->type == IFLA_INFO_SLAVE_KIND) {
            return TextOf(attribute->payload);
        }
    }
    return "";
}

}  // namespace

std::optional<Message> NextMessage(Bytes& buffer) {
    const auto header = Load<nlmsghdr>(buffer);
    if (!header || header->nlmsg_len < sizeof(nlmsghdr) || header->nlmsg_len > buffer.size()) {
        return std::nullopt;
    }
    Message message{header->nlmsg_type, header->nlmsg_flags, header->nlmsg_seq,
                    buffer.subspan(sizeof(nlmsghdr), header->nlmsg_len - sizeof(nlmsghdr))};
    buffer = Skip(buffer, header->nlmsg_len);
    return message;
}

std::optional<Attribute> NextAttribute(Bytes& buffer) {
    const auto header = Load<rtattr>(buffer);
    if (!header || header->rta_len < sizeof(rtattr) || header->rta_len > buffer.size()) {
        return std::nullopt;
    }
    Attribute attribute{static_cast<std::uint16_t>(header->rta_type & NLA_TYPE_MASK),
                        buffer.subspan(sizeof(rtattr), header->rta_len - sizeof(rtattr))};
    buffer = Skip(buffer, header->rta_len);
    return attribute;
}

std::string TextOf(Bytes payload) {
    return std::string(payload.begin(), std::find(payload.begin(), payload.end(), std::uint8_t{0}));
}

std::optional<NetworkInterface> ParseLink(Bytes payload) {
    const auto header = Load<ifinfomsg>(payload);
    if (!header || header->ifi_index <= 0) {
        return std::nullopt;
    }
    NetworkInterface interface;
    interface.index = header->ifi_index;
    interface.up = (header->ifi_flags & IFF_UP) != 0;
    interface.running = (header->ifi_flags & IFF_RUNNING) != 0;
    interface.loopback = (header->ifi_flags & IFF_LOOPBACK) != 0;
    interface.pointToPoint = (header->ifi_flags & IFF_POINTOPOINT) != 0;
    interface.broadcast = (header->ifi_flags & IFF_BROADCAST) != 0;
    Bytes attributes = Skip(payload, sizeof(ifinfomsg));
    while (const auto attribute = NextAttribute(attributes)) {
        if (attribute->type == IFLA_IFNAME) {
            interface.name = TextOf(attribute->payload);
        }
        if (attribute->type == IFLA_MTU) {
            interface.mtu = Load<std::uint32_t>(attribute->payload).value_or(0);
        }
        if (attribute->type == IFLA_LINKINFO) {
            interface.portOf = PortKindOf(attribute->payload);
        }
    }
    if (interface.name.empty()) {
        return std::nullopt;
    }
    return interface;
}

std::optional<AddressMessage> ParseAddress(Bytes payload) {
    const auto header = Load<ifaddrmsg>(payload);
    if (!header || header->ifa_family != AF_INET || header->ifa_prefixlen > 32) {
        return std::nullopt;
    }
    AddressMessage message;
    message.interface = static_cast<int>(header->ifa_index);
    message.address.prefixLength = header->ifa_prefixlen;
    message.address.secondary = (header->ifa_flags & IFA_F_SECONDARY) != 0;
    bool found = false;
    Bytes attributes = Skip(payload, sizeof(ifaddrmsg));
    while (const auto attribute = NextAttribute(attributes)) {
        const auto address = Load<std::uint32_t>(attribute->payload);
        // IFA_LOCAL is the interface's own address; IFA_ADDRESS would be the peer's on a point-to-point link.
        if (attribute->type != IFA_LOCAL || !address) {
            continue;
        }
        message.address.address = ntohl(*address);
        found = true;
    }
    if (!found) {
        return std::nullopt;
    }
    return message;
}

std::optional<RouteMessage> ParseRoute(Bytes payload) {
    const auto header = Load<rtmsg>(payload);
    if (!header || header->rtm_family != AF_INET || header->rtm_type != RTN_UNICAST) {
        return std::nullopt;
    }
    RouteMessage message;
    message.prefixLength = header->rtm_dst_len;
    message.direct = true;
    Bytes attributes = Skip(payload, sizeof(rtmsg));
    while (const auto attribute = NextAttribute(attributes)) {
        const auto value = Load<std::uint32_t>(attribute->payload);
        if (attribute->type == RTA_OIF) {
            message.interface = static_cast<int>(value.value_or(0));
        }
        if (attribute->type == RTA_GATEWAY) {
            message.gateway = ntohl(value.value_or(0));
        }
        if (attribute->type == RTA_GATEWAY || attribute->type == RTA_VIA) {
            message.direct = false;
        }
    }
    return message;
}

std::optional<NeighbourMessage> ParseNeighbour(Bytes payload) {
    const auto header = Load<ndmsg>(payload);
    if (!header || header->ndm_family != AF_INET) {
        return std::nullopt;
    }
    NeighbourMessage message;
    message.interface = header->ndm_ifindex;
    constexpr std::uint16_t known = NUD_REACHABLE | NUD_STALE | NUD_DELAY | NUD_PROBE | NUD_PERMANENT;
    message.answers = (header->ndm_state & known) != 0;
    bool found = false;
    Bytes attributes = Skip(payload, sizeof(ndmsg));
    while (const auto attribute = NextAttribute(attributes)) {
        if (attribute->type == NDA_LLADDR && attribute->payload.size() == 6) {
            message.mac = 0;  // the kernel sends one address; of several the last counts, as of every attribute
            for (const std::uint8_t octet : attribute->payload) {
                message.mac = message.mac << 8 | octet;
            }
        }
        const auto value = Load<std::uint32_t>(attribute->payload);
        if (attribute->type != NDA_DST || !value) {
            continue;
        }
        message.ip = ntohl(*value);
        found = true;
    }
    if (!found) {
        return std::nullopt;
    }
    return message;
}

std::optional<std::uint32_t> ParseRpFilter(Bytes payload) {
    Bytes attributes = Skip(payload, sizeof(netconfmsg));
    while (const auto attribute = NextAttribute(attributes)) {
        if (attribute->type == NETCONFA_RP_FILTER) {
            return Load<std::uint32_t>(attribute->payload);
        }
    }
    return std::nullopt;
}

}  // namespace Nimbrel2::Platform::Netlink
