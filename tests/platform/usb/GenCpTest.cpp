// SPDX-License-Identifier: Apache-2.0
// GenCP packets: commands byte by byte, acknowledges whole and cut at every byte.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "hal/HAL.h"
#include "platform/linux/usb/GenCp.h"

namespace Nimbrel2::Platform::Usb::GenCp {
namespace {

using Bytes = std::vector<std::uint8_t>;

TEST(GenCpCommand, IsLittleEndian) {
    EXPECT_EQ(EncodeRead(0x1234, 0x0102030405060708, 4),
              (Bytes{0x55, 0x33, 0x56, 0x43, 0x00, 0x40, 0x00, 0x08, 12,   0,    0x34, 0x12,  // header
                     0x08, 0x07, 0x06, 0x05, 0x04, 0x03, 0x02, 0x01, 0x00, 0x00, 0x04, 0x00}));
    EXPECT_EQ(EncodeWrite(0x1234, 0x1D8, 0xA1B2C3D4),
              (Bytes{0x55, 0x33, 0x56, 0x43, 0x00, 0x40, 0x02, 0x08, 12,   0,    0x34, 0x12,  // header
                     0xD8, 0x01, 0x00, 0x00, 0x00, 0x00, 0x00, 0x00, 0xD4, 0xC3, 0xB2, 0xA1}));
}

const Bytes TestAcknowledge{0x55, 0x33, 0x56, 0x43, 0x00, 0x00, 0x01, 0x08, 4, 0, 0x34, 0x12, 0x04, 0x03, 0x02, 0x01};

TEST(GenCpAcknowledge, IsReadWhole) {
    const auto acknowledge = DecodeAcknowledge(TestAcknowledge);
    ASSERT_TRUE(acknowledge);
    EXPECT_EQ(acknowledge->status, 0);
    EXPECT_EQ(acknowledge->command, 0x0801);
    EXPECT_EQ(acknowledge->id, 0x1234);
    EXPECT_EQ(DecodeQuadlet(*acknowledge), 0x01020304u);
}

TEST(GenCpAcknowledge, CutAtAnyByteOrLongerThanItSaysIsNone) {
    for (std::size_t size = 0; size < TestAcknowledge.size(); ++size) {
        const Bytes cut(TestAcknowledge.begin(), TestAcknowledge.begin() + static_cast<std::ptrdiff_t>(size));
        EXPECT_FALSE(DecodeAcknowledge(cut)) << size;
    }
    Bytes longer = TestAcknowledge;
    longer.push_back(0);
    EXPECT_FALSE(DecodeAcknowledge(longer));
    Bytes other = TestAcknowledge;
    other[0] ^= 1;
    EXPECT_FALSE(DecodeAcknowledge(other)) << "another prefix";
}

TEST(GenCpPayload, IsOfItsSizeOrNothing) {
    const Bytes bytes{0, 0, 4, 0, 0};
    Acknowledge acknowledge;
    for (std::size_t size = 0; size <= bytes.size(); ++size) {
        acknowledge.payload = std::span(bytes).first(size);
        EXPECT_EQ(DecodeQuadlet(acknowledge).has_value(), size == 4) << size;
        EXPECT_EQ(DecodePending(acknowledge).has_value(), size == 4) << size;
        EXPECT_EQ(HasWrittenQuadlet(acknowledge), size == 0 || size == 4) << size;
    }
    acknowledge.payload = std::span(bytes).first(4);
    EXPECT_EQ(DecodePending(acknowledge), 4);
    const Bytes less{0, 0, 2, 0};
    acknowledge.payload = less;
    EXPECT_FALSE(HasWrittenQuadlet(acknowledge));
}

TEST(GenCpStatus, HasAWordOfTheHals) {
    EXPECT_EQ(ToHalStatus(0), HAL_OK);
    EXPECT_EQ(ToHalStatus(0x8006), HAL_ACCESS_DENIED);
    EXPECT_EQ(ToHalStatus(0x0001), HAL_REFUSED);
}

}  // namespace
}  // namespace Nimbrel2::Platform::Usb::GenCp
