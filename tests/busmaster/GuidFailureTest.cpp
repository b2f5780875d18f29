// SPDX-License-Identifier: Apache-2.0
// What enumeration does when an identifier cannot be made. The product's generator cannot fail, so this binary brings
// one of its own that can, in the place of the library's.
#include <atomic>

#include "common/GuidGenerator.h"
#include "tests/support/CoreAccess.h"
#include "tests/support/ScriptedHal.h"
#include "tests/support/TraceRecorder.h"

namespace Nimbrel2 {

namespace {

std::atomic<unsigned int> g_calls{0};
std::atomic<unsigned int> g_failAt{0};

Error Generate(ZevoGuid* guid) {
    const unsigned int call = ++g_calls;
    if (call == g_failAt) {
        return InternalError(12, "Generator.cpp", "date", "time", ERROR_FAILED, "call %u failed", call);
    }
    *guid = ZevoGuid{{call, 0, 0, 0}};
    return InternalError(ERROR_OK);
}

}  // namespace

Error GuidGenerator::GenerateGUIDForCamera(char*, char*, unsigned int, ZevoGuid* guid) { return Generate(guid); }

Error GuidGenerator::GenerateGUIDForDevice(InterfaceType, unsigned int, unsigned int, unsigned int, ZevoGuid* guid) {
    return Generate(guid);
}

Error GuidGenerator::GenerateGUIDForGigECamera(char*, char*, unsigned int, unsigned int, unsigned int, ZevoGuid* guid) {
    return Generate(guid);
}

void GuidGenerator::HashKey(const std::string&, ZevoGuid*) {}

namespace {

using Access = BusMasterTestAccess;
using Device = Testing::ScriptedHal::DevicePointer;

struct Bus {
    const char* name;
    Error (*list)(Access::HandleList*);
    Device (*attach)(Testing::ScriptedHal&, std::uint32_t serialNumber);
    void (*free)(Access::HandleList*);
    const char* message;
};

void PrintTo(const Bus& bus, std::ostream* stream) { *stream << bus.name; }

class GuidFailureTest : public ::testing::TestWithParam<Bus> {
protected:
    GuidFailureTest() {
        g_calls = 0;
        g_failAt = 0;
    }

