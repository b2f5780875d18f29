// SPDX-License-Identifier: Apache-2.0
// Camera enumeration: each bus on its own, then the three together and the virtual cameras behind them.
#include <algorithm>
#include <array>
#include <functional>
#include <future>
#include <numeric>
#include <set>
#include <utility>

#include "common/GigEInterface.h"
#include "common/IEEE1394Interface.h"
#include "common/UsbInterface.h"
#include "tests/busmaster/CoreFixture.h"
#include "tests/support/AllocationFailure.h"
#include "tests/support/ThreadStartFailure.h"

namespace Nimbrel2 {
namespace {

using Testing::AllocationFailure;
using Testing::HalHooks;
using Testing::ScriptedHal;
using Testing::ThreadStartFailure;
using Device = ScriptedHal::DevicePointer;
using Listing = std::function<std::uint32_t(void** entries, std::uint64_t* count)>;

constexpr std::uint32_t SomeAddress = 0xC0A8000A;

std::vector<std::uint32_t> SerialNumbers(const HandleList& list) {
    std::vector<std::uint32_t> serialNumbers;
    for (const BusMasterHandle* handle : list) {
        serialNumbers.push_back(handle->serialNumber);
    }
    return serialNumbers;
}

class CameraListTest : public CoreTest {
protected:
    ~CameraListTest() override { Access::FreeCameraList(&list); }

    HandleList list;
};

// ---- What all buses share ------------------------------------------------------------------------------------------

struct Bus {
    const char* name;
    Error (*list)(HandleList*);
    Device (*attach)(ScriptedHal&, std::uint32_t serialNumber);
    void (*replaceListing)(ScriptedHal&, Listing);
    const char* listFunction;
    std::uint64_t capacity;
    std::uint64_t countGiven;  // to the listing
    const char* configFunction;
    const char* freeFunction;
    const char* allocationMessage;
    Names callsForOneCamera;
    InterfaceType type;
    std::string keyEnd;  // what follows the serial number in the key of a camera's guid
};

void PrintTo(const Bus& bus, std::ostream* stream) { *stream << bus.name; }

const Bus Buses[] = {
    {"IEEE1394",
     &Access::Get1394Cameras,
     [](ScriptedHal& hal, std::uint32_t serialNumber) { return hal.AddFireWireCamera(serialNumber); },
     [](ScriptedHal& hal, Listing listing) { hal.Replace(&HalHooks::HAL_1394GetCameras, std::move(listing)); },
     "HAL_1394GetCameras",
     256,
     256,
     "HAL_1394GetConfigInfo",
     "HAL_1394FreeCamera",
     "Could not allocate the 1394 interface.",
     {"HAL_1394GetNode", "HAL_1394GetConfigInfo"},
     INTERFACE_IEEE1394,
     ""},
    {"Usb",
     &Access::GetUSBCameras,
     [](ScriptedHal& hal, std::uint32_t serialNumber) { return hal.AddUsbCamera(serialNumber); },
     [](ScriptedHal& hal, Listing listing) { hal.Replace(&HalHooks::HAL_UsbGetCameras, std::move(listing)); },
     "HAL_UsbGetCameras",
     128,
     128,
     "HAL_UsbGetConfigInfo",
     "HAL_UsbFreeCamera",
     "Could not allocate the USB interface.",
     {"HAL_UsbGetConfigInfo"},
     INTERFACE_USB_3,
     ""},
    {"GigE",
     &Access::GetGigECameras,
     [](ScriptedHal& hal, std::uint32_t serialNumber) { return hal.AddGigECamera(serialNumber, SomeAddress); },
     [](ScriptedHal& hal, Listing listing) { hal.Replace(&HalHooks::HAL_GigEGetCameras, std::move(listing)); },
     "HAL_GigEGetCameras",
     128,
     128,
     "HAL_GigEGetConfigInfo",
     "HAL_GigEFreeCamera",
     "Could not allocate the GigE interface.",
     {"HAL_GigEIsInMonitorMode", "HAL_GigEReadRegister", "HAL_GigEGetConfigInfo"},
     INTERFACE_GIGE,
     "c0a8000a0"},
    {"Virtual",
     &Access::GetVirtualCameras,
     [](ScriptedHal& hal, std::uint32_t serialNumber) { return hal.AddVirtualCamera(serialNumber); },
     [](ScriptedHal& hal, Listing listing) {
         hal.Replace(&HalHooks::HAL_1394GetVirtualCameras,
                     [listing = std::move(listing)](void** entries, const std::uint64_t*, std::uint64_t* count) {
                         return listing(entries, count);
                     });
     },
     "HAL_1394GetVirtualCameras",
     256,
     0,
     "HAL_1394GetConfigInfo",
     "HAL_1394FreeCamera",
     "Could not allocate the 1394 interface.",
     {"HAL_1394GetNode", "HAL_1394GetConfigInfo"},
     INTERFACE_IEEE1394,
     ""},
};

class OneBusTest : public CameraListTest, public ::testing::WithParamInterface<Bus> {
protected:
    const Bus& bus = GetParam();

    std::vector<Device> Attach(std::initializer_list<std::uint32_t> serialNumbers) {
        std::vector<Device> devices;
        for (const std::uint32_t serialNumber : serialNumbers) {
            devices.push_back(bus.attach(hal, serialNumber));
        }
        return devices;
    }

    // A listing that plays the attached devices and then says something else.
    void LieAboutTheListing(std::function<std::uint32_t(void** entries, std::uint64_t* count)> lie) {
        const HalHooks& defaults = hal.Defaults();
        const Listing listing = bus.listFunction == std::string("HAL_1394GetCameras")  ? defaults.HAL_1394GetCameras
                                : bus.listFunction == std::string("HAL_UsbGetCameras") ? defaults.HAL_UsbGetCameras
                                : bus.listFunction == std::string("HAL_GigEGetCameras")
                                    ? defaults.HAL_GigEGetCameras
                                    : Listing([&defaults](void** entries, std::uint64_t* count) {
                                          return defaults.HAL_1394GetVirtualCameras(entries, nullptr, count);
                                      });
        bus.replaceListing(hal, [listing, lie = std::move(lie)](void** entries, std::uint64_t* count) {
            listing(entries, count);
            return lie(entries, count);
        });
    }

