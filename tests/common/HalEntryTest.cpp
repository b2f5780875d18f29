// SPDX-License-Identifier: Apache-2.0
// An entry goes back exactly once, and never under an operation.
#include <gtest/gtest.h>

#include <memory>
#include <thread>
#include <vector>

#include "common/HalEntry.h"
#include "hal/HAL.h"
#include "tests/support/ProcessThreads.h"
#include "tests/support/ScriptedHal.h"

namespace Nimbrel2 {
namespace {

class HalEntryTest : public ::testing::Test {
protected:
    HalEntryTest() {
        hal.AddUsbCamera(1);
        std::uint64_t count = 1;
        HAL_UsbGetCameras(&entry, &count);
        hal.ClearCalls();
    }

    Testing::ScriptedHal hal;
    void* entry = nullptr;
};

TEST_F(HalEntryTest, LendsTheEntryUntilItIsReleased) {
    HalEntry owner(entry);
    {
        const HalEntry::Use use(owner);
        ASSERT_TRUE(use);
        EXPECT_EQ(entry, use.Get());
    }
    EXPECT_EQ(HAL_OK, owner.Release(&HAL_UsbFreeCamera));
    const HalEntry::Use late(owner);
    EXPECT_FALSE(late);
    hal.ExpectAllEntriesGivenBackOnce();
}

TEST_F(HalEntryTest, GivesBackOnlyOnceAndSaysGoneAfterThat) {
    HalEntry owner(entry);
    EXPECT_EQ(HAL_OK, owner.Release(&HAL_UsbFreeCamera));
    EXPECT_EQ(HAL_GONE, owner.Release(&HAL_UsbFreeCamera));
    EXPECT_EQ(1U, hal.Count("HAL_UsbFreeCamera"));
}

TEST_F(HalEntryTest, PassesOnWhatTheHalAnswers) {
    hal.Fail("HAL_UsbFreeCamera", 1, HAL_FAILED);
    HalEntry owner(entry);
    EXPECT_EQ(HAL_FAILED, owner.Release(&HAL_UsbFreeCamera));
}

TEST_F(HalEntryTest, WaitsForTheLastUseBeforeItGivesBack) {
    HalEntry owner(entry);
    auto first = std::make_unique<HalEntry::Use>(owner);
    auto second = std::make_unique<HalEntry::Use>(owner);
    EXPECT_EQ(HAL_OK, owner.Release(&HAL_UsbFreeCamera));
    EXPECT_FALSE(HalEntry::Use(owner));
    EXPECT_EQ(HAL_GONE, owner.Release(&HAL_UsbFreeCamera));
    first.reset();
    EXPECT_EQ(0U, hal.Count("HAL_UsbFreeCamera"));
    second.reset();
    EXPECT_EQ(1U, hal.Count("HAL_UsbFreeCamera"));
    hal.ExpectAllEntriesGivenBackOnce();
}

TEST_F(HalEntryTest, IsNotGivenBackByTheDestructor) {
    { HalEntry owner(entry); }
    EXPECT_EQ(0U, hal.Count("HAL_UsbFreeCamera"));
}

// The mutex may be taken for good there.
TEST_F(HalEntryTest, IsUsedAndGivenBackInAForkedProcessWithoutItsLock) {
    HalEntry owner(entry);
    std::atomic<bool> stop{false};
    std::thread user([&] {
        while (!stop) {
            const HalEntry::Use use(owner);
        }
    });
    int status = 0;
    for (int i = 0; i < 200 && status == 0; ++i) {
        status = Testing::InForkedProcess([&] {
            const bool isLent = static_cast<bool>(HalEntry::Use(owner));
            const auto closed = [](void*) -> std::uint32_t { return HAL_CLOSED; };
            return isLent && owner.Release(closed) == HAL_CLOSED && owner.Release(closed) == HAL_CLOSED ? 0 : 1;
        });
    }
    EXPECT_EQ(0, status);
    stop = true;
    user.join();
    EXPECT_EQ(HAL_OK, owner.Release(&HAL_UsbFreeCamera));
}

TEST_F(HalEntryTest, IsGivenBackOnceWhenManyThreadsReleaseAndUseIt) {
    HalEntry owner(entry);
    std::atomic<int> released{0};
    std::vector<std::thread> threads;
    for (int i = 0; i < 8; ++i) {
        threads.emplace_back([&] {
            for (int k = 0; k < 50; ++k) {
                const HalEntry::Use use(owner);
            }
            released += owner.Release(&HAL_UsbFreeCamera) == HAL_OK ? 1 : 0;
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(1, released);
    hal.ExpectAllEntriesGivenBackOnce();
}

}  // namespace
}  // namespace Nimbrel2
