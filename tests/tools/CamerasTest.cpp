// SPDX-License-Identifier: Apache-2.0
// What commands read from a bus master, in the moments in which a camera is listed and yet not there.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "platform/hal/Process.h"
#include "tests/tools/ScriptedBuses.h"
#include "tools/nimbrel/Cameras.h"
#include "tools/nimbrel/CommandError.h"

namespace Nimbrel2::Tool::Testing {
namespace {

class Cameras : public ::testing::Test {
protected:
    Cameras() {
        Platform::Process::Get().SetDriverFactory(
            [this](const auto& options, const auto& sinks) { return m_buses.MakeDrivers(options, sinks); });
    }
    ~Cameras() override { Platform::Process::Get().SetDriverFactory({}); }

    ScriptedBuses m_buses;
};

TEST_F(Cameras, KeepTheirSerialNumberWhenTheyTellNothingAnyMore) {
    m_buses.Do("usb 21 5000 V M");
    m_buses.Do("usb 22 5000 V M");
    BusMaster busMaster;
    ASSERT_TRUE(busMaster.Initialize() == ERROR_OK);
    m_buses.Do("stale 22 4");
    const std::vector<Camera> cameras = ListCameras(busMaster);
    ASSERT_EQ(cameras.size(), 2u);
    EXPECT_EQ(cameras[0].model, "M");
    EXPECT_EQ(cameras[1].index, 1u);
    EXPECT_EQ(cameras[1].serialNumber, 22u);
    EXPECT_EQ(cameras[1].interfaceType, INTERFACE_USB_3);
    EXPECT_EQ(cameras[1].model, "");
}

TEST_F(Cameras, CannotBeListedBeforeTheBusMasterHasStarted) {
    BusMaster busMaster;
    EXPECT_THROW(ListCameras(busMaster), CommandError);
    EXPECT_THROW(ListDevices(busMaster), CommandError);
}

TEST(Guid, IsFourGroupsOfEightLowerCaseDigits) {
    EXPECT_EQ(FormatGuid(ZevoGuid{{0x00000001, 0xABCDEF01, 0, 0xFFFFFFFF}}), "00000001-abcdef01-00000000-ffffffff");
}

}  // namespace
}  // namespace Nimbrel2::Tool::Testing