    std::string Key(std::uint32_t serialNumber, const std::string& vendor = "Vendor",
                    const std::string& model = "Model") const {
        return vendor + "&" + model + "&" + Hex(serialNumber) + bus.keyEnd;
    }
};

INSTANTIATE_TEST_SUITE_P(Buses, OneBusTest, ::testing::ValuesIn(Buses),
                         [](const auto& instance) { return std::string(instance.param.name); });

TEST_P(OneBusTest, WithNoCamerasLeavesTheListAlone) {
    ExpectOk(bus.list(&list));
    EXPECT_TRUE(list.empty());
    EXPECT_EQ(Names{bus.listFunction}, hal.CallNames());
}

TEST_P(OneBusTest, GivesTheHalAZeroedArrayAndItsCapacity) {
    std::vector<void*> given;
    std::uint64_t countGiven = 0;
    bus.replaceListing(hal, [&](void** entries, std::uint64_t* count) -> std::uint32_t {
        given.assign(entries, entries + bus.capacity);
        countGiven = *count;
        *count = 0;
        return HAL_OK;
    });
    ExpectOk(bus.list(&list));
    EXPECT_EQ(std::vector<void*>(bus.capacity), given);
    EXPECT_EQ(bus.countGiven, countGiven);
}

TEST_P(OneBusTest, ListsCamerasInTheOrderOfTheHal) {
    Attach({30, 10, 20});
    ExpectOk(bus.list(&list));
    EXPECT_EQ((std::vector<std::uint32_t>{30, 10, 20}), SerialNumbers(list));
    for (const BusMasterHandle* handle : list) {
        EXPECT_EQ(HashOf(Key(handle->serialNumber)), handle->guid);
        ASSERT_TRUE(handle->hwInterface);
        EXPECT_EQ(bus.type, handle->hwInterface->GetInterfaceType());
        EXPECT_EQ(1, handle->hwInterface.use_count());
    }
}

TEST_P(OneBusTest, AsksTheHalForEachCameraInTurn) {
    const std::vector<Device> devices = Attach({1, 2});
    ExpectOk(bus.list(&list));
    Names expected{bus.listFunction};
    for (int camera = 0; camera < 2; ++camera) {
        expected.insert(expected.end(), bus.callsForOneCamera.begin(), bus.callsForOneCamera.end());
    }
    EXPECT_EQ(expected, hal.CallNames());
    const std::vector<Testing::HalCall> config = hal.Calls(bus.configFunction);
    ASSERT_EQ(2U, config.size());
    for (std::size_t i = 0; i < 2; ++i) {
        EXPECT_EQ(devices[i], hal.DeviceOf(config[i].Entry()));
        ASSERT_EQ(10U, config[i].arguments.size());
        for (const std::size_t number : {1, 2, 3, 4, 5}) {
            EXPECT_EQ(0U, config[i].arguments[number]) << "number " << number << " before the call";
        }
        EXPECT_EQ(512U, config[i].arguments[8]);
        EXPECT_EQ(512U, config[i].arguments[9]);
    }
}

TEST_P(OneBusTest, GivesTheHalZeroedTextBuffers) {
    Attach({1});
    std::array<char, 1024> before{};
    before.fill('x');
    const auto config = [&](void*, std::uint32_t*, std::uint32_t*, std::uint32_t*, std::uint32_t*, std::uint32_t*,
                            char* vendor, char* model, std::uint32_t*, std::uint32_t*) -> std::uint32_t {
        std::copy_n(vendor, 512, before.begin());
        std::copy_n(model, 512, before.begin() + 512);
        return HAL_OK;
    };
    hal.Replace(&HalHooks::HAL_1394GetConfigInfo, config);
    hal.Replace(&HalHooks::HAL_UsbGetConfigInfo, config);
    hal.Replace(&HalHooks::HAL_GigEGetConfigInfo, config);
    ExpectOk(bus.list(&list));
    EXPECT_EQ((std::array<char, 1024>{}), before);
    ASSERT_EQ(1U, list.size());
    EXPECT_EQ(HashOf(Key(0, "", "")), list[0]->guid);
}

TEST_P(OneBusTest, AppendsBehindWhatWasThere) {
    auto* const before = NewHandle(ZevoGuid{{1, 2, 3, 4}}, 5, new FakeInterface(INTERFACE_NONE));
    list.push_back(before);
    Attach({7});
    ExpectOk(bus.list(&list));
    ASSERT_EQ(2U, list.size());
    EXPECT_EQ(before, list[0]);
    EXPECT_EQ(7U, list[1]->serialNumber);
}

TEST_P(OneBusTest, TakesAHalThatFailsForABusWithoutCamerasAndFreesNothing) {
    Attach({1, 2});
    for (const std::uint32_t status : {HAL_FAILED, HAL_PERMISSION, HAL_NO_BUS}) {
        // What a failed listing left in the array and in the count is meaningless.
        bus.replaceListing(hal, [&](void** entries, std::uint64_t* count) -> std::uint32_t {
            entries[0] = &list;
            *count = 1;
            return status;
        });
        hal.ClearCalls();
        ExpectOk(bus.list(&list));
        EXPECT_TRUE(list.empty());
        EXPECT_EQ(Names{bus.listFunction}, hal.CallNames());
    }
}

TEST_P(OneBusTest, TakesNoMoreThanItsArrayHolds) {
    for (std::uint32_t serialNumber = 0; serialNumber < bus.capacity + 20; ++serialNumber) {
        bus.attach(hal, serialNumber);
    }
    LieAboutTheListing([](void**, std::uint64_t* count) -> std::uint32_t {
        *count = (std::uint64_t{1} << 32) + 5;
        return HAL_OK;
    });
    ExpectOk(bus.list(&list));
    EXPECT_EQ(bus.capacity, list.size());
    EXPECT_EQ(bus.capacity - 1, list.back()->serialNumber);
    Access::FreeCameraList(&list);
    hal.ExpectAllEntriesGivenBackOnce();
}

TEST_P(OneBusTest, EndsTextsThatFillTheirBufferAndCountsTheirBytesAsPositive) {
    const std::vector<Device> devices = Attach({1, 2});
    devices[0]->unterminatedTexts = true;
    devices[0]->vendor = std::string(512, '\xFF');
    devices[0]->model = std::string(512, 'm');
    devices[1]->vendor = "\x80\xC4";
    devices[1]->model = "";
    ExpectOk(bus.list(&list));
    ASSERT_EQ(2U, list.size());
    EXPECT_EQ(HashOf(Key(1, std::string(511, '\xFF'), std::string(511, 'm'))), list[0]->guid);
    EXPECT_EQ(HashOf(Key(2, "\x80\xC4", "")), list[1]->guid);
}

TEST_P(OneBusTest, GivesEveryEntryBackOnceWhenTheListIsFreed) {
    const std::vector<Device> devices = Attach({1, 2, 3});
    ExpectOk(bus.list(&list));
    Access::FreeCameraList(&list);
    hal.ExpectAllEntriesGivenBackOnce();
    EXPECT_EQ(devices, hal.FreedDevices());
    EXPECT_EQ(3U, hal.Count(bus.freeFunction));
}

// Each allocation in turn fails once. Whatever it was for, a bus is listed whole or not at all, and no entry is lost.
TEST_P(OneBusTest, ListsAllOrNothingWhicheverAllocationFails) {
    Attach({1, 2, 3});
    int located = 0;
    for (std::uint64_t nth = 1;; ++nth) {
        SCOPED_TRACE("allocation " + std::to_string(nth));
        HandleList found;
        Error error;
        bool happened = false;
        {
            const AllocationFailure failure(nth);
            error = bus.list(&found);
            happened = failure.Happened();
        }
        if (error == ERROR_OK) {
            EXPECT_EQ(3U, found.size());  // a failure that cost a trace only
            Access::FreeCameraList(&found);
            hal.ExpectAllEntriesGivenBackOnce();
            if (!happened) {
                break;
            }
            continue;
        }
        EXPECT_TRUE(found.empty());
        EXPECT_EQ(ERROR_MEMORY_ALLOCATION_FAILED, error.GetType());
        if (*error.GetMessage() != '\0') {
            ExpectError(error, ERROR_MEMORY_ALLOCATION_FAILED, bus.allocationMessage);
            ++located;
        }
        hal.ExpectAllEntriesGivenBackOnce();
    }
    // The handle, the interface and what shares it, for each of the three cameras.
    EXPECT_EQ(9, located);
}

TEST_P(OneBusTest, GivesBackTheEntriesFromTheFailingOneOnAndThenTheEarlierOnes) {
    const std::vector<Device> devices = Attach({1, 2, 3, 4});
    // The interface of the third camera: the handle, the interface and its counter for each, behind two lists.
    for (std::uint64_t nth = 1;; ++nth) {
        const std::size_t freedBefore = hal.FreedDevices().size();
        HandleList found;
        Error error;
        bool happened = false;
        {
            const AllocationFailure failure(nth);
            error = bus.list(&found);
            happened = failure.Happened();
        }
        ASSERT_TRUE(happened) << "no failure came when two cameras had been made";
        Access::FreeCameraList(&found);
        const std::vector<Device> freed = hal.FreedDevices();
        const std::vector<Device> order(freed.begin() + static_cast<std::ptrdiff_t>(freedBefore), freed.end());
        if (order == (std::vector<Device>{devices[2], devices[3], devices[0], devices[1]})) {
            ExpectError(error, ERROR_MEMORY_ALLOCATION_FAILED, bus.allocationMessage);
            break;
        }
    }
    hal.ExpectAllEntriesGivenBackOnce();
}

// ---- IEEE 1394 and virtual cameras: one that cannot be identified drops the bus ------------------------------------

class FireWireKindTest : public OneBusTest {};

INSTANTIATE_TEST_SUITE_P(Buses, FireWireKindTest, ::testing::Values(Buses[0], Buses[3]),
                         [](const auto& instance) { return std::string(instance.param.name); });

TEST_P(FireWireKindTest, DropsTheBusWhenACameraCannotBeIdentified) {
    for (std::size_t failing = 0; failing < 3; ++failing) {
        SCOPED_TRACE("camera " + std::to_string(failing));
        hal.DetachAll();
        const std::vector<Device> devices = Attach({1, 2, 3});
        devices[failing]->statuses["HAL_1394GetConfigInfo"] = 0xABCD;
        const std::size_t freedBefore = hal.FreedDevices().size();
        ExpectError(bus.list(&list), ERROR_LOW_LEVEL_FAILURE,
                    "Could not read the 1394 device config info. Error: 0xabcd.");
        EXPECT_TRUE(list.empty());
        std::vector<Device> order(devices.begin() + static_cast<std::ptrdiff_t>(failing), devices.end());
        order.insert(order.end(), devices.begin(), devices.begin() + static_cast<std::ptrdiff_t>(failing));
        const std::vector<Device> freed = hal.FreedDevices();
        EXPECT_EQ(order, std::vector<Device>(freed.begin() + static_cast<std::ptrdiff_t>(freedBefore), freed.end()));
    }
    hal.ExpectAllEntriesGivenBackOnce();
}

TEST_P(FireWireKindTest, KeepsWhatWasInTheListWhenTheBusIsDropped) {
    list.push_back(NewHandle(ZevoGuid{}, 5, new FakeInterface(INTERFACE_NONE)));
    Attach({1})[0]->statuses["HAL_1394GetConfigInfo"] = HAL_GONE;
    EXPECT_TRUE(bus.list(&list) == ERROR_LOW_LEVEL_FAILURE);
    EXPECT_EQ((std::vector<std::uint32_t>{5}), SerialNumbers(list));
}

TEST_F(CameraListTest, Of1394TracesTheCountOfTheHal) {
    hal.AddFireWireCamera(1);
    hal.AddFireWireCamera(2);
    ExpectOk(Access::Get1394Cameras(&list));
    EXPECT_EQ(Names{"HAL_1394GetCameras returned : 2"}, traces.Lines());
}

TEST_F(CameraListTest, Of1394TracesNothingWhenTheHalFails) {
    hal.Fail("HAL_1394GetCameras", 1, HAL_FAILED);
    ExpectOk(Access::Get1394Cameras(&list));
    EXPECT_TRUE(traces.Lines().empty());
}

TEST_F(CameraListTest, OfTheOtherBusesTracesNothing) {
    hal.AddUsbCamera(1);
    hal.AddGigECamera(2, SomeAddress);
    hal.AddVirtualCamera(3);
    ExpectOk(Access::GetUSBCameras(&list));
    ExpectOk(Access::GetGigECameras(&list));
    ExpectOk(Access::GetVirtualCameras(&list));
    EXPECT_TRUE(traces.Lines().empty());
}

TEST_F(CameraListTest, Of1394KeepsNodeAndBusNumber) {
    hal.AddFireWireCamera(1, 5, 2);
    ExpectOk(Access::Get1394Cameras(&list));
    auto* const camera = dynamic_cast<IEEE1394Interface*>(list[0]->hwInterface.get());
    ASSERT_NE(nullptr, camera);
    std::uint16_t node = 0;
    std::uint16_t busNumber = 0;
    camera->GetCameraNode(&node);
    camera->GetCameraBusNum(&busNumber);
    EXPECT_EQ(5, node);
    EXPECT_EQ(2, busNumber);
}

// ---- USB: one that cannot be identified is left out and given back -------------------------------------------------

class UsbCamerasTest : public CameraListTest {};

TEST_F(UsbCamerasTest, LeavesOutACameraThatCannotBeIdentifiedAndGivesItBackAtOnce) {
    for (std::size_t failing = 0; failing < 3; ++failing) {
        SCOPED_TRACE("camera " + std::to_string(failing));
        hal.DetachAll();
        const std::vector<Device> devices{hal.AddUsbCamera(0), hal.AddUsbCamera(1), hal.AddUsbCamera(2)};
        devices[failing]->statuses["HAL_UsbGetConfigInfo"] = HAL_GONE;
        hal.ClearCalls();
        ExpectOk(Access::GetUSBCameras(&list));
        std::vector<std::uint32_t> expected{0, 1, 2};
        expected.erase(expected.begin() + static_cast<std::ptrdiff_t>(failing));
        EXPECT_EQ(expected, SerialNumbers(list));
        Names calls{"HAL_UsbGetCameras", "HAL_UsbGetConfigInfo", "HAL_UsbGetConfigInfo", "HAL_UsbGetConfigInfo"};
        calls.insert(calls.begin() + 2 + static_cast<std::ptrdiff_t>(failing), "HAL_UsbFreeCamera");
        EXPECT_EQ(calls, hal.CallNames());
        EXPECT_EQ(1U, hal.TimesFreed(hal.EntriesOf(devices[failing])[0]));
        Access::FreeCameraList(&list);
    }
    hal.ExpectAllEntriesGivenBackOnce();
}

TEST_F(UsbCamerasTest, MayLeaveOutAll) {
    for (const std::uint32_t serialNumber : {1U, 2U}) {
        hal.AddUsbCamera(serialNumber)->statuses["HAL_UsbGetConfigInfo"] = HAL_PERMISSION;
    }
    ExpectOk(Access::GetUSBCameras(&list));
    EXPECT_TRUE(list.empty());
    hal.ExpectAllEntriesGivenBackOnce();
}

TEST_F(UsbCamerasTest, GivesALeftOutCameraBackOnceWhenALaterOneFails) {
    hal.AddUsbCamera(1);
    hal.AddUsbCamera(2)->statuses["HAL_UsbGetConfigInfo"] = HAL_GONE;
    hal.AddUsbCamera(3);
    for (std::uint64_t nth = 1;; ++nth) {
        const AllocationFailure failure(nth);
        HandleList found;
        const bool listed = Access::GetUSBCameras(&found) == ERROR_OK;
        const AllocationFailure::Pause pause;
        EXPECT_EQ(listed ? 2U : 0U, found.size());
        Access::FreeCameraList(&found);
        hal.ExpectAllEntriesGivenBackOnce();
        if (!failure.Happened()) {
            break;
        }
    }
}

TEST_F(UsbCamerasTest, AreUsbInterfacesOfTheirLinksKind) {
    hal.AddUsbCamera(1, 480);
    hal.AddUsbCamera(2, 5000);
    ExpectOk(Access::GetUSBCameras(&list));
    EXPECT_NE(nullptr, dynamic_cast<UsbInterface*>(list[0]->hwInterface.get()));
    EXPECT_EQ(INTERFACE_USB_2, list[0]->hwInterface->GetInterfaceType());
    EXPECT_EQ(INTERFACE_USB_3, list[1]->hwInterface->GetInterfaceType());
}

// ---- GigE: the address is part of the identifier, and one without an address drops the bus -------------------------

class GigECamerasTest : public CameraListTest {
protected:
    std::vector<Device> Attach(std::initializer_list<std::uint32_t> serialNumbers) {
        std::vector<Device> devices;
        for (const std::uint32_t serialNumber : serialNumbers) {
            devices.push_back(hal.AddGigECamera(serialNumber, SomeAddress + serialNumber));
        }
        return devices;
    }
};

TEST_F(GigECamerasTest, ReadTheirAddressFromTheBootstrapRegister) {
    const Device camera = Attach({1})[0];
    camera->registers[0x24] = 0x0A000001;
    ExpectOk(Access::GetGigECameras(&list));
    const std::vector<Testing::HalCall> reads = hal.Calls("HAL_GigEReadRegister");
    ASSERT_EQ(1U, reads.size());
    EXPECT_EQ(0x24U, reads[0].arguments[1]);
    EXPECT_EQ(0U, reads[0].arguments[2]);
    EXPECT_EQ(0U, hal.Count("HAL_GigEGetCameraIpAddress"));
    EXPECT_EQ(HashOf("Vendor&Model&1a0000010"), list[0]->guid);
}

TEST_F(GigECamerasTest, InMonitorModeAreAskedOfTheHalInstead) {
    const Device camera = Attach({1})[0];
    camera->monitor = 1;
    camera->ipAddress = 0x0A000001;
    ExpectOk(Access::GetGigECameras(&list));
    EXPECT_EQ(
        (Names{"HAL_GigEGetCameras", "HAL_GigEIsInMonitorMode", "HAL_GigEGetCameraIpAddress", "HAL_GigEGetConfigInfo"}),
        hal.CallNames());
    const std::vector<Testing::HalCall> asked = hal.Calls("HAL_GigEGetCameraIpAddress");
    EXPECT_EQ(camera, hal.DeviceOf(asked[0].Entry()));
    EXPECT_EQ(0U, asked[0].arguments[1]);
    EXPECT_EQ(HashOf("Vendor&Model&1a0000010"), list[0]->guid);
}

TEST_F(GigECamerasTest, HaveTheSameIdentifierWatchedOrControlled) {
    const Device camera = Attach({1})[0];
    ExpectOk(Access::GetGigECameras(&list));
    hal.Change([&] { camera->monitor = 1; });
    ExpectOk(Access::GetGigECameras(&list));
    EXPECT_EQ(list[0]->guid, list[1]->guid);
}

TEST_F(GigECamerasTest, HaveAnotherIdentifierAtAnotherAddress) {
    const Device camera = Attach({1})[0];
    ExpectOk(Access::GetGigECameras(&list));
    hal.Change([&] { camera->registers[0x24] = 0x0A000001; });
    ExpectOk(Access::GetGigECameras(&list));
    EXPECT_FALSE(list[0]->guid == list[1]->guid);
}

struct AddressFailure {
    const char* function;
    std::uint32_t monitor;
};

TEST_F(GigECamerasTest, AreDroppedWhenAnAddressCannotBeRead) {
    for (const AddressFailure& row :
         {AddressFailure{"HAL_GigEReadRegister", 0}, AddressFailure{"HAL_GigEGetCameraIpAddress", 1}}) {
        for (std::size_t failing = 0; failing < 3; ++failing) {
            SCOPED_TRACE(std::string(row.function) + " of camera " + std::to_string(failing));
            hal.DetachAll();
            const std::vector<Device> devices = Attach({1, 2, 3});
            devices[failing]->monitor = row.monitor;
            devices[failing]->statuses[row.function] = HAL_TIMED_OUT;
            const std::size_t freedBefore = hal.FreedDevices().size();
            ExpectError(Access::GetGigECameras(&list), ERROR_LOW_LEVEL_FAILURE, "Could not Read Camera IP address.");
            EXPECT_TRUE(list.empty());
            std::vector<Device> order(devices.begin() + static_cast<std::ptrdiff_t>(failing), devices.end());
            order.insert(order.end(), devices.begin(), devices.begin() + static_cast<std::ptrdiff_t>(failing));
            const std::vector<Device> freed = hal.FreedDevices();
            EXPECT_EQ(order,
                      std::vector<Device>(freed.begin() + static_cast<std::ptrdiff_t>(freedBefore), freed.end()));
        }
    }
    hal.ExpectAllEntriesGivenBackOnce();
}

TEST_F(GigECamerasTest, LeaveOutOneThatCannotBeIdentifiedWithItsEntryLeftToTheHal) {
    std::vector<Device> left;
    for (std::size_t failing = 0; failing < 3; ++failing) {
        hal.DetachAll();
        const std::vector<Device> devices = Attach({0, 1, 2});
        devices[failing]->statuses["HAL_GigEGetConfigInfo"] = HAL_GONE;
        left.push_back(devices[failing]);
        ExpectOk(Access::GetGigECameras(&list));
        std::vector<std::uint32_t> expected{0, 1, 2};
        expected.erase(expected.begin() + static_cast<std::ptrdiff_t>(failing));
        EXPECT_EQ(expected, SerialNumbers(list));
        Access::FreeCameraList(&list);
    }
    hal.ExpectAllEntriesGivenBackOnce(left);
}

TEST_F(GigECamerasTest, LeaveALeftOutOneToTheHalWhenALaterOneDropsTheBus) {
    const std::vector<Device> devices = Attach({1, 2, 3, 4});
    devices[1]->statuses["HAL_GigEGetConfigInfo"] = HAL_GONE;
    devices[2]->statuses["HAL_GigEReadRegister"] = HAL_TIMED_OUT;
    EXPECT_TRUE(Access::GetGigECameras(&list) == ERROR_LOW_LEVEL_FAILURE);
    hal.ExpectAllEntriesGivenBackOnce({devices[1]});
    EXPECT_EQ((std::vector<Device>{devices[2], devices[3], devices[0]}), hal.FreedDevices());
}

TEST_F(GigECamerasTest, AreAskedForTheirAddressBeforeTheirIdentification) {
    const Device camera = Attach({1})[0];
    camera->statuses["HAL_GigEReadRegister"] = HAL_TIMED_OUT;
    camera->statuses["HAL_GigEGetConfigInfo"] = HAL_GONE;
    EXPECT_TRUE(Access::GetGigECameras(&list) == ERROR_LOW_LEVEL_FAILURE);
    EXPECT_EQ(0U, hal.Count("HAL_GigEGetConfigInfo"));
}

// ---- Virtual cameras -----------------------------------------------------------------------------------------------

class VirtualCamerasTest : public CameraListTest {
protected:
    // What the HAL was told at its next listing of virtual cameras.
    struct Told {
        std::vector<std::uint64_t> serialNumbers;
        std::uint64_t count = 0;
    };

