// SPDX-License-Identifier: Apache-2.0
// The choice of addresses for cameras.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/linux/gige/FreeAddress.h"

namespace Nimbrel2::Platform::GigE {
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

TEST(FreeAddress, IsTheOtherOneWhereThereAreTwoAndNoneWhereThereIsOne) {
    EXPECT_THAT(FindFreeAddresses({Ip(10, 0, 0, 1), 31, false}, {}, 1, 4), ElementsAre(Ip(10, 0, 0, 0)));
    EXPECT_THAT(FindFreeAddresses({Ip(10, 0, 0, 1), 32, false}, {}, 1, 4), IsEmpty());
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
    const InterfaceAddress everything{Ip(10, 0, 0, 1), 0, false};
    EXPECT_THAT(FindFreeAddresses(everything, {}, 12345, 8), SizeIs(8));
    const InterfaceAddress classA{Ip(10, 0, 0, 1), 8, false};
    for (const std::uint32_t ip : FindFreeAddresses(classA, {}, 12345, 8)) EXPECT_TRUE(classA.Contains(ip));
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

}  // namespace
}  // namespace Nimbrel2::Platform::GigE
