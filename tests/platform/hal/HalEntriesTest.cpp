// SPDX-License-Identifier: Apache-2.0
// Listings, and the life of the entries that they hand out.
#include <algorithm>
#include <set>

#include "tests/platform/hal/HalFixture.h"

namespace Nimbrel2::Platform::Testing {
namespace {

class HalEntries : public HalFixture {
protected:
    struct ListingUnderTest {
        const char* name;
        ListFunction list;
        std::uint32_t (*giveBack)(void*);
        int FakeWorld::*number;
    };
    static constexpr ListingUnderTest TestListings[] = {
        {"1394 cameras", HAL_1394GetCameras, HAL_1394FreeCamera, &FakeWorld::fireWireCameras},
        {"1394 devices", HAL_1394GetDevices, HAL_1394FreeDevice, &FakeWorld::fireWireDevices},
        {"USB cameras", HAL_UsbGetCameras, HAL_UsbFreeCamera, &FakeWorld::usbCameras},
        {"GigE cameras", HAL_GigEGetCameras, HAL_GigEFreeCamera, &FakeWorld::gigECameras},
    };
};

TEST_F(HalEntries, AnEmptyBusListsNothing) {
    for (const auto& [name, list, giveBack, number] : TestListings) {
        EXPECT_TRUE(List(list).empty()) << name;
    }
}

TEST_F(HalEntries, AListingIsCutAtTheCapacityAndWritesNothingBehindIt) {
    for (const auto& [name, list, giveBack, number] : TestListings) {
        world.get()->*number = 5;
        for (std::uint64_t capacity = 0; capacity <= 7; ++capacity) {
            void* entries[8] = {};
            std::uint64_t count = capacity;
            EXPECT_EQ(list(entries, &count), HAL_OK) << name;
            EXPECT_EQ(count, std::min<std::uint64_t>(capacity, 5)) << name;
            for (std::uint64_t i = 0; i < 8; ++i) {
                EXPECT_EQ(entries[i] != nullptr, i < count) << name;
            }
            for (std::uint64_t i = 0; i < count; ++i) {
                EXPECT_EQ(giveBack(entries[i]), HAL_OK) << name;
            }
            EXPECT_EQ(world->livingDevices, 0) << name;
        }
    }
}

TEST_F(HalEntries, AFailedListingHandsNothingOut) {
    for (const auto& [name, list, giveBack, number] : TestListings) {
        world.get()->*number = 3;
        world->status = HAL_PERMISSION;
        void* entries[4] = {};
        std::uint64_t count = 4;
        EXPECT_EQ(list(entries, &count), HAL_PERMISSION) << name;
        EXPECT_EQ(world->livingDevices, 0) << name;
        EXPECT_EQ(entries[0], nullptr) << name;
        world->status = HAL_OK;
    }
}

TEST_F(HalEntries, AnEntryIsGivenBackOnce) {
    for (const auto& [name, list, giveBack, number] : TestListings) {
        world.get()->*number = 2;
        const std::vector<void*> entries = List(list);
        EXPECT_EQ(world->livingDevices, 2) << name;
        EXPECT_EQ(giveBack(entries[0]), HAL_OK) << name;
        EXPECT_EQ(world->livingDevices, 1) << name;
        EXPECT_EQ(giveBack(entries[0]), HAL_GONE) << name;
        EXPECT_EQ(world->livingDevices, 1) << name;
        EXPECT_EQ(giveBack(entries[1]), HAL_OK) << name;
        EXPECT_EQ(world->livingDevices, 0) << name;
    }
}

TEST_F(HalEntries, OnlyTheFunctionOfItsKindTakesAnEntryBack) {
    for (const auto& [name, list, giveBack, number] : TestListings) {
        world.get()->*number = 1;
        void* const entry = List(list).at(0);
        for (const ListingUnderTest& other : TestListings) {
            if (other.giveBack == giveBack) {
                continue;
            }
            EXPECT_EQ(other.giveBack(entry), HAL_GONE) << other.name << " took one of " << name;
        }
        EXPECT_EQ(giveBack(entry), HAL_OK) << name;
    }
}

TEST_F(HalEntries, AnEntryValueIsNeverUsedTwice) {
    std::set<void*> seen;
    for (int session = 0; session < 3; ++session) {
        for (int round = 0; round < 20; ++round) {
            for (const auto& [name, list, giveBack, number] : TestListings) {
                world.get()->*number = 3;
                for (void* const entry : List(list)) {
                    EXPECT_TRUE(seen.insert(entry).second) << name;
                    EXPECT_EQ(giveBack(entry), HAL_OK) << name;
                }
            }
        }
        ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK);
        ASSERT_EQ(HAL_InitLibrary(), HAL_OK);
    }
}

TEST_F(HalEntries, TwoEntriesOfOneDeviceLiveSideBySide) {
    world->gigECameras = 1;
    void* const kept = List(HAL_GigEGetCameras).at(0);
    void* const fresh = List(HAL_GigEGetCameras).at(0);
    EXPECT_NE(kept, fresh);
    EXPECT_EQ(HAL_GigEFreeCamera(fresh), HAL_OK);
    std::uint32_t value = 0;
    EXPECT_EQ(HAL_GigEReadRegister(kept, 0x24, &value), HAL_OK);
}

TEST_F(HalEntries, WhatWasNeverGivenBackIsFreedByTheCleanUp) {
    for (const auto& [name, list, giveBack, number] : TestListings) {
        world.get()->*number = 4;
        List(list);
    }
    EXPECT_EQ(world->livingDevices, 16);
    EXPECT_EQ(world->livingBuses, 3);
    ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK);
    EXPECT_EQ(world->livingDevices, 0);
    EXPECT_EQ(world->livingBuses, 0);
}

