// SPDX-License-Identifier: Apache-2.0
// rtnetlink messages from bytes, whole and cut at every byte.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/if.h>
#include <linux/if_addr.h>
#include <linux/if_link.h>
#include <linux/neighbour.h>
#include <linux/netconf.h>
#include <linux/netlink.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <random>

#include "platform/base/NetlinkMessages.h"

namespace Nimbrel2::Platform::Netlink {
namespace {

/// Builds what the kernel would send.
class Builder {
public:
    template <typename Header>
    explicit Builder(const Header& header) {
        Append(&header, sizeof header);
    }
    Builder() = default;

    Builder& Add(std::uint16_t type, const std::vector<std::uint8_t>& payload) {
        const rtattr header{static_cast<std::uint16_t>(sizeof(rtattr) + payload.size()), type};
        Append(&header, sizeof header);
        Append(payload.data(), payload.size());
        return *this;
    }
    Builder& AddText(std::uint16_t type, const std::string& text) {
        std::vector<std::uint8_t> bytes(text.begin(), text.end());
        bytes.push_back(0);
        return Add(type, bytes);
    }

    const std::vector<std::uint8_t>& GetBytes() const { return m_bytes; }

private:
    void Append(const void* data, std::size_t size) {
        const auto* bytes = static_cast<const std::uint8_t*>(data);
        m_bytes.insert(m_bytes.end(), bytes, bytes + size);
        m_bytes.resize((m_bytes.size() + 3) & ~std::size_t{3});
    }
    std::vector<std::uint8_t> m_bytes;
};

ifinfomsg LinkHeader() {
    ifinfomsg header{};
    header.ifi_index = 7;
    header.ifi_flags = IFF_UP | IFF_RUNNING | IFF_BROADCAST;
    return header;
}

std::vector<std::uint8_t> Link() {
    const auto kind = Builder().AddText(IFLA_INFO_SLAVE_KIND, "bridge").GetBytes();
    return Builder(LinkHeader())
        .AddText(IFLA_IFNAME, "h0")
        .Add(IFLA_MTU, {0x40, 0x23, 0, 0})
        .Add(IFLA_LINKINFO | NLA_F_NESTED, kind)
        .GetBytes();
}

TEST(NetlinkMessages, ReadALink) {
    const auto link = ParseLink(Link());
    ASSERT_TRUE(link);
    EXPECT_EQ(link->index, 7);
    EXPECT_EQ(link->name, "h0");
    EXPECT_EQ(link->portOf, "bridge");
    EXPECT_TRUE(link->up && link->running && link->broadcast);
    EXPECT_FALSE(link->loopback || link->pointToPoint);
}

TEST(NetlinkMessages, ReadAnAddress) {
    ifaddrmsg header{};
    header.ifa_family = AF_INET;
    header.ifa_prefixlen = 24;
    header.ifa_flags = IFA_F_SECONDARY;
    header.ifa_index = 7;
    const auto bytes = Builder(header).Add(IFA_ADDRESS, {1, 2, 3, 4}).Add(IFA_LOCAL, {192, 168, 77, 1}).GetBytes();
    const auto address = ParseAddress(bytes);
    ASSERT_TRUE(address);
    EXPECT_EQ(address->interface, 7);
    EXPECT_EQ(address->address, (InterfaceAddress{0xC0A84D01, 24, true}));
    EXPECT_EQ(address->address.GetMask(), 0xFFFFFF00u);

    header.ifa_family = AF_INET6;
    EXPECT_FALSE(ParseAddress(Builder(header).Add(IFA_LOCAL, {192, 168, 77, 1}).GetBytes()));
    header.ifa_family = AF_INET;
    header.ifa_prefixlen = 33;
    EXPECT_FALSE(ParseAddress(Builder(header).Add(IFA_LOCAL, {192, 168, 77, 1}).GetBytes()));
    header.ifa_prefixlen = 32;
    EXPECT_FALSE(ParseAddress(Builder(header).Add(IFA_ADDRESS, {1, 2, 3, 4}).GetBytes()));
}

TEST(NetlinkMessages, ReadARoute) {
    rtmsg header{};
    header.rtm_family = AF_INET;
    header.rtm_dst_len = 32;
    header.rtm_type = RTN_UNICAST;
    auto route = ParseRoute(Builder(header).Add(RTA_OIF, {7, 0, 0, 0}).GetBytes());
    ASSERT_TRUE(route);
    EXPECT_TRUE(route->direct);
    EXPECT_EQ(route->interface, 7);
    EXPECT_EQ(route->prefixLength, 32);
    route = ParseRoute(Builder(header).Add(RTA_OIF, {7, 0, 0, 0}).Add(RTA_GATEWAY, {10, 0, 0, 254}).GetBytes());
    ASSERT_TRUE(route);
    EXPECT_FALSE(route->direct);
    EXPECT_EQ(route->gateway, 0x0A0000FEu);
    header.rtm_type = RTN_LOCAL;
    EXPECT_FALSE(ParseRoute(Builder(header).GetBytes()));
}

TEST(NetlinkMessages, ReadANeighbour) {
    ndmsg header{};
    header.ndm_family = AF_INET;
    header.ndm_ifindex = 7;
    header.ndm_state = NUD_STALE;
    const auto bytes = Builder(header).Add(NDA_DST, {10, 0, 0, 9}).Add(NDA_LLADDR, {2, 0, 0, 0, 0x77, 1}).GetBytes();
    auto neighbour = ParseNeighbour(bytes);
    ASSERT_TRUE(neighbour);
    EXPECT_EQ(neighbour->ip, 0x0A000009u);
    EXPECT_EQ(neighbour->mac, 0x020000007701u);
    EXPECT_TRUE(neighbour->answers);
    header.ndm_state = NUD_INCOMPLETE;
    neighbour = ParseNeighbour(Builder(header).Add(NDA_DST, {10, 0, 0, 9}).GetBytes());
    ASSERT_TRUE(neighbour);
    EXPECT_FALSE(neighbour->answers);
}

TEST(NetlinkMessages, TakeTheLastOfTwoHardwareAddresses) {
    ndmsg header{};
    header.ndm_family = AF_INET;
    header.ndm_state = NUD_REACHABLE;
    const auto neighbour = ParseNeighbour(Builder(header)
                                              .Add(NDA_LLADDR, {2, 0, 0, 0, 0x77, 1})
                                              .Add(NDA_LLADDR, {2, 0, 0, 0, 0x77, 2})
                                              .Add(NDA_DST, {10, 0, 0, 9})
                                              .GetBytes());
    ASSERT_TRUE(neighbour);
    EXPECT_EQ(neighbour->mac, 0x020000007702u);
}

TEST(NetlinkMessages, ReadTheReversePathFilter) {
    netconfmsg header{};
    header.ncm_family = AF_INET;
    EXPECT_EQ(ParseRpFilter(
                  Builder(header).Add(NETCONFA_IFINDEX, {1, 0, 0, 0}).Add(NETCONFA_RP_FILTER, {2, 0, 0, 0}).GetBytes()),
              2u);
    EXPECT_FALSE(ParseRpFilter(Builder(header).Add(NETCONFA_RP_FILTER, {2, 0}).GetBytes()));
    EXPECT_FALSE(ParseRpFilter({}));
}

TEST(NetlinkMessages, SurviveBeingCutAtEveryByte) {
    const std::vector<std::uint8_t> link = Link();
    for (std::size_t size = 0; size < link.size(); ++size) {
        const std::vector<std::uint8_t> cut(link.begin(), link.begin() + static_cast<std::ptrdiff_t>(size));
        const auto parsed = ParseLink(cut);
        EXPECT_TRUE(!parsed || parsed->name == "h0") << size;
    }
}

TEST(NetlinkMessages, StopAtAWrongLength) {
    nlmsghdr header{};
    header.nlmsg_len = sizeof header + 4;
    header.nlmsg_type = RTM_NEWLINK;
    std::vector<std::uint8_t> bytes(sizeof header + 4);
    for (const std::uint32_t length : {0u, 1u, 15u, 16u, 20u, 21u, 0xFFFFFFFFu}) {
        header.nlmsg_len = length;
        std::memcpy(bytes.data(), &header, sizeof header);
        Bytes rest(bytes);
        EXPECT_EQ(NextMessage(rest).has_value(), length == 16 || length == 20) << length;
    }
    Bytes attribute;
    for (const int length : {0, 1, 3, 4, 8, 9, 0xFFFF}) {
        const rtattr wrong{static_cast<std::uint16_t>(length), IFLA_IFNAME};
        std::vector<std::uint8_t> buffer(8);
        std::memcpy(buffer.data(), &wrong, sizeof wrong);
        attribute = buffer;
        EXPECT_EQ(NextAttribute(attribute).has_value(), length == 4 || length == 8) << length;
    }
}

TEST(NetlinkMessages, SurviveRandomBytes) {
    std::mt19937 random(77);
    for (int i = 0; i < 20000; ++i) {
        std::vector<std::uint8_t> bytes(random() % 120);
        for (auto& byte : bytes) {
            byte = static_cast<std::uint8_t>(random() % 3 == 0 ? random() : random() % 8);
        }
        Bytes rest(bytes);
        std::size_t messages = 0;
        while (NextMessage(rest)) {
            ++messages;
        }
        EXPECT_LE(messages, bytes.size() / sizeof(nlmsghdr));
        const auto link = ParseLink(bytes);
        EXPECT_TRUE(!link || (link->index > 0 && !link->name.empty()));
        const auto address = ParseAddress(bytes);
        EXPECT_TRUE(!address || address->address.prefixLength <= 32);
        ParseRoute(bytes);
        ParseNeighbour(bytes);
        ParseRpFilter(bytes);
    }
}

}  // namespace
}  // namespace Nimbrel2::Platform::Netlink
