// SPDX-License-Identifier: Apache-2.0
// Attributes of sysfs as a real kernel serves them, of devices that vanish meanwhile too.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <string>
#include <vector>

#include "platform/base/Sysfs.h"
#include "tests/support/NetworkNamespace.h"

namespace Nimbrel2::Platform {
namespace {

using testing::AllOf;
using testing::Contains;
using Testing::NetworkNamespace;
using testing::Not;

TEST(ParseNumber, TakesAWholeTextWithBlanksAround) {
    EXPECT_EQ(ParseNumber("480\n"), 480u);
    EXPECT_EQ(ParseNumber(" 2 "), 2u);
    EXPECT_EQ(ParseNumber("1d6b", 16), 0x1D6Bu);
    EXPECT_EQ(ParseNumber("4294967295"), 0xFFFFFFFFu);
    for (const char* text : {"", " ", "unknown", "1.5", "4294967296", "-1", "+1", "12 34", "0x12"}) {
        EXPECT_EQ(ParseNumber(text), std::nullopt) << text;
    }
}

TEST(SysfsDirectory, ReadsTextsNumbersLinksAndNames) {
    NetworkNamespace network;
    network.Run([] {
        SysfsDirectory lo;
        ASSERT_EQ(lo.Open("class/net/lo"), 0);
        std::string text;
        EXPECT_EQ(lo.ReadText("address", &text), 0);
        EXPECT_EQ(text, "00:00:00:00:00:00") << "without the line end";
        EXPECT_EQ(lo.ReadNumber("mtu"), 65536u);
        EXPECT_EQ(lo.ReadNumber("address"), std::nullopt);
        EXPECT_EQ(lo.ReadNumber("missing"), std::nullopt);
        std::vector<std::uint8_t> bytes;
        EXPECT_EQ(lo.ReadBytes("ifindex", &bytes), 0);
        EXPECT_THAT(bytes, testing::ElementsAre('1', '\n'));
        EXPECT_EQ(lo.ReadLinkName("subsystem"), "net");
        EXPECT_EQ(lo.ReadLinkName("mtu"), "");
        EXPECT_EQ(lo.ReadLinkPath("subsystem"), "/class/net");
        EXPECT_EQ(lo.ReadLinkPath("missing"), "");
        EXPECT_TRUE(lo.Has("subsystem"));
        EXPECT_FALSE(lo.Has("missing"));
        std::vector<std::string> names;
        EXPECT_EQ(lo.List(&names), 0);
        EXPECT_THAT(names, AllOf(Contains("mtu"), Contains("subsystem"), Not(Contains("."))));

        SysfsDirectory queues;
        EXPECT_EQ(queues.Open(lo, "queues"), 0);
        EXPECT_TRUE(queues.Has("tx-0"));
        EXPECT_EQ(queues.Open(lo, "missing"), ENOENT);
        EXPECT_FALSE(queues.IsOpen());
    });
}

TEST(SysfsDirectory, SaysWhatIsNotThere) {
    SysfsDirectory directory;
    EXPECT_EQ(directory.Open("class/nothing"), ENOENT);
    EXPECT_EQ(directory.GetInode(), 0u);
    std::string text = "before";
    EXPECT_NE(directory.ReadText("mtu", &text), 0);
    EXPECT_EQ(text, "");
}

TEST(SysfsDirectory, OfADeviceThatHasLeftIsNotTakenForItsSuccessor) {
    NetworkNamespace network;
    network.Ip("link add first type veth peer name second");
    SysfsDirectory before;
    SysfsDirectory after;
    network.Run([&] { ASSERT_EQ(before.Open("class/net/first"), 0); });
    const std::uint64_t inode = before.GetInode();
    EXPECT_TRUE(before.ReadNumber("mtu"));
    network.Ip("link delete first");
    network.Ip("link add first mtu 1400 type veth peer name second");
    network.Run([&] { ASSERT_EQ(after.Open("class/net/first"), 0); });

    std::string text;
    EXPECT_THAT(before.ReadText("mtu", &text), testing::AnyOf(ENOENT, ENODEV));
    EXPECT_EQ(after.ReadNumber("mtu"), 1400u);
    EXPECT_NE(after.GetInode(), inode);
}

TEST(SysfsDirectory, FollowsLinksToWhereADeviceReallyLies) {
    NetworkNamespace network;
    network.Run([] {
        SysfsDirectory interfaces;
        ASSERT_EQ(interfaces.Open("class/net"), 0);
        EXPECT_EQ(interfaces.ReadLinkPath("lo"), "/devices/virtual/net/lo");
        EXPECT_EQ(interfaces.ReadLinkPath("lo/subsystem"), "/class/net");
        EXPECT_EQ(interfaces.ReadLinkPath("missing"), "");
    });
}

}  // namespace
}  // namespace Nimbrel2::Platform
