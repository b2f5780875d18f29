// SPDX-License-Identifier: Apache-2.0
// What the functions on one entry hand to the driver and what they bring back; arguments out of range.
#include <cstring>
#include <limits>
#include <string>

#include "tests/platform/hal/HalFixture.h"

namespace Nimbrel2::Platform::Testing {
namespace {

using Log = std::vector<std::string>;

constexpr std::uint32_t Selector = 0xFFFFFFFF;

class HalOperations : public HalFixture {
protected:
    template <std::size_t Size>
    static void Fill(char (&field)[Size], const std::string& text) {
        std::memcpy(field, text.data(), std::min(Size, text.size()));
    }
};

TEST_F(HalOperations, ConfigInfoBringsFiveNumbersAndTwoTextsOfA1394Camera) {
    std::uint32_t n[5] = {};
    char vendor[8];
    char model[4];
    std::uint32_t vendorSize = sizeof vendor;
    std::uint32_t modelSize = sizeof model;
    ASSERT_EQ(HAL_1394GetConfigInfo(FireWireCamera(), &n[0], &n[1], &n[2], &n[3], &n[4], vendor, model, &vendorSize,
                                    &modelSize),
              HAL_OK);
    for (std::uint32_t i = 0; i < 5; ++i) {
        EXPECT_EQ(n[i], 11 + i);
    }
    EXPECT_STREQ(vendor, "Vendor");
    EXPECT_EQ(vendorSize, 6u);
    EXPECT_STREQ(model, "Mod");
    EXPECT_EQ(modelSize, 3u);
}

TEST_F(HalOperations, ConfigInfoBringsFiveNumbersAndTwoTextsOfAUsbCamera) {
    std::uint32_t n[5] = {};
    char vendor[4];
    char model[8];
    std::uint32_t vendorSize = sizeof vendor;
    std::uint32_t modelSize = sizeof model;
    ASSERT_EQ(
        HAL_UsbGetConfigInfo(UsbCamera(), &n[0], &n[1], &n[2], &n[3], &n[4], vendor, model, &vendorSize, &modelSize),
        HAL_OK);
    for (std::uint32_t i = 0; i < 5; ++i) {
        EXPECT_EQ(n[i], 11 + i);
    }
    EXPECT_STREQ(vendor, "Ven");
    EXPECT_EQ(vendorSize, 3u);
    EXPECT_STREQ(model, "Model");
    EXPECT_EQ(modelSize, 5u);
}

TEST_F(HalOperations, ConfigInfoOfAGigECameraComesFromItsRecord) {
    world->record.versionMajor = 2;
    world->record.versionMinor = 1;
    world->record.deviceMode = 0x80000001;
    world->record.macHigh = 0x02B0;
    world->record.macLow = 0x5E0A0B0C;
    Fill(world->record.manufacturerName, "thirty-two characters fill it up");
    Fill(world->record.modelName, "Model");
    Fill(world->record.serialNumber, "0012345-B");
    std::uint32_t n[5] = {};
    char vendor[64];
    char model[64];
    std::uint32_t vendorSize = sizeof vendor;
    std::uint32_t modelSize = sizeof model;
    ASSERT_EQ(
        HAL_GigEGetConfigInfo(GigECamera(), &n[0], &n[1], &n[2], &n[3], &n[4], vendor, model, &vendorSize, &modelSize),
        HAL_OK);
    EXPECT_EQ(n[0], 0x02B0u);
    EXPECT_EQ(n[1], 0x5E0A0B0Cu);
    EXPECT_EQ(n[2], 12345u);
    EXPECT_EQ(n[3], 0x00020001u);
    EXPECT_EQ(n[4], 0x80000001u);
    EXPECT_STREQ(vendor, "thirty-two characters fill it up");
    EXPECT_EQ(vendorSize, 32u);
    EXPECT_STREQ(model, "Model");
    EXPECT_EQ(modelSize, 5u);
}

TEST_F(HalOperations, TheRecordAndTheAddressOfAGigECameraComeFromTheListing) {
    world->record.ipAddress = 0xC0A8000A;
    Fill(world->record.userDefinedName, "left");
    void* const camera = GigECamera();
    std::uint32_t address = 0;
    ASSERT_EQ(HAL_GigEGetCameraIpAddress(camera, &address), HAL_OK);
    EXPECT_EQ(address, 0xC0A8000Au);
    GvcpDiscoveryRecord record{};
    ASSERT_EQ(HAL_GigEGetDiscoveryRecord(camera, &record), HAL_OK);
    EXPECT_EQ(std::memcmp(&record, &world->record, sizeof record), 0);
}

TEST_F(HalOperations, NodeAndBusNumberOfA1394Camera) {
    world->fireWireCameras = 3;
    std::uint16_t node = 0;
    std::uint16_t bus = 0;
    ASSERT_EQ(HAL_1394GetNode(List(HAL_1394GetCameras).at(2), &node, &bus), HAL_OK);
    EXPECT_EQ(node, 2);
    EXPECT_EQ(bus, 7);
}

TEST_F(HalOperations, ARegisterAddressIsWholeOrItsLow32Bits) {
    const struct {
        std::uint64_t address;
        const char* reached;
    } rows[] = {
        {0, "ffff00000000"},        {0xF0000410, "fffff0000410"},     {0xFFFFFFFC, "fffffffffffc"},
        {0x100000000, "100000000"}, {0xFFFFF0F00614, "fffff0f00614"}, {0xFFFFFFFFFFFC, "fffffffffffc"},
    };
    void* const fireWire = FireWireCamera();
    void* const usb = UsbCamera();
    for (const auto& [address, reached] : rows) {
        std::uint32_t value = 0;
        EXPECT_EQ(HAL_1394ReadRegister(fireWire, address, Selector, &value), HAL_OK);
        EXPECT_EQ(value, 0xC0DE0000u);
        EXPECT_EQ(HAL_1394WriteRegister(fireWire, address, Selector, 0x1234, 0), HAL_OK);
        EXPECT_EQ(HAL_UsbReadRegister(usb, address, Selector, &value), HAL_OK);
        EXPECT_EQ(value, 0xDADA0000u);
        EXPECT_EQ(HAL_UsbWriteRegister(usb, address, Selector, 0x1234, 0), HAL_OK);
        const std::string at = reached;
        EXPECT_EQ(world->TakeLog(), (Log{"ReadQuadlet " + at, "WriteQuadlet " + at + " 1234", "ReadRegister " + at,
                                         "WriteRegister " + at + " 1234"}));
    }
}

TEST_F(HalOperations, ARegisterAddressThatIsMisalignedOrTooLongIsInvalid) {
    void* const fireWire = FireWireCamera();
    void* const usb = UsbCamera();
    for (const std::uint64_t address :
         {std::uint64_t{1}, std::uint64_t{2}, std::uint64_t{0xFFFFF0000411}, std::uint64_t{0x1000000000000},
          std::uint64_t{0xFFC0FFFFF0000410}, std::numeric_limits<std::uint64_t>::max()}) {
        std::uint32_t value = 0;
        EXPECT_EQ(HAL_1394ReadRegister(fireWire, address, Selector, &value), HAL_INVALID_ARGUMENT);
        EXPECT_EQ(HAL_1394WriteRegister(fireWire, address, Selector, 1, 0), HAL_INVALID_ARGUMENT);
        EXPECT_EQ(HAL_UsbReadRegister(usb, address, Selector, &value), HAL_INVALID_ARGUMENT);
        EXPECT_EQ(HAL_UsbWriteRegister(usb, address, Selector, 1, 0), HAL_INVALID_ARGUMENT);
    }
    EXPECT_EQ(world->TakeLog(), Log{});
}

TEST_F(HalOperations, OnlyTheDeviceOfTheEntryCanBeSelectedAndFlagsAreZero) {
    void* const fireWire = FireWireCamera();
    void* const usb = UsbCamera();
    std::uint32_t value = 0;
    for (const std::uint32_t selector : {0u, 1u, 0xFFFFFFFEu}) {
        EXPECT_EQ(HAL_1394ReadRegister(fireWire, 0, selector, &value), HAL_INVALID_ARGUMENT);
        EXPECT_EQ(HAL_1394WriteRegister(fireWire, 0, selector, 1, 0), HAL_INVALID_ARGUMENT);
        EXPECT_EQ(HAL_UsbReadRegister(usb, 0, selector, &value), HAL_INVALID_ARGUMENT);
        EXPECT_EQ(HAL_UsbWriteRegister(usb, 0, selector, 1, 0), HAL_INVALID_ARGUMENT);
    }
    EXPECT_EQ(HAL_1394WriteRegister(fireWire, 0, Selector, 1, 1), HAL_INVALID_ARGUMENT);
    EXPECT_EQ(HAL_UsbWriteRegister(usb, 0, Selector, 1, 1), HAL_INVALID_ARGUMENT);
    EXPECT_EQ(world->TakeLog(), Log{});
}

TEST_F(HalOperations, APhyRegisterIsABaseRegisterOrOneOfAPageAndPort) {
    void* const camera = FireWireCamera();
    for (std::uint32_t page = 0; page <= 9; ++page) {
        for (std::uint32_t port = 0; port <= 17; ++port) {
            for (std::uint32_t address = 0; address <= 17; ++address) {
                const bool base = address <= 7 && page == 0 && port == 0;
                const bool paged = address >= 8 && address <= 15 && page <= 7 && port <= 15;
                const std::uint32_t expected = base || paged ? HAL_OK : HAL_INVALID_ARGUMENT;
                std::uint32_t value = 0;
                EXPECT_EQ(HAL_1394ReadPhyRegister(camera, page, port, address, &value), expected);
                EXPECT_EQ(HAL_1394WritePhyRegister(camera, page, port, address, 0x5A), expected);
                EXPECT_EQ(value, expected == HAL_OK ? 0x5Au : 0u);
                Log reached;
                if (expected == HAL_OK) {
                    reached = {Line("ReadPhy %u %u %u", page, port, address),
                               Line("WritePhy %u %u %u 5a", page, port, address)};
                }
                EXPECT_EQ(world->TakeLog(), reached) << page << ' ' << port << ' ' << address;
            }
        }
    }
}

TEST_F(HalOperations, APhyRegisterHoldsEightBits) {
    void* const camera = FireWireCamera();
    EXPECT_EQ(HAL_1394WritePhyRegister(camera, 0, 0, 5, 0xFF), HAL_OK);
    EXPECT_EQ(HAL_1394WritePhyRegister(camera, 0, 0, 5, 0x100), HAL_INVALID_ARGUMENT);
    EXPECT_EQ(world->TakeLog(), Log{"WritePhy 0 0 5 ff"});
}

TEST_F(HalOperations, AGigERegisterAddressIsAMultipleOfFour) {
    void* const camera = GigECamera();
    std::uint32_t value = 0;
    EXPECT_EQ(HAL_GigEReadRegister(camera, 0xFFFFFFFC, &value), HAL_OK);
    EXPECT_EQ(value, 0xFEED0000u);
    EXPECT_EQ(HAL_GigEWriteRegister(camera, 0x0A00, 2), HAL_OK);
    EXPECT_EQ(world->TakeLog(), (Log{"ReadRegister fffffffc", "WriteRegister a00 2"}));
    for (const std::uint32_t address : {1u, 2u, 3u, 0x25u, 0xFFFFFFFFu}) {
        EXPECT_EQ(HAL_GigEReadRegister(camera, address, &value), HAL_INVALID_ARGUMENT);
        EXPECT_EQ(HAL_GigEWriteRegister(camera, address, 2), HAL_INVALID_ARGUMENT);
    }
    EXPECT_EQ(world->TakeLog(), Log{});
}

TEST_F(HalOperations, MonitorModeIsOneOrZero) {
    world->gigECameras = 2;
    const std::vector<void*> cameras = List(HAL_GigEGetCameras);
    std::uint32_t monitor = 77;
    ASSERT_EQ(HAL_GigEIsInMonitorMode(cameras[0], &monitor), HAL_OK);
    EXPECT_EQ(monitor, 0u);
    ASSERT_EQ(HAL_GigEIsInMonitorMode(cameras[1], &monitor), HAL_OK);
    EXPECT_EQ(monitor, 1u);
}

TEST_F(HalOperations, PlainNumbersComeThrough) {
    void* const usb = UsbCamera();
    void* const gigE = GigECamera();
    std::uint32_t value = 0;
    ASSERT_EQ(HAL_UsbGetSpeed(usb, &value), HAL_OK);
    EXPECT_EQ(value, 5000u);
    ASSERT_EQ(HAL_UsbGetLinkInfo(usb, &value), HAL_OK);
    EXPECT_EQ(value, 0x01F40203u);
    ASSERT_EQ(HAL_UsbGetPortStatus(usb, &value), HAL_OK);
    EXPECT_EQ(value, 0x00010203u);
    ASSERT_EQ(HAL_GigEGetLocalApplicationPort(gigE, &value), HAL_OK);
    EXPECT_EQ(value, 40001u);
    ASSERT_EQ(HAL_GigEGetLocalApplicationIpAddress(gigE, &value), HAL_OK);
    EXPECT_EQ(value, 0x7F000001u);
}

TEST_F(HalOperations, BusResetsReachTheirDevice) {
    ASSERT_EQ(HAL_1394FireBusReset(FireWireCamera()), HAL_OK);
    ASSERT_EQ(HAL_UsbFireBusReset(UsbCamera()), HAL_OK);
    EXPECT_EQ(world->TakeLog(), (Log{"FireBusReset", "FireBusReset"}));
}

TEST_F(HalOperations, TheSerialTextIsCutToFit) {
    char text[4];
    std::uint32_t size = sizeof text;
    ASSERT_EQ(HAL_UsbGetSerialText(UsbCamera(), text, &size), HAL_OK);
    EXPECT_STREQ(text, "SN-");
    EXPECT_EQ(size, 3u);
}

TEST_F(HalOperations, SelfIdsTellTheNeedWhenTheyDoNotFit) {
    void* const camera = FireWireCamera();
    world->selfIds = {{{0x80, 1, 2, 3}}, {{0x81, 4, 5, 6}}, {{0x82, 7, 8, 9}}};
    for (std::uint64_t capacity = 0; capacity <= 4; ++capacity) {
        SelfIdPacket_t packets[5] = {};
        std::uint64_t count = capacity;
        std::uint64_t key = 0;
        std::uint32_t generation = 0;
        const bool fits = capacity >= 3;
        EXPECT_EQ(HAL_1394GetSelfIds(camera, capacity == 0 ? nullptr : packets, &count, &key, &generation),
                  fits ? HAL_OK : HAL_INVALID_ARGUMENT);
        EXPECT_EQ(count, 3u) << capacity;
        EXPECT_EQ(key, 0x1234567890u);
        EXPECT_EQ(generation, 3u);
        EXPECT_EQ(packets[0].bytes[0], fits ? 0x80 : 0) << capacity;
        EXPECT_EQ(packets[2].bytes[3], fits ? 9 : 0) << capacity;
        EXPECT_EQ(packets[3].bytes[0], 0) << capacity;
    }
}

TEST_F(HalOperations, UsbRecordsTellTheNeedWhenTheyDoNotFit) {
    void* const camera = UsbCamera();
    world->usbRecords.resize(3);
    world->usbRecords[2].routeString = 0x21;
    for (std::uint64_t capacity = 0; capacity <= 4; ++capacity) {
        UsbSelfId records[5] = {};
        std::uint64_t count = capacity;
        std::uint32_t id = 0;
        std::uint64_t key = 0;
        std::uint32_t generation = 0;
        const bool fits = capacity >= 3;
        EXPECT_EQ(HAL_UsbGetSelfIds(camera, capacity == 0 ? nullptr : records, &count, &id, &key, &generation),
                  fits ? HAL_OK : HAL_INVALID_ARGUMENT);
        EXPECT_EQ(count, 3u) << capacity;
        EXPECT_EQ(id, 9u);
        EXPECT_EQ(key, 0xABCDEF0123u);
        EXPECT_EQ(generation, 4u);
        EXPECT_EQ(records[2].routeString, fits ? 0x21u : 0u) << capacity;
    }
}

TEST_F(HalOperations, NodeSerialNumbersFillOnlyTheSlotsThatAreThere) {
    void* const camera = FireWireCamera();
    world->nodeSerialNumbers = {101, 0, 103};
    for (std::uint64_t slots = 0; slots <= 5; ++slots) {
        std::uint32_t serials[6] = {};
        ASSERT_EQ(HAL_1394GetNodeSerialNumbers(camera, slots == 0 ? nullptr : serials, slots), HAL_OK);
        EXPECT_EQ(serials[0], slots > 0 ? 101u : 0u);
        EXPECT_EQ(serials[2], slots > 2 ? 103u : 0u);
        EXPECT_EQ(serials[3], 0u);
    }
}

TEST_F(HalOperations, DiscoveryTellsTheNumberOfCamerasWhenTheyDoNotFit) {
    world->discovered.cameras.resize(3);
    for (std::uint32_t i = 0; i < 3; ++i) {
        world->discovered.cameras[i].record.ipAddress = 100 + i;
    }
    for (std::uint32_t capacity = 0; capacity <= 4; ++capacity) {
        GvcpDiscoveryRecord records[5] = {};
        std::uint32_t count = capacity;
        const bool fits = capacity >= 3;
        EXPECT_EQ(HAL_GvcpDiscovery(capacity == 0 ? nullptr : records, &count), fits ? HAL_OK : HAL_ARRAY_TOO_SMALL);
        EXPECT_EQ(count, 3u) << capacity;
        for (std::uint32_t i = 0; i < 5; ++i) {
            EXPECT_EQ(records[i].ipAddress, fits && i < 3 ? 100 + i : 0u);
        }
    }
}

TEST_F(HalOperations, ForceIpPacksTheMac) {
    ASSERT_EQ(HAL_GvcpForceIp(0x02B0, 0x5E0A0B0C, 0xC0A8000A, 0xFFFFFF00, 0xC0A80001), HAL_OK);
    EXPECT_EQ(HAL_GvcpForceIp(0x10000, 0, 0xC0A8000A, 0xFFFFFF00, 0), HAL_INVALID_ARGUMENT);
    EXPECT_EQ(world->TakeLog(), (Log{"ForceAddress 2b05e0a0b0c c0a8000a ffffff00 c0a80001"}));
}

TEST_F(HalOperations, ForceIpSendsNothingThatNoCameraCanHave) {
    EXPECT_EQ(HAL_GvcpForceIp(0, 1, 0xC0A8000A, 0xFFFFFFFE, 0), HAL_BAD_MASK);
    EXPECT_EQ(HAL_GvcpForceIp(0, 1, 0xC0A8000A, 0, 0), HAL_BAD_MASK);
    EXPECT_EQ(HAL_GvcpForceIp(0, 1, 0xC0A80000, 0xFFFFFF00, 0), HAL_BAD_ADDRESS);
    EXPECT_EQ(HAL_GvcpForceIp(0, 1, 0xC0A800FF, 0xFFFFFF00, 0), HAL_BAD_ADDRESS);
    EXPECT_EQ(HAL_GvcpForceIp(0, 1, 0x7F000002, 0xFF000000, 0), HAL_BAD_ADDRESS);
    EXPECT_EQ(HAL_GvcpForceIp(0, 1, 0xC0A8000A, 0xFFFFFF00, 0xC0A8000A), HAL_BAD_GATEWAY);
    EXPECT_EQ(HAL_GvcpForceIp(0, 1, 0xC0A8000A, 0xFFFFFF00, 0xC0A80101), HAL_BAD_GATEWAY);
    EXPECT_EQ(world->TakeLog(), Log{});
    EXPECT_EQ(HAL_GvcpForceIp(0, 1, 0, 0, 0), HAL_OK) << "the camera configures itself";
    EXPECT_EQ(world->TakeLog(), (Log{"ForceAddress 1 0 0 0"}));
}

TEST_F(HalOperations, AutomaticAddressesAreThoseOfThePlan) {
    world->plans.resize(2);
    ASSERT_EQ(HAL_GvcpForceIpAuto(), HAL_OK);
    EXPECT_EQ(world->TakeLog(), (Log{"PlanAddresses", "ApplyAddresses 2"}));
    world->plans.resize(1);
    ASSERT_EQ(HAL_GvcpAutoForceIpToCamera(42), HAL_OK);
    EXPECT_EQ(world->TakeLog(), (Log{"PlanAddresses 42", "ApplyAddresses 1"}));
}

TEST_F(HalOperations, AnAutomaticAddressIsNotGivenWhereTwoCamerasHaveTheSerialNumber) {
    world->plans.resize(2);
    EXPECT_EQ(HAL_GvcpAutoForceIpToCamera(42), HAL_AMBIGUOUS);
    EXPECT_EQ(world->TakeLog(), (Log{"PlanAddresses 42"}));
}

}  // namespace
}  // namespace Nimbrel2::Platform::Testing
