// SPDX-License-Identifier: Apache-2.0
// Look-ups over the camera and device lists: checks in their order, exact errors, and locks let go on every path.
#include <functional>
#include <future>

#include "common/GigEInterface.h"
#include "common/IEEE1394Interface.h"
#include "tests/busmaster/CoreFixture.h"
#include "tests/support/AllocationFailure.h"

namespace Nimbrel2 {
namespace {

using Device = Testing::ScriptedHal::DevicePointer;

constexpr ZevoGuid Untouched{{7, 7, 7, 7}};
constexpr ZevoGuid AllZero{};
constexpr ZevoGuid Unknown{{1, 0, 0, 1}};

class LookupsTest : public CoreTest {
protected:
    LookupsTest() { bm.SetInitialized(true); }
    ~LookupsTest() override { Testing::ExpectLocksFree(bm.object); }

    // Two cameras and a device, each answering for itself.
    void FillLists() {
        bm.cameras() = {NewHandle(ZevoGuid{{1, 2, 3, 4}}, 100, new FakeInterface(INTERFACE_USB_3)),
                        NewHandle(ZevoGuid{{1, 2, 3, 5}}, 200, new FakeInterface(INTERFACE_GIGE))};
        bm.devices() = {NewHandle(ZevoGuid{{9, 9, 9, 9}}, 0, new FakeInterface(INTERFACE_IEEE1394))};
    }

    HardwareInterface* CameraInterface(std::size_t index) { return bm.cameras()[index]->hwInterface.get(); }

