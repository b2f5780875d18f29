// SPDX-License-Identifier: Apache-2.0
// GigE addresses, discovery and control state. The test's thread; some tests hold an operation up on a second one.
#include <cstring>
#include <memory>

#include "tests/busmaster/BusMasterFixture.h"
#include "tests/busmaster/ErrorChecks.h"

namespace Nimbrel2::Testing {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr MACAddress SomeMac{{0x02, 0xB0, 0x5E, 0x0A, 0x0B, 0x0C}};
constexpr IPAddress SomeAddress{{192, 168, 0, 10}};
constexpr IPAddress SomeMask{{255, 255, 254, 0}};
constexpr IPAddress SomeGateway{{192, 168, 1, 254}};

// The network operations need no start-up: none of these starts the object.
class GigEAddresses : public BusMasterFixture {
protected:
    void SetUp() override {
        Construct();
        hal.ClearCalls();
        traces.Clear();
    }

    Error Force() { return busMaster->ForceIPAddressToCamera(SomeMac, SomeAddress, SomeMask, SomeGateway); }
    Error Auto() { return busMaster->ForceAllIPAddressesAutomatically(); }
    Error AutoOne(unsigned int serialNumber) { return busMaster->ForceAllIPAddressesAutomatically(serialNumber); }
};

// ---- Forced addresses ----------------------------------------------------------------------------------------------

TEST_F(GigEAddresses, ForceIPAddressPacksAddressesWithTheFirstOctetOnTop) {
    EXPECT_OK(Force());
    ASSERT_THAT(hal.CallNames(), ElementsAre("HAL_GvcpForceIp"));
    EXPECT_THAT(hal.Calls()[0].arguments, ElementsAre(0x02B0, 0x5E0A0B0C, 0xC0A8000A, 0xFFFFFE00, 0xC0A801FE));
    EXPECT_THAT(traces.Lines(), IsEmpty());
    ExpectLocksFree(*busMaster);
}

TEST_F(GigEAddresses, ForceIPAddressHasRoomForEveryOctet) {
    EXPECT_OK(busMaster->ForceIPAddressToCamera(MACAddress{{255, 255, 255, 255, 255, 255}},
                                                IPAddress{{255, 255, 255, 255}}, IPAddress{{255, 255, 255, 255}},
                                                IPAddress{{255, 255, 255, 255}}));
    EXPECT_THAT(hal.Calls()[0].arguments, ElementsAre(0xFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF, 0xFFFFFFFF));
}

TEST_F(GigEAddresses, ForceIPAddressWithoutAcknowledgeTimesOut) {
    hal.Fail("HAL_GvcpForceIp", 1, 11);
    EXPECT_ERROR(Force(), ERROR_TIMEOUT, "Timeout waiting for ForceIP ACK.");
}

TEST_F(GigEAddresses, ForceIPAddressTellsAnyOtherStatus) {
    hal.Fail("HAL_GvcpForceIp", 1, 0xABC);
    EXPECT_ERROR(Force(), ERROR_LOW_LEVEL_FAILURE, "Error setting IP to camera. Error: ABC");
    hal.Fail("HAL_GvcpForceIp", 1, 23);
    EXPECT_ERROR(Force(), ERROR_LOW_LEVEL_FAILURE, "Error setting IP to camera. Error: 17");
}

TEST_F(GigEAddresses, AutomaticAddressesForAllAreOneCall) {
    EXPECT_OK(Auto());
    ASSERT_THAT(hal.CallNames(), ElementsAre("HAL_GvcpForceIpAuto"));
    EXPECT_THAT(hal.Calls()[0].arguments, IsEmpty());
}

TEST_F(GigEAddresses, AutomaticAddressesForAllSingleNoStatusOut) {
    hal.Fail("HAL_GvcpForceIpAuto", 1, 11);
    EXPECT_ERROR(Auto(), ERROR_LOW_LEVEL_FAILURE, "Error auto setting IP to cameras. Error: B");
    hal.Fail("HAL_GvcpForceIpAuto", 1, 0xABC);
    EXPECT_ERROR(Auto(), ERROR_LOW_LEVEL_FAILURE, "Error auto setting IP to cameras. Error: ABC");
}

TEST_F(GigEAddresses, AutomaticAddressForOneGoesBySerialNumber) {
    EXPECT_OK(AutoOne(0xFFFFFFFF));
    ASSERT_THAT(hal.CallNames(), ElementsAre("HAL_GvcpAutoForceIpToCamera"));
    EXPECT_THAT(hal.Calls()[0].arguments, ElementsAre(0xFFFFFFFF));
    ExpectLocksFree(*busMaster);
}

TEST_F(GigEAddresses, AutomaticAddressForSerialNumberZeroSendsNothing) {
    EXPECT_ERROR(AutoOne(0), ERROR_INVALID_PARAMETER, "Serial number cannot be NULL.");
    EXPECT_THAT(hal.CallNames(), IsEmpty());
}

TEST_F(GigEAddresses, AutomaticAddressForOneWithoutAcknowledgeTimesOut) {
    hal.Fail("HAL_GvcpAutoForceIpToCamera", 1, 11);
    EXPECT_ERROR(AutoOne(7), ERROR_TIMEOUT, "Timeout waiting for ForceIP ACK.");
}

TEST_F(GigEAddresses, AutomaticAddressForOneTellsAnyOtherStatus) {
    hal.Fail("HAL_GvcpAutoForceIpToCamera", 1, 4);
    EXPECT_ERROR(AutoOne(7), ERROR_LOW_LEVEL_FAILURE, "Error auto setting IP to camera. Error: 4");
}

TEST_F(GigEAddresses, NoneWaitsForTheMainLock) {
    const Lock lock(Inside().m_busMasterMutex);
    EXPECT_OK(Force());
    EXPECT_OK(Auto());
    EXPECT_OK(AutoOne(7));
    CameraInfo camera;
    unsigned int size = 1;
    EXPECT_OK(busMaster->DiscoverGigECameras(&camera, &size));
    EXPECT_EQ(size, 0u);
}

// ---- Discovery -----------------------------------------------------------------------------------------------------

// A field with a text in it and something else behind the text.
template <std::size_t Size>
void Put(char (&field)[Size], const std::string& text) {
    std::memset(field, '?', Size);
    std::memcpy(field, text.data(), std::min(Size, text.size()));
    if (text.size() < Size) {
        field[text.size()] = '\0';
    }
}

GvcpDiscoveryRecord SomeRecord() {
    GvcpDiscoveryRecord record{};
    record.versionMajor = 2;
    record.versionMinor = 1;
    record.deviceMode = 0x80000001;
    record.macHigh = 0x02B0;
    record.padding = 0xFFFF;
    record.macLow = 0x5E0A0B0C;
    record.ipConfigOptions = 7;
    record.ipConfigCurrent = 5;
    record.ipAddress = 0xC0A8000A;
    record.subnetMask = 0xFFFFFE00;
    record.defaultGateway = 0xC0A801FE;
    Put(record.manufacturerName, "Acme");
    Put(record.modelName, "Model 1");
    Put(record.deviceVersion, "1.0");
    Put(record.manufacturerInfo, "info");
    Put(record.serialNumber, "12345");
    Put(record.userDefinedName, "left eye");
    return record;
}

std::vector<std::uint8_t> Octets(const MACAddress& mac) { return {std::begin(mac.octets), std::end(mac.octets)}; }
std::vector<std::uint8_t> Octets(const IPAddress& ip) { return {std::begin(ip.octets), std::end(ip.octets)}; }

template <std::size_t Size>
void FillWith(char (&field)[Size], char filler) {
    std::memset(field, filler, Size);
}

class GigEDiscovery : public GigEAddresses {
protected:
    void Answer(const GvcpDiscoveryRecord& record) { hal.AddGigECamera(1, 0)->record = record; }
};

TEST_F(GigEDiscovery, RefusesNullsBeforeAnyCall) {
    CameraInfo camera;
    unsigned int size = 1;
    const char* const message = "Argument cannot be NULL.";
    EXPECT_ERROR(busMaster->DiscoverGigECameras(nullptr, &size), ERROR_INVALID_PARAMETER, message);
    EXPECT_ERROR(busMaster->DiscoverGigECameras(&camera, nullptr), ERROR_INVALID_PARAMETER, message);
    EXPECT_ERROR(busMaster->DiscoverGigECameras(nullptr, nullptr), ERROR_INVALID_PARAMETER, message);
    size = 0;
    EXPECT_ERROR(busMaster->DiscoverGigECameras(nullptr, &size), ERROR_INVALID_PARAMETER, message);
    EXPECT_THAT(hal.CallNames(), IsEmpty());
}

TEST_F(GigEDiscovery, RefusesAnArrayWithoutRoomBeforeAnyCall) {
    CameraInfo camera;
    unsigned int size = 0;
    EXPECT_ERROR(busMaster->DiscoverGigECameras(&camera, &size), ERROR_INVALID_PARAMETER,
                 "Array needs to be at least of size 1.");
    EXPECT_THAT(hal.CallNames(), IsEmpty());
}

TEST_F(GigEDiscovery, HandsItsRoomAndTheCallersOwnCountToTheHal) {
    CameraInfo cameras[3];
    unsigned int size = 3;
    std::uint32_t* given = nullptr;
    hal.Replace(&HalHooks::HAL_GvcpDiscovery, [&](GvcpDiscoveryRecord*, std::uint32_t* count) -> std::uint32_t {
        given = count;
        EXPECT_EQ(*count, 3u);
        *count = 0;
        return HAL_OK;
    });
    EXPECT_OK(busMaster->DiscoverGigECameras(cameras, &size));
    EXPECT_EQ(given, &size);
    EXPECT_EQ(size, 0u);
    EXPECT_THAT(hal.CallNames(), ElementsAre("HAL_GvcpDiscovery"));
    EXPECT_THAT(traces.Lines(), IsEmpty());
}

TEST_F(GigEDiscovery, TellsWhatACameraAnswered) {
    Answer(SomeRecord());
    CameraInfo camera;
    unsigned int size = 1;
    EXPECT_OK(busMaster->DiscoverGigECameras(&camera, &size));
    EXPECT_EQ(size, 1u);
    EXPECT_EQ(camera.serialNumber, 12345u);
    EXPECT_EQ(camera.interfaceType, INTERFACE_GIGE);
    EXPECT_EQ(camera.gigEMajorVersion, 2u);
    EXPECT_EQ(camera.gigEMinorVersion, 1u);
    EXPECT_THAT(Octets(camera.macAddress), ElementsAre(0x02, 0xB0, 0x5E, 0x0A, 0x0B, 0x0C));
    EXPECT_THAT(Octets(camera.ipAddress), ElementsAre(192, 168, 0, 10));
    EXPECT_THAT(Octets(camera.subnetMask), ElementsAre(255, 255, 254, 0));
    EXPECT_THAT(Octets(camera.defaultGateway), ElementsAre(192, 168, 1, 254));
    EXPECT_STREQ(camera.vendorName, "Acme");
    EXPECT_STREQ(camera.modelName, "Model 1");
    EXPECT_STREQ(camera.userDefinedName, "left eye");
}

TEST_F(GigEDiscovery, WritesNothingElse) {
    Answer(SomeRecord());
    CameraInfo camera;
    FillWith(camera.vendorName, 'v');
    FillWith(camera.modelName, 'm');
    FillWith(camera.userDefinedName, 'u');
    FillWith(camera.serialText, 's');
    FillWith(camera.deviceVersion, 'd');
    unsigned int size = 1;
    EXPECT_OK(busMaster->DiscoverGigECameras(&camera, &size));
    const auto text = [](const char(&field)[CameraInfo::TextCapacity]) { return std::string(field, sizeof field); };
    EXPECT_EQ(text(camera.vendorName), "Acme" + std::string(60, 'v'));  // no terminator either
    EXPECT_EQ(text(camera.modelName), "Model 1" + std::string(57, 'm'));
    EXPECT_EQ(text(camera.userDefinedName), "left eye" + std::string(56, 'u'));
    EXPECT_EQ(text(camera.serialText), std::string(64, 's'));
    EXPECT_EQ(text(camera.deviceVersion), std::string(64, 'd'));
}

TEST_F(GigEDiscovery, CopiesTextsThatFillTheirFieldsAndNothingBehindThem) {
    GvcpDiscoveryRecord record = SomeRecord();
    Put(record.manufacturerName, std::string(32, 'A'));
    Put(record.modelName, std::string(32, 'B'));
    Put(record.userDefinedName, std::string(16, 'C'));
    Put(record.serialNumber, "9876543210987654");
    Answer(record);
    CameraInfo camera;
    unsigned int size = 1;
    EXPECT_OK(busMaster->DiscoverGigECameras(&camera, &size));
    EXPECT_EQ(camera.vendorName, std::string(32, 'A'));
    EXPECT_EQ(camera.modelName, std::string(32, 'B'));
    EXPECT_EQ(camera.userDefinedName, std::string(16, 'C'));
    EXPECT_EQ(camera.serialNumber, static_cast<std::uint32_t>(9876543210987654u));
}

TEST_F(GigEDiscovery, StopsASerialNumberAtTheFirstThatIsNoDigit) {
    struct {
        const char* text;
        unsigned int number;
    } const cases[] = {{"", 0},    {"0", 0},      {"007", 7},          {"12a34", 12},
                       {"A12", 0}, {"12 34", 12}, {"4294967295", ~0u}, {"4294967296", 0}};
    for (const auto& [text, number] : cases) {
        GvcpDiscoveryRecord record = SomeRecord();
        Put(record.serialNumber, text);
        hal.DetachAll();
        Answer(record);
        CameraInfo camera;
        unsigned int size = 1;
        EXPECT_OK(busMaster->DiscoverGigECameras(&camera, &size));
        EXPECT_EQ(camera.serialNumber, number) << text;
    }
}

TEST_F(GigEDiscovery, FillsOnlyAsManyAsAnswered) {
    for (std::uint16_t minor = 1; minor <= 3; ++minor) {
        GvcpDiscoveryRecord record = SomeRecord();
        record.versionMinor = minor;
        Answer(record);
    }
    CameraInfo cameras[5];
    unsigned int size = 5;
    EXPECT_OK(busMaster->DiscoverGigECameras(cameras, &size));
    EXPECT_EQ(size, 3u);
    EXPECT_EQ(cameras[0].gigEMinorVersion, 1u);
    EXPECT_EQ(cameras[2].gigEMinorVersion, 3u);
    EXPECT_EQ(cameras[3].gigEMinorVersion, 0u);
    EXPECT_EQ(cameras[3].interfaceType, INTERFACE_IEEE1394);
}

TEST_F(GigEDiscovery, TellsTheNeededSizeOfAnArrayThatIsTooSmallAndWritesNothing) {
    Answer(SomeRecord());
    Answer(SomeRecord());
    CameraInfo camera;
    unsigned int size = 1;
    EXPECT_ERROR(busMaster->DiscoverGigECameras(&camera, &size), ERROR_BUFFER_TOO_SMALL,
                 "Array Size was too small, min size needed is returned in arraySize param.");
    EXPECT_EQ(size, 2u);
    EXPECT_EQ(camera.serialNumber, 0u);
    EXPECT_EQ(camera.interfaceType, INTERFACE_IEEE1394);
}

TEST_F(GigEDiscovery, TellsAnyOtherStatusAndWritesNothing) {
    Answer(SomeRecord());
    hal.Fail("HAL_GvcpDiscovery", 1, 0x1F);
    CameraInfo camera;
    unsigned int size = 1;
    EXPECT_ERROR(busMaster->DiscoverGigECameras(&camera, &size), ERROR_LOW_LEVEL_FAILURE,
                 "Error sending discovery packet. Error: 1F");
    EXPECT_EQ(camera.serialNumber, 0u);
}

// The array stands in memory of exactly its size, so that a write behind it is caught.
TEST_F(GigEDiscovery, NeverGoesPastItsArrayWhateverCountTheHalTells) {
    hal.Replace(&HalHooks::HAL_GvcpDiscovery, [](GvcpDiscoveryRecord* records, std::uint32_t* count) -> std::uint32_t {
        records[0] = records[1] = SomeRecord();
        *count = 0xFFFFFFFF;
        return HAL_OK;
    });
    const auto cameras = std::make_unique<CameraInfo[]>(2);
    unsigned int size = 2;
    EXPECT_OK(busMaster->DiscoverGigECameras(cameras.get(), &size));
    EXPECT_EQ(size, 0xFFFFFFFF);
    EXPECT_EQ(cameras[1].serialNumber, 12345u);
}

// The count may lie in what is being filled: it is read again before each record.
TEST_F(GigEDiscovery, ReadsTheCountAgainBeforeEachCamera) {
    Answer(SomeRecord());
    Answer(SomeRecord());
    Answer(SomeRecord());
    CameraInfo cameras[3];
    unsigned int* const size = &cameras[0].gigEMajorVersion;  // becomes 2 with the first camera
    *size = 3;
    EXPECT_OK(busMaster->DiscoverGigECameras(cameras, size));
    EXPECT_EQ(cameras[1].serialNumber, 12345u);
    EXPECT_EQ(cameras[2].serialNumber, 0u);
}

TEST_F(GigEDiscovery, LetsNoExceptionOutWhenMemoryRunsOut) {
    for (const std::uint32_t status : {0u, 23u, 2u}) {
        hal.FailNothing();
        if (status != HAL_OK) {
            hal.Fail("HAL_GvcpDiscovery", 0, status);
        }
        bool happened = true;
        for (std::uint64_t nth = 1; happened; ++nth) {
            CameraInfo camera;
            unsigned int size = 1;
            const AllocationFailure failure(nth);
            const Error error = busMaster->DiscoverGigECameras(&camera, &size);
            happened = failure.Happened();
            EXPECT_EQ(error == ERROR_MEMORY_ALLOCATION_FAILED, happened) << error.Describe();
            ASSERT_LT(nth, 100u);
        }
    }
}

// ---- Control state -------------------------------------------------------------------------------------------------

constexpr std::uint32_t Privilege = 0x0A00;
constexpr std::uint32_t HolderPort = 0x0A04;
constexpr std::uint32_t HolderAddress = 0x0A14;

class GigEControl : public BusMasterFixture {
protected:
    void SetUp() override {
        hal.AddFireWireCamera(1);
        hal.AddUsbCamera(2);
        camera = hal.AddGigECamera(3, 0xC0A8000A);
        Start();
        ASSERT_EQ(SerialNumbers(), (std::vector<unsigned int>{1, 2, 3}));
        hal.Change([this] {
            camera->registers[Privilege] = 2;
            camera->registers[HolderPort] = 50000;
            camera->registers[HolderAddress] = 0xC0A80001;
            camera->localPort = 50000;
            camera->localIpAddress = 0xC0A80001;
        });
        guid = GuidAt(2);
        hal.ClearCalls();
        traces.Clear();
    }

