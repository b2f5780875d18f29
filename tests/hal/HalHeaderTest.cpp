// SPDX-License-Identifier: Apache-2.0
// The numbers and layouts of HAL.h, which drivers in other languages build on: the same in C and in C++.
#include <gtest/gtest.h>

#include <cstddef>
#include <type_traits>
#include <vector>

#include "hal/HAL.h"
#include "tests/hal/HalHeaderInC.h"

namespace {

TEST(HalHeader, NumbersTheStatuses) {
    EXPECT_EQ(0U, HAL_OK);
    EXPECT_EQ(1U, HAL_FAILED);
    EXPECT_EQ(2U, HAL_INVALID_ARGUMENT);
    EXPECT_EQ(3U, HAL_PERMISSION);
    EXPECT_EQ(4U, HAL_GONE);
    EXPECT_EQ(5U, HAL_PHY_WRITE_NOT_IMPLEMENTED);
    EXPECT_EQ(6U, HAL_BUSY);
    EXPECT_EQ(7U, HAL_TIMED_OUT);
    EXPECT_EQ(8U, HAL_NO_BUS);
    EXPECT_EQ(9U, HAL_CLOSED);
    EXPECT_EQ(10U, HAL_OUT_OF_MEMORY);
    EXPECT_EQ(11U, HAL_NO_ACKNOWLEDGE);
    EXPECT_EQ(12U, HAL_NOT_SUPPORTED);
    EXPECT_EQ(13U, HAL_BAD_ANSWER);
    EXPECT_EQ(14U, HAL_BUS_CHANGED);
    EXPECT_EQ(15U, HAL_NO_SUCH_REGISTER);
    EXPECT_EQ(16U, HAL_WRITE_PROTECTED);
    EXPECT_EQ(17U, HAL_ACCESS_DENIED);
    EXPECT_EQ(18U, HAL_REFUSED);
    EXPECT_EQ(20U, HAL_NO_TREE);
    EXPECT_EQ(21U, HAL_UNREACHABLE);
    EXPECT_EQ(23U, HAL_ARRAY_TOO_SMALL);
    EXPECT_EQ(24U, HAL_BAD_MASK);
    EXPECT_EQ(25U, HAL_BAD_ADDRESS);
    EXPECT_EQ(26U, HAL_BAD_GATEWAY);
    EXPECT_EQ(27U, HAL_AMBIGUOUS);
}

TEST(HalHeader, NumbersEventsAndBuses) {
    EXPECT_EQ(0U, HAL_BUS_RESET);
    EXPECT_EQ(1U, HAL_BUS_ARRIVAL);
    EXPECT_EQ(2U, HAL_BUS_REMOVAL);
    EXPECT_EQ(3U, HAL_BUS_ERROR);
    EXPECT_EQ(0U, HAL_INTERFACE_1394);
    EXPECT_EQ(1U, HAL_INTERFACE_USB);
    EXPECT_EQ(2U, HAL_INTERFACE_GIGE);
}

TEST(HalHeader, GivesEnumsThirtyTwoBitsInBothLanguages) {
    EXPECT_TRUE((std::is_same_v<std::uint32_t, std::underlying_type_t<HALStatus>>));
    EXPECT_TRUE((std::is_same_v<std::uint32_t, std::underlying_type_t<HALBusEvent>>));
    EXPECT_TRUE((std::is_same_v<std::uint32_t, std::underlying_type_t<HALInterfaceType>>));
    EXPECT_EQ(3U + 2U + 60U, CallTheCallback(HAL_BUS_ERROR, HAL_INTERFACE_GIGE));
    // Values that nobody has named cross as well.
    EXPECT_EQ(0xFFFFFFFFU - 40U + 60U,
              CallTheCallback(static_cast<HALBusEvent>(0xFFFFFFFFU - 47U), static_cast<HALInterfaceType>(7)));
}

TEST(HalHeader, SizesTheRecordsAlikeInBothLanguages) {
    EXPECT_EQ(4U, sizeof(SelfIdPacket_t));
    EXPECT_EQ(32U, sizeof(UsbSelfId));
    EXPECT_EQ(212U, sizeof(GvcpDiscoveryRecord));
    EXPECT_EQ(sizeof(SelfIdPacket_t), SizeInC(RECORD_SELF_ID));
    EXPECT_EQ(sizeof(UsbSelfId), SizeInC(RECORD_USB));
    EXPECT_EQ(sizeof(GvcpDiscoveryRecord), SizeInC(RECORD_DISCOVERY));
}

TEST(HalHeader, LaysOutAUsbRecord) {
    EXPECT_EQ(0U, offsetof(UsbSelfId, deviceId));
    EXPECT_EQ(4U, offsetof(UsbSelfId, speed));
    EXPECT_EQ(8U, offsetof(UsbSelfId, rootPortId));
    EXPECT_EQ(16U, offsetof(UsbSelfId, routeString));
    EXPECT_EQ(24U, offsetof(UsbSelfId, parentId));
}

TEST(HalHeader, LaysOutADiscoveryRecordAlikeInBothLanguages) {
    const std::vector<std::uint64_t> expected = {
        0,    // specification major version, 16 bits
        2,    // minor version, 16 bits
        4,    // device mode
        8,    // MAC high part, 16 bits
        10,   // padding, 16 bits
        12,   // MAC low part
        16,   // IP configuration options
        20,   // IP configuration current
        24,   // current IP address
        28,   // subnet mask
        32,   // default gateway
        36,   // manufacturer name, 32 characters
        68,   // model name, 32
        100,  // device version, 32
        132,  // manufacturer-specific information, 48
        180,  // serial number, 16
        196,  // user-defined name, 16
    };
    EXPECT_EQ(expected,
              std::vector<std::uint64_t>(DISCOVERY_OFFSETS_IN_C, DISCOVERY_OFFSETS_IN_C + DISCOVERY_FIELDS_IN_C));
    EXPECT_EQ(16U, sizeof(GvcpDiscoveryRecord::userDefinedName));
    EXPECT_EQ(196U, offsetof(GvcpDiscoveryRecord, userDefinedName));
}

TEST(HalHeader, DeclaresEveryFunctionWithA32BitStatus) {
    EXPECT_TRUE((std::is_same_v<std::uint32_t(), decltype(HAL_InitLibrary)>));
    EXPECT_TRUE((std::is_same_v<std::uint32_t(void**, std::uint64_t*), decltype(HAL_1394GetCameras)>));
    EXPECT_TRUE((std::is_same_v<std::uint32_t(void**, const std::uint64_t*, std::uint64_t*),
                                decltype(HAL_1394GetVirtualCameras)>));
    EXPECT_TRUE(
        (std::is_same_v<std::uint32_t(void**, HALBusEventFunction, void*), decltype(HAL_1394RegisterBusEvents)>));
    EXPECT_TRUE((std::is_same_v<std::uint32_t(GvcpDiscoveryRecord*, std::uint32_t*), decltype(HAL_GvcpDiscovery)>));
    EXPECT_TRUE(
        (std::is_same_v<std::uint32_t(std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t),
                        decltype(HAL_GvcpForceIp)>));
}

}  // namespace