    BusMasterByHand bm;
    ZevoGuid guid = Untouched;
    unsigned int number = 77;
    HardwareInterface* hw = nullptr;
};

// ---- Counts --------------------------------------------------------------------------------------------------------

TEST_F(LookupsTest, CountCamerasAndDevices) {
    ExpectOk(bm.object.GetNumOfCameras(&number));
    EXPECT_EQ(0U, number);
    FillLists();
    ExpectOk(bm.object.GetNumOfCameras(&number));
    EXPECT_EQ(2U, number);
    ExpectOk(bm.object.GetNumOfDevices(&number));
    EXPECT_EQ(1U, number);
}

TEST_F(LookupsTest, RefuseANullCount) {
    ExpectError(bm.object.GetNumOfCameras(nullptr), ERROR_INVALID_PARAMETER, "Invalid number of devices parameter.");
    ExpectError(bm.object.GetNumOfDevices(nullptr), ERROR_INVALID_PARAMETER, "Invalid number of devices parameter.");
}

TEST_F(LookupsTest, RefuseToCountBeforeStartUpWhateverTheCountIs) {
    FillLists();
    bm.SetInitialized(false);
    for (unsigned int* const count : {&number, static_cast<unsigned int*>(nullptr)}) {
        ExpectError(bm.object.GetNumOfCameras(count), ERROR_NOT_INITIALIZED, "Bus Manager Object not initialized.");
        ExpectError(bm.object.GetNumOfDevices(count), ERROR_NOT_INITIALIZED, "Bus Manager Object not initialized.");
    }
    EXPECT_EQ(77U, number);
}

// ---- By index ------------------------------------------------------------------------------------------------------

TEST_F(LookupsTest, FindTheIdentifierAtAnIndex) {
    FillLists();
    ExpectOk(bm.object.GetCameraFromIndex(0, &guid));
    EXPECT_EQ((ZevoGuid{{1, 2, 3, 4}}), guid);
    ExpectOk(bm.object.GetCameraFromIndex(1, &guid));
    EXPECT_EQ((ZevoGuid{{1, 2, 3, 5}}), guid);
    ExpectOk(bm.object.GetDeviceFromIndex(0, &guid));
    EXPECT_EQ((ZevoGuid{{9, 9, 9, 9}}), guid);
}

TEST_F(LookupsTest, ClearTheIdentifierOfACameraPastTheEnd) {
    ExpectError(bm.object.GetCameraFromIndex(0, &guid), ERROR_INVALID_PARAMETER, "Invalid index parameter (0/0).");
    EXPECT_EQ(AllZero, guid);
    FillLists();
    for (const unsigned int index : {2U, 0xFFFFFFFFU}) {
        guid = Untouched;
        ExpectError(bm.object.GetCameraFromIndex(index, &guid), ERROR_INVALID_PARAMETER,
                    "Invalid index parameter (" + std::to_string(index) + "/2).");
        EXPECT_EQ(AllZero, guid);
    }
}

TEST_F(LookupsTest, LeaveTheIdentifierOfADevicePastTheEndAlone) {
    ExpectError(bm.object.GetDeviceFromIndex(3, &guid), ERROR_INVALID_PARAMETER, "Invalid index parameter (3/0).");
    EXPECT_EQ(Untouched, guid);
    FillLists();
    ExpectError(bm.object.GetDeviceFromIndex(1, &guid), ERROR_INVALID_PARAMETER, "Invalid index parameter (1/1).");
    EXPECT_EQ(Untouched, guid);
}

TEST_F(LookupsTest, RefuseANullIdentifierBeforeTheyLookAtAnythingElse) {
    for (const bool initialized : {true, false}) {
        bm.SetInitialized(initialized);
        ExpectError(bm.object.GetCameraFromIndex(9, nullptr), ERROR_INVALID_PARAMETER, "Invalid guid parameter.");
        ExpectError(bm.object.GetDeviceFromIndex(9, nullptr), ERROR_INVALID_PARAMETER, "Invalid guid parameter.");
        ExpectError(bm.object.GetCameraFromSerialNumber(9, nullptr), ERROR_INVALID_PARAMETER,
                    "Invalid guid parameter.");
        ExpectError(bm.object.GetCameraSerialNumberFromIndex(9, nullptr), ERROR_INVALID_PARAMETER,
                    "Invalid serial number parameter.");
    }
}

TEST_F(LookupsTest, RefuseBeforeStartUpAndTouchNothing) {
    FillLists();
    bm.SetInitialized(false);
    ExpectError(bm.object.GetCameraFromIndex(0, &guid), ERROR_NOT_INITIALIZED, "Object not initialized.");
    ExpectError(bm.object.GetDeviceFromIndex(0, &guid), ERROR_NOT_INITIALIZED, "Object not initialized.");
    ExpectError(bm.object.GetCameraFromSerialNumber(100, &guid), ERROR_NOT_INITIALIZED, "Object not initialized.");
    ExpectError(bm.object.GetCameraSerialNumberFromIndex(0, &number), ERROR_NOT_INITIALIZED, "Object not initialized.");
    ExpectError(bm.object.GetHwInterfaceFromIndex(0, &hw), ERROR_NOT_INITIALIZED, "Object not initialized.");
    ExpectError(bm.object.GetHwInterfaceFromIndex(9, nullptr), ERROR_NOT_INITIALIZED, "Object not initialized.");
    ExpectError(bm.object.GetHwInterfaceFromSerialNumber(100, &hw), ERROR_NOT_INITIALIZED, "Object not initialized.");
    EXPECT_EQ(Untouched, guid);
    EXPECT_EQ(77U, number);
    EXPECT_EQ(nullptr, hw);
}

TEST_F(LookupsTest, FindTheSerialNumberAtAnIndex) {
    FillLists();
    ExpectOk(bm.object.GetCameraSerialNumberFromIndex(1, &number));
    EXPECT_EQ(200U, number);
    number = 77;
    ExpectError(bm.object.GetCameraSerialNumberFromIndex(2, &number), ERROR_INVALID_PARAMETER,
                "Invalid index parameter (2/2).");
    EXPECT_EQ(77U, number);
}

TEST_F(LookupsTest, FindTheInterfaceAtAnIndex) {
    FillLists();
    ExpectOk(bm.object.GetHwInterfaceFromIndex(1, &hw));
    EXPECT_EQ(CameraInterface(1), hw);
    EXPECT_EQ(1, bm.cameras()[1]->hwInterface.use_count());
    hw = nullptr;
    ExpectError(bm.object.GetHwInterfaceFromIndex(2, &hw), ERROR_INVALID_PARAMETER, "Invalid index parameter (2/2).");
    EXPECT_EQ(nullptr, hw);
}

TEST_F(LookupsTest, TestANullInterfacePointerLast) {
    FillLists();
    for (const Error& error :
         {bm.object.GetHwInterfaceFromIndex(0, nullptr), bm.object.GetHwInterfaceFromSerialNumber(100, nullptr),
          bm.object.GetHwInterfaceFromGuid(ZevoGuid{{1, 2, 3, 4}}, nullptr)}) {
        EXPECT_TRUE(error == ERROR_INVALID_PARAMETER);
        EXPECT_STREQ("", error.GetMessage());
    }
    EXPECT_TRUE(bm.object.GetHwInterfaceFromSerialNumber(1, nullptr) == ERROR_NOT_FOUND);
    EXPECT_TRUE(bm.object.GetHwInterfaceFromGuid(Unknown, nullptr) == ERROR_NOT_FOUND);
}

// ---- By serial number ----------------------------------------------------------------------------------------------

TEST_F(LookupsTest, FindACameraBySerialNumber) {
    FillLists();
    ExpectOk(bm.object.GetCameraFromSerialNumber(200, &guid));
    EXPECT_EQ((ZevoGuid{{1, 2, 3, 5}}), guid);
    ExpectOk(bm.object.GetHwInterfaceFromSerialNumber(200, &hw));
    EXPECT_EQ(CameraInterface(1), hw);
}

TEST_F(LookupsTest, FindTheEarlierOfTwoCamerasWithOneSerialNumber) {
    FillLists();
    bm.cameras()[1]->serialNumber = 100;
    ExpectOk(bm.object.GetCameraFromSerialNumber(100, &guid));
    EXPECT_EQ((ZevoGuid{{1, 2, 3, 4}}), guid);
    ExpectOk(bm.object.GetHwInterfaceFromSerialNumber(100, &hw));
    EXPECT_EQ(CameraInterface(0), hw);
}

TEST_F(LookupsTest, DoNotFindDevicesBySerialNumber) {
    FillLists();
    EXPECT_TRUE(bm.object.GetCameraFromSerialNumber(0, &guid) == ERROR_FAILED);
    EXPECT_TRUE(bm.object.GetHwInterfaceFromSerialNumber(0, &hw) == ERROR_NOT_FOUND);
}

TEST_F(LookupsTest, AnswerAnUnknownSerialNumberUnevenly) {
    FillLists();
    ExpectError(bm.object.GetCameraFromSerialNumber(5, &guid), ERROR_FAILED,
                "Camera with specified serial number was not found.");
    EXPECT_EQ(AllZero, guid);
    ExpectError(bm.object.GetHwInterfaceFromSerialNumber(5, &hw), ERROR_NOT_FOUND,
                "Camera not found with specified serial number.");
    EXPECT_EQ(nullptr, hw);
}

// ---- By identifier -------------------------------------------------------------------------------------------------

TEST_F(LookupsTest, FindTheHandleOfACameraOnly) {
    FillLists();
    BusMasterHandle* handle = nullptr;
    ExpectOk(bm.object.GetHandleFromGuid(ZevoGuid{{1, 2, 3, 5}}, &handle));
    EXPECT_EQ(bm.cameras()[1], handle);
    handle = nullptr;
    ExpectError(bm.object.GetHandleFromGuid(ZevoGuid{{9, 9, 9, 9}}, &handle), ERROR_NOT_FOUND,
                "Could not find a device.");
    EXPECT_EQ(nullptr, handle);
    ExpectError(bm.object.GetHandleFromGuid(ZevoGuid{{1, 2, 3, 5}}, nullptr), ERROR_INVALID_PARAMETER,
                "Invalid handle parameter.");
}

TEST_F(LookupsTest, FindAHandleBeforeStartUpAndUnderTheMainLock) {
    FillLists();
    bm.SetInitialized(false);
    const boost::unique_lock<boost::mutex> lock(bm.members().m_busMasterMutex);
    BusMasterHandle* handle = nullptr;
    ExpectOk(bm.object.GetHandleFromGuid(ZevoGuid{{1, 2, 3, 4}}, &handle));
    EXPECT_EQ(bm.cameras()[0], handle);
}

TEST_F(LookupsTest, FindTheInterfaceOfACameraOrADevice) {
    FillLists();
    ExpectOk(bm.object.GetHwInterfaceFromGuid(ZevoGuid{{1, 2, 3, 5}}, &hw));
    EXPECT_EQ(CameraInterface(1), hw);
    ExpectOk(bm.object.GetHwInterfaceFromGuid(ZevoGuid{{9, 9, 9, 9}}, &hw));
    EXPECT_EQ(bm.devices()[0]->hwInterface.get(), hw);
    EXPECT_EQ(1, bm.devices()[0]->hwInterface.use_count());
}

TEST_F(LookupsTest, FindTheCameraWhenADeviceHasTheSameIdentifier) {
    FillLists();
    bm.devices()[0]->guid = bm.cameras()[1]->guid;
    ExpectOk(bm.object.GetHwInterfaceFromGuid(bm.cameras()[1]->guid, &hw));
    EXPECT_EQ(CameraInterface(1), hw);
    InterfaceType type = INTERFACE_NONE;
    ExpectOk(bm.object.GetInterfaceTypeFromGuid(bm.cameras()[1]->guid, &type));
    EXPECT_EQ(INTERFACE_GIGE, type);
}

TEST_F(LookupsTest, FindTheEarlierOfTwoCamerasWithOneIdentifier) {
    FillLists();
    bm.cameras()[1]->guid = bm.cameras()[0]->guid;
    ExpectOk(bm.object.GetHwInterfaceFromGuid(bm.cameras()[0]->guid, &hw));
    EXPECT_EQ(CameraInterface(0), hw);
    BusMasterHandle* handle = nullptr;
    ExpectOk(bm.object.GetHandleFromGuid(bm.cameras()[0]->guid, &handle));
    EXPECT_EQ(bm.cameras()[0], handle);
}

TEST_F(LookupsTest, TellIdentifiersApartByEveryWord) {
    FillLists();
    for (int word = 0; word < 4; ++word) {
        ZevoGuid other{{1, 2, 3, 4}};
        other.value[word] = 0x55;
        EXPECT_TRUE(bm.object.GetHwInterfaceFromGuid(other, &hw) == ERROR_NOT_FOUND) << "word " << word;
    }
}

TEST_F(LookupsTest, FindTheKindOfACameraOrADevice) {
    FillLists();
    InterfaceType type = INTERFACE_NONE;
    ExpectOk(bm.object.GetInterfaceTypeFromGuid(ZevoGuid{{1, 2, 3, 4}}, &type));
    EXPECT_EQ(INTERFACE_USB_3, type);
    ExpectOk(bm.object.GetInterfaceTypeFromGuid(ZevoGuid{{9, 9, 9, 9}}, &type));
    EXPECT_EQ(INTERFACE_IEEE1394, type);
}

TEST_F(LookupsTest, RefuseANullKindBeforeTheyLook) {
    ExpectError(bm.object.GetInterfaceTypeFromGuid(Unknown, nullptr), ERROR_INVALID_PARAMETER,
                "Invalid interface type address.");
    bm.SetInitialized(false);
    ExpectError(bm.object.GetInterfaceTypeFromGuid(Unknown, nullptr), ERROR_INVALID_PARAMETER,
                "Invalid interface type address.");
}

TEST_F(LookupsTest, AnswerAnUnknownIdentifierAndAMissingStartUpAlike) {
    FillLists();
    for (const bool initialized : {true, false}) {
        bm.SetInitialized(initialized);
        const ZevoGuid key = initialized ? Unknown : ZevoGuid{{1, 2, 3, 4}};
        InterfaceType type = INTERFACE_NONE;
        ExpectError(bm.object.GetHwInterfaceFromGuid(key, &hw), ERROR_NOT_FOUND,
                    "Camera not found with specified guid.");
        ExpectError(bm.object.GetInterfaceTypeFromGuid(key, &type), ERROR_NOT_FOUND,
                    "Device with matching ZevoGuid was not found.");
        EXPECT_EQ(nullptr, hw);
        EXPECT_EQ(INTERFACE_NONE, type);
    }
    EXPECT_EQ(Names{"Creating BusMaster"}, traces.Lines());
}

// ---- By address ----------------------------------------------------------------------------------------------------

class AddressLookupTest : public LookupsTest {
protected:
    // Lists what is attached, GigE cameras last.
    void List() {
        ExpectOk(Access::GetCameras(bm.object, bm.cameras()));
        hal.ClearCalls();
        traces.Clear();
    }