TEST_F(HalEntries, DeviceInfoCarriesTheEui64AndThePositionInTheListing) {
    world->fireWireDevices = 3;
    const std::vector<void*> entries = List(HAL_1394GetDevices);
    ASSERT_EQ(HAL_1394FreeDevice(entries[0]), HAL_OK);
    for (std::uint32_t position = 1; position < 3; ++position) {
        std::uint32_t info[3] = {};
        ASSERT_EQ(HAL_1394GetDeviceInfo(entries[position], &info[0], &info[1], &info[2]), HAL_OK);
        EXPECT_EQ(info[0], position);
        EXPECT_EQ(info[1], 0xAABB0000);
        EXPECT_EQ(info[2], 0xFFFFFFFF - position);
    }
}

TEST_F(HalEntries, VirtualCamerasAreListedBesideTheSerialNumbersThatAreTaken) {
    world->virtualCameras = 3;
    void* entries[256] = {};
    const std::uint64_t serials[] = {0x80000001, 7};
    std::uint64_t count = 2;
    ASSERT_EQ(HAL_1394GetVirtualCameras(entries, serials, &count), HAL_OK);
    EXPECT_EQ(count, 3u);
    EXPECT_EQ(world->TakeLog(), (std::vector<std::string>{"taken 2147483649", "taken 7"}));
    EXPECT_EQ(entries[3], nullptr);
    for (int i = 0; i < 3; ++i) {
        EXPECT_EQ(HAL_1394FreeCamera(entries[i]), HAL_OK);
    }
}

TEST_F(HalEntries, VirtualCamerasAreCutAt256WhateverTheNumberOfSerials) {
    world->virtualCameras = 300;
    void* entries[257] = {};
    std::uint64_t count = 0;
    ASSERT_EQ(HAL_1394GetVirtualCameras(entries, nullptr, &count), HAL_OK);
    EXPECT_EQ(count, 256u);
    EXPECT_NE(entries[255], nullptr);
    EXPECT_EQ(entries[256], nullptr);
}

TEST_F(HalEntries, NoVirtualCamerasMeansACountOfZero) {
    void* entries[256] = {};
    const std::uint64_t serials[] = {1, 2, 3};
    std::uint64_t count = 3;
    ASSERT_EQ(HAL_1394GetVirtualCameras(entries, serials, &count), HAL_OK);
    EXPECT_EQ(count, 0u);
}

}  // namespace
}  // namespace Nimbrel2::Platform::Testing
