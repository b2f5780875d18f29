// SPDX-License-Identifier: Apache-2.0
// What the bits of a USB port mean.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/nimbrel/UsbStatus.h"

namespace Nimbrel2::Tool::Testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

TEST(UsbLink, HoldsSpeedPortAndHubs) {
    const UsbLink link = DecodeUsbLink(0x01F40203);
    EXPECT_EQ(link.speed, 500u);
    EXPECT_EQ(link.port, 2u);
    EXPECT_EQ(link.hubs, 3u);
}

TEST(UsbLink, HasItsSpeedInWords) {
    EXPECT_EQ(DescribeUsbSpeed(0), "unknown");
    EXPECT_EQ(DescribeUsbSpeed(1), "1.5 Mbit/s (low speed)");
    EXPECT_EQ(DescribeUsbSpeed(12), "12 Mbit/s (full speed)");
    EXPECT_EQ(DescribeUsbSpeed(480), "480 Mbit/s (high speed)");
    EXPECT_EQ(DescribeUsbSpeed(5000), "5 Gbit/s (SuperSpeed)");
    EXPECT_EQ(DescribeUsbSpeed(10000), "10 Gbit/s (SuperSpeed+)");
    EXPECT_EQ(DescribeUsbSpeed(20000), "20 Gbit/s (SuperSpeed+)");
    EXPECT_EQ(DescribeUsbSpeed(100), "100 Mbit/s");
}

TEST(UsbPort, OfUsb2NamesEachBit) {
    const UsbPort usual = DecodeUsbPort(0x00000503, false);
    EXPECT_THAT(usual.status, ElementsAre("connected", "enabled", "power", "high speed"));
    EXPECT_THAT(usual.changed, IsEmpty());
    EXPECT_EQ(usual.linkState, "");
    const UsbPort all = DecodeUsbPort(0xFFFFFFFF, false);
    EXPECT_THAT(all.status, ElementsAre("connected", "enabled", "suspended", "over-current", "reset", "bit 5", "bit 6",
                                        "bit 7", "power", "low speed", "high speed", "test mode", "indicator", "bit 13",
                                        "bit 14", "bit 15"));
    EXPECT_THAT(all.changed,
                ElementsAre("connection", "enabling", "suspending", "over-current", "reset", "sleep", "bit 6", "bit 7",
                            "bit 8", "bit 9", "bit 10", "bit 11", "bit 12", "bit 13", "bit 14", "bit 15"));
}

TEST(UsbPort, OfUsb3HasALinkState) {
    const UsbPort usual = DecodeUsbPort(0x00000203, true);
    EXPECT_THAT(usual.status, ElementsAre("connected", "enabled", "power"));
    EXPECT_EQ(usual.linkState, "U0");
    EXPECT_EQ(DecodeUsbPort(0x0060, true).linkState, "U3");
    EXPECT_EQ(DecodeUsbPort(0x00C0, true).linkState, "inactive");
    EXPECT_EQ(DecodeUsbPort(0x0160, true).linkState, "loopback");
    EXPECT_EQ(DecodeUsbPort(0x01E0, true).linkState, "state 15");
    EXPECT_THAT(DecodeUsbPort(0x1C04, true).status, ElementsAre("bit 2")) << "the speed is no flag";
    EXPECT_THAT(DecodeUsbPort(0x00F90000, true).changed,
                ElementsAre("connection", "over-current", "reset", "warm reset", "link state", "configuration error"));
}

}  // namespace
}  // namespace Nimbrel2::Tool::Testing