    std::shared_ptr<Told> Listen() {
        auto told = std::make_shared<Told>();
        hal.Replace(&HalHooks::HAL_1394GetVirtualCameras,
                    [this, told](void** entries, const std::uint64_t* serialNumbers, std::uint64_t* count) {
                        told->serialNumbers.assign(serialNumbers, serialNumbers + 256);
                        told->count = *count;
                        return hal.Defaults().HAL_1394GetVirtualCameras(entries, serialNumbers, count);
                    });
        return told;
    }
};

TEST_F(VirtualCamerasTest, AreListedWithTheSerialNumbersOfTheCamerasBefore) {
    hal.AddFireWireCamera(0xFFFFFFFF);
    hal.AddFireWireCamera(7);
    hal.AddVirtualCamera(3);
    ExpectOk(Access::Get1394Cameras(&list));
    const auto told = Listen();
    ExpectOk(Access::GetVirtualCameras(&list));
    std::vector<std::uint64_t> expected(256);
    expected[0] = 0xFFFFFFFF;
    expected[1] = 7;
    EXPECT_EQ(expected, told->serialNumbers);
    EXPECT_EQ(2U, told->count);
    EXPECT_EQ((std::vector<std::uint32_t>{0xFFFFFFFF, 7, 3}), SerialNumbers(list));
}

TEST_F(VirtualCamerasTest, AreToldOfNoMoreThan256Cameras) {
    for (std::uint32_t serialNumber = 0; serialNumber < 300; ++serialNumber) {
        list.push_back(NewHandle(ZevoGuid{}, serialNumber, new FakeInterface(INTERFACE_NONE)));
    }
    const auto told = Listen();
    ExpectOk(Access::GetVirtualCameras(&list));
    EXPECT_EQ(256U, told->count);
    EXPECT_EQ(255U, told->serialNumbers.back());
    EXPECT_EQ(300U, list.size());
}

TEST_F(VirtualCamerasTest, HaveTheLow24BitsInTheirIdentifierAndKeepTheWholeNumber) {
    hal.AddVirtualCamera(0xABCDEF12);
    hal.AddVirtualCamera(0x01000000);
    ExpectOk(Access::GetVirtualCameras(&list));
    ASSERT_EQ(2U, list.size());
    EXPECT_EQ(0xABCDEF12U, list[0]->serialNumber);
    EXPECT_EQ(HashOf("Vendor&Model&cdef12"), list[0]->guid);
    EXPECT_EQ(HashOf("Vendor&Model&0"), list[1]->guid);
    EXPECT_NE(nullptr, dynamic_cast<IEEE1394Interface*>(list[0]->hwInterface.get()));
}

// ---- The buses together --------------------------------------------------------------------------------------------

class AllCamerasTest : public CameraListTest {
protected:
    ~AllCamerasTest() override {
        Access::FreeCameraList(&list);
        busMaster.DisableVirtualDeviceEnumeration();
    }

