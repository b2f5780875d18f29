// SPDX-License-Identifier: Apache-2.0
// 32-bit serial numbers of USB cameras, from the texts that they tell.
#include <gtest/gtest.h>

#include "platform/base/UsbSerial.h"

namespace Nimbrel2::Platform {
namespace {

TEST(UsbSerialNumber, TakesDecimalHexadecimalAndGuidTextsAndHashesTheRest) {
    EXPECT_EQ(UsbSerialNumber(1, 2, "19515069"), 19515069U);
    EXPECT_EQ(UsbSerialNumber(1, 2, "00418002"), 418002U) << "eight digits are decimal";
    EXPECT_EQ(UsbSerialNumber(1, 2, "4294967295"), 4294967295U);
    EXPECT_EQ(UsbSerialNumber(1, 2, "0138C343"), 0x0138C343U);
    EXPECT_EQ(UsbSerialNumber(1, 2, "0x1F"), 0x1FU);
    EXPECT_EQ(UsbSerialNumber(0x2676, 2, "267601A2B3C4"), 0x01A2B3C4U);
    EXPECT_EQ(UsbSerialNumber(0x2676, 2, "267612345678"), 0x12345678U) << "too large to be decimal";
    EXPECT_NE(UsbSerialNumber(0x2677, 2, "267612345678"), 0x12345678U) << "another maker's twelve digits";
    const std::uint32_t hashed = UsbSerialNumber(1, 2, "4H05114PAKCE6F3");
    EXPECT_EQ(UsbSerialNumber(1, 2, "4H05114PAKCE6F3"), hashed);
    EXPECT_NE(UsbSerialNumber(1, 3, "4H05114PAKCE6F3"), hashed) << "the ids count too";
    EXPECT_NE(UsbSerialNumber(1, 2, "4294967296"), 0U) << "does not fit, so it is hashed";
    EXPECT_NE(UsbSerialNumber(1, 2, "00000000"), 0U) << "0 counts as none";
    EXPECT_NE(UsbSerialNumber(1, 2, ""), 0U);
    EXPECT_NE(UsbSerialNumber(3, 2, "267601A2B3C4"), 0x01A2B3C4U) << "another maker's twelve digits";
}

TEST(UsbSerialNumber, HashesThePlaceOfACameraWhoseTextTellsNothing) {
    for (const char* text : {"", "0", "00000000", "0x0", "000000000000"}) {
        const std::uint32_t here = UsbSerialNumber(1, 2, text, "0000:00:14.0 1.2");
        EXPECT_NE(here, 0U) << text;
        EXPECT_EQ(UsbSerialNumber(1, 2, text, "0000:00:14.0 1.2"), here) << text;
        EXPECT_NE(UsbSerialNumber(1, 2, text, "0000:00:14.0 1.3"), here) << text;
    }
    EXPECT_EQ(UsbSerialNumber(1, 2, "7", "anywhere"), 7U);
    EXPECT_EQ(UsbSerialNumber(1, 2, "ABC-7", "anywhere"), UsbSerialNumber(1, 2, "ABC-7"));
}

}  // namespace
}  // namespace Nimbrel2::Platform
