// SPDX-License-Identifier: Apache-2.0
// Device records of USB host controllers and the trees made of them, good and bad. One thread.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "tests/topology/TreeSupport.h"
#include "topology/UsbTopology.h"

namespace Nimbrel2 {
namespace {

using Testing::CountNodes;
using Testing::Dump;
using testing::ElementsAre;
using Testing::Input;
using testing::IsEmpty;
using Testing::Violations;

using Records = std::vector<UsbSelfId>;

UsbSelfId Record(std::uint32_t deviceId, std::uint64_t route, std::uint64_t rootPort = 1) {
    return UsbSelfId{deviceId, 5000, rootPort, route, 0};
}

// ---- Tiers and root ports ------------------------------------------------------------------------------------------

TEST(UsbTierOfRoute, CountsTheNibblesInFrontOfTheFirstZero) {
    EXPECT_EQ(UsbTierOfRoute(0x0), 0u);
    EXPECT_EQ(UsbTierOfRoute(0x1), 1u);
    EXPECT_EQ(UsbTierOfRoute(0xF), 1u);
    EXPECT_EQ(UsbTierOfRoute(0x34), 2u);
    EXPECT_EQ(UsbTierOfRoute(0x753), 3u);
    EXPECT_EQ(UsbTierOfRoute(0x8642), 4u);
    EXPECT_EQ(UsbTierOfRoute(0x65432), 5u);
    EXPECT_EQ(UsbTierOfRoute(0xFFFFFFFFFFFFFFFF), 16u);
}

TEST(UsbTierOfRoute, LooksAtNothingBehindAZero) {
    EXPECT_EQ(UsbTierOfRoute(0xFFF0), 0u);
    EXPECT_EQ(UsbTierOfRoute(0x50201), 1u);
    EXPECT_EQ(UsbTierOfRoute(0x1111111111110111), 3u);
}

std::vector<std::uint32_t> Ids(const Records& records) {
    std::vector<std::uint32_t> ids;
    for (const UsbSelfId& record : records) {
        ids.push_back(record.deviceId);
    }
    return ids;
}

TEST(GroupUsbRecords, SortsIntoRootPortsAndTiersInTheOrderOfTheRecords) {
    const auto ports = GroupUsbRecords(
        Records{Record(1, 0x0, 7), Record(2, 0x2, 7), Record(3, 0x0, 5), Record(4, 0x12, 7), Record(5, 0x1, 7)});
    ASSERT_EQ(ports.size(), 2u);
    EXPECT_EQ(ports[0].rootPortId, 7u);
    EXPECT_THAT(Ids(ports[0].tiers[0]), ElementsAre(1));
    EXPECT_THAT(Ids(ports[0].tiers[1]), ElementsAre(2, 5));
    EXPECT_THAT(Ids(ports[0].tiers[2]), ElementsAre(4));
    EXPECT_THAT(ports[0].tiers[3], IsEmpty());
    EXPECT_THAT(ports[0].tiers[4], IsEmpty());
    EXPECT_EQ(ports[1].rootPortId, 5u);
    EXPECT_THAT(Ids(ports[1].tiers[0]), ElementsAre(3));
}

TEST(GroupUsbRecords, CopiesWholeRecords) {
    const UsbSelfId record{4, 10000, 0x123456789ABCDEF0, 0x21, 77};
    const auto ports = GroupUsbRecords(Records{record});
    ASSERT_EQ(ports.size(), 1u);
    ASSERT_EQ(ports[0].tiers[2].size(), 1u);
    const UsbSelfId& copy = ports[0].tiers[2][0];
    EXPECT_EQ(copy.deviceId, 4u);
    EXPECT_EQ(copy.speed, 10000u);
    EXPECT_EQ(copy.rootPortId, 0x123456789ABCDEF0u);
    EXPECT_EQ(copy.routeString, 0x21u);
    EXPECT_EQ(copy.parentId, 77u);
}

TEST(GroupUsbRecords, LeavesARecordOutThatIsTooDeepAndGivesItsRootPortNoPlace) {
    const auto ports = GroupUsbRecords(Records{Record(1, 0x11111, 9), Record(2, 0x0, 8), Record(3, 0x0, 9)});
    ASSERT_EQ(ports.size(), 2u);
    EXPECT_EQ(ports[0].rootPortId, 8u);
    EXPECT_EQ(ports[1].rootPortId, 9u);
    EXPECT_THAT(Ids(ports[1].tiers[0]), ElementsAre(3));
}

// ---- Attaching one tier --------------------------------------------------------------------------------------------

TopologyNode Hub(int id = 1) { return TopologyNode(ZevoGuid{}, id, TopologyNode::NODE_DEVICE, INTERFACE_USB_3); }

TEST(BuildUsbTopology, PutsAllOfTier1BelowTheParentWhateverItsRoute) {
    UsbTiers tiers;
    tiers[1] = {Record(2, 0x3), Record(3, 0x1)};
    TopologyNode parent = Hub();
    BuildUsbTopology(&parent, 0x9, &tiers, 1);
    EXPECT_EQ(Dump(parent), "device usb3 1 [CC]\n  device usb3 2 [P]\n  device usb3 3 [P]\n");
}

TEST(BuildUsbTopology, ComparesTheNibbleOfEachTier) {
    UsbTiers tiers;
    tiers[2] = {Record(2, 0x15), Record(3, 0x16)};
    tiers[3] = {Record(4, 0x151), Record(5, 0x161)};
    tiers[4] = {Record(6, 0x1511), Record(7, 0x1611)};
    TopologyNode tier1 = Hub();
    BuildUsbTopology(&tier1, 0xA5, &tiers, 2);  // nibble 0 is 5
    EXPECT_EQ(tier1.GetChild(0).GetDeviceId(), 2);
    EXPECT_EQ(tier1.GetNumChildren(), 1u);
    TopologyNode tier2 = Hub();
    BuildUsbTopology(&tier2, 0x56A, &tiers, 3);  // nibble 1 is 6
    EXPECT_EQ(tier2.GetChild(0).GetDeviceId(), 5);
    EXPECT_EQ(tier2.GetNumChildren(), 1u);
    TopologyNode tier3 = Hub();
    BuildUsbTopology(&tier3, 0x65AA, &tiers, 4);  // nibble 2 is 5
    EXPECT_EQ(tier3.GetChild(0).GetDeviceId(), 6);
    EXPECT_EQ(tier3.GetNumChildren(), 1u);
}

TEST(BuildUsbTopology, GivesEachNodeItsOwnParentPortLast) {
    UsbTiers tiers;
    tiers[1] = {Record(2, 0x1)};
    tiers[2] = {Record(3, 0x21), Record(4, 0x11)};
    TopologyNode parent = Hub();
    parent.AddPortType(TopologyNode::PORT_NOT_CONNECTED);
    BuildUsbTopology(&parent, 0, &tiers, 1);
    EXPECT_EQ(Dump(parent),
              "device usb3 1 [-C]\n  device usb3 2 [CCP]\n    device usb3 3 [P]\n    device usb3 4 [P]\n");
}

TEST(BuildUsbTopology, StopsAtAnEmptyTierEvenWhenADeeperOneIsNot) {
    UsbTiers tiers;
    tiers[1] = {Record(2, 0x1)};
    tiers[3] = {Record(3, 0x111)};
    TopologyNode parent = Hub();
    BuildUsbTopology(&parent, 0, &tiers, 1);
    EXPECT_EQ(Dump(parent), "device usb3 1 [C]\n  device usb3 2 [P]\n");
}

TEST(BuildUsbTopology, AttachesNothingBeyondTier4AndAtTier0) {
    UsbTiers tiers;
    tiers.fill({Record(2, 0x0)});
    for (const unsigned int tier : {0u, 5u, 6u, 0xFFFFFFFFu}) {
        TopologyNode parent = Hub();
        BuildUsbTopology(&parent, 0, &tiers, tier);
        EXPECT_EQ(Dump(parent), "device usb3 1 []\n") << tier;
    }
}

TEST(BuildUsbTopology, UsesTheParentsOwnOperations) {
    class CountingNode : public TopologyNode {
    public:
        using TopologyNode::operator=;
        void AddChild(TopologyNode child) override {
            ++children;
            TopologyNode::AddChild(std::move(child));
        }
        void AddPortType(PortType type) override {
            ++ports;
            TopologyNode::AddPortType(type);
        }
        int children = 0;
        int ports = 0;
    };
    UsbTiers tiers;
    tiers[1] = {Record(2, 0x1), Record(3, 0x2)};
    CountingNode parent;
    BuildUsbTopology(&parent, 0, &tiers, 1);
    EXPECT_EQ(parent.children, 2);
    EXPECT_EQ(parent.ports, 2);
}

// ---- Whole hosts ---------------------------------------------------------------------------------------------------

TEST(BuildUsbHost, MakesAHostAloneOfNoRecords) {
    const TopologyNode host = BuildUsbHost({});
    EXPECT_EQ(Dump(host), "device usb3 63 [P]\n");
    EXPECT_THAT(Violations(host), IsEmpty());
}

TEST(BuildUsbHost, PutsACameraOnARootPort) {
    const TopologyNode host = BuildUsbHost(Records{Record(4, 0)});
    EXPECT_EQ(Dump(host), "device usb3 63 [PC]\n  device usb3 4 [P]\n");
    EXPECT_THAT(Violations(host), IsEmpty());
}

TEST(BuildUsbHost, PutsACameraBehindAHub) {
    const TopologyNode host = BuildUsbHost(Records{Record(3, 0x0), Record(4, 0x2)});
    EXPECT_EQ(Dump(host), "device usb3 63 [PC]\n  device usb3 3 [CP]\n    device usb3 4 [P]\n");
    EXPECT_THAT(Violations(host), IsEmpty());
}

TEST(BuildUsbHost, PutsACameraBehindAHubWhoseRecordComesLater) {
    EXPECT_EQ(Dump(BuildUsbHost(Records{Record(4, 0x2), Record(3, 0x0)})),
              "device usb3 63 [PC]\n  device usb3 3 [CP]\n    device usb3 4 [P]\n");
}

TEST(BuildUsbHost, KeepsRootPortsInTheOrderOfTheirFirstRecords) {
    const TopologyNode host = BuildUsbHost(Records{Record(1, 0, 9), Record(2, 0, 4), Record(3, 0x1, 9)});
    EXPECT_EQ(Dump(host), "device usb3 63 [PCC]\n  device usb3 1 [CP]\n    device usb3 3 [P]\n  device usb3 2 [P]\n");
    EXPECT_THAT(Violations(host), IsEmpty());
}

TEST(BuildUsbHost, ShowsTier4AndNothingDeeper) {
    const TopologyNode host = BuildUsbHost(Records{Record(1, 0x0), Record(2, 0x2), Record(3, 0x32), Record(4, 0x432),
                                                   Record(5, 0x5432), Record(6, 0x65432)});
    EXPECT_EQ(Dump(host),
              "device usb3 63 [PC]\n"
              "  device usb3 1 [CP]\n"
              "    device usb3 2 [CP]\n"
              "      device usb3 3 [CP]\n"
              "        device usb3 4 [CP]\n"
              "          device usb3 5 [P]\n");
    EXPECT_THAT(Violations(host), IsEmpty());
}

TEST(BuildUsbHost, ShowsDevicesBelowBothHubsOnTheSamePortOfDifferentHubs) {
    // Hubs 2 and 3 on ports 1 and 2 of hub 1 each have a hub (4, 5) on their port 7; the camera is on port 3 of hub 4.
    const TopologyNode host = BuildUsbHost(
        Records{Record(1, 0x0), Record(2, 0x1), Record(3, 0x2), Record(4, 0x71), Record(5, 0x72), Record(6, 0x371)});
    EXPECT_EQ(Dump(host),
              "device usb3 63 [PC]\n"
              "  device usb3 1 [CCP]\n"
              "    device usb3 2 [CP]\n"
              "      device usb3 4 [CP]\n"
              "        device usb3 6 [P]\n"
              "    device usb3 3 [CP]\n"
              "      device usb3 5 [CP]\n"
              "        device usb3 6 [P]\n");
    EXPECT_THAT(Violations(host, Input::Anything), IsEmpty());
}

TEST(BuildUsbHost, LeavesOutARootPortWithoutATier0) {
    const TopologyNode host = BuildUsbHost(Records{Record(1, 0x1, 5), Record(2, 0x0, 6), Record(3, 0x21, 5)});
    EXPECT_EQ(Dump(host), "device usb3 63 [PC]\n  device usb3 2 [P]\n");
}

TEST(BuildUsbHost, NamesARootPortByTheFirstOfItsTier0Records) {
    EXPECT_EQ(Dump(BuildUsbHost(Records{Record(8, 0x0), Record(9, 0x0)})),
              "device usb3 63 [PC]\n  device usb3 8 [P]\n");
}

TEST(BuildUsbHost, LeavesOutRecordsWhoseHubIsNotThere) {
    EXPECT_EQ(Dump(BuildUsbHost(Records{Record(1, 0x0), Record(2, 0x21), Record(3, 0x2)})),
              "device usb3 63 [PC]\n  device usb3 1 [CP]\n    device usb3 3 [P]\n");
}

TEST(BuildUsbHost, TakesADeviceWithTheHostsOwnIdAsItIs) {
    const TopologyNode host = BuildUsbHost(Records{Record(63, 0x0)});
    EXPECT_EQ(Dump(host), "device usb3 63 [PC]\n  device usb3 63 [P]\n");
    EXPECT_THAT(Violations(host, Input::Anything), IsEmpty());
}

TEST(BuildUsbHost, TakesAnyDeviceIdAsItIs) {
    EXPECT_EQ(Dump(BuildUsbHost(Records{Record(0xFFFFFFFF, 0x0)})), "device usb3 63 [PC]\n  device usb3 -1 [P]\n");
}

// ---- Hostile records -----------------------------------------------------------------------------------------------

// Every record of a tier on the same route: each stands below each of the tier above.
Records Repeated(std::size_t perTier) {
    Records records{Record(1, 0)};
    const std::uint64_t routes[] = {0x1, 0x11, 0x111, 0x1111};
    for (const std::uint64_t route : routes) {
        records.insert(records.end(), perTier, Record(static_cast<std::uint32_t>(route), route));
    }
    return records;
}

TEST(BuildUsbHost, MultipliesRepeatedRoutesAsTheRuleSaysWhileTheyFit) {
    const TopologyNode host = BuildUsbHost(Repeated(10));
    EXPECT_EQ(CountNodes(host), 2u + 10 + 100 + 1000 + 10000);
    EXPECT_THAT(Violations(host, Input::Anything), IsEmpty());
}

TEST(BuildUsbHost, LeavesOutTheTiersThatWouldNotFit) {
    const TopologyNode host = BuildUsbHost(Repeated(40));
    EXPECT_EQ(CountNodes(host), 2u + 40 + 1600 + 64000);  // and not the 2,560,000 of tier 4
    EXPECT_THAT(Violations(host, Input::Anything), IsEmpty());
}

TEST(BuildUsbHost, StaysWithinItsBoundForTheMostRecordsThereCanBe) {
    Records records = Repeated(MaxUsbRecords / 4);
    records.resize(MaxUsbRecords);
    const TopologyNode host = BuildUsbHost(records);
    EXPECT_EQ(CountNodes(host), 2u + 256 + 65536);
}

TEST(BuildUsbHost, SharesOneBoundAmongAllRootPorts) {
    Records records;
    for (std::uint64_t rootPort = 1; rootPort <= 6; ++rootPort) {
        for (UsbSelfId record : Repeated(40)) {
            record.rootPortId = rootPort;
            records.push_back(record);
        }
    }
    const TopologyNode host = BuildUsbHost(records);
    EXPECT_LE(CountNodes(host), MaxUsbNodes);
    EXPECT_EQ(host.GetNumChildren(), 6u);  // The devices on the root ports are all there.
    EXPECT_EQ(CountNodes(host.GetChild(0)), 1u + 40 + 1600 + 64000);
    EXPECT_THAT(Violations(host, Input::Anything), IsEmpty());
}

TEST(BuildUsbHost, StopsAtItsBoundWhenTheRootPortsAloneReachIt) {
    Records records;
    for (std::uint32_t id = 1; id <= MaxUsbNodes + 10; ++id) {
        records.push_back(Record(id, 0, id));
    }
    EXPECT_EQ(CountNodes(BuildUsbHost(records)), MaxUsbNodes);
}

// The largest tree that 255 devices with routes of their own can become: 15 hubs of tier 1, each with hubs on the same
// four ports, each of these with a hub on the same port, and below those 119 devices that all stand below all of them.
TEST(BuildUsbHost, ShowsTheWorstTreeOfARealControllerWhole) {
    Records records{Record(1, 0)};
    std::uint32_t id = 100;
    for (std::uint64_t first = 1; first <= 15; ++first) {
        records.push_back(Record(id++, first));
        for (std::uint64_t second = 1; second <= 4; ++second) {
            records.push_back(Record(id++, first | second << 4));
            records.push_back(Record(id++, first | second << 4 | 0x100));
        }
    }
    for (std::uint64_t n = 0; n < 119; ++n) {
        records.push_back(Record(id++, 0x1000 * (1 + n % 15) | 0x100 | (1 + n / 60) << 4 | (1 + n / 15 % 15)));
    }
    ASSERT_EQ(records.size(), 255u);
    const TopologyNode host = BuildUsbHost(records);
    EXPECT_EQ(CountNodes(host), 108077u);
    EXPECT_LE(CountNodes(host), MaxUsbNodes);
}

// ---- Against the rule, step by step --------------------------------------------------------------------------------

// The rule with masks, a look at every record of the tier for every parent.
void AttachStepByStep(TopologyNode& parent, std::uint64_t parentRoute, const UsbTiers& tiers, unsigned int tier) {
    if (tier == 5) {
        return;
    }
    for (const UsbSelfId& record : tiers[tier]) {
        const std::uint64_t mask = tier == 1 ? 0 : std::uint64_t{0xF} << (4 * tier - 8);
        if ((record.routeString & mask) != (parentRoute & mask)) {
            continue;
        }
        TopologyNode node(ZevoGuid{}, static_cast<int>(record.deviceId), TopologyNode::NODE_DEVICE, INTERFACE_USB_3);
        AttachStepByStep(node, record.routeString, tiers, tier + 1);
        node.AddPortType(TopologyNode::PORT_TO_PARENT);
        parent.AddChild(node);
        parent.AddPortType(TopologyNode::PORT_TO_CHILD);
    }
}

TEST(BuildUsbTopology, AgreesWithTheRuleStepByStepOnRandomRoutes) {
    std::mt19937 random(11);
    for (int run = 0; run < 3000; ++run) {
        UsbTiers tiers;
        const auto ports = 1 + random() % 15;
        for (unsigned int tier = 1; tier < UsbTierCount; ++tier) {
            for (auto n = random() % 6; n > 0; --n) {
                std::uint64_t route = 0;
                for (unsigned int nibble = 0; nibble < tier; ++nibble) {
                    route |= static_cast<std::uint64_t>(1 + random() % ports) << (4 * nibble);
                }
                tiers[tier].push_back(Record(static_cast<std::uint32_t>(random()), route));
            }
        }
        for (unsigned int tier = 1; tier < UsbTierCount; ++tier) {
            const std::uint64_t route = random();
            TopologyNode expected = Hub();
            AttachStepByStep(expected, route, tiers, tier);
            TopologyNode parent = Hub();
            BuildUsbTopology(&parent, route, &tiers, tier);
            ASSERT_EQ(Dump(parent), Dump(expected)) << "run " << run << ", tier " << tier;
        }
    }
}

TEST(BuildUsbHost, BreaksNoRuleOnRandomGarbage) {
    std::mt19937 random(13);
    for (int run = 0; run < 2000; ++run) {
        Records records(random() % 40);
        for (UsbSelfId& record : records) {
            std::uint64_t route = (static_cast<std::uint64_t>(random()) << 32 | random());
            if (random() % 2 != 0) {
                route &= 0x3333;  // shallow and full of repetitions
            }
            record = UsbSelfId{static_cast<std::uint32_t>(random() % 200), 0, random() % 4, route, 0};
        }
        const TopologyNode host = BuildUsbHost(records);
        ASSERT_THAT(Violations(host, Input::Anything), IsEmpty()) << "run " << run << '\n' << Dump(host);
    }
}

TEST(BuildUsbHost, TurnsTheRecordsOfAnyTreeBackIntoIt) {
    std::mt19937 random(127);
    std::size_t most = 0;
    for (int run = 0; run < 3000; ++run) {
        const auto rootPorts = Testing::RandomUsbTree(random);
        Records records = Testing::UsbRecords(rootPorts);
        most = std::max(most, records.size());
        if (run % 2 != 0) {  // tier by tier instead of hub by hub
            std::stable_sort(records.begin(), records.end(), [](const UsbSelfId& a, const UsbSelfId& b) {
                return UsbTierOfRoute(a.routeString) < UsbTierOfRoute(b.routeString);
            });
        }
        const TopologyNode host = BuildUsbHost(records);
        ASSERT_EQ(Dump(host), Dump(Testing::ExpectedHost(rootPorts))) << "run " << run;
        ASSERT_THAT(Violations(host), IsEmpty()) << "run " << run << '\n' << Dump(host);
    }
    EXPECT_EQ(most, 127u);
}

}  // namespace
}  // namespace Nimbrel2
