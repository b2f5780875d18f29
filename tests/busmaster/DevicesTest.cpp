// SPDX-License-Identifier: Apache-2.0
// Device enumeration, and the release of handles, lists and entries.
#include "common/IEEE1394Interface.h"
#include "tests/busmaster/CoreFixture.h"
#include "tests/support/AllocationFailure.h"

namespace Nimbrel2 {
namespace {

using Testing::AllocationFailure;
using Testing::HalHooks;
using Device = Testing::ScriptedHal::DevicePointer;

class DevicesTest : public CoreTest {
protected:
    ~DevicesTest() override { Access::FreeDeviceList(&list); }

    HandleList list;
};

// ---- Listing -------------------------------------------------------------------------------------------------------

TEST_F(DevicesTest, AreNoneWhenTheHalHasNone) {
    ExpectOk(Access::GetDevices(&list));
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(Names{"HAL_1394GetDevices"}, hal.CallNames());
    EXPECT_EQ(256U, hal.Calls()[0].arguments[1]);
}

TEST_F(DevicesTest, AreListedIntoAZeroedArray) {
    std::vector<void*> given;
    hal.Replace(&HalHooks::HAL_1394GetDevices, [&](void** entries, std::uint64_t* count) -> std::uint32_t {
        given.assign(entries, entries + 256);
        *count = 0;
        return HAL_OK;
    });
    ExpectOk(Access::GetDevices(&list));
    EXPECT_EQ(std::vector<void*>(256), given);
}

TEST_F(DevicesTest, AreListedInTheOrderOfTheHal) {
    hal.AddFireWireDevice(0x10, 0x2);
    hal.AddFireWireDevice(0xABC, 0);
    ExpectOk(Access::GetDevices(&list));
    ASSERT_EQ(2U, list.size());
    // The HAL takes the place in the listing off info 3, so the same device has the same identifier at any place.
    EXPECT_EQ(HashOf("0102ffffffff"), list[0]->guid);
    EXPECT_EQ(HashOf("0abc0ffffffff"), list[1]->guid);
    for (const BusMasterHandle* handle : list) {
        EXPECT_EQ(0U, handle->serialNumber);
        EXPECT_NE(nullptr, dynamic_cast<IEEE1394Interface*>(handle->hwInterface.get()));
        EXPECT_EQ(1, handle->hwInterface.use_count());
    }
    EXPECT_EQ((Names{"HAL_1394GetDevices", "HAL_1394GetNode", "HAL_1394GetDeviceInfo", "HAL_1394GetNode",
                     "HAL_1394GetDeviceInfo"}),
              hal.CallNames());
    EXPECT_TRUE(traces.Lines().empty());
}

TEST_F(DevicesTest, HaveAnIdentifierOfInfo2Info1AndInfo3PlusTheirPlace) {
    for (int i = 0; i < 3; ++i) {
        const Device device = hal.AddFireWireDevice(0xB, 0xA);
        device->countInfo3FromListing = false;
        device->info[2] = 0xFFFFFFFE;
    }
    ExpectOk(Access::GetDevices(&list));
    ASSERT_EQ(3U, list.size());
    EXPECT_EQ(HashOf("0bafffffffe"), list[0]->guid);
    EXPECT_EQ(HashOf("0baffffffff"), list[1]->guid);
    EXPECT_EQ(HashOf("0ba0"), list[2]->guid);  // a 32-bit sum
}

TEST_F(DevicesTest, AreAppendedBehindWhatWasThere) {
    list.push_back(NewHandle(ZevoGuid{{9, 9, 9, 9}}, 0, new FakeInterface(INTERFACE_NONE)));
    hal.AddFireWireDevice(1, 2);
    ExpectOk(Access::GetDevices(&list));
    ASSERT_EQ(2U, list.size());
    EXPECT_EQ((ZevoGuid{{9, 9, 9, 9}}), list[0]->guid);
}

TEST_F(DevicesTest, ThatCannotTellTheirInfoAreLeftOutWithTheirPlaceKept) {
    for (std::size_t failing = 0; failing < 3; ++failing) {
        SCOPED_TRACE("device " + std::to_string(failing));
        hal.DetachAll();
        std::vector<Device> devices;
        for (int i = 0; i < 3; ++i) {
            devices.push_back(hal.AddFireWireDevice(1, 2));
            devices.back()->countInfo3FromListing = false;
        }
        devices[failing]->statuses["HAL_1394GetDeviceInfo"] = HAL_GONE;
        ExpectOk(Access::GetDevices(&list));
        ASSERT_EQ(2U, list.size());
        std::size_t at = 0;
        for (std::size_t place = 0; place < 3; ++place) {
            if (place != failing) {
                EXPECT_EQ(HashOf("012" + std::to_string(place)), list[at++]->guid);
            }
        }
        EXPECT_EQ(1U, hal.TimesFreed(hal.EntriesOf(devices[failing])[0]));
        Access::FreeDeviceList(&list);
    }
    hal.ExpectAllEntriesGivenBackOnce();
}

TEST_F(DevicesTest, AreAnErrorWhenTheHalFails) {
    hal.AddFireWireDevice(1, 2);
    hal.Replace(&HalHooks::HAL_1394GetDevices, [this](void** entries, std::uint64_t* count) -> std::uint32_t {
        entries[0] = &list;
        *count = 1;
        return 0xBEEF;
    });
    ExpectError(Access::GetDevices(&list), ERROR_LOW_LEVEL_FAILURE, "Could not get 1394 devices. Error: 0xbeef.");
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(Names{"HAL_1394GetDevices"}, hal.CallNames());
}

TEST_F(DevicesTest, AreCutAtTheArrayWhenTheHalClaimsMore) {
    for (std::uint32_t i = 0; i < 300; ++i) {
        hal.AddFireWireDevice(1, i);
    }
    hal.Replace(&HalHooks::HAL_1394GetDevices, [this](void** entries, std::uint64_t* count) -> std::uint32_t {
        hal.Defaults().HAL_1394GetDevices(entries, count);
        *count = std::uint64_t{1} << 40;
        return HAL_OK;
    });
    ExpectOk(Access::GetDevices(&list));
    EXPECT_EQ(256U, list.size());
    Access::FreeDeviceList(&list);
    hal.ExpectAllEntriesGivenBackOnce();
}

TEST_F(DevicesTest, AreListedAllOrNotAtAllWhicheverAllocationFails) {
    hal.AddFireWireDevice(1, 1);
    const Device leftOut = hal.AddFireWireDevice(1, 2);
    leftOut->statuses["HAL_1394GetDeviceInfo"] = HAL_GONE;
    hal.AddFireWireDevice(1, 3);
    int located = 0;
    for (std::uint64_t nth = 1;; ++nth) {
        SCOPED_TRACE("allocation " + std::to_string(nth));
        Error error;
        bool happened = false;
        {
            const AllocationFailure failure(nth);
            error = Access::GetDevices(&list);
            happened = failure.Happened();
        }
        EXPECT_EQ(error == ERROR_OK ? 2U : 0U, list.size());
        if (error != ERROR_OK) {
            EXPECT_EQ(ERROR_MEMORY_ALLOCATION_FAILED, error.GetType());
            if (*error.GetMessage() != '\0') {
                ExpectError(error, ERROR_MEMORY_ALLOCATION_FAILED, "Could not allocate the 1394 interface.");
                ++located;
            }
        }
        Access::FreeDeviceList(&list);
        HandleList().swap(list);  // the next round must need memory for it again
        hal.ExpectAllEntriesGivenBackOnce();
        if (!happened) {
            EXPECT_TRUE(error == ERROR_OK);
            break;
        }
    }
    EXPECT_EQ(9, located);
}

TEST_F(DevicesTest, AreGivenBackFromTheFailingOneOnAndThenTheEarlierOnes) {
    std::vector<Device> devices;
    for (std::uint32_t i = 0; i < 3; ++i) {
        devices.push_back(hal.AddFireWireDevice(1, i));
    }
    for (std::uint64_t nth = 1;; ++nth) {
        const std::size_t freedBefore = hal.FreedDevices().size();
        bool happened = false;
        {
            const AllocationFailure failure(nth);
            (void)Access::GetDevices(&list);
            happened = failure.Happened();
        }
        ASSERT_TRUE(happened) << "no failure came when one device had been made";
        Access::FreeDeviceList(&list);
        const std::vector<Device> freed = hal.FreedDevices();
        if (std::vector<Device>(freed.begin() + static_cast<std::ptrdiff_t>(freedBefore), freed.end()) ==
            (std::vector<Device>{devices[1], devices[2], devices[0]})) {
            break;
        }
    }
    hal.ExpectAllEntriesGivenBackOnce();
}

// ---- Releasing handles ---------------------------------------------------------------------------------------------

class ReleaseTest : public CoreTest {};

TEST_F(ReleaseTest, IgnoresNullLists) {
    Access::FreeCamera(nullptr);
    Access::FreeCameraList(nullptr);
    Access::FreeDeviceList(nullptr);
    EXPECT_TRUE(hal.Calls().empty());
}

TEST_F(ReleaseTest, LeavesEmptyListsEmpty) {
    HandleList list;
    Access::FreeCameraList(&list);
    Access::FreeDeviceList(&list);
    EXPECT_TRUE(list.empty());
    EXPECT_TRUE(hal.Calls().empty());
}

TEST_F(ReleaseTest, OfCamerasGivesEachBackOnceFirstEntryFirst) {
    const std::vector<Device> cameras{hal.AddFireWireCamera(3), hal.AddFireWireCamera(1), hal.AddFireWireCamera(2)};
    HandleList list;
    ExpectOk(Access::Get1394Cameras(&list));
    const std::size_t capacity = list.capacity();
    hal.ClearCalls();
    Access::FreeCameraList(&list);
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(capacity, list.capacity());
    EXPECT_EQ(cameras, hal.FreedDevices());
    EXPECT_EQ((Names{"HAL_1394FreeCamera", "HAL_1394FreeCamera", "HAL_1394FreeCamera"}), hal.CallNames());
    hal.ExpectAllEntriesGivenBackOnce();
}

TEST_F(ReleaseTest, OfDevicesGivesEachBackOnceAsADevice) {
    const std::vector<Device> devices{hal.AddFireWireDevice(1, 2), hal.AddFireWireDevice(1, 1)};
    HandleList list;
    ExpectOk(Access::GetDevices(&list));
    hal.ClearCalls();
    Access::FreeDeviceList(&list);
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(devices, hal.FreedDevices());
    EXPECT_EQ((Names{"HAL_1394FreeDevice", "HAL_1394FreeDevice"}), hal.CallNames());
    hal.ExpectAllEntriesGivenBackOnce();
}

TEST_F(ReleaseTest, IgnoresWhatTheHalAnswers) {
    hal.AddUsbCamera(1);
    HandleList list;
    ExpectOk(Access::GetUSBCameras(&list));
    hal.Fail("HAL_UsbFreeCamera", 0, HAL_FAILED);
    Access::FreeCameraList(&list);
    EXPECT_TRUE(list.empty());
    EXPECT_TRUE(traces.Lines().empty());
}

TEST_F(ReleaseTest, OfACameraDestroysItsInterfaceWithTheLastShareOnly) {
    hal.AddUsbCamera(1);
    HandleList list;
    ExpectOk(Access::GetUSBCameras(&list));
    const boost::shared_ptr<HardwareInterface> share = list[0]->hwInterface;
    Access::FreeCamera(list[0]);
    hal.ExpectAllEntriesGivenBackOnce();
    EXPECT_EQ(1, share.use_count());
    std::uint32_t value = 0;
    EXPECT_EQ(HAL_GONE, share->ReadRegister(0, 0xFFFFFFFF, &value));
}

using ReleaseDeathTest = ReleaseTest;

// A handle without an interface is a broken promise of ours: the program ends rather than going on with it.
TEST_F(ReleaseDeathTest, EndsTheProgramForAHandleWithoutAnInterface) {
    BusMasterHandle handle;
    HandleList list{&handle};
    EXPECT_DEATH(Access::FreeCamera(&handle), "");
    EXPECT_DEATH(Access::FreeCameraList(&list), "");
    EXPECT_DEATH(Access::FreeDeviceList(&list), "");
}

// ---- Giving back entries that were never wrapped -------------------------------------------------------------------

struct Giver {
    const char* name;
    void (*give)(void**, unsigned int end, unsigned int start);
    const char* function;
};

void PrintTo(const Giver& giver, std::ostream* stream) { *stream << giver.name; }

class GiveBackTest : public CoreTest, public ::testing::WithParamInterface<Giver> {
protected:
    GiveBackTest() {
        hal.Replace(&HalHooks::HAL_1394FreeCamera, &Accept);
        hal.Replace(&HalHooks::HAL_1394FreeDevice, &Accept);
        hal.Replace(&HalHooks::HAL_UsbFreeCamera, &Accept);
        hal.Replace(&HalHooks::HAL_GigEFreeCamera, &Accept);
    }

