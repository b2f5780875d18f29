// SPDX-License-Identifier: Apache-2.0
// Topology maps, good and bad ones.
#include <gtest/gtest.h>

#include <vector>

#include "platform/linux/firewire/TopologyMap.h"

namespace Nimbrel2::Platform::FireWire {
namespace {

/// Two PHYs: a camera and the card, which is the root.
std::vector<std::uint8_t> GoodMap() {
    return {
        0x00, 0x04, 0xAB, 0xCD,  // 0: length 4 quadlets, checksum
        0x00, 0x00, 0x00, 0x07,  // 4: map generation
        0x00, 0x02, 0x00, 0x02,  // 8: 2 nodes, 2 self-IDs
        0x80, 0x7F, 0x84, 0x80,  // 12: PHY 0, port 0 to its parent
        0x81, 0x7F, 0x88, 0xC0,  // 16: PHY 1, port 0 to a child
    };
}

TEST(TopologyMap, YieldsTheSelfIdStreamAsItWasReceived) {
    std::vector<std::uint8_t> map = GoodMap();
    map.resize(TopologyMapBytes);  // what is behind it counts for nothing
    std::vector<SelfIdPacket_t> packets(1);
    ASSERT_EQ(ParseTopologyMap(map, &packets), HAL_OK);
    ASSERT_EQ(packets.size(), 2u);
    EXPECT_EQ(packets[0].bytes[0], 0x80);
    EXPECT_EQ(packets[0].bytes[3], 0x80);
    EXPECT_EQ(packets[1].bytes[0], 0x81);
    EXPECT_EQ(packets[1].bytes[3], 0xC0);
}

TEST(TopologyMap, ThatIsNotThatOfAWholeBusIsRefused) {
    struct Case {
        const char* why;
        std::size_t index;
        std::uint8_t value;
    };
    const std::vector<Case> cases{
        {"a length that does not fit the count", 1, 5},
        {"a length in another octet", 0, 1},
        {"more self-IDs than the map holds", 11, 3},
        {"more self-IDs than any bus has", 10, 1},
        {"no self-IDs", 11, 0},
        {"more nodes than have spoken", 9, 3},
        {"fewer nodes than have spoken", 9, 1},
        {"a PHY out of order", 16, 0x82},
        {"ports that make no tree", 19, 0x40},
    };
    for (const Case& bad : cases) {
        std::vector<std::uint8_t> map = GoodMap();
        map[bad.index] = bad.value;
        std::vector<SelfIdPacket_t> packets(1);
        EXPECT_EQ(ParseTopologyMap(map, &packets), HAL_BAD_ANSWER) << bad.why;
        EXPECT_TRUE(packets.empty()) << bad.why;
    }
}

TEST(TopologyMap, CutAnywhereIsRefused) {
    const std::vector<std::uint8_t> good = GoodMap();
    for (std::size_t size = 0; size < good.size(); ++size) {
        const std::vector<std::uint8_t> cut(good.begin(), good.begin() + static_cast<std::ptrdiff_t>(size));
        std::vector<SelfIdPacket_t> packets;
        EXPECT_EQ(ParseTopologyMap(cut, &packets), HAL_BAD_ANSWER) << size;
    }
}

}  // namespace
}  // namespace Nimbrel2::Platform::FireWire
