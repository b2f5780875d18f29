// SPDX-License-Identifier: Apache-2.0
// UDP datagrams in IPv4 packets, whole and damaged.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/linux/gige/PacketListener.h"

namespace Nimbrel2::Platform::GigE {
namespace {

/// From 10.9.9.9:3956 to 255.255.255.255:5000, four octets of data.
std::vector<std::uint8_t> Packet() {
    return {
        0x45, 0,    0,    32,                 // version and header length, service, total length
        0,    1,    0,    0,                  // identification, flags and fragment offset
        64,   17,   0,    0,                  // time to live, protocol, checksum
        10,   9,    9,    9,                  // source
        255,  255,  255,  255,                // destination
        0x0F, 0x74, 0x13, 0x88, 0, 12, 0, 0,  // UDP: ports, length, checksum
        1,    2,    3,    4,                  // data
    };
}

TEST(PacketListener, FindsTheDatagramInAPacket) {
    const auto packet = Packet();
    const auto udp = ParseUdpInIp(packet);
    ASSERT_TRUE(udp);
    EXPECT_EQ(udp->from, 0x0A090909u);
    EXPECT_EQ(udp->fromPort, 3956);
    EXPECT_EQ(udp->toPort, 5000);
    EXPECT_THAT(std::vector<std::uint8_t>(udp->payload.begin(), udp->payload.end()),
                ::testing::ElementsAre(1, 2, 3, 4));
}

TEST(PacketListener, IgnoresThePaddingOfShortFrames) {
    auto packet = Packet();
    packet.resize(46);
    const auto udp = ParseUdpInIp(packet);
    ASSERT_TRUE(udp);
    EXPECT_EQ(udp->payload.size(), 4u);
}

TEST(PacketListener, SkipsOptionsInTheHeader) {
    auto packet = Packet();
    packet.insert(packet.begin() + 20, {1, 1, 1, 1});
    packet[0] = 0x46;
    packet[3] = 36;
    const auto udp = ParseUdpInIp(packet);
    ASSERT_TRUE(udp);
    EXPECT_EQ(udp->toPort, 5000);
}

TEST(PacketListener, RefusesWhatIsCutAtAnyByte) {
    const auto packet = Packet();
    for (std::size_t size = 0; size < packet.size(); ++size) {
        EXPECT_FALSE(ParseUdpInIp(std::span(packet).first(size))) << size;
    }
}

struct Damage {
    const char* name;
    std::size_t at;
    std::uint8_t value;
};

class PacketListenerDamage : public ::testing::TestWithParam<Damage> {};

TEST_P(PacketListenerDamage, IsRefused) {
    auto packet = Packet();
    packet[GetParam().at] = GetParam().value;
    EXPECT_FALSE(ParseUdpInIp(packet));
}

INSTANTIATE_TEST_SUITE_P(Rows, PacketListenerDamage,
                         ::testing::Values(Damage{"Version6", 0, 0x65}, Damage{"HeaderTooShort", 0, 0x44},
                                           Damage{"HeaderPastTheEnd", 0, 0x4F}, Damage{"TotalPastTheEnd", 3, 33},
                                           Damage{"TotalWithoutUdp", 3, 27}, Damage{"TotalZero", 3, 0},
                                           Damage{"MoreFragments", 6, 0x20}, Damage{"FragmentOffset", 7, 1},
                                           Damage{"Tcp", 9, 6}, Damage{"UdpLengthZero", 25, 0},
                                           Damage{"UdpLengthSeven", 25, 7}, Damage{"UdpLengthPastTheEnd", 25, 13},
                                           Damage{"UdpLengthHuge", 24, 0xFF}),
                         [](const auto& row) { return row.param.name; });

}  // namespace
}  // namespace Nimbrel2::Platform::GigE
