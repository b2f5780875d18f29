// SPDX-License-Identifier: Apache-2.0
// The interface object of a GigE Vision camera: what it passes to the HAL, monitor mode, its info.
#include <cstring>

#include "common/GigEInterface.h"
#include "tests/common/InterfaceFixture.h"

namespace Nimbrel2 {
namespace {

class GigEInterfaceTest : public InterfaceTest {
protected:
    GigEInterfaceTest() : camera(hal.AddGigECamera(0xCAFE, 0xC0A8000A)), entry(EntryFrom(&HAL_GigEGetCameras)) {}

    Testing::ScriptedHal::DevicePointer camera;
    void* entry;
};

TEST_F(GigEInterfaceTest, AsksTheHalNothingWhenItIsMade) {
    GigEInterface object(entry);
    EXPECT_EQ(INTERFACE_GIGE, object.GetInterfaceType());
    EXPECT_TRUE(hal.Calls().empty());
}

TEST_F(GigEInterfaceTest, PassesIdentificationOn) {
    std::copy_n(std::initializer_list<std::uint32_t>{1, 2, 4, 5}.begin(), 4, camera->config);
    GigEInterface object(entry);
    Config config;
    EXPECT_EQ(HAL_OK, config.Read(object));
    const std::vector<std::uint64_t> arguments = OnlyCall("HAL_GigEGetConfigInfo", entry);
    ASSERT_EQ(9U, arguments.size());
    EXPECT_EQ(512U, arguments[7]);
    EXPECT_EQ(512U, arguments[8]);
    EXPECT_EQ((std::vector<std::uint32_t>{1, 2, 0xCAFE, 4, 5}),
              std::vector<std::uint32_t>(config.numbers, config.numbers + 5));
}

TEST_F(GigEInterfaceTest, ReadsAndWritesRegistersByGvcp) {
    GigEInterface object(entry);
    std::uint32_t value = 0;
    EXPECT_EQ(HAL_OK, object.ReadGVCPRegister(0x24, &value));
    EXPECT_EQ(0xC0A8000AU, value);
    EXPECT_EQ((std::vector<std::uint64_t>{0x24, 0}), OnlyCall("HAL_GigEReadRegister", entry));
    hal.ClearCalls();
    EXPECT_EQ(HAL_OK, object.WriteRegister(0xFFFFFFFC, 0xFFFFFFFF, 7, 0));
    EXPECT_EQ((std::vector<std::uint64_t>{0xFFFFFFFC, 7}), OnlyCall("HAL_GigEWriteRegister", entry));
    hal.ClearCalls();
    EXPECT_EQ(HAL_OK, object.ReadRegister(0xFFFFFFFC, 0xFFFFFFFF, &value));
    EXPECT_EQ(7U, value);
    EXPECT_EQ(0xFFFFFFFCU, OnlyCall("HAL_GigEReadRegister", entry)[0]);
}

TEST_F(GigEInterfaceTest, RefusesRegisterAddressesAbove32Bits) {
    GigEInterface object(entry);
    std::uint32_t value = 0;
    EXPECT_EQ(HAL_INVALID_ARGUMENT, object.ReadRegister(0x100000024, 0xFFFFFFFF, &value));
    EXPECT_EQ(HAL_INVALID_ARGUMENT, object.WriteRegister(0x100000024, 0xFFFFFFFF, 1, 0));
    EXPECT_TRUE(hal.Calls().empty());
}

TEST_F(GigEInterfaceTest, TellsTheLocalPortAndAddress) {
    camera->localPort = 50001;
    camera->localIpAddress = 0xC0A80001;
    GigEInterface object(entry);
    unsigned int value = 0;
    EXPECT_EQ(HAL_OK, object.GetLocalApplicationPort(&value));
    EXPECT_EQ(50001U, value);
    EXPECT_EQ(HAL_OK, object.GetLocalApplicationIPAddress(&value));
    EXPECT_EQ(0xC0A80001U, value);
}

TEST_F(GigEInterfaceTest, IsInMonitorModeWhenTheHalSaysSoAndWhenItCannotSay) {
    GigEInterface object(entry);
    EXPECT_FALSE(object.IsInMonitorMode());
    EXPECT_EQ((std::vector<std::uint64_t>{0}), OnlyCall("HAL_GigEIsInMonitorMode", entry));
    hal.Change([this] { camera->monitor = 1; });
    EXPECT_TRUE(object.IsInMonitorMode());
    hal.Change([this] {
        camera->monitor = 0;
        camera->statuses["HAL_GigEIsInMonitorMode"] = HAL_TIMED_OUT;
    });
    EXPECT_TRUE(object.IsInMonitorMode());
}

TEST_F(GigEInterfaceTest, TellsTheLinkSpeedThatTheCameraSaysItHas) {
    camera->registers[0x0934] = 0xD0000000;
    camera->registers[0x0670] = 10000;
    GigEInterface object(entry);
    std::uint32_t megabits = 0;
    EXPECT_EQ(HAL_OK, object.GetLinkSpeed(&megabits));
    EXPECT_EQ(10000U, megabits);
    hal.Change([this] { camera->registers[0x0670] = 0; });
    EXPECT_EQ(HAL_NOT_SUPPORTED, object.GetLinkSpeed(&megabits));
    object.ReleaseCamera();
    EXPECT_EQ(HAL_GONE, object.GetLinkSpeed(&megabits));
}

TEST_F(GigEInterfaceTest, AsksForNoLinkSpeedThatTheCameraDoesNotHave) {
    camera->registers[0x0934] = 0xEFFFFFFF;
    GigEInterface object(entry);
    std::uint32_t megabits = 0;
    EXPECT_EQ(HAL_NOT_SUPPORTED, object.GetLinkSpeed(&megabits));
    EXPECT_EQ((std::vector<std::uint64_t>{0x0934, 0}), OnlyCall("HAL_GigEReadRegister", entry));
    hal.Change([this] { camera->statuses["HAL_GigEReadRegister"] = HAL_TIMED_OUT; });
    EXPECT_EQ(HAL_TIMED_OUT, object.GetLinkSpeed(&megabits));
}

TEST_F(GigEInterfaceTest, AnswersWhatOnlyOtherBusesHave) {
    GigEInterface object(entry);
    std::uint32_t value = 0;
    std::uint64_t wide = 0;
    std::vector<unsigned int> serialNumbers(1);
    EXPECT_EQ(HAL_NOT_SUPPORTED, object.FireBusReset());
    EXPECT_EQ(HAL_NOT_SUPPORTED, object.ReadPhyRegister(0, 0, 0, &value));
    EXPECT_EQ(HAL_PHY_WRITE_NOT_IMPLEMENTED, object.WritePhyRegister(0, 0, 0, 0));
    EXPECT_EQ(HAL_NOT_SUPPORTED, object.GetSelfIds(&value, &wide, &wide, nullptr));
    EXPECT_EQ(HAL_NOT_SUPPORTED, object.GetUsbSelfIds(&value, &wide, &wide, nullptr));
    EXPECT_EQ(HAL_NOT_SUPPORTED, object.GetNodeSerialNumbers(&serialNumbers));
    EXPECT_EQ(HAL_NOT_SUPPORTED, object.GetDeviceInfo(&value, &value, &value));
    EXPECT_TRUE(hal.Calls().empty());
}

TEST_F(GigEInterfaceTest, PassesEveryStatusOn) {
    for (const char* function :
         {"HAL_GigEGetConfigInfo", "HAL_GigEReadRegister", "HAL_GigEWriteRegister", "HAL_GigEGetLocalApplicationPort",
          "HAL_GigEGetLocalApplicationIpAddress", "HAL_GigEGetDiscoveryRecord"}) {
        camera->statuses[function] = HAL_TIMED_OUT;
    }
    GigEInterface object(entry);
    std::uint32_t value = 0;
    CameraInfo info;
    EXPECT_EQ(HAL_TIMED_OUT, Config().Read(object));
    EXPECT_EQ(HAL_TIMED_OUT, object.ReadGVCPRegister(0x24, &value));
    EXPECT_EQ(HAL_TIMED_OUT, object.ReadRegister(0x24, 0xFFFFFFFF, &value));
    EXPECT_EQ(HAL_TIMED_OUT, object.WriteRegister(0x24, 0xFFFFFFFF, 0, 0));
    EXPECT_EQ(HAL_TIMED_OUT, object.GetLocalApplicationPort(&value));
    EXPECT_EQ(HAL_TIMED_OUT, object.GetLocalApplicationIPAddress(&value));
    EXPECT_EQ(HAL_TIMED_OUT, object.GetCameraInfo(&info));
}

TEST_F(GigEInterfaceTest, AnswersGoneToEverythingOnceReleasedWithoutAskingTheHal) {
    GigEInterface object(entry);
    EXPECT_EQ(HAL_OK, object.ReleaseCamera());
    hal.ClearCalls();
    std::uint32_t value = 0;
    CameraInfo info;
    EXPECT_EQ(HAL_GONE, Config().Read(object));
    EXPECT_EQ(HAL_GONE, object.ReadGVCPRegister(0x24, &value));
    EXPECT_EQ(HAL_GONE, object.ReadRegister(0x24, 0xFFFFFFFF, &value));
    EXPECT_EQ(HAL_GONE, object.WriteRegister(0x24, 0xFFFFFFFF, 0, 0));
    EXPECT_EQ(HAL_GONE, object.GetLocalApplicationPort(&value));
    EXPECT_EQ(HAL_GONE, object.GetLocalApplicationIPAddress(&value));
    EXPECT_EQ(HAL_GONE, object.GetCameraInfo(&info));
    EXPECT_TRUE(object.IsInMonitorMode());
    EXPECT_EQ(HAL_GONE, object.ReleaseCamera());
    EXPECT_EQ(HAL_GONE, object.ReleaseDevice());
    EXPECT_EQ(INTERFACE_GIGE, object.GetInterfaceType());
    EXPECT_TRUE(hal.Calls().empty());
    hal.ExpectAllEntriesGivenBackOnce();
}

TEST_F(GigEInterfaceTest, GivesTheEntryBackAsACameraHoweverItIsReleased) {
    GigEInterface object(entry);
    EXPECT_EQ(HAL_OK, object.ReleaseDevice());
    hal.ExpectAllEntriesGivenBackOnce();
}

TEST_F(GigEInterfaceTest, GivesTheEntryBackUnderAnOperationOnlyWhenThatHasEnded) {
    GigEInterface object(entry);
    ExpectReleaseWaitsForTheOperation(
        object, "HAL_GigEReadRegister",
        [&object] {
            std::uint32_t value = 0;
            return object.ReadGVCPRegister(0x24, &value);
        },
        "HAL_GigEFreeCamera");
}

// ---- What a listing shows ------------------------------------------------------------------------------------------

TEST_F(GigEInterfaceTest, TellsALiveCamerasInfo) {
    GvcpDiscoveryRecord& record = camera->record;
    record.versionMajor = 1;
    record.versionMinor = 2;
    std::memset(record.manufacturerName, 'v', sizeof record.manufacturerName);
    std::memset(record.modelName, 'm', sizeof record.modelName);
    std::memset(record.deviceVersion, 'd', sizeof record.deviceVersion);
    std::memcpy(record.serialNumber, "0123456789abcdef", sizeof record.serialNumber);
    std::memset(record.userDefinedName, 'u', sizeof record.userDefinedName);
    GigEInterface object(entry);
    CameraInfo info;
    ASSERT_EQ(HAL_OK, object.GetCameraInfo(&info));
    EXPECT_EQ(123456789U, info.serialNumber);
    EXPECT_EQ(INTERFACE_GIGE, info.interfaceType);
    EXPECT_EQ(1U, info.gigEMajorVersion);
    EXPECT_EQ(2U, info.gigEMinorVersion);
    EXPECT_EQ(0xC0A8000AU, PackIPAddress(info.ipAddress));
    EXPECT_EQ(std::string(32, 'v'), info.vendorName);
    EXPECT_EQ(std::string(32, 'm'), info.modelName);
    EXPECT_EQ(std::string(32, 'd'), info.deviceVersion);
    EXPECT_STREQ("0123456789abcdef", info.serialText);
    EXPECT_EQ(std::string(16, 'u'), info.userDefinedName);
}

TEST_F(GigEInterfaceTest, LeavesNothingOfAnotherCameraInARecordThatIsUsedAgain) {
    std::strcpy(camera->record.manufacturerName, "A");
    GigEInterface object(entry);
    CameraInfo info;
    std::strcpy(info.vendorName, "longer");
    std::strcpy(info.serialText, "old");
    ASSERT_EQ(HAL_OK, object.GetCameraInfo(&info));
    EXPECT_STREQ("A", info.vendorName);
    EXPECT_STREQ("", info.serialText);
}

TEST_F(GigEInterfaceTest, LeavesTheRecordAloneWhenTheCameraIsGone) {
    camera->statuses["HAL_GigEGetDiscoveryRecord"] = HAL_GONE;
    GigEInterface object(entry);
    CameraInfo info;
    std::strcpy(info.vendorName, "before");
    EXPECT_EQ(HAL_GONE, object.GetCameraInfo(&info));
    EXPECT_STREQ("before", info.vendorName);
}

}  // namespace
}  // namespace Nimbrel2
