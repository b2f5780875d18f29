// SPDX-License-Identifier: Apache-2.0
// Self-ID packets as PHYs that are connected to each other.
#include <gtest/gtest.h>

#include <array>
#include <string>
#include <vector>

#include "platform/base/SelfIds.h"

namespace Nimbrel2::Platform {
namespace {

std::vector<SelfIdPacket_t> Packets(const std::vector<std::uint32_t>& quadlets) {
    std::vector<SelfIdPacket_t> packets;
    for (const std::uint32_t q : quadlets) {
        packets.push_back({{static_cast<std::uint8_t>(q >> 24), static_cast<std::uint8_t>(q >> 16),
                            static_cast<std::uint8_t>(q >> 8), static_cast<std::uint8_t>(q)}});
    }
    return packets;
}

/// "0:1-2 ..." for each cable: phy id, port, and the PHY at the other end, from both ends.
std::string Cables(const std::vector<FireWirePhy>& phys) {
    std::string text;
    for (const FireWirePhy& phy : phys) {
        for (std::size_t port = 0; port < phy.ports.size(); ++port) {
            if (!phy.ports[port].neighbour) {
                continue;
            }
            text += (text.empty() ? "" : " ") + std::to_string(phy.phyId) + ":" + std::to_string(port) + "-" +
                    std::to_string(*phy.ports[port].neighbour);
        }
    }
    return text;
}

// Packet zero of a PHY with gap count 63 and speed S400: the ports of its last byte are what differs.
constexpr std::uint32_t Phy(std::uint32_t id, std::uint32_t lastByte) { return 0x807F8000 | id << 24 | lastByte; }

constexpr std::uint32_t ToParentFirst = 0x80;          // port 0: 2
constexpr std::uint32_t ChildFirst = 0xC0;             // port 0: 3
constexpr std::uint32_t ChildThenParent = 0xE0;        // 3, 2
constexpr std::uint32_t TwoChildren = 0xF0;            // 3, 3
constexpr std::uint32_t ParentThenTwoChildren = 0xBC;  // 2, 3, 3

TEST(SelfIds, TellWhatEachFieldOfPacketZeroSays) {
    // Root alone: link on, gap count 5, S200, contender, power class 4, not connected port 0, initiated the reset.
    const auto phys = DecodeSelfIds(Packets({0x80454C42}));
    ASSERT_TRUE(phys);
    ASSERT_EQ(phys->size(), 1u);
    const FireWirePhy& phy = phys->front();
    EXPECT_EQ(phy.phyId, 0u);
    EXPECT_TRUE(phy.linkActive);
    EXPECT_EQ(phy.gapCount, 5u);
    EXPECT_EQ(phy.speed, 1u);
    EXPECT_TRUE(phy.contender);
    EXPECT_EQ(phy.powerClass, 4u);
    EXPECT_TRUE(phy.initiatedReset);
    ASSERT_EQ(phy.ports.size(), 1u);
    EXPECT_EQ(phy.ports[0], (FireWirePort{FireWirePortStatus::NotConnected, std::nullopt}));
}

TEST(SelfIds, ConnectTheChildThatSpokeFirstToTheLowestPort) {
    const auto phys = DecodeSelfIds(Packets({Phy(0, ToParentFirst), Phy(1, ToParentFirst), Phy(2, TwoChildren)}));
    ASSERT_TRUE(phys);
    EXPECT_EQ(Cables(*phys), "0:0-2 1:0-2 2:0-0 2:1-1");
}

TEST(SelfIds, ConnectHubsBelowHubs) {
    // 4 (root) has 3 below it; 3 has the leaf 0 and the hub 2, which has the leaf 1.
    const auto phys = DecodeSelfIds(Packets({Phy(0, ToParentFirst), Phy(1, ToParentFirst), Phy(2, ChildThenParent),
                                             Phy(3, ParentThenTwoChildren), Phy(4, ChildFirst)}));
    ASSERT_TRUE(phys);
    EXPECT_EQ(Cables(*phys), "0:0-3 1:0-2 2:0-1 2:1-3 3:0-4 3:1-0 3:2-2 4:0-3");
}

TEST(SelfIds, NumberPortsOverExtendedPackets) {
    // 0 is a leaf; the root's only connected port is c of its second extended packet: port 3 + 8 + 2.
    const auto phys = DecodeSelfIds(Packets({Phy(0, ToParentFirst), Phy(1, 0x01), 0x81800001, 0x81903000}));
    ASSERT_TRUE(phys);
    EXPECT_EQ(Cables(*phys), "0:0-1 1:13-0");
    EXPECT_EQ((*phys)[1].ports.size(), 14u);
    EXPECT_EQ((*phys)[1].ports[0].status, FireWirePortStatus::Absent);
}

TEST(SelfIds, OfTheLargestBusAreDecoded) {
    std::vector<std::uint32_t> quadlets{Phy(0, ToParentFirst)};
    for (std::uint32_t id = 1; id < 62; ++id) {
        quadlets.push_back(Phy(id, ChildThenParent));
    }
    quadlets.push_back(Phy(62, ChildFirst));
    const auto phys = DecodeSelfIds(Packets(quadlets));
    ASSERT_TRUE(phys);
    EXPECT_EQ(phys->size(), 63u);
}

TEST(SelfIds, ThatAreNotThoseOfAWholeBusAreRefused) {
    struct Case {
        const char* why;
        std::vector<std::uint32_t> quadlets;
    };
    std::vector<std::uint32_t> tooMany{Phy(0, ToParentFirst)};
    for (std::uint32_t id = 1; id < 63; ++id) {
        tooMany.push_back(Phy(id, ChildThenParent));
    }
    tooMany.push_back(Phy(63, ChildFirst));
    const std::vector<Case> cases{
        {"no packets", {}},
        {"64 PHYs", tooMany},
        {"a PHY is missing", {Phy(0, ToParentFirst), Phy(2, ChildFirst)}},
        {"the first PHY is missing", {Phy(1, ChildFirst)}},
        {"a PHY speaks twice", {Phy(0, ToParentFirst), Phy(0, ToParentFirst), Phy(1, TwoChildren)}},
        {"another packet's identifier", {0x007F8040}},
        {"it begins with an extended packet", {0x80800000}},
        {"an extended packet is announced and missing", {Phy(0, 0x41)}},
        {"an extended packet of another PHY", {Phy(0, 0x41), 0x81800000}},
        {"packet zero in the place of an extended one", {Phy(0, 0x41), Phy(0, 0x40)}},
        {"the second extended packet comes first", {Phy(0, 0x41), 0x80900000}},
        {"a fourth extended packet", {Phy(0, 0x41), 0x80800001, 0x80900001, 0x80A00001, 0x80B00000}},
        {"a PHY with two parents", {Phy(0, 0xA0), Phy(1, ChildFirst)}},
        {"a PHY without parent that is not the root", {Phy(0, 0x40), Phy(1, ChildFirst)}},
        {"a root with a parent", {Phy(0, ToParentFirst), Phy(1, ChildThenParent)}},
        {"more child ports than PHYs", {Phy(0, ToParentFirst), Phy(1, TwoChildren)}},
        {"a PHY that nobody has for a child", {Phy(0, ToParentFirst), Phy(1, ToParentFirst), Phy(2, ChildFirst)}},
    };
    for (const Case& bad : cases) {
        EXPECT_FALSE(DecodeSelfIds(Packets(bad.quadlets))) << bad.why;
    }
}

}  // namespace
}  // namespace Nimbrel2::Platform