    static std::uint32_t Accept(void*) { return HAL_OK; }

    // The places of the entries that were given back, in order.
    std::vector<long> GivenBack() {
        std::vector<long> places;
        for (const Testing::HalCall& call : hal.Calls()) {
            EXPECT_EQ(GetParam().function, call.function);
            places.push_back(static_cast<char*>(call.Entry()) - devices);
        }
        hal.ClearCalls();
        return places;
    }

    char devices[4] = {};
    void* entries[4] = {&devices[0], &devices[1], &devices[2], &devices[3]};
};

INSTANTIATE_TEST_SUITE_P(Buses, GiveBackTest,
                         ::testing::Values(Giver{"IEEE1394Cameras", &Access::Free1394HALCameras, "HAL_1394FreeCamera"},
                                           Giver{"IEEE1394Devices", &Access::Free1394HALDevices, "HAL_1394FreeDevice"},
                                           Giver{"UsbCameras", &Access::FreeUsbHALDevices, "HAL_UsbFreeCamera"},
                                           Giver{"GigECameras", &Access::FreeGigEHALDevices, "HAL_GigEFreeCamera"}),
                         [](const auto& instance) { return std::string(instance.param.name); });

TEST_P(GiveBackTest, TakesTheEndBeforeTheStart) {
    GetParam().give(entries, 3, 1);
    EXPECT_EQ((std::vector<long>{1, 2}), GivenBack());
    GetParam().give(entries, 4, 0);
    EXPECT_EQ((std::vector<long>{0, 1, 2, 3}), GivenBack());
    GetParam().give(entries, 4, 3);
    EXPECT_EQ((std::vector<long>{3}), GivenBack());
}

TEST_P(GiveBackTest, DoesNothingWhenTheStartIsNotBelowTheEnd) {
    GetParam().give(entries, 2, 2);
    GetParam().give(entries, 2, 3);
    GetParam().give(entries, 0, 0);
    GetParam().give(nullptr, 0, 0);
    EXPECT_TRUE(GivenBack().empty());
}

}  // namespace
}  // namespace Nimbrel2
