// SPDX-License-Identifier: Apache-2.0
// Texts of HAL statuses: one for each, different from each other.
#include <gtest/gtest.h>

#include <set>
#include <string>

#include "common/HalStatus.h"
#include "hal/HAL.h"

namespace Nimbrel2 {
namespace {

TEST(HalStatusText, IsThereForEveryStatusAndDifferentForEach) {
    std::set<std::string> texts;
    std::size_t statuses = 0;
    for (std::uint32_t status = 0; status <= HAL_AMBIGUOUS; ++status) {
        if (status == 19 || status == 22) {
            continue;  // nothing has these numbers
        }
        ++statuses;
        texts.insert(HalStatusText(status));
    }
    EXPECT_EQ(26U, statuses);
    EXPECT_EQ(statuses, texts.size());
    EXPECT_EQ(0U, texts.count("unknown status"));
}

TEST(HalStatusText, SaysWhatItMeans) {
    EXPECT_STREQ("success", HalStatusText(HAL_OK));
    EXPECT_STREQ("an argument is missing, misaligned or out of range", HalStatusText(HAL_INVALID_ARGUMENT));
    EXPECT_STREQ("permission denied", HalStatusText(HAL_PERMISSION));
    EXPECT_STREQ("no answer in time", HalStatusText(HAL_TIMED_OUT));
    EXPECT_STREQ("in use by another application", HalStatusText(HAL_ACCESS_DENIED));
}

TEST(HalStatusText, OfANumberThatIsNoStatusSaysSo) {
    for (const std::uint32_t number : {19U, 22U, 28U, 0xFFFFFFFFU}) {
        EXPECT_STREQ("unknown status", HalStatusText(number));
    }
}

}  // namespace
}  // namespace Nimbrel2
