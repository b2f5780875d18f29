// SPDX-License-Identifier: Apache-2.0
// Self-ID packets and the bus trees made of them, good and bad. One thread.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <list>
#include <memory>

#include "tests/topology/TreeSupport.h"
#include "topology/SelfIdParsing.h"

namespace Nimbrel2 {
namespace {

using Testing::AppendPhy;
using Testing::Dump;
using testing::ElementsAre;
using Testing::Input;
using testing::IsEmpty;
using Testing::Violations;

constexpr auto None = TopologyNode::PORT_NOT_CONNECTED;
constexpr auto Parent = TopologyNode::PORT_TO_PARENT;
constexpr auto Child = TopologyNode::PORT_TO_CHILD;

using Stream = std::vector<SelfIdPacket_t>;

// The stream of PHYs 0, 1, 2, ... with these ports.
Stream Bus(const std::vector<std::vector<unsigned int>>& phys) {
    Stream stream;
    for (std::size_t id = 0; id < phys.size(); ++id) {
        AppendPhy(static_cast<unsigned int>(id), phys[id], stream);
    }
    return stream;
}

// ---- One packet ----------------------------------------------------------------------------------------------------

TEST(ParseSelfIdPacketZero, ReadsThePortsFromTheTopOfTheLastByte) {
    PortList ports;
    std::uint32_t children = 0;
    //                                                        p0 p1 p2 i m
    ParseSelfIdPacketZero(SelfIdPacket_t{{0x80, 0x7F, 0x88, 0b01'10'11'0'0}}, ports, children);
    EXPECT_THAT(ports, ElementsAre(None, Parent, Child));
    EXPECT_EQ(children, 1u);
}

TEST(ParseSelfIdPacketZero, SkipsPortsThatAreNotThere) {
    PortList ports;
    std::uint32_t children = 0;
    ParseSelfIdPacketZero(SelfIdPacket_t{{0x80, 0x7F, 0x88, 0b01'00'11'0'0}}, ports, children);
    EXPECT_THAT(ports, ElementsAre(None, Child));
    EXPECT_EQ(children, 1u);
}

TEST(ParseSelfIdPacketZero, AddsToWhatItIsGiven) {
    PortList ports{Parent};
    std::uint32_t children = 7;
    ParseSelfIdPacketZero(SelfIdPacket_t{{0x80, 0x7F, 0x88, 0b11'11'00'0'0}}, ports, children);
    EXPECT_THAT(ports, ElementsAre(Parent, Child, Child));
    EXPECT_EQ(children, 9u);
}

TEST(ParseSelfIdPacketZero, LooksAtNothingButThePorts) {
    PortList ports;
    std::uint32_t children = 0;
    ParseSelfIdPacketZero(SelfIdPacket_t{{0xFF, 0xFF, 0xFF, 0b00'00'00'1'1}}, ports, children);
    EXPECT_THAT(ports, IsEmpty());
    EXPECT_EQ(children, 0u);
}

TEST(ParseSelfIdPacketMore, ReadsEightPortsInOrder) {
    PortList ports;
    std::uint32_t children = 0;
    //                                             n  r  a        b  c  d  e        f  g  h r m
    ParseSelfIdPacketMore(SelfIdPacket_t{{0x80, 0b1'000'00'01, 0b10'11'01'10, 0b11'01'10'0'0}}, ports, children);
    EXPECT_THAT(ports, ElementsAre(None, Parent, Child, None, Parent, Child, None, Parent));
    EXPECT_EQ(children, 2u);
}

TEST(ParseSelfIdPacketMore, SkipsPortsThatAreNotThereAndAddsToWhatItIsGiven) {
    PortList ports{Parent};
    std::uint32_t children = 1;
    ParseSelfIdPacketMore(SelfIdPacket_t{{0x80, 0b1'000'00'11, 0b00'00'01'00, 0b00'11'00'0'1}}, ports, children);
    EXPECT_THAT(ports, ElementsAre(Parent, Child, None, Child));
    EXPECT_EQ(children, 3u);
}

TEST(ParseSelfIdPacketMore, LooksAtNothingButThePorts) {
    PortList ports;
    std::uint32_t children = 0;
    ParseSelfIdPacketMore(SelfIdPacket_t{{0xFF, 0b1'111'11'00, 0x00, 0b00'00'00'1'1}}, ports, children);
    EXPECT_THAT(ports, IsEmpty());
    EXPECT_EQ(children, 0u);
}

// ---- Whole buses, written out bit by bit ---------------------------------------------------------------------------

TEST(ParseSelfIdPackets, BuildsAChainOfThree) {
    const Stream stream{
        // id   phy id       link gap     speed delay cont power  p0 p1 p2 init more
        {{0b10'000000, 0b0'1'111111, 0b10'00'1'000, 0b10'00'00'0'0}},  // PHY 0: a camera, on its port 0
        {{0b10'000001, 0b0'1'111111, 0b10'00'1'000, 0b11'10'00'0'0}},  // PHY 1: a camera with a second port
        {{0b10'000010, 0b0'1'111111, 0b10'00'1'100, 0b11'01'00'1'0}},  // PHY 2: the computer's card
    };
    const TopologyNode tree = ParseSelfIdPackets(stream);
    EXPECT_EQ(Dump(tree),
              "device 1394 2 [PC-]\n"
              "  device 1394 1 [CP]\n"
              "    device 1394 0 [P]\n");
    EXPECT_THAT(Violations(tree), IsEmpty());
}

TEST(ParseSelfIdPackets, BuildsAHubOfSixPortsWithThreeCameras) {
    const Stream stream{
        // id   phy id       link gap     speed delay cont power  p0 p1 p2 init more
        {{0b10'000000, 0b0'1'111111, 0b10'00'0'010, 0b10'01'00'0'0}},  // PHY 0: a camera, second port free
        {{0b10'000001, 0b0'1'111111, 0b10'00'0'010, 0b01'10'00'0'0}},  // PHY 1: a camera, first port free
        {{0b10'000010, 0b0'1'111111, 0b01'00'0'010, 0b10'00'00'0'0}},  // PHY 2: a camera of 200 Mbit/s
        {{0b10'000011, 0b0'0'111111, 0b10'00'0'011, 0b11'01'11'0'1}},  // PHY 3: a hub without link, ports 0 to 2 ...
        //             n    r  a         b  c  d  e        f  g  h r more
        {{0b10'000011, 0b1'000'00'11, 0b10'01'00'00, 0b00'00'00'0'0}},  // ... a: third camera, b: up, c: free
        {{0b10'000100, 0b0'1'111111, 0b10'00'1'000, 0b11'01'01'1'0}},   // PHY 4: the computer's card
    };
    const TopologyNode tree = ParseSelfIdPackets(stream);
    EXPECT_EQ(Dump(tree),
              "device 1394 4 [PC--]\n"
              "  device 1394 3 [C-CCP-]\n"
              "    device 1394 0 [P-]\n"
              "    device 1394 1 [-P]\n"
              "    device 1394 2 [P]\n");
    EXPECT_THAT(Violations(tree), IsEmpty());
}

TEST(ParseSelfIdPackets, BuildsHubsBehindAHubOfThirteenPortsAndARootWithExtendedPackets) {
    const Stream stream{
        // id   phy id       link gap     speed delay cont power  p0 p1 p2 init more
        {{0b10'000000, 0b0'1'000101, 0b10'00'0'010, 0b10'00'00'0'0}},  // PHY 0: a camera
        {{0b10'000001, 0b0'1'000101, 0b10'00'0'010, 0b10'00'00'0'0}},  // PHY 1: a camera
        {{0b10'000010, 0b0'0'000101, 0b10'00'0'000, 0b11'11'10'0'0}},  // PHY 2: a small hub with both
        {{0b10'000011, 0b0'1'000101, 0b10'00'0'010, 0b01'01'10'0'0}},  // PHY 3: a camera with two free ports
        {{0b10'000100, 0b0'0'000101, 0b10'00'0'000, 0b01'11'01'0'1}},  // PHY 4: a hub, port 1 to PHY 2 ...
        //             n    r  a         b  c  d  e        f  g  h r more
        {{0b10'000100, 0b1'000'00'01, 0b01'01'00'01, 0b01'01'11'0'1}},  // ... h to PHY 3, no port d ...
        {{0b10'000100, 0b1'001'00'10, 0b01'00'00'00, 0b00'00'00'0'0}},  // ... and a of the second one up, b free
        {{0b10'000101, 0b0'1'000101, 0b10'00'0'010, 0b10'00'00'0'0}},   // PHY 5: a camera
        {{0b10'000110, 0b0'1'000101, 0b10'00'1'000, 0b01'01'01'1'1}},   // PHY 6: the card, three free ports ...
        {{0b10'000110, 0b1'000'00'11, 0b11'00'00'00, 0b00'00'00'0'0}},  // ... a to PHY 4, b to PHY 5
    };
    const TopologyNode tree = ParseSelfIdPackets(stream);
    EXPECT_EQ(Dump(tree),
              "device 1394 6 [P---CC]\n"
              "  device 1394 4 [-C-------CP-]\n"
              "    device 1394 2 [CCP]\n"
              "      device 1394 0 [P]\n"
              "      device 1394 1 [P]\n"
              "    device 1394 3 [--P]\n"
              "  device 1394 5 [P]\n");
    EXPECT_THAT(Violations(tree), IsEmpty());
}

// ---- Small buses ---------------------------------------------------------------------------------------------------

TEST(ParseSelfIdPackets, MakesALonelyPhyTheRoot) {
    EXPECT_EQ(Dump(ParseSelfIdPackets(Bus({{1, 1, 1}}))), "device 1394 0 [P---]\n");
}

TEST(ParseSelfIdPackets, KeepsThePhyIdOfALonelyRoot) {
    Stream stream;
    AppendPhy(41, {1, 0, 1}, stream);
    EXPECT_EQ(Dump(ParseSelfIdPackets(stream)), "device 1394 41 [P--]\n");
}

TEST(ParseSelfIdPackets, GivesARootTwoLeavesInAscendingOrder) {
    EXPECT_EQ(Dump(ParseSelfIdPackets(Bus({{2}, {2}, {3, 3}}))),
              "device 1394 2 [PCC]\n  device 1394 0 [P]\n  device 1394 1 [P]\n");
}

TEST(ParseSelfIdPackets, ReadsThePortsOfThreeExtendedPacketsInOrder) {
    const std::vector<unsigned int> ports{1, 3, 2, 1, 1, 3, 1, 1, 1, 1, 3, 1, 1, 1,
                                          1, 1, 1, 1, 3, 1, 1, 1, 1, 1, 1, 1, 3};
    ASSERT_EQ(ports.size(), 27u);
    const TopologyNode tree = ParseSelfIdPackets(Bus({{2}, {2}, {2}, {2}, {2}, ports, {3}}));
    EXPECT_EQ(Dump(tree),
              "device 1394 6 [PC]\n"
              "  device 1394 5 [-CP--C----C-------C-------C]\n"
              "    device 1394 0 [P]\n    device 1394 1 [P]\n    device 1394 2 [P]\n    device 1394 3 [P]\n"
              "    device 1394 4 [P]\n");
}

TEST(ParseSelfIdPackets, BuildsTheLongestStreamOfABus) {
    std::vector<std::vector<unsigned int>> phys(62, std::vector<unsigned int>(27, 1));
    for (std::size_t id = 0; id < phys.size(); ++id) {
        phys[id][26] = 2;
        phys[id][0] = id == 0 ? 1 : 3;
    }
    phys.push_back(std::vector<unsigned int>(27, 1));
    phys.back()[26] = 3;
    const Stream stream = Bus(phys);
    ASSERT_EQ(stream.size(), MaxSelfIdPackets);
    const TopologyNode tree = ParseSelfIdPackets(stream);
    EXPECT_THAT(Violations(tree), IsEmpty());
    const TopologyNode* node = &tree;
    for (int id = 62; id > 0; --id) {
        ASSERT_EQ(node->GetDeviceId(), id);
        ASSERT_EQ(node->GetNumChildren(), 1u);
        node = &node->GetChild(0);
    }
    EXPECT_EQ(node->GetDeviceId(), 0);
    EXPECT_EQ(node->GetNumChildren(), 0u);
}

TEST(ParseSelfIdPackets, TestsNeitherIdentifiersNorSequenceNumbersNorThePhyIdOfAnExtendedPacket) {
    Stream stream = Bus({{2}, {3, 1, 1, 1}});
    ASSERT_EQ(stream.size(), 3u);
    stream[0].bytes[0] = 0x00;  // not the identifier of a self-ID packet
    stream[1].bytes[1] = 0xFF;  // says that it is an extended packet
    stream[2].bytes[0] = 0x3F;  // another PHY's
    stream[2].bytes[1] = 0x71;  // says that it is no extended packet, and the last of eight
    EXPECT_EQ(Dump(ParseSelfIdPackets(stream)), "device 1394 1 [PC---]\n  device 1394 0 [P]\n");
}

// ---- Broken streams ------------------------------------------------------------------------------------------------

TEST(ParseSelfIdPackets, AnswersAnEmptyNodeForNoPackets) {
    EXPECT_EQ(Dump(ParseSelfIdPackets({})), Dump(TopologyNode()));
}

// The streams stand in memory of exactly their size, so that a read behind the last packet is caught.
TEST(ParseSelfIdPackets, DoesNotReadPastALastPacketThatPromisesMore) {
    for (unsigned int extended = 0; extended < 3; ++extended) {
        const std::size_t count = 2 + extended;
        const auto packets = std::make_unique<SelfIdPacket_t[]>(count);
        packets[0] = SelfIdPacket_t{{0x80, 0x7F, 0x88, 0b10'00'00'0'0}};
        packets[1] = SelfIdPacket_t{{0x81, 0x7F, 0x88, 0b11'00'00'0'1}};
        for (std::size_t i = 2; i < count; ++i) {
            packets[i] = SelfIdPacket_t{{0x81, 0x81, 0x00, 0b00'00'00'0'1}};
        }
        const TopologyNode tree = ParseSelfIdPackets({packets.get(), count});
        EXPECT_EQ(Dump(tree), "device 1394 1 [PC" + std::string(extended, '-') + "]\n  device 1394 0 [P]\n");
    }
}

TEST(ParseSelfIdPackets, TakesOnlyTheSubtreesThatAreThere) {
    const TopologyNode tree = ParseSelfIdPackets(Bus({{2}, {3, 3, 3, 3, 2}, {3}}));
    EXPECT_EQ(Dump(tree), "device 1394 2 [PC]\n  device 1394 1 [CCCCP]\n    device 1394 0 [P]\n");
    EXPECT_THAT(Violations(tree, Input::Anything), IsEmpty());
}

TEST(ParseSelfIdPackets, GivesAPhyNoChildrenWhenNoSubtreeIsBelowIt) {
    const TopologyNode tree = ParseSelfIdPackets(Bus({{3, 2}, {2}, {3, 3}}));
    EXPECT_EQ(Dump(tree), "device 1394 2 [PCC]\n  device 1394 0 [CP]\n  device 1394 1 [P]\n");
    EXPECT_THAT(Violations(tree, Input::Anything), IsEmpty());
}

TEST(ParseSelfIdPackets, LeavesOutPhysWithChildPortsWhenNoSubtreeIsComplete) {
    const TopologyNode tree = ParseSelfIdPackets(Bus({{3, 2}, {3, 2}, {3}}));
    EXPECT_EQ(Dump(tree), "device 1394 2 [PC]\n");
}

TEST(ParseSelfIdPackets, GivesTheRootAllThatIsLeftWhateverItsPortsSay) {
    const TopologyNode tree = ParseSelfIdPackets(Bus({{2}, {2}, {2}, {1}}));
    EXPECT_EQ(Dump(tree), "device 1394 3 [P-]\n  device 1394 0 [P]\n  device 1394 1 [P]\n  device 1394 2 [P]\n");
}

TEST(ParseSelfIdPackets, BuildsATreeFromAStreamCutOffInTheMiddle) {
    Stream stream = Bus({{2}, {2}, {3, 3, 1, 1, 1, 1, 1, 1, 1, 1, 1, 2}, {2}, {3, 3}});
    for (std::size_t length = 0; length <= stream.size(); ++length) {
        const TopologyNode tree = ParseSelfIdPackets({stream.data(), length});
        if (length > 0) {
            EXPECT_THAT(Violations(tree, Input::Anything), IsEmpty()) << length << '\n' << Dump(tree);
        }
    }
}

TEST(ParseSelfIdPackets, StopsAtTheFirstSubtreeThatIsNotBelowThePhyInAStreamOutOfOrder) {
    Stream stream;
    AppendPhy(5, {2}, stream);
    AppendPhy(1, {2}, stream);
    AppendPhy(3, {3, 2}, stream);  // 5 stands in front of 1 and is not below 3, so 1 is out of its reach
    AppendPhy(6, {3, 3, 2}, stream);
    AppendPhy(2, {3, 2}, stream);
    AppendPhy(7, {3}, stream);
    const TopologyNode tree = ParseSelfIdPackets(stream);
    EXPECT_EQ(Dump(tree),
              "device 1394 7 [PC]\n"
              "  device 1394 2 [CP]\n"
              "  device 1394 3 [CP]\n"
              "  device 1394 6 [CCP]\n"
              "    device 1394 5 [P]\n"
              "    device 1394 1 [P]\n");
    EXPECT_THAT(Violations(tree, Input::Anything), IsEmpty());
}

// ---- Against the rule, step by step --------------------------------------------------------------------------------

// The classic rule with plain lists, every step as slow as it is obvious.
TopologyNode ParseStepByStep(const Stream& packets) {
    struct Phy {
        TopologyNode node;
        std::uint32_t children = 0;
    };
    std::list<Phy> finished;
    std::list<Phy> pending;
    Phy root;
    for (std::size_t i = 0; i < packets.size(); ++i) {
        const int id = packets[i].bytes[0] & 0x3F;
        PortList ports;
        std::uint32_t children = 0;
        ParseSelfIdPacketZero(packets[i], ports, children);
        for (bool more = packets[i].bytes[3] & 1; more && i + 1 < packets.size(); more = packets[i].bytes[3] & 1) {
            ParseSelfIdPacketMore(packets[++i], ports, children);
        }
        const bool last = i + 1 == packets.size();
        Phy phy{TopologyNode(ZevoGuid{}, id, TopologyNode::NODE_DEVICE, INTERFACE_IEEE1394), children};
        if (last) {
            phy.node.AddPortType(Parent);
        }
        for (const auto port : ports) {
            phy.node.AddPortType(port);
        }
        if (last) {
            root = phy;
        } else if (children == 0) {
            finished.push_back(phy);
        } else {
            pending.push_back(phy);
        }
    }
    while (!pending.empty() && !finished.empty()) {
        Phy parent = pending.front();
        std::list<Phy> holding;
        while (!finished.empty() && finished.front().node.GetDeviceId() < parent.node.GetDeviceId()) {
            holding.push_back(finished.front());
            finished.pop_front();
        }
        std::list<Phy> children;
        for (std::uint32_t n = 0; n < parent.children && !holding.empty(); ++n) {
            children.push_front(holding.back());
            holding.pop_back();
        }
        for (const Phy& child : children) {
            parent.node.AddChild(child.node);
        }
        finished.push_front(parent);
        finished.insert(finished.begin(), holding.begin(), holding.end());
        pending.pop_front();
    }
    for (const Phy& child : finished) {
        root.node.AddChild(child.node);
    }
    return root.node;
}

TEST(ParseSelfIdPackets, AgreesWithTheRuleStepByStepOnRandomGarbage) {
    std::mt19937 random(20240229);
    for (int run = 0; run < 3000; ++run) {
        Stream stream(random() % 60);
        for (SelfIdPacket_t& packet : stream) {
            for (std::uint8_t& byte : packet.bytes) {
                byte = static_cast<std::uint8_t>(random());
            }
        }
        const TopologyNode tree = ParseSelfIdPackets(stream);
        ASSERT_EQ(Dump(tree), Dump(ParseStepByStep(stream))) << "run " << run;
        if (!stream.empty()) {
            ASSERT_THAT(Violations(tree, Input::Anything), IsEmpty()) << "run " << run << '\n' << Dump(tree);
        }
    }
}

TEST(ParseSelfIdPackets, AgreesWithTheRuleStepByStepOnBusesWithAFewWrongBits) {
    std::mt19937 random(7);
    for (int run = 0; run < 3000; ++run) {
        Stream stream = Testing::SelfIdStream(Testing::RandomBus(random));
        for (auto wrong = 1 + random() % 4; wrong > 0; --wrong) {
            std::uint8_t& byte = stream[random() % stream.size()].bytes[random() % 4];
            byte = static_cast<std::uint8_t>(byte ^ 1u << random() % 8);
        }
        const TopologyNode tree = ParseSelfIdPackets(stream);
        ASSERT_EQ(Dump(tree), Dump(ParseStepByStep(stream))) << "run " << run;
        ASSERT_THAT(Violations(tree, Input::Anything), IsEmpty()) << "run " << run << '\n' << Dump(tree);
    }
}

TEST(ParseSelfIdPackets, TurnsTheStreamOfAnyBusBackIntoItsTree) {
    std::mt19937 random(1394);
    std::size_t longest = 0;
    for (int run = 0; run < 3000; ++run) {
        const Testing::Phy bus = Testing::RandomBus(random);
        const Stream stream = Testing::SelfIdStream(bus);
        longest = std::max(longest, stream.size());
        const TopologyNode tree = ParseSelfIdPackets(stream);
        ASSERT_EQ(Dump(tree), Dump(Testing::ExpectedTree(bus))) << "run " << run;
        ASSERT_THAT(Violations(tree), IsEmpty()) << "run " << run << '\n' << Dump(tree);
    }
    EXPECT_GT(longest, 120u);  // Extended packets were among them.
}

}  // namespace
}  // namespace Nimbrel2
