// SPDX-License-Identifier: Apache-2.0
// CAMERA as a word: what it may be, and what is said of anything else.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "tools/nimbrel/CameraArgument.h"
#include "tools/nimbrel/CommandError.h"
#include "tools/nimbrel/GigEValues.h"

namespace Nimbrel2::Tool::Testing {
namespace {

using ::testing::HasSubstr;

TEST(CameraWord, IsASerialNumberWhenItIsBare) {
    EXPECT_EQ(std::get<BySerial>(ParseCamera("19340211")).serialNumber, 19340211u);
    EXPECT_EQ(std::get<BySerial>(ParseCamera("0")).serialNumber, 0u);
    EXPECT_EQ(std::get<BySerial>(ParseCamera("serial:4294967295")).serialNumber, 4294967295u);
}

TEST(CameraWord, IsAnIndexAnAddressAMacOrAGuid) {
    EXPECT_EQ(std::get<ByIndex>(ParseCamera("index:12")).index, 12u);
    EXPECT_EQ(PackIPAddress(std::get<IPAddress>(ParseCamera("ip:192.168.77.10"))), 0xC0A84D0Au);
    EXPECT_TRUE(
        IsSame(std::get<MACAddress>(ParseCamera("mac:02:00:00:00:77:0a")), MACAddress{{2, 0, 0, 0, 0x77, 0x0A}}));
    EXPECT_TRUE(
        IsSame(std::get<MACAddress>(ParseCamera("mac:02-00-00-00-77-0A")), MACAddress{{2, 0, 0, 0, 0x77, 0x0A}}));
    const ZevoGuid guid{{0x717F227A, 0x814FFB8A, 0xBF916C58, 0x0000000F}};
    EXPECT_EQ(std::get<ZevoGuid>(ParseCamera("guid:717f227a-814ffb8a-bf916c58-0000000f")), guid);
    EXPECT_EQ(std::get<ZevoGuid>(ParseCamera("guid:717F227A-814FFB8A-BF916C58-0000000F")), guid);
}

struct WrongWord {
    const char* name;
    const char* word;
    const char* said;
};

std::ostream& operator<<(std::ostream& out, const WrongWord& row) { return out << row.name; }

class WrongCameraWord : public ::testing::TestWithParam<WrongWord> {};

TEST_P(WrongCameraWord, IsWrongUsageAndNamed) {
    try {
        ParseCamera(GetParam().word);
        FAIL() << "was accepted";
    } catch (const CommandError& error) {
        EXPECT_EQ(error.GetStatus(), ExitUsage);
        EXPECT_THAT(error.what(), HasSubstr("CAMERA"));
        EXPECT_THAT(error.what(), HasSubstr(GetParam().said));
    }
}

INSTANTIATE_TEST_SUITE_P(
    Words, WrongCameraWord,
    ::testing::Values(WrongWord{"Empty", "", "\"\" is neither"}, WrongWord{"Letters", "GV01", "\"GV01\" is neither"},
                      WrongWord{"BareAddress", "192.168.77.10", "\"192.168.77.10\" is neither"},
                      WrongWord{"TooLarge", "4294967296", "\"4294967296\""}, WrongWord{"Sign", "serial:-1", "\"-1\""},
                      WrongWord{"NoSerial", "serial:", "\"\" is not"},
                      WrongWord{"IndexOfLetters", "index:first", "\"first\""},
                      WrongWord{"UnknownKind", "name:left", "does not begin with serial:, index:, ip:, mac: or guid:"},
                      WrongWord{"MisspeltKind", "serail:17", "did you mean serial?"},
                      WrongWord{"MacOfAGroup", "mac:01:00:5e:00:00:01", "is not the MAC address of a device"},
                      WrongWord{"ThreeOctets", "ip:192.168.77", "\"192.168.77\" is not an IP address"},
                      WrongWord{"GuidOfThreeGroups", "guid:717f227a-814ffb8a-bf916c58", "is not a guid"},
                      WrongWord{"GuidWithColons", "guid:717f227a:814ffb8a:bf916c58:59ff8ac0", "is not a guid"},
                      WrongWord{"GuidNotHexadecimal", "guid:717f227g-814ffb8a-bf916c58-59ff8ac0", "is not a guid"},
                      WrongWord{"GuidTooLong", "guid:717f227a-814ffb8a-bf916c58-59ff8ac00", "is not a guid"}),
    [](const auto& test) { return test.param.name; });

}  // namespace
}  // namespace Nimbrel2::Tool::Testing
