// SPDX-License-Identifier: Apache-2.0
// The interface object of an IEEE 1394 camera or device: what it passes to the HAL, and what it answers once released.
#include <cstring>

#include "common/IEEE1394Interface.h"
#include "tests/common/InterfaceFixture.h"

namespace Nimbrel2 {
namespace {

class IEEE1394InterfaceTest : public InterfaceTest {
protected:
    IEEE1394InterfaceTest() : camera(hal.AddFireWireCamera(0xCAFE, 5, 2)), entry(EntryFrom(&HAL_1394GetCameras)) {}

    std::uint16_t NodeOf(IEEE1394Interface& object) {
        std::uint16_t node = 0xFFFF;
        EXPECT_EQ(HAL_OK, object.GetCameraNode(&node));
        return node;
    }

    std::uint16_t BusOf(IEEE1394Interface& object) {
        std::uint16_t busNumber = 0xFFFF;
        EXPECT_EQ(HAL_OK, object.GetCameraBusNum(&busNumber));
        return busNumber;
    }

    Testing::ScriptedHal::DevicePointer camera;
    void* entry;
};

TEST_F(IEEE1394InterfaceTest, ReadsNodeAndBusNumberWhenItIsMade) {
    IEEE1394Interface object(entry);
    EXPECT_EQ((std::vector<std::uint64_t>{0, 0}), OnlyCall("HAL_1394GetNode", entry));
    EXPECT_EQ(5, NodeOf(object));
    EXPECT_EQ(2, BusOf(object));
    EXPECT_EQ(1U, hal.Calls().size());
}

TEST_F(IEEE1394InterfaceTest, HasNodeAndBusZeroWhenTheyCannotBeRead) {
    camera->statuses["HAL_1394GetNode"] = HAL_GONE;
    IEEE1394Interface object(entry);
    EXPECT_EQ(0, NodeOf(object));
    EXPECT_EQ(0, BusOf(object));
}

TEST_F(IEEE1394InterfaceTest, KeepsNodeAndBusNumberUntilTheyAreSet) {
    IEEE1394Interface object(entry);
    hal.Change([this] { camera->node = 9; });
    EXPECT_EQ(5, NodeOf(object));
    object.SetCameraNode(7);
    object.SetCameraBusNum(3);
    EXPECT_EQ(7, NodeOf(object));
    EXPECT_EQ(3, BusOf(object));
    object.ReleaseCamera();
    EXPECT_EQ(7, NodeOf(object));
    EXPECT_EQ(3, BusOf(object));
}

TEST_F(IEEE1394InterfaceTest, StartsWithoutIsochronousTransmission) {
    IEEE1394Interface object(entry);
    EXPECT_FALSE(object.isoEnabled);
    EXPECT_EQ(INTERFACE_IEEE1394, object.GetInterfaceType());
}

TEST_F(IEEE1394InterfaceTest, CountsNoEventsAtFirst) {
    IEEE1394Interface object(entry);
    EXPECT_EQ(0U, object.arrivalCount);
    EXPECT_EQ(0U, object.removalCount);
    EXPECT_EQ(0U, object.busResetCount);
    EXPECT_EQ(0U, object.busErrorCount);
}

TEST_F(IEEE1394InterfaceTest, PassesIdentificationOn) {
    std::copy_n(std::initializer_list<std::uint32_t>{1, 2, 4, 5}.begin(), 4, camera->config);
    camera->vendor = "Acme";
    camera->model = "Model 1";
    IEEE1394Interface object(entry);
    hal.ClearCalls();
    Config config;
    EXPECT_EQ(HAL_OK, config.Read(object));
    const std::vector<std::uint64_t> arguments = OnlyCall("HAL_1394GetConfigInfo", entry);
    ASSERT_EQ(9U, arguments.size());
    EXPECT_EQ(512U, arguments[7]);
    EXPECT_EQ(512U, arguments[8]);
    EXPECT_EQ((std::vector<std::uint32_t>{1, 2, 0xCAFE, 4, 5}),
              std::vector<std::uint32_t>(config.numbers, config.numbers + 5));
    EXPECT_STREQ("Acme", config.vendor);
    EXPECT_STREQ("Model 1", config.model);
    EXPECT_EQ(4U, config.vendorSize);
    EXPECT_EQ(7U, config.modelSize);
}

TEST_F(IEEE1394InterfaceTest, PassesRegisterOperationsOn) {
    IEEE1394Interface object(entry);
    hal.ClearCalls();
    EXPECT_EQ(HAL_OK, object.WriteRegister(0xF0F00614, 0xFFFFFFFF, 0x80000000, 0));
    EXPECT_EQ((std::vector<std::uint64_t>{0xF0F00614, 0xFFFFFFFF, 0x80000000, 0}),
              OnlyCall("HAL_1394WriteRegister", entry));
    hal.ClearCalls();
    std::uint32_t value = 0;
    EXPECT_EQ(HAL_OK, object.ReadRegister(0xF0F00614, 0xFFFFFFFF, &value));
    EXPECT_EQ(0x80000000, value);
    EXPECT_EQ((std::vector<std::uint64_t>{0xF0F00614, 0xFFFFFFFF, 0}), OnlyCall("HAL_1394ReadRegister", entry));
    EXPECT_EQ(HAL_NO_SUCH_REGISTER, object.ReadRegister(0x123456789ABC, 0xFFFFFFFF, &value));
    EXPECT_EQ(0x123456789ABCU, hal.Calls().back().arguments[1]);
}

TEST_F(IEEE1394InterfaceTest, PassesPhyOperationsOnWithTheirSelectorsInOrder) {
    IEEE1394Interface object(entry);
    hal.ClearCalls();
    EXPECT_EQ(HAL_OK, object.WritePhyRegister(1, 2, 8, 0xAB));
    EXPECT_EQ((std::vector<std::uint64_t>{1, 2, 8, 0xAB}), OnlyCall("HAL_1394WritePhyRegister", entry));
    hal.ClearCalls();
    std::uint32_t value = 0;
    EXPECT_EQ(HAL_OK, object.ReadPhyRegister(1, 2, 8, &value));
    EXPECT_EQ(0xABU, value);
    EXPECT_EQ((std::vector<std::uint64_t>{1, 2, 8, 0}), OnlyCall("HAL_1394ReadPhyRegister", entry));
}

TEST_F(IEEE1394InterfaceTest, PassesBusResetAndDeviceInfoOn) {
    camera->info[0] = 10;
    camera->info[1] = 20;
    camera->info[2] = 30;
    camera->countInfo3FromListing = false;
    IEEE1394Interface object(entry);
    hal.ClearCalls();
    EXPECT_EQ(HAL_OK, object.FireBusReset());
    EXPECT_TRUE(OnlyCall("HAL_1394FireBusReset", entry).empty());
    std::uint32_t info[3] = {};
    EXPECT_EQ(HAL_OK, object.GetDeviceInfo(&info[0], &info[1], &info[2]));
    EXPECT_EQ(10U, info[0]);
    EXPECT_EQ(20U, info[1]);
    EXPECT_EQ(30U, info[2]);
}

TEST_F(IEEE1394InterfaceTest, FillsSerialNumbersIntoAsManySlotsAsTheListHas) {
    camera->nodeSerialNumbers = {11, 22, 33};
    IEEE1394Interface object(entry);
    std::vector<unsigned int> serialNumbers(2);
    EXPECT_EQ(HAL_OK, object.GetNodeSerialNumbers(&serialNumbers));
    EXPECT_EQ((std::vector<unsigned int>{11, 22}), serialNumbers);
    std::vector<unsigned int> none;
    EXPECT_EQ(HAL_OK, object.GetNodeSerialNumbers(&none));
    EXPECT_EQ(0U, hal.Calls().back().arguments[2]);
}

TEST_F(IEEE1394InterfaceTest, HasNoUsbTree) {
    IEEE1394Interface object(entry);
    unsigned int deviceId = 0;
    std::uint64_t hostKey = 0;
    std::uint64_t count = 0;
    EXPECT_EQ(HAL_NOT_SUPPORTED, object.GetUsbSelfIds(&deviceId, &hostKey, &count, nullptr));
}

TEST_F(IEEE1394InterfaceTest, PassesEveryStatusOn) {
    for (const char* function : {"HAL_1394GetConfigInfo", "HAL_1394ReadRegister", "HAL_1394WriteRegister",
                                 "HAL_1394ReadPhyRegister", "HAL_1394WritePhyRegister", "HAL_1394FireBusReset",
                                 "HAL_1394GetDeviceInfo", "HAL_1394GetNodeSerialNumbers", "HAL_1394GetSelfIds"}) {
        camera->statuses[function] = HAL_BUSY;
    }
    IEEE1394Interface object(entry);
    std::uint32_t value = 0;
    std::vector<unsigned int> serialNumbers(1);
    std::uint64_t busKey = 0;
    std::uint64_t count = 0;
    EXPECT_EQ(HAL_BUSY, Config().Read(object));
    EXPECT_EQ(HAL_BUSY, object.ReadRegister(0, 0xFFFFFFFF, &value));
    EXPECT_EQ(HAL_BUSY, object.WriteRegister(0, 0xFFFFFFFF, 0, 0));
    EXPECT_EQ(HAL_BUSY, object.ReadPhyRegister(0, 0, 0, &value));
    EXPECT_EQ(HAL_BUSY, object.WritePhyRegister(0, 0, 0, 0));
    EXPECT_EQ(HAL_BUSY, object.FireBusReset());
    EXPECT_EQ(HAL_BUSY, object.GetDeviceInfo(&value, &value, &value));
    EXPECT_EQ(HAL_BUSY, object.GetNodeSerialNumbers(&serialNumbers));
    EXPECT_EQ(HAL_BUSY, object.GetSelfIds(&value, &busKey, &count, nullptr));
    CameraInfo info;
    EXPECT_EQ(HAL_BUSY, object.GetCameraInfo(&info));
}

TEST_F(IEEE1394InterfaceTest, AnswersGoneToEverythingOnceReleasedWithoutAskingTheHal) {
    IEEE1394Interface object(entry);
    EXPECT_EQ(HAL_OK, object.ReleaseCamera());
    hal.ClearCalls();
    std::uint32_t value = 0;
    std::vector<unsigned int> serialNumbers(1);
    std::uint64_t busKey = 0;
    std::uint64_t count = 0;
    CameraInfo info;
    EXPECT_EQ(HAL_GONE, Config().Read(object));
    EXPECT_EQ(HAL_GONE, object.ReadRegister(0, 0xFFFFFFFF, &value));
    EXPECT_EQ(HAL_GONE, object.WriteRegister(0, 0xFFFFFFFF, 0, 0));
    EXPECT_EQ(HAL_GONE, object.ReadPhyRegister(0, 0, 0, &value));
    EXPECT_EQ(HAL_GONE, object.WritePhyRegister(0, 0, 0, 0));
    EXPECT_EQ(HAL_GONE, object.FireBusReset());
    EXPECT_EQ(HAL_GONE, object.GetDeviceInfo(&value, &value, &value));
    EXPECT_EQ(HAL_GONE, object.GetNodeSerialNumbers(&serialNumbers));
    EXPECT_EQ(HAL_GONE, object.GetSelfIds(&value, &busKey, &count, nullptr));
    EXPECT_EQ(HAL_GONE, object.GetCameraInfo(&info));
    EXPECT_EQ(HAL_GONE, object.ReleaseCamera());
    EXPECT_EQ(HAL_GONE, object.ReleaseDevice());
    EXPECT_EQ(INTERFACE_IEEE1394, object.GetInterfaceType());
    EXPECT_TRUE(hal.Calls().empty());
    hal.ExpectAllEntriesGivenBackOnce();
}

TEST_F(IEEE1394InterfaceTest, GivesTheEntryBackUnderAnOperationOnlyWhenThatHasEnded) {
    camera->registers[0x10] = 1;
    IEEE1394Interface object(entry);
    ExpectReleaseWaitsForTheOperation(
        object, "HAL_1394ReadRegister",
        [&object] {
            std::uint32_t value = 0;
            return object.ReadRegister(0x10, 0xFFFFFFFF, &value);
        },
        "HAL_1394FreeCamera");
}

TEST_F(IEEE1394InterfaceTest, LeavesTheEntryAloneWhenItIsDestroyed) {
    { IEEE1394Interface object(entry); }
    EXPECT_EQ(1U, hal.EntriesOutstanding());
}

TEST(IEEE1394InterfaceOfADevice, GivesTheEntryBackAsADevice) {
    Testing::ScriptedHal hal;
    hal.AddFireWireDevice(1, 2);
    void* entry = nullptr;
    std::uint64_t count = 1;
    HAL_1394GetDevices(&entry, &count);
    IEEE1394Interface object(entry);
    EXPECT_EQ(HAL_OK, object.ReleaseDevice());
    EXPECT_EQ(HAL_GONE, object.ReleaseDevice());
    EXPECT_EQ(1U, hal.Count("HAL_1394FreeDevice"));
    hal.ExpectAllEntriesGivenBackOnce();
}

// ---- Self-IDs ------------------------------------------------------------------------------------------------------

class SelfIdsTest : public IEEE1394InterfaceTest {
protected:
    SelfIdsTest() : object(entry) {
        camera->selfIds = {{{1, 2, 3, 4}}, {{5, 6, 7, 8}}};
        camera->busKey = 77;
        camera->generation = 3;
        hal.ClearCalls();
    }

