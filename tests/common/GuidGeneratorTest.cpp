// SPDX-License-Identifier: Apache-2.0
// Identifiers: known vectors, the exact key texts, and a hash that does not depend on the sign of char.
#include <gtest/gtest.h>

#include <string>

#include "common/GuidGenerator.h"

namespace Nimbrel2 {
namespace {

using ::testing::Test;

std::string Hex(const ZevoGuid& guid) {
    char text[64];
    std::snprintf(text, sizeof text, "%08X %08X %08X %08X", guid.value[0], guid.value[1], guid.value[2], guid.value[3]);
    return text;
}

ZevoGuid HashOf(const std::string& key) {
    ZevoGuid guid{{1, 2, 3, 4}};
    GuidGenerator::HashKey(key, &guid);
    return guid;
}

ZevoGuid CameraGuid(std::string first, std::string second, unsigned int number) {
    ZevoGuid guid{{1, 2, 3, 4}};
    EXPECT_TRUE(GuidGenerator::GenerateGUIDForCamera(first.data(), second.data(), number, &guid) == ERROR_OK);
    return guid;
}

ZevoGuid DeviceGuid(InterfaceType type, unsigned int first, unsigned int second, unsigned int third) {
    ZevoGuid guid{{1, 2, 3, 4}};
    EXPECT_TRUE(GuidGenerator::GenerateGUIDForDevice(type, first, second, third, &guid) == ERROR_OK);
    return guid;
}

ZevoGuid GigEGuid(std::string first, std::string second, unsigned int serial, unsigned int ip, unsigned int marker) {
    ZevoGuid guid{{1, 2, 3, 4}};
    EXPECT_TRUE(GuidGenerator::GenerateGUIDForGigECamera(first.data(), second.data(), serial, ip, marker, &guid) ==
                ERROR_OK);
    return guid;
}

TEST(GuidHash, GivesAOneByteKeyInEveryWord) { EXPECT_EQ("00000061 00000061 00000061 00000061", Hex(HashOf("a"))); }

TEST(GuidHash, GivesZeroForAnEmptyKey) { EXPECT_EQ(ZevoGuid(), HashOf("")); }

TEST(GuidHash, CountsBytesAbove7FAsPositive) {
    EXPECT_EQ("000000FF 000000FF 000000FF 000000FF", Hex(HashOf("\xFF")));
    EXPECT_EQ("5A88BF4A AB81BA82 6B9B07D7 A391A0EF", Hex(HashOf("\x80\xFF\x7F")));
}

TEST(GuidHash, HashesZeroBytesToo) {
    EXPECT_EQ(HashOf("a"), HashOf(std::string("\0a", 2)));
    EXPECT_FALSE(HashOf("a") == HashOf(std::string("a\0", 2)));
}

TEST(GuidForCamera, HashesTheTextsAndTheNumber) {
    EXPECT_EQ("431B4DA9 9E79D749 498F68C5 E5136AA5", Hex(CameraGuid("Acme", "Model 1", 12345678)));
    EXPECT_EQ(HashOf("Acme&Model 1&bc614e"), CameraGuid("Acme", "Model 1", 12345678));
}

TEST(GuidForCamera, WritesNumbersInLowerCaseWithoutPadding) {
    EXPECT_EQ(HashOf("a&b&abc"), CameraGuid("a", "b", 0xABC));
    EXPECT_EQ(HashOf("a&b&0"), CameraGuid("a", "b", 0));
    EXPECT_EQ(HashOf("a&b&ffffffff"), CameraGuid("a", "b", 0xFFFFFFFF));
}

TEST(GuidForCamera, TakesEmptyTexts) { EXPECT_EQ("C540BE04 35827014 59BCF6A0 CE8FD590", Hex(CameraGuid("", "", 0))); }

TEST(GuidForCamera, CountsTextBytesAbove7FAsPositive) {
    EXPECT_EQ("45A177CC 1D47E384 9407A520 F68F6F90", Hex(CameraGuid("\xC4\xFF"
                                                                    "a",
                                                                    "\x80", 0)));
}

TEST(GuidForCamera, TakesTextsLongerThanAnyBuffer) {
    EXPECT_EQ("F9344974 9F2D5F7C A0C82C67 203BBC97", Hex(CameraGuid(std::string(511, 'v'), std::string(511, 'm'), 7)));
}

TEST(GuidForCamera, EndsTextsAtTheirFirstZeroByte) {
    EXPECT_EQ(CameraGuid("a", "b", 1), CameraGuid(std::string("a\0rest", 6), std::string("b\0rest", 6), 1));
}

TEST(GuidForCamera, DoesNotSeparateAmpersandsFromTheTexts) {
    EXPECT_EQ(CameraGuid("a&b", "c", 1), CameraGuid("a", "b&c", 1));
}

TEST(GuidForDevice, HashesTheFourNumbersWithoutSeparators) {
    EXPECT_EQ("C0FAB5AB 64A203BB 84DBECD6 891359C6", Hex(DeviceGuid(INTERFACE_IEEE1394, 0x10, 0x2, 0xFFFFFFFF)));
    EXPECT_EQ("83D799E1 84E09191 7ADBECD6 891359C6", Hex(DeviceGuid(INTERFACE_GIGE, 0xABC, 0, 0xFFFFFFFF)));
    EXPECT_EQ(HashOf("4000"), DeviceGuid(INTERFACE_NONE, 0, 0, 0));
}

TEST(GuidForDevice, GivesTheSameForNumbersThatReadAlikeInARow) {
    EXPECT_EQ(DeviceGuid(INTERFACE_IEEE1394, 0x1, 0x23, 0), DeviceGuid(INTERFACE_IEEE1394, 0x12, 0x3, 0));
}

TEST(GuidForGigECamera, AddsAddressAndMarkerWithoutSeparators) {
    EXPECT_EQ("117CD586 E6C2CF66 4DCD8BD8 95B475C0", Hex(GigEGuid("Acme", "Model 1", 12345678, 0xC0A8000A, 0)));
    EXPECT_EQ("117CD587 E6C2CF67 4DCD8BD9 95B475C1", Hex(GigEGuid("Acme", "Model 1", 12345678, 0xC0A8000A, 1)));
    EXPECT_EQ(HashOf("a&b&000"), GigEGuid("a", "b", 0, 0, 0));
}

TEST(GuidForGigECamera, ChangesWithTheAddress) {
    EXPECT_FALSE(GigEGuid("a", "b", 1, 0xC0A80001, 0) == GigEGuid("a", "b", 1, 0xC0A80002, 0));
}

TEST(GuidGenerator, GivesTheSameEachTime) {
    EXPECT_EQ(CameraGuid("Acme", "Model 1", 7), CameraGuid("Acme", "Model 1", 7));
}

}  // namespace
}  // namespace Nimbrel2
