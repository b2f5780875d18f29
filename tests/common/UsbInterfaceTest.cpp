// SPDX-License-Identifier: Apache-2.0
// The interface object of a USB camera: what it passes to the HAL, its live kind, its tree.
#include <cstring>

#include "common/UsbInterface.h"
#include "tests/common/InterfaceFixture.h"

namespace Nimbrel2 {
namespace {

class UsbInterfaceTest : public InterfaceTest {
protected:
    UsbInterfaceTest() : camera(hal.AddUsbCamera(0xCAFE, 5000)), entry(EntryFrom(&HAL_UsbGetCameras)) {}

    Testing::ScriptedHal::DevicePointer camera;
    void* entry;
};

TEST_F(UsbInterfaceTest, AsksTheHalNothingWhenItIsMade) {
    const UsbInterface object(entry);
    EXPECT_TRUE(hal.Calls().empty());
}

TEST_F(UsbInterfaceTest, PassesIdentificationOn) {
    std::copy_n(std::initializer_list<std::uint32_t>{1, 2, 480, 5}.begin(), 4, camera->config);
    UsbInterface object(entry);
    Config config;
    EXPECT_EQ(HAL_OK, config.Read(object));
    const std::vector<std::uint64_t> arguments = OnlyCall("HAL_UsbGetConfigInfo", entry);
    ASSERT_EQ(9U, arguments.size());
    EXPECT_EQ(512U, arguments[7]);
    EXPECT_EQ(512U, arguments[8]);
    EXPECT_EQ((std::vector<std::uint32_t>{1, 2, 0xCAFE, 480, 5}),
              std::vector<std::uint32_t>(config.numbers, config.numbers + 5));
    EXPECT_STREQ("Vendor", config.vendor);
    EXPECT_STREQ("Model", config.model);
}

TEST_F(UsbInterfaceTest, PassesRegistersLinkPortAndResetOn) {
    camera->linkInfo = 0x01F40102;
    camera->portStatus = 0x00010203;
    UsbInterface object(entry);
    EXPECT_EQ(HAL_OK, object.WriteRegister(0x1234, 0xFFFFFFFF, 7, 0));
    EXPECT_EQ((std::vector<std::uint64_t>{0x1234, 0xFFFFFFFF, 7, 0}), OnlyCall("HAL_UsbWriteRegister", entry));
    hal.ClearCalls();
    std::uint32_t value = 0;
    EXPECT_EQ(HAL_OK, object.ReadRegister(0x1234, 0xFFFFFFFF, &value));
    EXPECT_EQ(7U, value);
    EXPECT_EQ((std::vector<std::uint64_t>{0x1234, 0xFFFFFFFF, 0}), OnlyCall("HAL_UsbReadRegister", entry));
    EXPECT_EQ(HAL_OK, object.GetLinkInfo(&value));
    EXPECT_EQ(0x01F40102U, value);
    EXPECT_EQ(HAL_OK, object.GetPortStatus(&value));
    EXPECT_EQ(0x00010203U, value);
    hal.ClearCalls();
    EXPECT_EQ(HAL_OK, object.FireBusReset());
    EXPECT_TRUE(OnlyCall("HAL_UsbFireBusReset", entry).empty());
}

TEST_F(UsbInterfaceTest, AnswersWhatOnlyIEEE1394Has) {
    UsbInterface object(entry);
    std::uint32_t value = 0;
    std::uint64_t wide = 0;
    std::vector<unsigned int> serialNumbers(1);
    EXPECT_EQ(HAL_NOT_SUPPORTED, object.ReadPhyRegister(0, 0, 0, &value));
    EXPECT_EQ(HAL_PHY_WRITE_NOT_IMPLEMENTED, object.WritePhyRegister(0, 0, 0, 0));
    EXPECT_EQ(HAL_NOT_SUPPORTED, object.GetSelfIds(&value, &wide, &wide, nullptr));
    EXPECT_EQ(HAL_NOT_SUPPORTED, object.GetNodeSerialNumbers(&serialNumbers));
    EXPECT_EQ(HAL_NOT_SUPPORTED, object.GetDeviceInfo(&value, &value, &value));
    EXPECT_TRUE(hal.Calls().empty());
}

TEST_F(UsbInterfaceTest, PassesEveryStatusOn) {
    for (const char* function :
         {"HAL_UsbGetConfigInfo", "HAL_UsbReadRegister", "HAL_UsbWriteRegister", "HAL_UsbFireBusReset",
          "HAL_UsbGetLinkInfo", "HAL_UsbGetPortStatus", "HAL_UsbGetSelfIds"}) {
        camera->statuses[function] = HAL_PERMISSION;
    }
    UsbInterface object(entry);
    std::uint32_t value = 0;
    std::uint64_t wide = 0;
    CameraInfo info;
    EXPECT_EQ(HAL_PERMISSION, Config().Read(object));
    EXPECT_EQ(HAL_PERMISSION, object.ReadRegister(0, 0xFFFFFFFF, &value));
    EXPECT_EQ(HAL_PERMISSION, object.WriteRegister(0, 0xFFFFFFFF, 0, 0));
    EXPECT_EQ(HAL_PERMISSION, object.FireBusReset());
    EXPECT_EQ(HAL_PERMISSION, object.GetLinkInfo(&value));
    EXPECT_EQ(HAL_PERMISSION, object.GetPortStatus(&value));
    EXPECT_EQ(HAL_PERMISSION, object.GetUsbSelfIds(&value, &wide, &wide, nullptr));
    EXPECT_EQ(HAL_PERMISSION, object.GetCameraInfo(&info));
}

TEST_F(UsbInterfaceTest, AnswersGoneToEverythingOnceReleasedWithoutAskingTheHal) {
    UsbInterface object(entry);
    EXPECT_EQ(HAL_OK, object.ReleaseCamera());
    hal.ClearCalls();
    std::uint32_t value = 0;
    std::uint64_t wide = 0;
    CameraInfo info;
    EXPECT_EQ(HAL_GONE, Config().Read(object));
    EXPECT_EQ(HAL_GONE, object.ReadRegister(0, 0xFFFFFFFF, &value));
    EXPECT_EQ(HAL_GONE, object.WriteRegister(0, 0xFFFFFFFF, 0, 0));
    EXPECT_EQ(HAL_GONE, object.FireBusReset());
    EXPECT_EQ(HAL_GONE, object.GetLinkInfo(&value));
    EXPECT_EQ(HAL_GONE, object.GetPortStatus(&value));
    EXPECT_EQ(HAL_GONE, object.GetUsbSelfIds(&value, &wide, &wide, nullptr));
    EXPECT_EQ(HAL_GONE, object.GetCameraInfo(&info));
    EXPECT_EQ(HAL_GONE, object.ReleaseCamera());
    EXPECT_EQ(HAL_GONE, object.ReleaseDevice());
    EXPECT_TRUE(hal.Calls().empty());
    hal.ExpectAllEntriesGivenBackOnce();
}

TEST_F(UsbInterfaceTest, GivesTheEntryBackAsACameraHoweverItIsReleased) {
    UsbInterface object(entry);
    EXPECT_EQ(HAL_OK, object.ReleaseDevice());
    hal.ExpectAllEntriesGivenBackOnce();
}

TEST_F(UsbInterfaceTest, GivesTheEntryBackUnderAnOperationOnlyWhenThatHasEnded) {
    UsbInterface object(entry);
    ExpectReleaseWaitsForTheOperation(
        object, "HAL_UsbGetLinkInfo",
        [&object] {
            std::uint32_t value = 0;
            return object.GetLinkInfo(&value);
        },
        "HAL_UsbFreeCamera");
}

// ---- The kind ------------------------------------------------------------------------------------------------------

struct SpeedRow {
    const char* name;
    std::uint32_t megabits;
    InterfaceType type;
};

TEST_F(UsbInterfaceTest, IsOfTheKindThatTheLinkHasNow) {
    const SpeedRow rows[] = {
        {"unknown", 0, INTERFACE_USB_2},
        {"low speed", 1, INTERFACE_USB_2},
        {"full speed", 12, INTERFACE_USB_2},
        {"high speed", 480, INTERFACE_USB_2},
        {"just below", 4999, INTERFACE_USB_2},
        {"SuperSpeed", 5000, INTERFACE_USB_3},
        {"SuperSpeedPlus", 10000, INTERFACE_USB_3},
        {"two lanes", 20000, INTERFACE_USB_3},
    };
    UsbInterface object(entry);
    for (const SpeedRow& row : rows) {
        hal.Change([&] { camera->speed = row.megabits; });
        EXPECT_EQ(row.type, object.GetInterfaceType()) << row.name;
    }
}

TEST_F(UsbInterfaceTest, KeepsTheLastKindWhenTheCameraIsGone) {
    UsbInterface object(entry);
    EXPECT_EQ(INTERFACE_USB_3, object.GetInterfaceType());
    hal.Change([this] { camera->statuses["HAL_UsbGetSpeed"] = HAL_GONE; });
    EXPECT_EQ(INTERFACE_USB_3, object.GetInterfaceType());
    object.ReleaseCamera();
    EXPECT_EQ(INTERFACE_USB_3, object.GetInterfaceType());
}

TEST_F(UsbInterfaceTest, LearnsTheKindFromItsIdentification) {
    UsbInterface object(entry);
    Config().Read(object);
    hal.Change([this] { camera->statuses["HAL_UsbGetSpeed"] = HAL_GONE; });
    EXPECT_EQ(INTERFACE_USB_3, object.GetInterfaceType());
}

// ---- The tree ------------------------------------------------------------------------------------------------------

class UsbTreeTest : public UsbInterfaceTest {
protected:
    UsbTreeTest() : object(entry) {
        camera->tree = {{1, 480, 10, 0, 63}, {2, 5000, 10, 3, 1}};
        camera->deviceId = 2;
        camera->hostKey = 99;
        camera->generation = 1;
    }

