// SPDX-License-Identifier: Apache-2.0
// Addresses as text, in and out, and what a listing says of cameras that cannot be used.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/nimbrel/CommandError.h"
#include "tools/nimbrel/GigEValues.h"
#include "tools/nimbrel/ListTexts.h"

namespace Nimbrel2::Tool::Testing {
namespace {

using ::testing::HasSubstr;

IPAddress Ip(const std::string& text) { return ParseIp("--ip", text); }

template <class Parse>
std::string Refused(Parse parse, const std::string& text) {
    try {
        parse("--option", text);
    } catch (const CommandError& error) {
        return error.GetStatus() == ExitUsage ? error.what() : "not as wrong usage";
    }
    return "accepted";
}

TEST(ListOfCameras, TellsUnusableOnesThatAreListedFromThoseThatAreNot) {
    HeardCamera mute;
    mute.camera.serialNumber = 2;
    mute.camera.ip = Ip("192.168.77.102");
    mute.camera.subnet = Ip("255.255.255.0");
    mute.usability = Usability::NoRegisters;
    mute.isListed = true;
    HeardCamera silent = mute;
    silent.camera.serialNumber = 3;
    silent.usability = Usability::NoAnswer;
    silent.isListed = false;
    Listed listed;
    listed.unusable = {mute, silent};
    EXPECT_EQ(ListAsTable(listed, {}, false),
              "\nHeard on the network, but not usable:\n"
              "  camera 3 (00:00:00:00:00:00) at 192.168.77.102/24: it does not answer at its address\n"
              "\nListed, but not usable now:\n"
              "  camera 2 (00:00:00:00:00:00) at 192.168.77.102/24: its registers do not answer\n"
              "`nimbrel doctor` explains why.\n");
}

TEST(GigEValues, AreRead) {
    EXPECT_EQ(PackIPAddress(ParseCameraIp("--ip", "192.168.77.50")), 0xC0A84D32u);
    EXPECT_EQ(PackIPAddress(ParseIp("--gateway", "0.0.0.0")), 0u);
    EXPECT_EQ(PackIPAddress(ParseMask("--mask", "255.255.252.0")), 0xFFFFFC00u);
    EXPECT_EQ(PackIPAddress(ParseMask("--mask", "/24")), 0xFFFFFF00u);
    EXPECT_EQ(PackIPAddress(ParseMask("--mask", "8")), 0xFF000000u);
    EXPECT_EQ(PackIPAddress(ParseMask("--mask", "/32")), 0xFFFFFFFFu);
    EXPECT_EQ(FormatMac(ParseMac("--mac", "02-B0-5E-0A-0B-0C")), "02:b0:5e:0a:0b:0c");
    const MACAddress mac = ParseMac("--mac", "02:B0:5e:0a:0B:0c");
    EXPECT_EQ(FormatMac(mac), "02:b0:5e:0a:0b:0c");
    EXPECT_TRUE(IsSame(mac, MACAddress{{0x02, 0xB0, 0x5E, 0x0A, 0x0B, 0x0C}}));
    EXPECT_FALSE(IsSame(mac, MACAddress{{0x02, 0xB0, 0x5E, 0x0A, 0x0B, 0x0D}}));
}

TEST(GigEValues, AreRefusedByOptionAndValue) {
    for (const char* text : {"", "192.168.77", "192.168.77.256", "192.168.77.50/24", "host"}) {
        EXPECT_THAT(Refused(ParseIp, text), HasSubstr("--option: \"" + std::string(text) + "\"")) << text;
    }
    for (const char* text : {"0.0.0.0", "0.1.2.3", "224.0.0.1", "255.255.255.255"}) {
        EXPECT_THAT(Refused(ParseCameraIp, text), HasSubstr("an address that a camera can have")) << text;
    }
    for (const char* text : {"0.0.0.0", "255.0.255.0", "/0", "/33", "//8", "/", "24/"}) {
        EXPECT_THAT(Refused(ParseMask, text), HasSubstr("a subnet mask")) << text;
    }
    for (const char* text :
         {"00:00:00:00:00:00", "01:00:5e:00:00:01", "02005e000001", "02:00:5e:00:00:0g", "02:00-5e:00-00:01", ""}) {
        EXPECT_THAT(Refused(ParseMac, text), HasSubstr("the MAC address of a device")) << text;
    }
}

TEST(GigEValues, AreWrittenWithTheirSubnet) {
    EXPECT_EQ(FormatSubnet(Ip("10.9.9.9"), Ip("255.255.255.0")), "10.9.9.9/24");
    EXPECT_EQ(FormatSubnet(Ip("10.9.9.9"), Ip("0.0.0.0")), "10.9.9.9/0");
    EXPECT_EQ(FormatSubnet(Ip("10.9.9.9"), Ip("255.255.255.255")), "10.9.9.9/32");
    EXPECT_EQ(FormatSubnet(Ip("10.9.9.9"), Ip("255.0.255.0")), "10.9.9.9/255.0.255.0");
    EXPECT_EQ(SubnetOf(Ip("192.168.77.50"), Ip("255.255.255.240")), "192.168.77.48/28");
}

}  // namespace
}  // namespace Nimbrel2::Tool::Testing