    Error Find(std::uint32_t address) { return bm.object.GetCameraFromIPAddress(UnpackIPAddress(address), &guid); }
};

TEST_F(AddressLookupTest, FindsTheCameraThatHasTheAddressNow) {
    hal.AddUsbCamera(1);
    hal.AddFireWireCamera(2);
    hal.AddGigECamera(3, 0xC0A80001);
    const Device camera = hal.AddGigECamera(4, 0xC0A80002);
    List();
    hal.Change([&] { camera->registers[0x24] = 0x0A0B0C0D; });
    ExpectOk(Find(0x0A0B0C0D));
    EXPECT_EQ(bm.cameras()[3]->guid, guid);
    const std::vector<Testing::HalCall> reads = hal.Calls("HAL_GigEReadRegister");
    ASSERT_EQ(2U, reads.size());
    EXPECT_EQ(0x24U, reads[0].arguments[1]);
    EXPECT_EQ(0U, reads[0].arguments[2]);
    EXPECT_TRUE(traces.Lines().empty());
}

TEST_F(AddressLookupTest, ComparesEveryOctetInItsPlace) {
    hal.AddGigECamera(1, 0x01020304);
    List();
    ExpectOk(Find(0x01020304));
    for (const std::uint32_t other : {0x11020304U, 0x01120304U, 0x01021304U, 0x01020314U, 0x04030201U}) {
        EXPECT_TRUE(Find(other) == ERROR_NOT_FOUND) << other;
    }
    ExpectOk(bm.object.GetCameraFromIPAddress(IPAddress{{1, 2, 3, 4}}, &guid));
}

TEST_F(AddressLookupTest, FindsTheFirstOfTwoAndReadsNoFurther) {
    hal.AddGigECamera(1, 0xC0A80001);
    hal.AddGigECamera(2, 0xC0A80001);
    List();
    ExpectOk(Find(0xC0A80001));
    EXPECT_EQ(bm.cameras()[0]->guid, guid);
    EXPECT_EQ(1U, hal.Count("HAL_GigEReadRegister"));
}

TEST_F(AddressLookupTest, SkipsACameraThatCannotBeReadAndFindsALaterOne) {
    const Device silent = hal.AddGigECamera(1, 0xC0A80001);
    hal.AddGigECamera(2, 0xC0A80001);
    List();
    hal.Change([&] { silent->statuses["HAL_GigEReadRegister"] = HAL_TIMED_OUT; });
    ExpectOk(Find(0xC0A80001));
    EXPECT_EQ(bm.cameras()[1]->guid, guid);
    EXPECT_EQ(Names{"Failed to read IP address register, skipping camera."}, traces.Lines());
}

TEST_F(AddressLookupTest, AnswersThatNoneWasFoundAndClearsTheIdentifier) {
    hal.AddGigECamera(1, 0xC0A80001);
    List();
    ExpectError(Find(0xC0A80002), ERROR_NOT_FOUND, "Device with matching ZevoGuid was not found.");
    EXPECT_EQ(AllZero, guid);
    EXPECT_EQ(Names{"Device with matching ZevoGuid was not found."}, traces.Lines());
}

TEST_F(AddressLookupTest, AnswersTheSameWithNoCamerasAtAll) {
    ExpectError(Find(0), ERROR_NOT_FOUND, "Device with matching ZevoGuid was not found.");
    EXPECT_EQ(AllZero, guid);
}

TEST_F(AddressLookupTest, RefusesANullIdentifier) {
    hal.AddGigECamera(1, 0xC0A80001);
    List();
    ExpectError(bm.object.GetCameraFromIPAddress(IPAddress{{192, 168, 0, 1}}, nullptr), ERROR_INVALID_PARAMETER,
                "Invalid ZevoGuid.");
    EXPECT_TRUE(hal.Calls().empty());
}

TEST_F(AddressLookupTest, WorksBeforeStartUp) {
    hal.AddGigECamera(1, 0xC0A80001);
    List();
    bm.SetInitialized(false);
    ExpectOk(Find(0xC0A80001));
    EXPECT_EQ(bm.cameras()[0]->guid, guid);
}

TEST_F(AddressLookupTest, TakesACameraOfThatKindWithoutRegistersForAddressZero) {
    FillLists();  // the second one says GigE and is no GigE interface
    ExpectOk(Find(0));
    EXPECT_EQ((ZevoGuid{{1, 2, 3, 5}}), guid);
    EXPECT_TRUE(Find(1) == ERROR_NOT_FOUND);
    EXPECT_EQ(0U, hal.Count("HAL_GigEReadRegister"));
}

TEST_F(AddressLookupTest, ReadsUnderTheMainLock) {
    hal.AddGigECamera(1, 0xC0A80001);
    List();
    bool free = true;
    hal.Replace(&Testing::HalHooks::HAL_GigEReadRegister, [&](void*, std::uint32_t, std::uint32_t*) -> std::uint32_t {
        std::thread([&] { free = bm.members().m_busMasterMutex.try_lock(); }).join();
        return HAL_TIMED_OUT;
    });
    EXPECT_TRUE(Find(0xC0A80001) == ERROR_NOT_FOUND);
    EXPECT_FALSE(free);
}

using AddressLookupDeathTest = AddressLookupTest;

TEST_F(AddressLookupDeathTest, EndsTheProgramForACameraWithoutAnInterface) {
    // In a program of its own: in a forked process this one's bus master answers nothing.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    FillLists();
    EXPECT_DEATH(
        {
            bm.cameras()[0]->hwInterface.reset();
            (void)Find(1);
        },
        "");
}

// ---- What a listing shows ------------------------------------------------------------------------------------------

TEST_F(LookupsTest, TellWhatAListingShowsOfACamera) {
    const Device camera = hal.AddUsbCamera(0xCAFE);
    camera->vendor = "Acme";
    ExpectOk(Access::GetUSBCameras(&bm.cameras()));
    CameraInfo info;
    ExpectOk(bm.object.GetCameraInfo(bm.cameras()[0]->guid, &info));
    EXPECT_STREQ("Acme", info.vendorName);
    EXPECT_EQ(0xCAFEU, info.serialNumber);
    hal.Change([&] { camera->statuses["HAL_UsbGetConfigInfo"] = 0x4; });
    ExpectError(bm.object.GetCameraInfo(bm.cameras()[0]->guid, &info), ERROR_LOW_LEVEL_FAILURE,
                "Could not read the camera info. Error: 0x4.");
    ExpectError(bm.object.GetCameraInfo(Unknown, &info), ERROR_NOT_FOUND, "Camera not found with specified guid.");
    ExpectError(bm.object.GetCameraInfo(Unknown, nullptr), ERROR_INVALID_PARAMETER, "Invalid camera info address.");
}

TEST_F(LookupsTest, KeepTheInterfaceWhileACameraTellsItsInfo) {
    hal.AddUsbCamera(0xCAFE);
    ExpectOk(Access::GetUSBCameras(&bm.cameras()));
    const auto gate = hal.Block("HAL_UsbGetSerialText");
    const ZevoGuid key = bm.cameras()[0]->guid;
    CameraInfo info;
    std::thread asker([&] { ExpectOk(bm.object.GetCameraInfo(key, &info)); });
    ASSERT_TRUE(gate->WaitUntilReached());
    {
        const boost::unique_lock<boost::mutex> lock(bm.members().m_busMasterMutex);  // not held while it asks
        Access::FreeCameraList(&bm.cameras());
    }
    EXPECT_EQ(1U, hal.EntriesOutstanding());
    gate->Open();
    asker.join();
    EXPECT_EQ(0xCAFEU, info.serialNumber);
    hal.ExpectAllEntriesGivenBackOnce();
}

TEST_F(LookupsTest, LeaveARecordAloneUnlessTheyCanFillIt) {
    const Device camera = hal.AddUsbCamera(0xCAFE);
    ExpectOk(Access::GetUSBCameras(&bm.cameras()));
    hal.Change([&] { camera->statuses["HAL_UsbGetSerialText"] = HAL_GONE; });
    CameraInfo info;
    std::strcpy(info.vendorName, "before");
    info.serialNumber = 7;
    for (const ZevoGuid& asked : {bm.cameras()[0]->guid, Unknown}) {
        EXPECT_FALSE(bm.object.GetCameraInfo(asked, &info) == ERROR_OK);
        EXPECT_STREQ("before", info.vendorName);
        EXPECT_EQ(7U, info.serialNumber);
    }
}

// ---- Interface objects that are kept -------------------------------------------------------------------------------

TEST_F(LookupsTest, GiveAShareOfTheInterfaceOfACameraOrDevice) {
    FillLists();
    boost::shared_ptr<HardwareInterface> kept;
    for (const BusMasterHandle* handle : {bm.cameras().back(), bm.devices().front()}) {
        ExpectOk(bm.object.KeepHwInterface(handle->guid, &kept));
        EXPECT_EQ(handle->hwInterface, kept);
    }
}

TEST_F(LookupsTest, GiveNoShareOfAnInterfaceThatIsNotListed) {
    FillLists();
    const boost::shared_ptr<HardwareInterface> before = bm.cameras()[0]->hwInterface;
    boost::shared_ptr<HardwareInterface> kept = before;
    ExpectError(bm.object.KeepHwInterface(Unknown, &kept), ERROR_NOT_FOUND, "Camera not found with specified guid.");
    EXPECT_EQ(before, kept);
    ExpectError(bm.object.KeepHwInterface(Unknown, nullptr), ERROR_INVALID_PARAMETER, "Invalid interface address.");
    const ZevoGuid listed = bm.cameras()[0]->guid;
    bm.SetInitialized(false);
    ExpectError(bm.object.KeepHwInterface(listed, &kept), ERROR_NOT_FOUND, "Camera not found with specified guid.");
}

TEST_F(LookupsTest, GiveAShareThatOutlivesTheCameraAndThenSaysThatItIsGone) {
    hal.AddUsbCamera(0xCAFE);
    ExpectOk(Access::GetUSBCameras(&bm.cameras()));
    boost::shared_ptr<HardwareInterface> kept;
    ExpectOk(bm.object.KeepHwInterface(bm.cameras()[0]->guid, &kept));
    CameraInfo info;
    EXPECT_EQ(HAL_OK, kept->GetCameraInfo(&info));
    {
        const boost::unique_lock<boost::mutex> lock(bm.members().m_busMasterMutex);
        Access::FreeCameraList(&bm.cameras());  // as when the camera leaves
    }
    hal.ExpectAllEntriesGivenBackOnce();
    EXPECT_EQ(HAL_GONE, kept->GetCameraInfo(&info));
    EXPECT_EQ(INTERFACE_USB_3, kept->GetInterfaceType());
}

// ---- Every operation, every path -----------------------------------------------------------------------------------

// Every look-up with good and with bad arguments, by name.
std::vector<std::pair<std::string, std::function<Error(BusMaster&)>>> AllLookups() {
    static ZevoGuid guid;
    static unsigned int number = 0;
    static HardwareInterface* hw = nullptr;
    static InterfaceType type = INTERFACE_NONE;
    static CameraInfo info;
    static boost::shared_ptr<HardwareInterface> kept;
    return {
        {"GetNumOfCameras", [](BusMaster& bm) { return bm.GetNumOfCameras(&number); }},
        {"GetNumOfCameras null", [](BusMaster& bm) { return bm.GetNumOfCameras(nullptr); }},
        {"GetNumOfDevices", [](BusMaster& bm) { return bm.GetNumOfDevices(&number); }},
        {"GetNumOfDevices null", [](BusMaster& bm) { return bm.GetNumOfDevices(nullptr); }},
        {"GetCameraFromIndex", [](BusMaster& bm) { return bm.GetCameraFromIndex(0, &guid); }},
        {"GetCameraFromIndex past the end", [](BusMaster& bm) { return bm.GetCameraFromIndex(9, &guid); }},
        {"GetCameraFromIndex null", [](BusMaster& bm) { return bm.GetCameraFromIndex(0, nullptr); }},
        {"GetDeviceFromIndex", [](BusMaster& bm) { return bm.GetDeviceFromIndex(0, &guid); }},
        {"GetDeviceFromIndex past the end", [](BusMaster& bm) { return bm.GetDeviceFromIndex(9, &guid); }},
        {"GetDeviceFromIndex null", [](BusMaster& bm) { return bm.GetDeviceFromIndex(0, nullptr); }},
        {"GetCameraSerialNumberFromIndex", [](BusMaster& bm) { return bm.GetCameraSerialNumberFromIndex(0, &number); }},
        {"GetCameraSerialNumberFromIndex past the end",
         [](BusMaster& bm) { return bm.GetCameraSerialNumberFromIndex(9, &number); }},
        {"GetCameraSerialNumberFromIndex null",
         [](BusMaster& bm) { return bm.GetCameraSerialNumberFromIndex(0, nullptr); }},
        {"GetHwInterfaceFromIndex", [](BusMaster& bm) { return bm.GetHwInterfaceFromIndex(0, &hw); }},
        {"GetHwInterfaceFromIndex past the end", [](BusMaster& bm) { return bm.GetHwInterfaceFromIndex(9, &hw); }},
        {"GetHwInterfaceFromIndex null", [](BusMaster& bm) { return bm.GetHwInterfaceFromIndex(0, nullptr); }},
        {"GetCameraFromSerialNumber", [](BusMaster& bm) { return bm.GetCameraFromSerialNumber(100, &guid); }},
        {"GetCameraFromSerialNumber unknown", [](BusMaster& bm) { return bm.GetCameraFromSerialNumber(5, &guid); }},
        {"GetCameraFromSerialNumber null", [](BusMaster& bm) { return bm.GetCameraFromSerialNumber(100, nullptr); }},
        {"GetHwInterfaceFromSerialNumber", [](BusMaster& bm) { return bm.GetHwInterfaceFromSerialNumber(100, &hw); }},
        {"GetHwInterfaceFromSerialNumber unknown",
         [](BusMaster& bm) { return bm.GetHwInterfaceFromSerialNumber(5, &hw); }},
        {"GetHwInterfaceFromSerialNumber null",
         [](BusMaster& bm) { return bm.GetHwInterfaceFromSerialNumber(100, nullptr); }},
        {"GetHwInterfaceFromGuid",
         [](BusMaster& bm) {
             return bm.GetHwInterfaceFromGuid(ZevoGuid{{1, 2, 3, 4}}, &hw);
         }},
        {"GetHwInterfaceFromGuid unknown", [](BusMaster& bm) { return bm.GetHwInterfaceFromGuid(Unknown, &hw); }},
        {"KeepHwInterface",
         [](BusMaster& bm) {
             const Error error = bm.KeepHwInterface(ZevoGuid{{1, 2, 3, 4}}, &kept);
             kept.reset();
             return error;
         }},
        {"KeepHwInterface unknown", [](BusMaster& bm) { return bm.KeepHwInterface(Unknown, &kept); }},
        {"KeepHwInterface null", [](BusMaster& bm) { return bm.KeepHwInterface(Unknown, nullptr); }},
        {"GetInterfaceTypeFromGuid",
         [](BusMaster& bm) {
             return bm.GetInterfaceTypeFromGuid(ZevoGuid{{1, 2, 3, 4}}, &type);
         }},
        {"GetInterfaceTypeFromGuid unknown", [](BusMaster& bm) { return bm.GetInterfaceTypeFromGuid(Unknown, &type); }},
        {"GetInterfaceTypeFromGuid null", [](BusMaster& bm) { return bm.GetInterfaceTypeFromGuid(Unknown, nullptr); }},
        {"GetCameraFromIPAddress", [](BusMaster& bm) { return bm.GetCameraFromIPAddress(IPAddress(), &guid); }},
        {"GetCameraFromIPAddress unknown",
         [](BusMaster& bm) {
             return bm.GetCameraFromIPAddress(IPAddress{{1, 2, 3, 4}}, &guid);
         }},
        {"GetCameraFromIPAddress null", [](BusMaster& bm) { return bm.GetCameraFromIPAddress(IPAddress(), nullptr); }},
        {"GetCameraInfo",
         [](BusMaster& bm) {
             return bm.GetCameraInfo(ZevoGuid{{1, 2, 3, 4}}, &info);
         }},
        {"GetCameraInfo unknown", [](BusMaster& bm) { return bm.GetCameraInfo(Unknown, &info); }},
    };
}

TEST_F(LookupsTest, LetEveryLockGoOnEveryPath) {
    FillLists();
    for (const bool initialized : {true, false}) {
        bm.SetInitialized(initialized);
        for (const auto& [name, lookup] : AllLookups()) {
            SCOPED_TRACE(name);
            (void)lookup(bm.object);
            Testing::ExpectLocksFree(bm.object);
        }
    }
}

TEST_F(LookupsTest, AnswerABareErrorWhenThereIsNoMemoryForTheirOwn) {
    FillLists();
    for (const bool initialized : {true, false}) {
        bm.SetInitialized(initialized);
        for (const auto& [name, lookup] : AllLookups()) {
            SCOPED_TRACE(name);
            const ErrorType expected = lookup(bm.object).GetType();
            for (std::uint64_t nth = 1;; ++nth) {
                Error error;
                bool happened = false;
                {
                    const Testing::AllocationFailure failure(nth);
                    error = lookup(bm.object);
                    happened = failure.Happened();
                }
                if (error != expected) {
                    EXPECT_EQ(ERROR_MEMORY_ALLOCATION_FAILED, error.GetType());
                    EXPECT_STREQ("", error.GetMessage());
                }
                EXPECT_TRUE(Testing::AnotherThreadCanLock(bm.members().m_busMasterMutex));
                if (!happened) {
                    EXPECT_EQ(expected, error.GetType());
                    break;
                }
            }
        }
    }
}

TEST_F(LookupsTest, ChangeNoList) {
    FillLists();
    const HandleList cameras = bm.cameras();
    const HandleList devices = bm.devices();
    for (const auto& [name, lookup] : AllLookups()) {
        (void)lookup(bm.object);
    }
    EXPECT_EQ(cameras, bm.cameras());
    EXPECT_EQ(devices, bm.devices());
}

TEST_F(LookupsTest, WaitForTheMainLock) {
    FillLists();
    for (const auto& [name, lookup] : AllLookups()) {
        SCOPED_TRACE(name);
        if (name == "GetInterfaceTypeFromGuid null" || name == "KeepHwInterface null") {
            continue;  // answered before any lock
        }
        boost::unique_lock<boost::mutex> lock(bm.members().m_busMasterMutex);
        std::future<Error> answer = std::async(std::launch::async, lookup, std::ref(bm.object));
        // Long enough for one that does not wait to be caught at it; one that does cannot be early.
        EXPECT_EQ(std::future_status::timeout, answer.wait_for(std::chrono::milliseconds(10)));
        lock.unlock();
        answer.get();
    }
}

}  // namespace
}  // namespace Nimbrel2