    ZevoGuid GuidAt(unsigned int index) {
        ZevoGuid found;
        EXPECT_OK(busMaster->GetCameraFromIndex(index, &found));
        return found;
    }

    // Addresses of the registers that were read.
    std::vector<std::uint64_t> RegistersRead() const {
        std::vector<std::uint64_t> addresses;
        for (const HalCall& call : hal.Calls("HAL_GigEReadRegister")) {
            addresses.push_back(call.arguments[1]);
        }
        return addresses;
    }

    // What the operation says, and what it leaves in a flag that starts as `before`.
    Error Query(bool before) {
        available = before;
        const Error error = busMaster->QueryGigECameraCCPStatus(&guid, &available);
        ExpectLocksFree(*busMaster);
        return error;
    }

    ScriptedHal::DevicePointer camera;
    ZevoGuid guid;
    bool available = false;
};

TEST_F(GigEControl, RefusesANullGuid) {
    EXPECT_ERROR(busMaster->QueryGigECameraCCPStatus(nullptr, &available), ERROR_INVALID_PARAMETER,
                 "ZevoGuid cannot be NULL.");
    EXPECT_ERROR(busMaster->QueryGigECameraCCPStatus(nullptr, nullptr), ERROR_INVALID_PARAMETER,
                 "ZevoGuid cannot be NULL.");
    EXPECT_THAT(hal.CallNames(), IsEmpty());
}

TEST_F(GigEControl, RefusesCamerasOfOtherBusesAndUnknownGuids) {
    const ZevoGuid others[] = {GuidAt(0), GuidAt(1), ZevoGuid{{9, 9, 9, 9}}};
    hal.ClearCalls();
    for (const ZevoGuid& other : others) {
        guid = other;
        for (const bool before : {false, true}) {
            EXPECT_ERROR(Query(before), ERROR_UNSUPPORTED_INTERFACE, "Unsupported Hardware Interface.");
            EXPECT_EQ(available, before);
        }
    }
    EXPECT_THAT(hal.CallNames(), IsEmpty());
}

TEST_F(GigEControl, IsAvailableWhenNobodyHoldsIt) {
    camera->registers[Privilege] = 0;
    EXPECT_OK(Query(false));
    EXPECT_TRUE(available);
    EXPECT_THAT(hal.CallNames(), ElementsAre("HAL_GigEReadRegister"));
    EXPECT_THAT(RegistersRead(), ElementsAre(Privilege));
    EXPECT_THAT(traces.Lines(), IsEmpty());
}

TEST_F(GigEControl, IsAvailableWhenThisApplicationHoldsIt) {
    for (const std::uint32_t privilege : {1u, 2u, 3u, 0x80000000u}) {
        hal.ClearCalls();
        hal.Change([&] { camera->registers[Privilege] = privilege; });
        EXPECT_OK(Query(false));
        EXPECT_TRUE(available);
        EXPECT_THAT(hal.CallNames(),
                    ElementsAre("HAL_GigEReadRegister", "HAL_GigEReadRegister", "HAL_GigEGetLocalApplicationPort",
                                "HAL_GigEReadRegister", "HAL_GigEGetLocalApplicationIpAddress"));
        EXPECT_THAT(RegistersRead(), ElementsAre(Privilege, HolderPort, HolderAddress));
    }
}

TEST_F(GigEControl, IsNotAvailableWhenAnotherPortHoldsIt) {
    camera->registers[HolderPort] = 50001;
    EXPECT_OK(Query(true));
    EXPECT_FALSE(available);
    EXPECT_THAT(RegistersRead(), ElementsAre(Privilege, HolderPort));
}

TEST_F(GigEControl, ComparesPortsInTheirWholeWidth) {
    camera->registers[HolderPort] = 0x10000 | 50000;
    EXPECT_OK(Query(true));
    EXPECT_FALSE(available);
}

TEST_F(GigEControl, IsNotAvailableWhenAnotherComputerHoldsIt) {
    camera->registers[HolderAddress] = 0xC0A80002;
    EXPECT_OK(Query(true));
    EXPECT_FALSE(available);
}

TEST_F(GigEControl, FailsWhenThePrivilegeCannotBeRead) {
    camera->registers.erase(Privilege);
    for (const bool before : {false, true}) {
        EXPECT_ERROR(Query(before), ERROR_REGISTER_FAILED, "Fail to read CCP register!");
        EXPECT_EQ(available, before);
    }
}

TEST_F(GigEControl, FailsWhenTheHoldersPortCannotBeRead) {
    camera->registers.erase(HolderPort);
    for (const bool before : {false, true}) {
        EXPECT_ERROR(Query(before), ERROR_REGISTER_FAILED, "Fail to read CCP register!");
        EXPECT_EQ(available, before);
    }
    EXPECT_EQ(hal.Count("HAL_GigEGetLocalApplicationPort"), 0u);
}

TEST_F(GigEControl, FailsWhenTheOwnPortCannotBeTold) {
    camera->statuses["HAL_GigEGetLocalApplicationPort"] = HAL_TIMED_OUT;
    for (const bool before : {false, true}) {
        EXPECT_ERROR(Query(before), ERROR_REGISTER_FAILED, "Fail to get local application port!");
        EXPECT_EQ(available, before);
    }
}

TEST_F(GigEControl, FailsAndIsNotAvailableWhenTheHoldersAddressCannotBeRead) {
    camera->registers.erase(HolderAddress);
    EXPECT_ERROR(Query(true), ERROR_REGISTER_FAILED, "Fail to read CCP register!");
    EXPECT_FALSE(available);
    EXPECT_EQ(hal.Count("HAL_GigEGetLocalApplicationIpAddress"), 0u);
}

TEST_F(GigEControl, FailsWhenTheOwnAddressCannotBeTold) {
    camera->statuses["HAL_GigEGetLocalApplicationIpAddress"] = HAL_TIMED_OUT;
    for (const bool before : {false, true}) {
        EXPECT_ERROR(Query(before), ERROR_REGISTER_FAILED, "Fail to get local application IP address!");
        EXPECT_EQ(available, before);
    }
}

TEST_F(GigEControl, IsAskedWithNoLockHeldAndKeepsItsInterfaceAlive) {
    const auto gate = hal.Block("HAL_GigEReadRegister");
    std::thread caller([this] {
        // The read in flight ends well; the ones after it find the entry given back.
        bool answer = true;
        EXPECT_ERROR(busMaster->QueryGigECameraCCPStatus(&guid, &answer), ERROR_REGISTER_FAILED,
                     "Fail to read CCP register!");
    });
    EXPECT_TRUE(gate->WaitUntilReached());
    ExpectLocksFree(*busMaster);
    hal.Detach(camera);
    Cycle();
    EXPECT_EQ(SerialNumbers(), (std::vector<unsigned int>{1, 2}));
    gate->Open();
    caller.join();
    EXPECT_ERROR(Query(true), ERROR_UNSUPPORTED_INTERFACE, "Unsupported Hardware Interface.");
}

TEST_F(BusMasterFixture, QueryGigECameraCCPStatusFindsNothingBeforeStartUp) {
    Construct();
    ZevoGuid guid;
    bool available = true;
    EXPECT_ERROR(busMaster->QueryGigECameraCCPStatus(&guid, &available), ERROR_UNSUPPORTED_INTERFACE,
                 "Unsupported Hardware Interface.");
    EXPECT_TRUE(available);
}

}  // namespace
}  // namespace Nimbrel2::Testing