    int Query(std::uint64_t* count) { return object.GetSelfIds(&generation, &busKey, count, nullptr); }
    int Fill(std::uint64_t* count, SelfIdPacket_t* packets) {
        return object.GetSelfIds(&generation, &busKey, count, packets);
    }

    IEEE1394Interface object;
    unsigned int generation = 0;
    std::uint64_t busKey = 0;
};

TEST_F(SelfIdsTest, AreCountedAndThenHandedOut) {
    std::uint64_t count = 0;
    ASSERT_EQ(HAL_OK, Query(&count));
    EXPECT_EQ(2U, count);
    EXPECT_EQ(3U, generation);
    EXPECT_EQ(77U, busKey);
    EXPECT_EQ(252U, hal.Calls()[0].arguments[2]);
    SelfIdPacket_t packets[2] = {};
    ASSERT_EQ(HAL_OK, Fill(&count, packets));
    EXPECT_EQ(2U, count);
    EXPECT_EQ(0, std::memcmp(packets, "\x01\x02\x03\x04\x05\x06\x07\x08", 8));
}

TEST_F(SelfIdsTest, MayBeFilledTwice) {
    std::uint64_t count = 0;
    Query(&count);
    SelfIdPacket_t packets[2] = {};
    EXPECT_EQ(HAL_OK, Fill(&count, packets));
    EXPECT_EQ(HAL_OK, Fill(&count, packets));
}

TEST_F(SelfIdsTest, AreRefusedWhenTheBusHasChangedSinceTheQuery) {
    std::uint64_t count = 0;
    Query(&count);
    hal.Change([this] { camera->generation = 4; });
    SelfIdPacket_t packets[2] = {};
    EXPECT_EQ(HAL_BUS_CHANGED, Fill(&count, packets));
    ASSERT_EQ(HAL_OK, Query(&count));
    EXPECT_EQ(HAL_OK, Fill(&count, packets));
}

TEST_F(SelfIdsTest, AreRefusedWithoutAQuery) {
    std::uint64_t count = 2;
    SelfIdPacket_t packets[2] = {};
    EXPECT_EQ(HAL_INVALID_ARGUMENT, Fill(&count, packets));
}

TEST_F(SelfIdsTest, AreRefusedToABufferThatIsTooSmall) {
    std::uint64_t count = 0;
    Query(&count);
    count = 1;
    SelfIdPacket_t packets[1] = {};
    EXPECT_EQ(HAL_INVALID_ARGUMENT, Fill(&count, packets));
    EXPECT_EQ(0, packets[0].bytes[0]);
}

TEST_F(SelfIdsTest, TakeABufferWithRoomToSpareAndSayHowManyThereAre) {
    std::uint64_t count = 0;
    Query(&count);
    count = 5;
    SelfIdPacket_t packets[5] = {};
    EXPECT_EQ(HAL_OK, Fill(&count, packets));
    EXPECT_EQ(2U, count);
}

TEST_F(SelfIdsTest, MayBeNone) {
    hal.Change([this] { camera->selfIds.clear(); });
    std::uint64_t count = 9;
    EXPECT_EQ(HAL_OK, Query(&count));
    EXPECT_EQ(0U, count);
    SelfIdPacket_t unused{};
    EXPECT_EQ(HAL_OK, Fill(&count, &unused));
    EXPECT_EQ(0U, count);
}

TEST_F(SelfIdsTest, MayFillTheWholeReading) {
    hal.Change([this] { camera->selfIds.assign(252, SelfIdPacket_t{{9, 9, 9, 9}}); });
    std::uint64_t count = 0;
    ASSERT_EQ(HAL_OK, Query(&count));
    std::vector<SelfIdPacket_t> packets(count);
    EXPECT_EQ(HAL_OK, Fill(&count, packets.data()));
    EXPECT_EQ(252U, count);
    EXPECT_EQ(9, packets.back().bytes[3]);
}

TEST_F(SelfIdsTest, AreRefusedWhenTheHalClaimsMoreThanThereWasRoomFor) {
    hal.Replace(&Testing::HalHooks::HAL_1394GetSelfIds,
                [](void*, SelfIdPacket_t*, std::uint64_t* count, std::uint64_t*, std::uint32_t*) -> std::uint32_t {
                    *count = std::uint64_t{1} << 60;
                    return HAL_OK;
                });
    std::uint64_t count = 0;
    EXPECT_EQ(HAL_BAD_ANSWER, Query(&count));
    SelfIdPacket_t packets[1] = {};
    count = 1;
    EXPECT_EQ(HAL_BAD_ANSWER, Fill(&count, packets));
}

TEST_F(SelfIdsTest, KeepTheReadingOfTheQueryWhenALaterOneFails) {
    std::uint64_t count = 0;
    Query(&count);
    hal.Fail("HAL_1394GetSelfIds", 1, HAL_BUSY);
    std::uint64_t other = 0;
    EXPECT_EQ(HAL_BUSY, Query(&other));
    SelfIdPacket_t packets[2] = {};
    EXPECT_EQ(HAL_OK, Fill(&count, packets));
}

// ---- Link speed ----------------------------------------------------------------------------------------------------

// Packet zero of a PHY: its id, and its speed in the two upper bits of the third byte.
SelfIdPacket_t PacketZero(int phyId, int speed) {
    return {{static_cast<std::uint8_t>(0x80 | phyId), 0x7F, static_cast<std::uint8_t>(speed << 6 | 0x3F), 0xFF}};
}

TEST_F(IEEE1394InterfaceTest, TellsTheSpeedOfItsPhyAndNotOfANeighbour) {
    IEEE1394Interface object(entry);
    const std::uint32_t expected[] = {100, 200, 400, 800};
    for (int speed = 0; speed < 4; ++speed) {
        // Before it an extended packet of the same PHY, which has no speed where packet zero has it.
        const SelfIdPacket_t extended{{0x85, 0x80, static_cast<std::uint8_t>(~(speed << 6)), 0}};
        hal.Change([&] {
            camera->selfIds = {PacketZero(4, 3 - speed), extended, PacketZero(5, speed), PacketZero(6, 3 - speed)};
        });
        std::uint32_t megabits = 0;
        EXPECT_EQ(HAL_OK, object.GetLinkSpeed(&megabits));
        EXPECT_EQ(expected[speed], megabits);
    }
}

TEST_F(IEEE1394InterfaceTest, FollowsItsPhyToAnotherNode) {
    camera->selfIds = {PacketZero(5, 0), PacketZero(6, 2)};
    IEEE1394Interface object(entry);
    hal.Change([this] { camera->node = 6; });
    std::uint32_t megabits = 0;
    EXPECT_EQ(HAL_OK, object.GetLinkSpeed(&megabits));
    EXPECT_EQ(400U, megabits);
    hal.Change([this] { camera->node = 7; });
    EXPECT_EQ(HAL_BUS_CHANGED, object.GetLinkSpeed(&megabits));
}

TEST_F(IEEE1394InterfaceTest, PassesOnWhyItKnowsNoSpeed) {
    IEEE1394Interface object(entry);
    std::uint32_t megabits = 0;
    hal.Change([this] { camera->statuses["HAL_1394GetSelfIds"] = HAL_PERMISSION; });
    EXPECT_EQ(HAL_PERMISSION, object.GetLinkSpeed(&megabits));
    hal.Change([this] { camera->statuses["HAL_1394GetNode"] = HAL_BUSY; });
    EXPECT_EQ(HAL_BUSY, object.GetLinkSpeed(&megabits));
    object.ReleaseCamera();
    EXPECT_EQ(HAL_GONE, object.GetLinkSpeed(&megabits));
}

// ---- What a listing shows ------------------------------------------------------------------------------------------

TEST_F(IEEE1394InterfaceTest, TellsALiveCamerasInfo) {
    camera->config[0] = 0x00123456;
    camera->vendor = "Acme";
    camera->model = "Model 1";
    IEEE1394Interface object(entry);
    CameraInfo info;
    ASSERT_EQ(HAL_OK, object.GetCameraInfo(&info));
    EXPECT_EQ(0xCAFEU, info.serialNumber);
    EXPECT_EQ(INTERFACE_IEEE1394, info.interfaceType);
    EXPECT_STREQ("Acme", info.vendorName);
    EXPECT_STREQ("Model 1", info.modelName);
    EXPECT_STREQ("001234560000cafe", info.serialText);
}

TEST_F(IEEE1394InterfaceTest, ShowsTheSerialNumberOfACameraWithoutAnEuiInDecimal) {
    IEEE1394Interface object(entry);
    CameraInfo info;
    ASSERT_EQ(HAL_OK, object.GetCameraInfo(&info));
    EXPECT_STREQ("51966", info.serialText);
}

TEST_F(IEEE1394InterfaceTest, EndsTextsThatTheHalLeftOpen) {
    camera->unterminatedTexts = true;
    IEEE1394Interface object(entry);
    CameraInfo info;
    ASSERT_EQ(HAL_OK, object.GetCameraInfo(&info));
    EXPECT_EQ(63U, std::strlen(info.vendorName));
    EXPECT_EQ(63U, std::strlen(info.modelName));
}

TEST_F(IEEE1394InterfaceTest, TellsALiveCamerasInfoIntoAUsedRecord) {
    camera->vendor = "A";
    IEEE1394Interface object(entry);
    CameraInfo info;
    std::strcpy(info.vendorName, "longer");
    std::strcpy(info.userDefinedName, "of another camera");
    info.gigEMajorVersion = 2;
    ASSERT_EQ(HAL_OK, object.GetCameraInfo(&info));
    EXPECT_STREQ("A", info.vendorName);
    EXPECT_STREQ("", info.userDefinedName);
    EXPECT_EQ(0U, info.gigEMajorVersion);
}

TEST_F(IEEE1394InterfaceTest, LeavesTheRecordAloneWhenTheCameraIsGone) {
    camera->statuses["HAL_1394GetConfigInfo"] = HAL_GONE;
    IEEE1394Interface object(entry);
    CameraInfo info;
    std::strcpy(info.vendorName, "before");
    info.serialNumber = 7;
    EXPECT_EQ(HAL_GONE, object.GetCameraInfo(&info));
    EXPECT_STREQ("before", info.vendorName);
    EXPECT_EQ(7U, info.serialNumber);
}

}  // namespace
}  // namespace Nimbrel2
