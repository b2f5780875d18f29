// SPDX-License-Identifier: Apache-2.0
// A running HAL over fake drivers, with one camera of each bus to work on.
#ifndef NIMBREL2_TESTS_PLATFORM_HAL_HALFIXTURE_H
#define NIMBREL2_TESTS_PLATFORM_HAL_HALFIXTURE_H

#include <gtest/gtest.h>

#include <array>
#include <cstdint>
#include <memory>
#include <vector>

#include "hal/HAL.h"
#include "tests/platform/hal/FakeDrivers.h"

namespace Nimbrel2::Platform::Testing {

class HalFixture : public ::testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(Process::Get().SetDriverFactory(FakeDrivers(world)), HAL_OK);
        ASSERT_EQ(HAL_InitLibrary(), HAL_OK);
    }
    void TearDown() override {
        HAL_CleanupLibrary();
        EXPECT_EQ(Process::Get().SetDriverFactory({}), HAL_OK);
        EXPECT_EQ(Process::Get().SetThreadStarter({}), HAL_OK);
        EXPECT_EQ(world->startedBuses, 0);
    }

    using ListFunction = std::uint32_t (*)(void**, std::uint64_t*);

    /// The entries of a listing that is expected to succeed.
    static std::vector<void*> List(ListFunction list, std::uint64_t capacity = 256) {
        std::vector<void*> entries(capacity, nullptr);
        std::uint64_t count = capacity;
        EXPECT_EQ(list(entries.data(), &count), HAL_OK);
        entries.resize(count);
        return entries;
    }

    void* FireWireCamera() {
        world->fireWireCameras = 1;
        return List(HAL_1394GetCameras).at(0);
    }
    void* FireWireNode() {
        world->fireWireDevices = 1;
        return List(HAL_1394GetDevices).at(0);
    }
    void* UsbCamera() {
        world->usbCameras = 1;
        return List(HAL_UsbGetCameras).at(0);
    }
    void* GigECamera() {
        world->gigECameras = 1;
        return List(HAL_GigEGetCameras).at(0);
    }

    const std::shared_ptr<FakeWorld> world = std::make_shared<FakeWorld>();
};

}  // namespace Nimbrel2::Platform::Testing

#endif
