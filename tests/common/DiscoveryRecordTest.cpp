// SPDX-License-Identifier: Apache-2.0
// What becomes of a GigE discovery answer.
#include <gtest/gtest.h>

#include <cstring>
#include <string>

#include "common/DiscoveryRecord.h"

namespace Nimbrel2 {
namespace {

template <std::size_t Size>
void Put(const std::string& text, char (&field)[Size]) {
    ASSERT_LE(text.size(), Size);
    std::memcpy(field, text.data(), text.size());
}

CameraInfo InfoWithSerialText(const std::string& text) {
    GvcpDiscoveryRecord record{};
    Put(text, record.serialNumber);
    CameraInfo info;
    FillCameraInfo(record, &info);
    return info;
}

TEST(DiscoveryRecord, BecomesNumbersAndAddresses) {
    GvcpDiscoveryRecord record{};
    record.versionMajor = 2;
    record.versionMinor = 1;
    record.macHigh = 0x02B0;
    record.macLow = 0x5E0A0B0C;
    record.ipAddress = 0xC0A8000A;
    record.subnetMask = 0xFFFFFF00;
    record.defaultGateway = 0xC0A80001;
    Put("12345", record.serialNumber);
    CameraInfo info;
    FillCameraInfo(record, &info);
    EXPECT_EQ(12345U, info.serialNumber);
    EXPECT_EQ(INTERFACE_GIGE, info.interfaceType);
    EXPECT_EQ(2U, info.gigEMajorVersion);
    EXPECT_EQ(1U, info.gigEMinorVersion);
    EXPECT_EQ(0, std::memcmp(info.macAddress.octets, "\x02\xB0\x5E\x0A\x0B\x0C", 6));
    EXPECT_EQ(0xC0A8000AU, PackIPAddress(info.ipAddress));
    EXPECT_EQ(0xFFFFFF00U, PackIPAddress(info.subnetMask));
    EXPECT_EQ(0xC0A80001U, PackIPAddress(info.defaultGateway));
}

struct SerialRow {
    const char* name;
    std::string text;
    std::uint32_t number;
};

TEST(DiscoveryRecord, ConvertsTheDecimalNumberAtTheStartOfTheSerialText) {
    const SerialRow rows[] = {
        {"plain", "12345", 12345},
        {"leading zeros", "00012", 12},
        {"ends at the first other character", "12A45", 12},
        {"no number", "SN-12", 0},
        {"empty", "", 0},
        {"a sign is no digit", "-5", 0},
        {"hexadecimal is not read", "0x1F", 0},
        {"the largest that fits", "4294967295", 4294967295U},
        {"cut to 32 bits", "4294967296", 0},
        {"all sixteen characters, no terminator", "9999999999999999", static_cast<std::uint32_t>(9999999999999999U)},
    };
    for (const SerialRow& row : rows) {
        EXPECT_EQ(row.number, InfoWithSerialText(row.text).serialNumber) << row.name;
    }
}

TEST(DiscoveryRecord, CopiesFullFieldsAndEndsThemInAFreshRecord) {
    GvcpDiscoveryRecord record{};
    Put(std::string(32, 'v'), record.manufacturerName);
    Put(std::string(32, 'm'), record.modelName);
    Put(std::string(16, 'u'), record.userDefinedName);
    CameraInfo info;
    FillCameraInfo(record, &info);
    EXPECT_EQ(std::string(32, 'v'), info.vendorName);
    EXPECT_EQ(std::string(32, 'm'), info.modelName);
    EXPECT_EQ(std::string(16, 'u'), info.userDefinedName);
}

TEST(DiscoveryRecord, LeavesTheRestOfATextFieldAsTheCallerHadIt) {
    GvcpDiscoveryRecord record{};
    Put("ab", record.manufacturerName);
    CameraInfo info;
    std::strcpy(info.vendorName, "longer");
    std::strcpy(info.modelName, "model");
    FillCameraInfo(record, &info);
    EXPECT_STREQ("abnger", info.vendorName);
    EXPECT_STREQ("model", info.modelName);
}

TEST(DiscoveryRecord, WritesNothingElse) {
    CameraInfo info;
    std::strcpy(info.serialText, "kept");
    std::strcpy(info.deviceVersion, "kept too");
    FillCameraInfo(GvcpDiscoveryRecord{}, &info);
    EXPECT_STREQ("kept", info.serialText);
    EXPECT_STREQ("kept too", info.deviceVersion);
}

TEST(CameraInfo, StartsZeroed) {
    const CameraInfo info;
    EXPECT_EQ(0U, info.serialNumber);
    for (const char* text :
         {info.vendorName, info.modelName, info.serialText, info.deviceVersion, info.userDefinedName}) {
        EXPECT_EQ(std::string(CameraInfo::TextCapacity, '\0'), std::string(text, CameraInfo::TextCapacity));
    }
}

}  // namespace
}  // namespace Nimbrel2