    int Query(std::uint64_t* count) { return object.GetUsbSelfIds(&deviceId, &hostKey, count, nullptr); }
    int Fill(std::uint64_t* count, UsbSelfId* records) {
        return object.GetUsbSelfIds(&deviceId, &hostKey, count, records);
    }

    UsbInterface object;
    unsigned int deviceId = 0;
    std::uint64_t hostKey = 0;
};

TEST_F(UsbTreeTest, IsCountedAndThenHandedOut) {
    std::uint64_t count = 0;
    ASSERT_EQ(HAL_OK, Query(&count));
    EXPECT_EQ(2U, count);
    EXPECT_EQ(2U, deviceId);
    EXPECT_EQ(99U, hostKey);
    EXPECT_EQ(1024U, hal.Calls()[0].arguments[2]);
    UsbSelfId records[2] = {};
    ASSERT_EQ(HAL_OK, Fill(&count, records));
    EXPECT_EQ(1U, records[0].deviceId);
    EXPECT_EQ(3U, records[1].routeString);
    EXPECT_EQ(1U, records[1].parentId);
}

TEST_F(UsbTreeTest, IsRefusedWhenTheBusHasChangedSinceTheQuery) {
    std::uint64_t count = 0;
    Query(&count);
    hal.Change([this] { camera->generation = 2; });
    UsbSelfId records[2] = {};
    EXPECT_EQ(HAL_BUS_CHANGED, Fill(&count, records));
}

TEST_F(UsbTreeTest, IsRefusedWithoutAQueryAndToABufferThatIsTooSmall) {
    std::uint64_t count = 2;
    UsbSelfId records[2] = {};
    EXPECT_EQ(HAL_INVALID_ARGUMENT, Fill(&count, records));
    Query(&count);
    count = 1;
    EXPECT_EQ(HAL_INVALID_ARGUMENT, Fill(&count, records));
    EXPECT_EQ(0U, records[0].deviceId);
}

TEST_F(UsbTreeTest, MayBeMissing) {
    camera->statuses["HAL_UsbGetSelfIds"] = HAL_NO_TREE;
    std::uint64_t count = 0;
    EXPECT_EQ(20, Query(&count));
}

TEST_F(UsbTreeTest, IsRefusedWhenTheHalClaimsMoreThanThereWasRoomFor) {
    hal.Replace(
        &Testing::HalHooks::HAL_UsbGetSelfIds,
        [](void*, UsbSelfId*, std::uint64_t* count, std::uint32_t*, std::uint64_t*, std::uint32_t*) -> std::uint32_t {
            *count = 1025;
            return HAL_OK;
        });
    std::uint64_t count = 0;
    EXPECT_EQ(HAL_BAD_ANSWER, Query(&count));
}

// ---- Link speed ----------------------------------------------------------------------------------------------------

TEST_F(UsbInterfaceTest, TellsTheSpeedOfTheLinkAsItIsNow) {
    UsbInterface object(entry);
    std::uint32_t megabits = 0;
    EXPECT_EQ(HAL_OK, object.GetLinkSpeed(&megabits));
    EXPECT_EQ(5000U, megabits);
    hal.Change([this] { camera->speed = 12; });
    EXPECT_EQ(HAL_OK, object.GetLinkSpeed(&megabits));
    EXPECT_EQ(12U, megabits);
}

TEST_F(UsbInterfaceTest, TellsNoSpeedThatIsUnknown) {
    UsbInterface object(entry);
    std::uint32_t megabits = 0;
    hal.Change([this] { camera->speed = 0; });
    EXPECT_EQ(HAL_NOT_SUPPORTED, object.GetLinkSpeed(&megabits));
    hal.Change([this] { camera->statuses["HAL_UsbGetSpeed"] = HAL_BUSY; });
    EXPECT_EQ(HAL_BUSY, object.GetLinkSpeed(&megabits));
    object.ReleaseCamera();
    EXPECT_EQ(HAL_GONE, object.GetLinkSpeed(&megabits));
}

// ---- What a listing shows ------------------------------------------------------------------------------------------

TEST_F(UsbInterfaceTest, TellsALiveCamerasInfo) {
    camera->serialText = "SN-51966";
    UsbInterface object(entry);
    CameraInfo info;
    ASSERT_EQ(HAL_OK, object.GetCameraInfo(&info));
    EXPECT_EQ(0xCAFEU, info.serialNumber);
    EXPECT_EQ(INTERFACE_USB_3, info.interfaceType);
    EXPECT_STREQ("Vendor", info.vendorName);
    EXPECT_STREQ("Model", info.modelName);
    EXPECT_STREQ("SN-51966", info.serialText);
}

TEST_F(UsbInterfaceTest, LeavesTheRecordAloneWhenAPartOfItCannotBeRead) {
    for (const char* function : {"HAL_UsbGetConfigInfo", "HAL_UsbGetSerialText"}) {
        camera->statuses = {{function, HAL_GONE}};
        UsbInterface object(entry);
        CameraInfo info;
        std::strcpy(info.vendorName, "before");
        std::strcpy(info.serialText, "before, too");
        info.serialNumber = 7;
        EXPECT_EQ(HAL_GONE, object.GetCameraInfo(&info));
        EXPECT_STREQ("before", info.vendorName);
        EXPECT_STREQ("before, too", info.serialText);
        EXPECT_EQ(7U, info.serialNumber);
    }
}

TEST_F(UsbInterfaceTest, LeavesNothingOfAnotherCameraInARecordThatIsUsedAgain) {
    camera->serialText = "S";
    UsbInterface object(entry);
    CameraInfo info;
    std::strcpy(info.serialText, "longer");
    std::strcpy(info.userDefinedName, "of another camera");
    info.ipAddress = IPAddress{{1, 2, 3, 4}};
    ASSERT_EQ(HAL_OK, object.GetCameraInfo(&info));
    EXPECT_STREQ("S", info.serialText);
    EXPECT_STREQ("", info.userDefinedName);
    EXPECT_EQ(0U, PackIPAddress(info.ipAddress));
}

TEST_F(UsbInterfaceTest, EndsTextsThatTheHalLeftOpen) {
    camera->unterminatedTexts = true;
    UsbInterface object(entry);
    CameraInfo info;
    ASSERT_EQ(HAL_OK, object.GetCameraInfo(&info));
    EXPECT_EQ(63U, std::strlen(info.vendorName));
    EXPECT_EQ(63U, std::strlen(info.modelName));
    EXPECT_EQ(63U, std::strlen(info.serialText));
}

}  // namespace
}  // namespace Nimbrel2