    const Bus& bus = GetParam();
    Testing::ScriptedHal hal;
    Access::HandleList list;
};

INSTANTIATE_TEST_SUITE_P(
    Buses, GuidFailureTest,
    ::testing::Values(
        Bus{"IEEE1394", &Access::Get1394Cameras,
            [](Testing::ScriptedHal& hal, std::uint32_t serialNumber) { return hal.AddFireWireCamera(serialNumber); },
            &Access::FreeCameraList, "Failed to generate the 1394 GUID."},
        Bus{"Virtual", &Access::GetVirtualCameras,
            [](Testing::ScriptedHal& hal, std::uint32_t serialNumber) { return hal.AddVirtualCamera(serialNumber); },
            &Access::FreeCameraList, "Failed to generate the 1394 GUID."},
        Bus{"Usb", &Access::GetUSBCameras,
            [](Testing::ScriptedHal& hal, std::uint32_t serialNumber) { return hal.AddUsbCamera(serialNumber); },
            &Access::FreeCameraList, "Failed to generate the USB GUID."},
        Bus{"GigE", &Access::GetGigECameras,
            [](Testing::ScriptedHal& hal, std::uint32_t serialNumber) { return hal.AddGigECamera(serialNumber, 1); },
            &Access::FreeCameraList, "Failed to generate the GigE GUID."},
        Bus{"IEEE1394Devices", &Access::GetDevices,
            [](Testing::ScriptedHal& hal, std::uint32_t serialNumber) {
                return hal.AddFireWireDevice(1, serialNumber);
            },
            &Access::FreeDeviceList, "Failed to generate the 1394 GUID."}),
    [](const auto& instance) { return std::string(instance.param.name); });

TEST_P(GuidFailureTest, DropsTheBusWithTheGeneratorsErrorAsTheCause) {
    for (unsigned int failing = 0; failing < 3; ++failing) {
        SCOPED_TRACE("entry " + std::to_string(failing));
        hal.DetachAll();
        std::vector<Device> devices;
        for (std::uint32_t serialNumber = 1; serialNumber <= 3; ++serialNumber) {
            devices.push_back(bus.attach(hal, serialNumber));
        }
        const std::size_t freedBefore = hal.FreedDevices().size();
        g_calls = 0;
        g_failAt = failing + 1;
        const Error error = bus.list(&list);
        EXPECT_TRUE(list.empty());
        EXPECT_EQ(ERROR_GUID_GENERATION_FAILED, error.GetType());
        EXPECT_STREQ(bus.message, error.GetMessage());
        EXPECT_STREQ("BusMaster.cpp", error.GetFile());
        ASSERT_NE(nullptr, error.GetCause());
        EXPECT_EQ(ERROR_FAILED, error.GetCause()->GetType());
        EXPECT_EQ("call " + std::to_string(failing + 1) + " failed", error.GetCause()->GetMessage());
        EXPECT_STREQ("Generator.cpp", error.GetCause()->GetFile());
        EXPECT_EQ(12, error.GetCause()->GetLine());
        EXPECT_EQ(failing + 1, g_calls);
        std::vector<Device> order(devices.begin() + failing, devices.end());
        order.insert(order.end(), devices.begin(), devices.begin() + failing);
        const std::vector<Device> freed = hal.FreedDevices();
        EXPECT_EQ(order, std::vector<Device>(freed.begin() + static_cast<std::ptrdiff_t>(freedBefore), freed.end()));
    }
    hal.ExpectAllEntriesGivenBackOnce();
}

TEST_P(GuidFailureTest, KeepsWhatWasListedBefore) {
    bus.attach(hal, 1);
    EXPECT_TRUE(bus.list(&list) == ERROR_OK);
    g_failAt = 2;
    EXPECT_TRUE(bus.list(&list) == ERROR_GUID_GENERATION_FAILED);
    EXPECT_EQ(1U, list.size());
    bus.free(&list);
    hal.ExpectAllEntriesGivenBackOnce();
}

TEST(GuidFailure, GivesALeftOutUsbCameraBackOnce) {
    g_calls = 0;
    g_failAt = 2;
    Testing::ScriptedHal hal;
    hal.AddUsbCamera(1);
    hal.AddUsbCamera(2)->statuses["HAL_UsbGetConfigInfo"] = HAL_GONE;
    hal.AddUsbCamera(3);
    hal.AddUsbCamera(4);
    Access::HandleList list;
    EXPECT_TRUE(Access::GetUSBCameras(&list) == ERROR_GUID_GENERATION_FAILED);
    hal.ExpectAllEntriesGivenBackOnce();
}

TEST(GuidFailure, LeavesALeftOutGigECameraToTheHal) {
    g_calls = 0;
    g_failAt = 2;
    Testing::ScriptedHal hal;
    hal.AddGigECamera(1, 1);
    const Device leftOut = hal.AddGigECamera(2, 2);
    leftOut->statuses["HAL_GigEGetConfigInfo"] = HAL_GONE;
    hal.AddGigECamera(3, 3);
    Access::HandleList list;
    EXPECT_TRUE(Access::GetGigECameras(&list) == ERROR_GUID_GENERATION_FAILED);
    hal.ExpectAllEntriesGivenBackOnce({leftOut});
}

TEST(GuidFailure, LosesNoBusResetThatNamesADevice) {
    g_calls = 0;
    g_failAt = 0;
    Testing::ScriptedHal hal;
    Testing::TraceRecorder traces;
    hal.AddFireWireDevice(1, 2);
    {
        BusMaster busMaster;
        EXPECT_TRUE(busMaster.Initialize() == ERROR_OK);
        g_failAt = g_calls + 1;
        EXPECT_EQ(1U, hal.Raise(HAL_BUS_RESET, HAL_INTERFACE_1394, 1, 2));
        EXPECT_TRUE(traces.WaitFor("Handling outstanding bus reset (1)"));
    }
    hal.ExpectAllEntriesGivenBackOnce();
}

}  // namespace
}  // namespace Nimbrel2
