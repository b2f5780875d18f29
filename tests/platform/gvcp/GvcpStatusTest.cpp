// SPDX-License-Identifier: Apache-2.0
// What each GVCP status is called above the HAL. One thread, no lock.
#include <gtest/gtest.h>

#include "platform/gvcp/GvcpCodec.h"

namespace Nimbrel2::Platform::Gvcp {
namespace {

struct Row {
    const char* name;
    std::uint16_t status;
    HALStatus expected;
};

std::ostream& operator<<(std::ostream& out, const Row& row) { return out << row.name; }

class GvcpStatus : public ::testing::TestWithParam<Row> {};

TEST_P(GvcpStatus, HasOneHalStatus) {
    EXPECT_EQ(ToHalStatus(static_cast<Status>(GetParam().status)), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(
    Table, GvcpStatus,
    ::testing::Values(Row{"Success", 0x0000, HAL_OK}, Row{"NotImplemented", 0x8001, HAL_NOT_SUPPORTED},
                      Row{"InvalidParameter", 0x8002, HAL_INVALID_ARGUMENT},
                      Row{"InvalidAddress", 0x8003, HAL_NO_SUCH_REGISTER},
                      Row{"WriteProtect", 0x8004, HAL_WRITE_PROTECTED},
                      Row{"BadAlignment", 0x8005, HAL_INVALID_ARGUMENT}, Row{"AccessDenied", 0x8006, HAL_ACCESS_DENIED},
                      Row{"Busy", 0x8007, HAL_BUSY}, Row{"InvalidHeader", 0x800E, HAL_REFUSED},
                      Row{"Generic", 0x8FFF, HAL_REFUSED}, Row{"PacketResend", 0x0100, HAL_REFUSED},
                      Row{"Unlisted", 0x9ABC, HAL_REFUSED}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(GvcpStatusRange, NeverGivesAStatusWithAMeaningOfItsOwn) {
    for (unsigned status = 0; status <= 0xFFFF; ++status) {
        const HALStatus mapped = ToHalStatus(static_cast<Status>(status));
        EXPECT_TRUE(mapped != 5 && mapped != 11 && mapped != 20 && mapped != 23) << std::hex << status;
        EXPECT_EQ(mapped == HAL_OK, status == 0) << std::hex << status;
    }
}

}  // namespace
}  // namespace Nimbrel2::Platform::Gvcp