    Error List() { return Access::GetCameras(busMaster, list); }

    void AttachOneOfEach() {
        hal.AddFireWireCamera(1);
        hal.AddVirtualCamera(2);
        hal.AddUsbCamera(3);
        hal.AddGigECamera(4, SomeAddress);
    }

    void ExpectEnumerationFree() {
        EXPECT_TRUE(Testing::AnotherThreadCanLock(Access::Get(busMaster).m_enumerationMutex));
    }

    BusMaster busMaster;
};

TEST_F(AllCamerasTest, OfNoBusLeaveTheListAlone) {
    hal.ClearCalls();
    ExpectOk(List());
    EXPECT_TRUE(list.empty());
    Names names = hal.CallNames();
    std::sort(names.begin(), names.end());
    EXPECT_EQ((Names{"HAL_1394GetCameras", "HAL_GigEGetCameras", "HAL_UsbGetCameras"}), names);
    ExpectEnumerationFree();
}

TEST_F(AllCamerasTest, StandInTheOrder1394UsbGigE) {
    hal.AddGigECamera(5, SomeAddress);
    hal.AddUsbCamera(4);
    hal.AddUsbCamera(3);
    hal.AddFireWireCamera(2);
    hal.AddFireWireCamera(1);
    ExpectOk(List());
    EXPECT_EQ((std::vector<std::uint32_t>{2, 1, 4, 3, 5}), SerialNumbers(list));
}

TEST_F(AllCamerasTest, StandBehindWhatWasThere) {
    hal.AddUsbCamera(3);
    ExpectOk(List());
    ExpectOk(List());
    EXPECT_EQ((std::vector<std::uint32_t>{3, 3}), SerialNumbers(list));
}

TEST_F(AllCamerasTest, AreListedOnThreeThreadsAtOnceWhicheverEndsFirst) {
    AttachOneOfEach();
    busMaster.EnableVirtualDeviceEnumeration();
    const Names functions{"HAL_1394GetCameras", "HAL_UsbGetCameras", "HAL_GigEGetCameras"};
    const Names nextCalls{"HAL_1394GetConfigInfo", "HAL_UsbGetConfigInfo", "HAL_GigEGetConfigInfo"};
    std::array<std::size_t, 3> order{0, 1, 2};
    do {
        hal.ClearCalls();
        std::vector<std::shared_ptr<Testing::Gate>> gates;
        for (const std::string& function : functions) {
            gates.push_back(hal.Block(function));
        }
        std::thread lister([this] { ExpectOk(List()); });
        for (const auto& gate : gates) {
            ASSERT_TRUE(gate->WaitUntilReached());  // so all three run at the same time
        }
        for (const std::size_t bus : order) {
            gates[bus]->Open();
            ASSERT_TRUE(hal.WaitForCalls(nextCalls[bus], 1));
        }
        lister.join();
        EXPECT_EQ((std::vector<std::uint32_t>{1, 2, 3, 4}), SerialNumbers(list));
        std::set<std::thread::id> threads{std::this_thread::get_id()};
        for (const std::string& function : functions) {
            threads.insert(hal.Calls(function)[0].thread);
        }
        EXPECT_EQ(4U, threads.size());
        Access::FreeCameraList(&list);
    } while (std::next_permutation(order.begin(), order.end()));
    hal.ExpectAllEntriesGivenBackOnce();
}

TEST_F(AllCamerasTest, OfABusThatFailsAreMissingAndTheOthersThere) {
    AttachOneOfEach();
    struct Row {
        const char* function;
        std::vector<std::uint32_t> expected;
    };
    for (const Row& row : {Row{"HAL_1394GetCameras", {3, 4}}, Row{"HAL_UsbGetCameras", {1, 4}},
                           Row{"HAL_GigEGetCameras", {1, 3}}, Row{"HAL_1394GetConfigInfo", {3, 4}},
                           Row{"HAL_UsbGetConfigInfo", {1, 4}}, Row{"HAL_GigEReadRegister", {1, 3}}}) {
        SCOPED_TRACE(row.function);
        hal.Fail(row.function, 1, HAL_FAILED);
        ExpectOk(List());
        EXPECT_EQ(row.expected, SerialNumbers(list));
        Access::FreeCameraList(&list);
    }
    hal.ExpectAllEntriesGivenBackOnce();
}

TEST_F(AllCamerasTest, IncludeVirtualOnesOnlyWhenThatIsSwitchedOn) {
    AttachOneOfEach();
    EXPECT_FALSE(Access::EnumeratesVirtualDevices());
    ExpectOk(List());
    EXPECT_EQ((std::vector<std::uint32_t>{1, 3, 4}), SerialNumbers(list));
    EXPECT_EQ(0U, hal.Count("HAL_1394GetVirtualCameras"));
    Access::FreeCameraList(&list);

    ExpectOk(busMaster.EnableVirtualDeviceEnumeration());
    ExpectOk(busMaster.EnableVirtualDeviceEnumeration());
    ExpectOk(List());
    EXPECT_EQ((std::vector<std::uint32_t>{1, 2, 3, 4}), SerialNumbers(list));
    Access::FreeCameraList(&list);

    ExpectOk(busMaster.DisableVirtualDeviceEnumeration());
    ExpectOk(List());
    EXPECT_EQ((std::vector<std::uint32_t>{1, 3, 4}), SerialNumbers(list));
}

TEST_F(AllCamerasTest, AskForVirtualOnesOnTheCallersThreadWhenTheBusesHaveEnded) {
    AttachOneOfEach();
    hal.AddFireWireCamera(5);
    busMaster.EnableVirtualDeviceEnumeration();
    hal.ClearCalls();
    std::vector<std::uint64_t> told;
    hal.Replace(&HalHooks::HAL_1394GetVirtualCameras,
                [&](void** entries, const std::uint64_t* serialNumbers, std::uint64_t* count) {
                    told.assign(serialNumbers, serialNumbers + *count);
                    for (const Testing::HalCall& call : hal.Calls()) {
                        EXPECT_TRUE(call.returned || call.function == "HAL_1394GetVirtualCameras") << call.function;
                    }
                    EXPECT_EQ(1U, hal.Count("HAL_GigEGetConfigInfo"));
                    EXPECT_EQ(1U, hal.Count("HAL_UsbGetConfigInfo"));
                    return hal.Defaults().HAL_1394GetVirtualCameras(entries, serialNumbers, count);
                });
    ExpectOk(List());
    EXPECT_EQ((std::vector<std::uint64_t>{1, 5}), told);
    EXPECT_EQ((std::vector<std::uint32_t>{1, 5, 2, 3, 4}), SerialNumbers(list));
    EXPECT_EQ(std::this_thread::get_id(), hal.Calls("HAL_1394GetVirtualCameras")[0].thread);
}

TEST_F(AllCamerasTest, KeepTheRealOnesWhenTheVirtualOnesFail) {
    AttachOneOfEach();
    busMaster.EnableVirtualDeviceEnumeration();
    hal.Fail("HAL_1394GetVirtualCameras", 1, HAL_FAILED);
    ExpectOk(List());
    hal.Fail("HAL_1394GetConfigInfo", 2, HAL_FAILED);
    ExpectOk(List());
    EXPECT_EQ((std::vector<std::uint32_t>{1, 3, 4, 1, 3, 4}), SerialNumbers(list));
}

TEST_F(AllCamerasTest, AreListedByOneCallerAtATime) {
    const auto gate = hal.Block("HAL_UsbGetCameras");
    std::future<void> first = std::async(std::launch::async, [this] {
        HandleList cameras;
        ExpectOk(Access::GetCameras(busMaster, cameras));
    });
    ASSERT_TRUE(gate->WaitUntilReached());
    boost::mutex& enumeration = Access::Get(busMaster).m_enumerationMutex;
    EXPECT_FALSE(enumeration.try_lock());
    std::future<void> second = std::async(std::launch::async, [this] {
        HandleList cameras;
        ExpectOk(Access::GetCameras(busMaster, cameras));
    });
    gate->Open();
    first.get();
    second.get();
    // Each bus was listed twice, and the second time only after all three had been listed once.
    Names listings;
    for (const std::string& name : hal.CallNames()) {
        if (name != "HAL_InitLibrary") {
            listings.push_back(name);
        }
    }
    ASSERT_EQ(6U, listings.size());
    EXPECT_EQ(3U, std::set<std::string>(listings.begin(), listings.begin() + 3).size());
    ExpectEnumerationFree();
}

// Each call of the HAL in turn fails once, whichever it is.
TEST_F(AllCamerasTest, LoseNoEntryWhicheverCallOfTheHalFails) {
    AttachOneOfEach();
    AttachOneOfEach();
    busMaster.EnableVirtualDeviceEnumeration();
    for (unsigned int nth = 1;; ++nth) {
        SCOPED_TRACE("call " + std::to_string(nth));
        const std::size_t leftBefore = hal.EntriesOutstanding();
        hal.ClearCalls();
        const auto injection = hal.FailAny(nth, HAL_FAILED);
        ExpectOk(List());
        hal.FailNothing();
        EXPECT_TRUE(std::is_sorted(list.begin(), list.end(), [](const BusMasterHandle* a, const BusMasterHandle* b) {
            return a->serialNumber < b->serialNumber;
        }));
        Access::FreeCameraList(&list);
        // Only a GigE camera that could not be identified is left to the HAL.
        const std::vector<Testing::HalCall> identified = hal.Calls("HAL_GigEGetConfigInfo");
        const auto leftOut = std::count_if(identified.begin(), identified.end(),
                                           [](const Testing::HalCall& call) { return call.status != HAL_OK; });
        EXPECT_EQ(leftBefore + static_cast<std::size_t>(leftOut), hal.EntriesOutstanding());
        ExpectEnumerationFree();
        if (!injection->fired) {
            break;
        }
    }
    hal.ExpectNoMisuse();
}

// The n-th of the three threads cannot be made: what the others listed is freed, and the exception comes out.
TEST_F(AllCamerasTest, AreFreedWhenAThreadCannotBeMade) {
    AttachOneOfEach();
    const Names functions{"HAL_1394GetCameras", "HAL_UsbGetCameras", "HAL_GigEGetCameras"};
    for (const auto kind : {ThreadStartFailure::Kind::ThreadResourceError, ThreadStartFailure::Kind::BadAlloc,
                            ThreadStartFailure::Kind::Foreign}) {
        for (unsigned int nth = 1; nth <= 3; ++nth) {
            SCOPED_TRACE("thread " + std::to_string(nth));
            hal.ClearCalls();
            {
                const ThreadStartFailure failure(nth, kind);
                switch (kind) {
                    case ThreadStartFailure::Kind::ThreadResourceError:
                        EXPECT_THROW(List(), boost::thread_resource_error);
                        break;
                    case ThreadStartFailure::Kind::BadAlloc:
                        EXPECT_THROW(List(), std::bad_alloc);
                        break;
                    case ThreadStartFailure::Kind::Foreign:
                        EXPECT_THROW(List(), int);
                        break;
                }
                EXPECT_TRUE(failure.Happened());
                EXPECT_EQ(nth, failure.Count());
            }
            EXPECT_TRUE(list.empty());
            // Those before it ran to their end, and no other: the threads are started in this order.
            for (unsigned int i = 0; i < 3; ++i) {
                EXPECT_EQ(i + 1 < nth ? 1U : 0U, hal.Count(functions[i])) << functions[i];
            }
            hal.ExpectAllEntriesGivenBackOnce();
            ExpectEnumerationFree();
        }
    }
    ExpectOk(List());
    EXPECT_EQ(3U, list.size());
}

TEST_F(AllCamerasTest, LeaveTheListAloneWhenTheCallerRunsOutOfMemory) {
    AttachOneOfEach();
    busMaster.EnableVirtualDeviceEnumeration();
    list.push_back(NewHandle(ZevoGuid{}, 9, new FakeInterface(INTERFACE_NONE)));
    for (std::uint64_t nth = 1;; ++nth) {
        SCOPED_TRACE("allocation " + std::to_string(nth));
        bool listed = false;
        bool happened = false;
        {
            const AllocationFailure failure(nth);
            try {
                listed = Access::GetCameras(busMaster, list) == ERROR_OK;
            } catch (const std::bad_alloc&) {
            }
            happened = failure.Happened();
        }
        if (listed) {
            // A failure may have cost the virtual cameras, whose result nobody looks at.
            EXPECT_THAT(SerialNumbers(list), ::testing::AnyOf(std::vector<std::uint32_t>{9, 1, 2, 3, 4},
                                                              std::vector<std::uint32_t>{9, 1, 3, 4}));
            HandleList found(list.begin() + 1, list.end());
            Access::FreeCameraList(&found);
            list.resize(1);
        }
        EXPECT_EQ((std::vector<std::uint32_t>{9}), SerialNumbers(list));
        hal.ExpectAllEntriesGivenBackOnce();
        ExpectEnumerationFree();
        if (!happened) {
            EXPECT_TRUE(listed);
            break;
        }
    }
}

TEST_F(AllCamerasTest, LoseWholeBusesOnlyWhenMemoryRunsOutOnAnyThread) {
    AttachOneOfEach();
    bool happened = true;
    for (std::uint64_t nth = 1; happened; ++nth) {
        SCOPED_TRACE("allocation " + std::to_string(nth));
        {
            const AllocationFailure failure(nth, AllocationFailure::Scope::AllThreads);
            try {
                EXPECT_TRUE(Access::GetCameras(busMaster, list) == ERROR_OK);
            } catch (const std::bad_alloc&) {
                EXPECT_TRUE(list.empty());
            }
            happened = failure.Happened();
        }
        EXPECT_TRUE(std::is_sorted(list.begin(), list.end(), [](const BusMasterHandle* a, const BusMasterHandle* b) {
            return a->serialNumber < b->serialNumber;
        }));
        if (!happened) {
            EXPECT_EQ(3U, list.size());
        }
        Access::FreeCameraList(&list);
        hal.ExpectAllEntriesGivenBackOnce();
        ExpectEnumerationFree();
    }
}

}  // namespace
}  // namespace Nimbrel2
