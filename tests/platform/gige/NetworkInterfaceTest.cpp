// SPDX-License-Identifier: Apache-2.0
// Which network interfaces GigE uses.
#include <gtest/gtest.h>

#include "platform/linux/gige/NetworkInterface.h"

namespace Nimbrel2::Platform::GigE {
namespace {

NetworkInterface Ethernet() {
    NetworkInterface interface;
    interface.index = 2;
    interface.name = "h0";
    interface.up = interface.running = interface.broadcast = true;
    interface.addresses = {{0xC0A84D01, 24, false}};
    return interface;
}

TEST(NetworkInterface, IsUsedWhenItIsUpWithALinkAndAnAddress) {
    NetworkInterface interface = Ethernet();
    EXPECT_EQ(ReasonNotUsed(interface, {}), "");
    EXPECT_EQ(ReasonNotUsed(interface, {"h0"}), "");
    EXPECT_EQ(ReasonNotUsed(interface, {"h1"}), "not among the network interfaces asked for");
    interface.running = false;
    EXPECT_EQ(ReasonNotUsed(interface, {}), "no link");
    interface.up = false;
    EXPECT_EQ(ReasonNotUsed(interface, {}), "down");
}

TEST(NetworkInterface, IsUsedWithoutAddressOnlyWhenItIsNamed) {
    NetworkInterface interface = Ethernet();
    interface.addresses.clear();
    EXPECT_EQ(ReasonNotUsed(interface, {}), "no IPv4 address");
    EXPECT_EQ(ReasonNotUsed(interface, {"h0"}), "");
}

TEST(NetworkInterface, IsNotUsedWhenItCannotBroadcast) {
    NetworkInterface interface = Ethernet();
    interface.broadcast = false;
    EXPECT_EQ(ReasonNotUsed(interface, {}), "cannot broadcast");
    interface = Ethernet();
    interface.pointToPoint = true;
    EXPECT_EQ(ReasonNotUsed(interface, {"h0"}), "cannot broadcast");
}

TEST(NetworkInterface, IsLeftToTheBridgeItIsAPortOf) {
    NetworkInterface interface = Ethernet();
    interface.portOf = "bridge";
    EXPECT_EQ(ReasonNotUsed(interface, {}), "is a port of a bridge");
    EXPECT_EQ(ReasonNotUsed(interface, {"h0"}), "");
    interface.portOf = "vrf";
    EXPECT_EQ(ReasonNotUsed(interface, {}), "");
}

TEST(NetworkInterface, IsLoopbackOnlyWhenNamed) {
    NetworkInterface interface = Ethernet();
    interface.name = "lo";
    interface.loopback = true;
    interface.broadcast = false;
    EXPECT_EQ(ReasonNotUsed(interface, {}), "loopback is used only when it is named");
    EXPECT_EQ(ReasonNotUsed(interface, {"h0", "lo"}), "");
}

TEST(NetworkInterface, KeepsItsSocketWhileOnlyLinkOrAddressAreMissing) {
    NetworkInterface interface = Ethernet();
    interface.up = interface.running = false;
    interface.addresses.clear();
    EXPECT_TRUE(IsEligible(interface, {}));
    EXPECT_FALSE(IsEligible(interface, {"h1"}));
}

TEST(NetworkInterface, FindsTheMostSpecificSubnetAndItsPrimaryAddress) {
    NetworkInterface interface = Ethernet();
    interface.addresses = {
        {0xC0A84D09, 24, true}, {0xC0A84D01, 24, false}, {0xC0A80001, 16, false}, {0x0A000001, 8, false}};
    EXPECT_EQ(interface.FindSubnet(0xC0A84D65)->address, 0xC0A84D01u);
    EXPECT_EQ(interface.FindSubnet(0xC0A80165)->address, 0xC0A80001u);
    EXPECT_EQ(interface.FindSubnet(0x0AFFFFFF)->address, 0x0A000001u);
    EXPECT_EQ(interface.FindSubnet(0x0B000000), nullptr);
}

}  // namespace
}  // namespace Nimbrel2::Platform::GigE
