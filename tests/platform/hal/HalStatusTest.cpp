// SPDX-License-Identifier: Apache-2.0
// Every HAL function against every reason to refuse: closed, null arguments, entries that are unknown, stale or of
// another kind, each status of a driver, and drivers that throw.
#include <functional>
#include <string>

#include "tests/platform/hal/HalFixture.h"

namespace Nimbrel2::Platform::Testing {
namespace {

enum class Bus { None, FireWire, Usb, GigE };

constexpr int NoNull = -1;

/// Calls one function with good arguments, but for the pointer numbered nullPointer.
struct Row {
    const char* name;
    Bus bus;       ///< whose entry it takes
    int pointers;  ///< how many pointers it takes besides the entry
    std::function<std::uint32_t(void* entry, int nullPointer)> call;
};

/// The pointer, or null when it is this one's turn.
template <class T>
T* Unless(int nullPointer, int number, T* pointer) {
    return nullPointer == number ? nullptr : pointer;
}

// Room for whatever a function writes. Tests of values have variables of their own.
struct Scratch {
    void* entries[256] = {};
    std::uint64_t serials[4] = {};
    std::uint64_t count = 4;
    std::uint32_t count32 = 4;
    std::uint32_t words[5] = {};
    std::uint16_t halves[2] = {};
    std::uint64_t key = 0;
    char texts[2][64] = {};
    std::uint32_t sizes[2] = {64, 64};
    GvcpDiscoveryRecord records[4] = {};
    SelfIdPacket_t packets[4] = {};
    UsbSelfId usbRecords[4] = {};
    void* registration = nullptr;
};

void Ignore(HALBusEvent, void*, HALInterfaceType, unsigned, unsigned, unsigned) {}

using ConfigFunction = std::uint32_t (*)(void*, std::uint32_t*, std::uint32_t*, std::uint32_t*, std::uint32_t*,
                                         std::uint32_t*, char*, char*, std::uint32_t*, std::uint32_t*);

Row ConfigRow(const char* name, Bus bus, ConfigFunction function) {
    return {name, bus, 9, [function](void* entry, int n) {
                Scratch s;
                return function(entry, Unless(n, 0, &s.words[0]), Unless(n, 1, &s.words[1]), Unless(n, 2, &s.words[2]),
                                Unless(n, 3, &s.words[3]), Unless(n, 4, &s.words[4]), Unless(n, 5, s.texts[0]),
                                Unless(n, 6, s.texts[1]), Unless(n, 7, &s.sizes[0]), Unless(n, 8, &s.sizes[1]));
            }};
}

using WordFunction = std::uint32_t (*)(void*, std::uint32_t*);

Row WordRow(const char* name, Bus bus, WordFunction function) {
    return {name, bus, 1, [function](void* entry, int n) {
                Scratch s;
                return function(entry, Unless(n, 0, &s.words[0]));
            }};
}

Row ListRow(const char* name, std::uint32_t (*function)(void**, std::uint64_t*)) {
    return {name, Bus::None, 2, [function](void*, int n) {
                Scratch s;
                return function(Unless(n, 0, s.entries), Unless(n, 1, &s.count));
            }};
}

/// Every function on one entry, but for those that give it back.
std::vector<Row> EntryRows() {
    return {
        ConfigRow("HAL_1394GetConfigInfo", Bus::FireWire, HAL_1394GetConfigInfo),
        {"HAL_1394GetDeviceInfo", Bus::FireWire, 3,
         [](void* entry, int n) {
             Scratch s;
             return HAL_1394GetDeviceInfo(entry, Unless(n, 0, &s.words[0]), Unless(n, 1, &s.words[1]),
                                          Unless(n, 2, &s.words[2]));
         }},
        {"HAL_1394GetNode", Bus::FireWire, 2,
         [](void* entry, int n) {
             Scratch s;
             return HAL_1394GetNode(entry, Unless(n, 0, &s.halves[0]), Unless(n, 1, &s.halves[1]));
         }},
        {"HAL_1394ReadRegister", Bus::FireWire, 1,
         [](void* entry, int n) {
             Scratch s;
             return HAL_1394ReadRegister(entry, 0xF0000410, 0xFFFFFFFF, Unless(n, 0, &s.words[0]));
         }},
        {"HAL_1394WriteRegister", Bus::FireWire, 0,
         [](void* entry, int) { return HAL_1394WriteRegister(entry, 0xF0F00614, 0xFFFFFFFF, 1, 0); }},
        {"HAL_1394ReadPhyRegister", Bus::FireWire, 1,
         [](void* entry, int n) {
             Scratch s;
             return HAL_1394ReadPhyRegister(entry, 0, 0, 4, Unless(n, 0, &s.words[0]));
         }},
        {"HAL_1394WritePhyRegister", Bus::FireWire, 0,
         [](void* entry, int) { return HAL_1394WritePhyRegister(entry, 0, 0, 4, 1); }},
        {"HAL_1394FireBusReset", Bus::FireWire, 0, [](void* entry, int) { return HAL_1394FireBusReset(entry); }},
        {"HAL_1394GetSelfIds", Bus::FireWire, 4,
         [](void* entry, int n) {
             Scratch s;
             return HAL_1394GetSelfIds(entry, Unless(n, 0, s.packets), Unless(n, 1, &s.count), Unless(n, 2, &s.key),
                                       Unless(n, 3, &s.words[0]));
         }},
        {"HAL_1394GetNodeSerialNumbers", Bus::FireWire, 1,
         [](void* entry, int n) {
             Scratch s;
             return HAL_1394GetNodeSerialNumbers(entry, Unless(n, 0, s.words), 5);
         }},
        ConfigRow("HAL_UsbGetConfigInfo", Bus::Usb, HAL_UsbGetConfigInfo),
        {"HAL_UsbGetSerialText", Bus::Usb, 2,
         [](void* entry, int n) {
             Scratch s;
             return HAL_UsbGetSerialText(entry, Unless(n, 0, s.texts[0]), Unless(n, 1, &s.sizes[0]));
         }},
        WordRow("HAL_UsbGetSpeed", Bus::Usb, HAL_UsbGetSpeed),
        {"HAL_UsbReadRegister", Bus::Usb, 1,
         [](void* entry, int n) {
             Scratch s;
             return HAL_UsbReadRegister(entry, 0xF0F00600, 0xFFFFFFFF, Unless(n, 0, &s.words[0]));
         }},
        {"HAL_UsbWriteRegister", Bus::Usb, 0,
         [](void* entry, int) { return HAL_UsbWriteRegister(entry, 0xF0F00614, 0xFFFFFFFF, 1, 0); }},
        {"HAL_UsbFireBusReset", Bus::Usb, 0, [](void* entry, int) { return HAL_UsbFireBusReset(entry); }},
        WordRow("HAL_UsbGetLinkInfo", Bus::Usb, HAL_UsbGetLinkInfo),
        WordRow("HAL_UsbGetPortStatus", Bus::Usb, HAL_UsbGetPortStatus),
        {"HAL_UsbGetSelfIds", Bus::Usb, 5,
         [](void* entry, int n) {
             Scratch s;
             return HAL_UsbGetSelfIds(entry, Unless(n, 0, s.usbRecords), Unless(n, 1, &s.count),
                                      Unless(n, 2, &s.words[0]), Unless(n, 3, &s.key), Unless(n, 4, &s.words[1]));
         }},
        WordRow("HAL_GigEGetCameraIpAddress", Bus::GigE, HAL_GigEGetCameraIpAddress),
        ConfigRow("HAL_GigEGetConfigInfo", Bus::GigE, HAL_GigEGetConfigInfo),
        {"HAL_GigEGetDiscoveryRecord", Bus::GigE, 1,
         [](void* entry, int n) {
             Scratch s;
             return HAL_GigEGetDiscoveryRecord(entry, Unless(n, 0, s.records));
         }},
        {"HAL_GigEReadRegister", Bus::GigE, 1,
         [](void* entry, int n) {
             Scratch s;
             return HAL_GigEReadRegister(entry, 0x0024, Unless(n, 0, &s.words[0]));
         }},
        {"HAL_GigEWriteRegister", Bus::GigE, 0,
         [](void* entry, int) { return HAL_GigEWriteRegister(entry, 0x0A00, 2); }},
        WordRow("HAL_GigEIsInMonitorMode", Bus::GigE, HAL_GigEIsInMonitorMode),
        WordRow("HAL_GigEGetLocalApplicationPort", Bus::GigE, HAL_GigEGetLocalApplicationPort),
        WordRow("HAL_GigEGetLocalApplicationIpAddress", Bus::GigE, HAL_GigEGetLocalApplicationIpAddress),
    };
}

/// Listings and services: what reaches a driver without an entry.
std::vector<Row> BusRows() {
    return {
        ListRow("HAL_1394GetCameras", HAL_1394GetCameras),
        ListRow("HAL_1394GetDevices", HAL_1394GetDevices),
        ListRow("HAL_UsbGetCameras", HAL_UsbGetCameras),
        ListRow("HAL_GigEGetCameras", HAL_GigEGetCameras),
        {"HAL_1394GetVirtualCameras", Bus::None, 3,
         [](void*, int n) {
             Scratch s;
             return HAL_1394GetVirtualCameras(Unless(n, 0, s.entries), Unless(n, 1, s.serials), Unless(n, 2, &s.count));
         }},
        {"HAL_GvcpDiscovery", Bus::None, 2,
         [](void*, int n) {
             Scratch s;
             return HAL_GvcpDiscovery(Unless(n, 0, s.records), Unless(n, 1, &s.count32));
         }},
        {"HAL_GvcpForceIp", Bus::None, 0,
         [](void*, int) { return HAL_GvcpForceIp(0x0200, 0x00007701, 0xC0A80002, 0xFFFFFF00, 0xC0A80001); }},
        {"HAL_GvcpForceIpAuto", Bus::None, 0, [](void*, int) { return HAL_GvcpForceIpAuto(); }},
        {"HAL_GvcpAutoForceIpToCamera", Bus::None, 0, [](void*, int) { return HAL_GvcpAutoForceIpToCamera(42); }},
    };
}

Row RegisterRow(const char* name, std::uint32_t (*function)(void**, HALBusEventFunction, void*)) {
    return {name, Bus::None, 2, [function](void*, int n) {
                Scratch s;
                return function(Unless(n, 0, &s.registration), n == 1 ? nullptr : &Ignore, nullptr);
            }};
}

Row OneEntryRow(const char* name, Bus bus, std::uint32_t (*function)(void*)) {
    return {name, bus, 0, [function](void* entry, int) { return function(entry); }};
}

/// What does not reach a driver.
std::vector<Row> GlueRows() {
    return {
        RegisterRow("HAL_1394RegisterBusEvents", HAL_1394RegisterBusEvents),
        RegisterRow("HAL_UsbRegisterBusEvents", HAL_UsbRegisterBusEvents),
        RegisterRow("HAL_GigERegisterBusEvents", HAL_GigERegisterBusEvents),
    };
}

/// What takes an entry or a registration back.
std::vector<Row> GiveBackRows() {
    return {
        OneEntryRow("HAL_1394FreeCamera", Bus::FireWire, HAL_1394FreeCamera),
        OneEntryRow("HAL_1394FreeDevice", Bus::FireWire, HAL_1394FreeDevice),
        OneEntryRow("HAL_UsbFreeCamera", Bus::Usb, HAL_UsbFreeCamera),
        OneEntryRow("HAL_GigEFreeCamera", Bus::GigE, HAL_GigEFreeCamera),
        OneEntryRow("HAL_1394DeregisterBusEvents", Bus::None, HAL_1394DeregisterBusEvents),
        OneEntryRow("HAL_UsbDeregisterBusEvents", Bus::None, HAL_UsbDeregisterBusEvents),
        OneEntryRow("HAL_GigEDeregisterBusEvents", Bus::None, HAL_GigEDeregisterBusEvents),
    };
}

std::vector<Row> Joined(std::initializer_list<std::vector<Row>> parts) {
    std::vector<Row> all;
    for (const std::vector<Row>& part : parts) {
        all.insert(all.end(), part.begin(), part.end());
    }
    return all;
}

constexpr std::uint32_t TestStatuses[] = {HAL_FAILED,
                                          HAL_INVALID_ARGUMENT,
                                          HAL_PERMISSION,
                                          HAL_GONE,
                                          HAL_PHY_WRITE_NOT_IMPLEMENTED,
                                          HAL_BUSY,
                                          HAL_TIMED_OUT,
                                          HAL_NO_BUS,
                                          HAL_CLOSED,
                                          HAL_OUT_OF_MEMORY,
                                          HAL_NO_ACKNOWLEDGE,
                                          HAL_NOT_SUPPORTED,
                                          HAL_BAD_ANSWER,
                                          HAL_BUS_CHANGED,
                                          HAL_NO_SUCH_REGISTER,
                                          HAL_WRITE_PROTECTED,
                                          HAL_ACCESS_DENIED,
                                          HAL_REFUSED,
                                          HAL_NO_TREE,
                                          HAL_UNREACHABLE};

class HalStatus : public HalFixture {
protected:
    void* EntryOf(Bus bus) {
        switch (bus) {
            case Bus::FireWire:
                return FireWireCamera();
            case Bus::Usb:
                return UsbCamera();
            case Bus::GigE:
                return GigECamera();
            case Bus::None:
                break;
        }
        return nullptr;
    }
};

TEST_F(HalStatus, TheTableNamesEveryFunctionButTheTwoOfTheLibrary) {
    EXPECT_EQ(Joined({EntryRows(), BusRows(), GlueRows(), GiveBackRows()}).size(), 46u);
}

TEST_F(HalStatus, EveryFunctionSucceedsWithGoodArguments) {
    for (const Row& row : Joined({EntryRows(), BusRows(), GlueRows()})) {
        EXPECT_EQ(row.call(EntryOf(row.bus), NoNull), HAL_OK) << row.name;
    }
}

TEST_F(HalStatus, EveryFunctionAnswersClosedOutsideTheSessionWhateverTheArguments) {
    const std::vector<Row> rows = Joined({EntryRows(), BusRows(), GlueRows(), GiveBackRows()});
    void* const stale[] = {FireWireCamera(), UsbCamera(), GigECamera(), nullptr};
    ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK);
    for (const Row& row : rows) {
        for (void* const entry : stale) {
            for (int nullPointer = NoNull; nullPointer < row.pointers; ++nullPointer) {
                EXPECT_EQ(row.call(entry, nullPointer), HAL_CLOSED) << row.name << " without pointer " << nullPointer;
            }
        }
    }
    EXPECT_EQ(HAL_CleanupLibrary(), HAL_CLOSED);
}

TEST_F(HalStatus, EveryNullPointerIsAnInvalidArgument) {
    for (const Row& row : Joined({EntryRows(), BusRows(), GlueRows()})) {
        for (int nullPointer = 0; nullPointer < row.pointers; ++nullPointer) {
            EXPECT_EQ(row.call(EntryOf(row.bus), nullPointer), HAL_INVALID_ARGUMENT)
                << row.name << " without pointer " << nullPointer;
        }
    }
}

TEST_F(HalStatus, ANullEntryOrRegistrationIsAnInvalidArgument) {
    for (const Row& row : Joined({EntryRows(), GiveBackRows()})) {
        EXPECT_EQ(row.call(nullptr, NoNull), HAL_INVALID_ARGUMENT) << row.name;
    }
}

TEST_F(HalStatus, AnUnknownEntryOrRegistrationIsGone) {
    int somethingElse = 0;
    for (const Row& row : Joined({EntryRows(), GiveBackRows()})) {
        EXPECT_EQ(row.call(&somethingElse, NoNull), HAL_GONE) << row.name;
    }
}

TEST_F(HalStatus, AnEntryOfAnotherBusIsGone) {
    for (const Row& row : EntryRows()) {
        for (const Bus other : {Bus::FireWire, Bus::Usb, Bus::GigE}) {
            if (other == row.bus) {
                continue;
            }
            EXPECT_EQ(row.call(EntryOf(other), NoNull), HAL_GONE) << row.name;
        }
    }
}

TEST_F(HalStatus, AnEntryThatWasGivenBackIsGone) {
    for (const Row& row : EntryRows()) {
        void* const entry = EntryOf(row.bus);
        const auto giveBack = row.bus == Bus::FireWire ? HAL_1394FreeCamera
                              : row.bus == Bus::Usb    ? HAL_UsbFreeCamera
                                                       : HAL_GigEFreeCamera;
        ASSERT_EQ(giveBack(entry), HAL_OK);
        EXPECT_EQ(row.call(entry, NoNull), HAL_GONE) << row.name;
    }
}

TEST_F(HalStatus, AnEntryOfAnEarlierSessionIsGone) {
    void* const stale[] = {FireWireCamera(), UsbCamera(), GigECamera()};
    ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK);
    ASSERT_EQ(HAL_InitLibrary(), HAL_OK);
    FireWireCamera();
    UsbCamera();
    GigECamera();
    for (const Row& row : Joined({EntryRows(), GiveBackRows()})) {
        for (void* const entry : stale) {
            EXPECT_EQ(row.call(entry, NoNull), HAL_GONE) << row.name;
        }
    }
}

TEST_F(HalStatus, EveryStatusOfADriverIsPassedOn) {
    for (const Row& row : Joined({EntryRows(), BusRows()})) {
        void* const entry = EntryOf(row.bus);
        for (const std::uint32_t status : TestStatuses) {
            world->status = status;
            EXPECT_EQ(row.call(entry, NoNull), status) << row.name;
        }
        world->status = HAL_OK;
    }
}

TEST_F(HalStatus, NothingThatADriverThrowsLeavesAFunction) {
    for (const Row& row : Joined({EntryRows(), BusRows()})) {
        void* const entry = EntryOf(row.bus);
        world->toThrow = Throw::BadAlloc;
        EXPECT_EQ(row.call(entry, NoNull), HAL_OUT_OF_MEMORY) << row.name;
        world->toThrow = Throw::RuntimeError;
        EXPECT_EQ(row.call(entry, NoNull), HAL_FAILED) << row.name;
        world->toThrow = Throw::Nothing;
    }
}

}  // namespace
}  // namespace Nimbrel2::Platform::Testing
