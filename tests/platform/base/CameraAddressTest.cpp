// SPDX-License-Identifier: Apache-2.0
// Which addresses cameras can have and which can be used, and the choice of free ones.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/base/CameraAddress.h"

namespace Nimbrel2::Platform {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::SizeIs;
using ::testing::UnorderedElementsAre;

constexpr std::uint32_t Ip(std::uint32_t a, std::uint32_t b, std::uint32_t c, std::uint32_t d) {
    return a << 24 | b << 16 | c << 8 | d;
}

TEST(FreeAddress, IsAnyHostButTheInterfaceItselfTheNetworkAndTheBroadcast) {
    const InterfaceAddress subnet{Ip(192, 168, 77, 1), 29, false};
    EXPECT_THAT(FindFreeAddresses(subnet, {}, 1, 100),
                UnorderedElementsAre(Ip(192, 168, 77, 2), Ip(192, 168, 77, 3), Ip(192, 168, 77, 4), Ip(192, 168, 77, 5),
                                     Ip(192, 168, 77, 6)));
}

TEST(FreeAddress, IsNotTaken) {
    const InterfaceAddress subnet{Ip(192, 168, 77, 1), 29, false};
    const std::set<std::uint32_t> taken{Ip(192, 168, 77, 2), Ip(192, 168, 77, 4), Ip(192, 168, 77, 5),
                                        Ip(192, 168, 77, 6), Ip(10, 0, 0, 3)};
    for (std::uint64_t seed = 0; seed < 20; ++seed) {
        EXPECT_THAT(FindFreeAddresses(subnet, taken, seed, 100), ElementsAre(Ip(192, 168, 77, 3)));
    }
}

TEST(FreeAddress, IsNoneInAFullSubnet) {
    const InterfaceAddress subnet{Ip(192, 168, 77, 1), 30, false};
    EXPECT_THAT(FindFreeAddresses(subnet, {Ip(192, 168, 77, 2)}, 1, 4), IsEmpty());
}

TEST(FreeAddress, IsNoneWhereNoCameraCanBeToldTheMask) {
    EXPECT_THAT(FindFreeAddresses({Ip(10, 0, 0, 1), 31, false}, {}, 1, 4), IsEmpty());
    EXPECT_THAT(FindFreeAddresses({Ip(10, 0, 0, 1), 32, false}, {}, 1, 4), IsEmpty());
    EXPECT_THAT(FindFreeAddresses({Ip(10, 0, 0, 1), 0, false}, {}, 1, 4), IsEmpty());
}

TEST(FreeAddress, IsTheSameAgainForTheSameCameraAndAnotherForAnother) {
    const InterfaceAddress subnet{Ip(192, 168, 77, 1), 24, false};
    std::set<std::uint32_t> first;
    for (std::uint64_t mac = 0x020000000001; mac < 0x020000000001 + 32; ++mac) {
        const auto found = FindFreeAddresses(subnet, {}, mac, 1);
        ASSERT_THAT(found, SizeIs(1));
        EXPECT_EQ(found, FindFreeAddresses(subnet, {}, mac, 1));
        first.insert(found[0]);
    }
    EXPECT_GT(first.size(), 20u);
}

TEST(FreeAddress, IsFoundInTheLargestSubnetAsFastAsInASmallOne) {
    const InterfaceAddress everything{Ip(10, 0, 0, 1), 1, false};
    EXPECT_THAT(FindFreeAddresses(everything, {}, 12345, 8), SizeIs(8));
    const InterfaceAddress classA{Ip(10, 0, 0, 1), 8, false};
    for (const std::uint32_t ip : FindFreeAddresses(classA, {}, 12345, 8)) {
        EXPECT_TRUE(classA.Contains(ip));
    }
}

TEST(FreeAddress, GoesRoundTheEndOfTheSubnet) {
    const InterfaceAddress subnet{Ip(192, 168, 77, 100), 24, false};
    for (std::uint64_t seed = 0; seed < 500; ++seed) {
        const auto found = FindFreeAddresses(subnet, {}, seed, 300);
        ASSERT_THAT(found, SizeIs(253));
        for (const std::uint32_t ip : found) {
            ASSERT_TRUE(subnet.Contains(ip));
            ASSERT_NE(ip & 0xFF, 0u);
            ASSERT_NE(ip & 0xFF, 0xFFu);
        }
    }
}

// ---- What a camera can be given

struct ForcedAddress {
    const char* name;
    std::uint32_t ip;
    std::uint32_t mask;
    std::uint32_t gateway;
    std::uint32_t status;
};

TEST(CheckCameraAddress, TellsWhatIsWrong) {
    const ForcedAddress rows[] = {
        {"usual", Ip(192, 168, 77, 50), 0xFFFFFF00, 0, HAL_OK},
        {"with a gateway", Ip(192, 168, 77, 50), 0xFFFFFF00, Ip(192, 168, 77, 254), HAL_OK},
        {"smallest subnet", Ip(192, 168, 77, 1), 0xFFFFFFFC, Ip(192, 168, 77, 2), HAL_OK},
        {"largest subnet", Ip(10, 0, 0, 1), 0x80000000, 0, HAL_OK},
        {"link-local", Ip(169, 254, 3, 4), 0xFFFF0000, 0, HAL_OK},
        {"begins anew", 0, 0, 0, HAL_OK},
        {"begins anew, whatever else it is told", 0, 0xFFFF00FF, 7, HAL_OK},
        {"no mask", Ip(192, 168, 77, 50), 0, 0, HAL_BAD_MASK},
        {"mask of one host", Ip(192, 168, 77, 50), 0xFFFFFFFF, 0, HAL_BAD_MASK},
        {"mask of two hosts", Ip(192, 168, 77, 50), 0xFFFFFFFE, 0, HAL_BAD_MASK},
        {"mask with a hole", Ip(192, 168, 77, 50), 0xFFFF00FF, 0, HAL_BAD_MASK},
        {"mask before address", Ip(127, 0, 0, 1), 0xFFFFFFFF, 1, HAL_BAD_MASK},
        {"network", Ip(192, 168, 77, 0), 0xFFFFFF00, 0, HAL_BAD_ADDRESS},
        {"broadcast", Ip(192, 168, 77, 255), 0xFFFFFF00, 0, HAL_BAD_ADDRESS},
        {"broadcast of a small subnet", Ip(192, 168, 77, 3), 0xFFFFFFFC, 0, HAL_BAD_ADDRESS},
        {"loopback", Ip(127, 0, 0, 2), 0xFF000000, 0, HAL_BAD_ADDRESS},
        {"this network", Ip(0, 1, 2, 3), 0xFF000000, 0, HAL_BAD_ADDRESS},
        {"group", Ip(224, 0, 0, 5), 0xFFFFFF00, 0, HAL_BAD_ADDRESS},
        {"broadcast to all", 0xFFFFFFFF, 0xFFFFFF00, 0, HAL_BAD_ADDRESS},
        {"address before gateway", Ip(192, 168, 77, 0), 0xFFFFFF00, Ip(10, 0, 0, 1), HAL_BAD_ADDRESS},
        {"gateway is the camera", Ip(192, 168, 77, 50), 0xFFFFFF00, Ip(192, 168, 77, 50), HAL_BAD_GATEWAY},
        {"gateway elsewhere", Ip(192, 168, 77, 50), 0xFFFFFF00, Ip(192, 168, 78, 1), HAL_BAD_GATEWAY},
        {"gateway is the network", Ip(192, 168, 77, 50), 0xFFFFFF00, Ip(192, 168, 77, 0), HAL_BAD_GATEWAY},
        {"gateway is the broadcast", Ip(192, 168, 77, 50), 0xFFFFFF00, Ip(192, 168, 77, 255), HAL_BAD_GATEWAY},
    };
    for (const ForcedAddress& row : rows) {
        EXPECT_EQ(CheckCameraAddress(row.ip, row.mask, row.gateway), row.status) << row.name;
    }
}

// ---- What can be used

NetworkInterface Wire(std::vector<InterfaceAddress> addresses) {
    NetworkInterface interface;
    interface.addresses = std::move(addresses);
    return interface;
}

GvcpDiscoveryRecord At(std::uint32_t ip, std::uint32_t mask = 0xFFFFFF00, std::uint32_t gateway = 0) {
    GvcpDiscoveryRecord record{};
    record.ipAddress = ip;
    record.subnetMask = mask;
    record.defaultGateway = gateway;
    return record;
}

TEST(UsabilityOfAddress, AsksWhetherBothEndsKnowTheWay) {
    const NetworkInterface wire = Wire({{Ip(192, 168, 77, 1), 24, false}});
    const auto usability = [&](const GvcpDiscoveryRecord& record, bool route = false) {
        return UsabilityOfAddress(wire, record, route);
    };
    EXPECT_EQ(usability(At(Ip(192, 168, 77, 50))), GigEUsability::Usable);
    EXPECT_EQ(usability(At(Ip(192, 168, 77, 50), 0)), GigEUsability::Usable) << "some cameras do not tell their mask";
    EXPECT_EQ(usability(At(0)), GigEUsability::NoAddress);
    EXPECT_EQ(usability(At(Ip(10, 9, 9, 9))), GigEUsability::OtherSubnet);
    EXPECT_EQ(usability(At(Ip(192, 168, 77, 41), 0xFFFFFFFC)), GigEUsability::OutsideItsSubnet);
    EXPECT_EQ(usability(At(Ip(192, 168, 77, 41), 0xFFFFFFFC, Ip(192, 168, 77, 42))), GigEUsability::Usable);
    EXPECT_EQ(usability(At(Ip(10, 9, 9, 9)), true), GigEUsability::OutsideItsSubnet);
    EXPECT_EQ(usability(At(Ip(10, 9, 9, 9), 0xFFFFFF00, Ip(10, 9, 9, 1)), true), GigEUsability::Usable);
    EXPECT_EQ(usability(At(Ip(192, 168, 77, 1))), GigEUsability::AddressTaken) << "by this computer";
    for (const std::uint32_t ip : {Ip(192, 168, 77, 0), Ip(192, 168, 77, 255), Ip(127, 0, 0, 1), Ip(224, 0, 0, 1),
                                   Ip(0, 0, 0, 9), 0xFFFFFFFFu}) {
        EXPECT_EQ(usability(At(ip), true), GigEUsability::InvalidAddress) << ip;
    }
}

TEST(UsabilityOfAddress, GoesByTheSubnetThatTheCameraIsIn) {
    const NetworkInterface wire = Wire({{Ip(10, 0, 0, 1), 8, false}, {Ip(192, 168, 77, 1), 24, false}});
    EXPECT_EQ(UsabilityOfAddress(wire, At(Ip(192, 168, 77, 50)), false), GigEUsability::Usable);
    EXPECT_EQ(UsabilityOfAddress(wire, At(Ip(10, 1, 2, 3)), false), GigEUsability::OutsideItsSubnet)
        << "10.0.0.1 is not in 10.1.2.0/24";
    EXPECT_EQ(UsabilityOfAddress(Wire({}), At(Ip(10, 1, 2, 3)), false), GigEUsability::OtherSubnet);
}

TEST(UsabilityOfAddress, TakesLoopbackForWhatItIs) {
    NetworkInterface loopback = Wire({{Ip(127, 0, 0, 1), 8, false}});
    loopback.loopback = true;
    EXPECT_EQ(UsabilityOfAddress(loopback, At(Ip(127, 0, 0, 1)), false), GigEUsability::Usable);
    EXPECT_EQ(UsabilityOfAddress(loopback, At(Ip(127, 9, 9, 9)), false), GigEUsability::Usable);
    EXPECT_EQ(UsabilityOfAddress(loopback, At(Ip(192, 168, 77, 50)), false), GigEUsability::OtherSubnet);
    EXPECT_EQ(LocalAddressFor(loopback, Ip(127, 9, 9, 9)), Ip(127, 0, 0, 1));
}

TEST(HomeSubnet, IsTheFirstWithRoomForACamera) {
    const NetworkInterface wire =
        Wire({{Ip(10, 0, 0, 1), 32, false}, {Ip(10, 0, 1, 1), 31, false}, {Ip(192, 168, 77, 1), 24, false}});
    EXPECT_EQ(HomeSubnet(wire).address, Ip(192, 168, 77, 1));
    EXPECT_EQ(HomeSubnet(Wire({{Ip(10, 0, 0, 1), 32, false}})).address, Ip(10, 0, 0, 1)) << "there is no other";
}

TEST(Usability, IsToldInWordsAndSaysWhetherAnAddressWouldHelp) {
    EXPECT_STREQ(DescribeUsability(GigEUsability::Usable), "");
    for (const auto usability :
         {GigEUsability::NoAddress, GigEUsability::InvalidAddress, GigEUsability::OtherSubnet,
          GigEUsability::OutsideItsSubnet, GigEUsability::AddressTaken, GigEUsability::NoAnswer}) {
        EXPECT_STRNE(DescribeUsability(usability), "");
        EXPECT_TRUE(NeedsAddress(usability));
    }
    EXPECT_FALSE(NeedsAddress(GigEUsability::Usable));
    EXPECT_FALSE(NeedsAddress(GigEUsability::NoRegisters));
    EXPECT_STRNE(DescribeUsability(GigEUsability::NoRegisters), "");
}

}  // namespace
}  // namespace Nimbrel2::Platform
