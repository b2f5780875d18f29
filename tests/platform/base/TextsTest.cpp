// SPDX-License-Identifier: Apache-2.0
// Texts cut at every size, and numbers at the start of texts.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "platform/base/Texts.h"

namespace Nimbrel2::Platform {
namespace {

TEST(CopyText, CutsToFitAtEverySizeAndWritesNothingBehind) {
    const std::string text = "Wide-Angle";
    for (std::uint32_t capacity = 1; capacity <= 16; ++capacity) {
        char buffer[32];
        std::memset(buffer, '#', sizeof buffer);
        std::uint32_t size = capacity;
        CopyText(text, buffer, &size);
        const std::string expected = text.substr(0, capacity - 1);
        EXPECT_STREQ(buffer, expected.c_str()) << capacity;
        EXPECT_EQ(size, expected.size()) << capacity;
        for (std::size_t i = expected.size() + 1; i < sizeof buffer; ++i) {
            EXPECT_EQ(buffer[i], '#') << "byte " << i << " at capacity " << capacity;
        }
    }
}

TEST(CopyText, WritesNothingIntoNoRoom) {
    char buffer[] = "#";
    std::uint32_t size = 0;
    CopyText("text", buffer, &size);
    EXPECT_EQ(buffer[0], '#');
    EXPECT_EQ(size, 0u);
}

TEST(CopyText, TerminatesAnEmptyText) {
    char buffer[] = "#";
    std::uint32_t size = 1;
    CopyText("", buffer, &size);
    EXPECT_EQ(buffer[0], '\0');
    EXPECT_EQ(size, 0u);
}

TEST(CopyText, EndsATextAtItsFirstZeroByte) {
    char buffer[8] = {};
    std::uint32_t size = 8;
    CopyText(std::string("ab\0cd", 5), buffer, &size);
    EXPECT_STREQ(buffer, "ab");
    EXPECT_EQ(size, 2u);
}

TEST(FieldText, EndsAtTheFirstZeroByteOrFillsTheField) {
    const char terminated[8] = {'a', 'b', '\0', 'x', 'y', 'z', '\0', '!'};
    const char full[4] = {'f', 'u', 'l', 'l'};
    const char empty[4] = {};
    EXPECT_EQ(FieldText(terminated), "ab");
    EXPECT_EQ(FieldText(full), "full");
    EXPECT_EQ(FieldText(empty), "");
}

TEST(LeadingNumber, ReadsTheDigitsAtTheStart) {
    const struct {
        const char* text;
        std::uint32_t number;
    } rows[] = {
        {"", 0},
        {"12345", 12345},
        {"00042", 42},
        {"17A9", 17},
        {"GV01", 0},
        {" 5", 0},
        {"-5", 0},
        {"+5", 0},
        {"4294967295", 0xFFFFFFFF},
        {"4294967297", 1},                 // 2^32 + 1
        {"9999999999999999", 0x6FC0FFFF},  // 16 digits, all that a serial number field holds
    };
    for (const auto& row : rows) {
        EXPECT_EQ(LeadingNumber(row.text), row.number) << '"' << row.text << '"';
    }
}

TEST(FormatMac, HasLowerCaseOctetsAndLeadingZeros) {
    EXPECT_EQ(FormatMac(0x02005E000001), "02:00:5e:00:00:01");
    EXPECT_EQ(FormatMac(0), "00:00:00:00:00:00");
    EXPECT_EQ(FormatMac(0xFFFFFFFFFFFF), "ff:ff:ff:ff:ff:ff");
}

TEST(FormatIp, HasTheFirstOctetFirst) {
    EXPECT_EQ(FormatIp(0xC0A84D32), "192.168.77.50");
    EXPECT_EQ(FormatIp(0), "0.0.0.0");
    EXPECT_EQ(FormatIp(0xFFFFFFFF), "255.255.255.255");
}

}  // namespace
}  // namespace Nimbrel2::Platform
