// SPDX-License-Identifier: Apache-2.0
// Bus resets, PHY registers, USB link and port status through one camera. The test's thread; some tests hold an
// operation up on a second one.
#include "tests/busmaster/BusMasterFixture.h"
#include "tests/busmaster/ErrorChecks.h"

namespace Nimbrel2::Testing {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

constexpr ZevoGuid UnknownGuid{{0xDEAD, 0xBEEF, 1, 2}};

class BusOperations : public BusMasterFixture {
protected:
    void SetUp() override {
        fireWire = hal.AddFireWireCamera(100);
        fireWire->phyRegisters[1] = 0x55;
        usb = hal.AddUsbCamera(200);
        gigE = hal.AddGigECamera(300, 0xC0A8000A);
        device = hal.AddFireWireDevice(0x11, 0x22);
        Start();
        ASSERT_EQ(SerialNumbers(), (std::vector<unsigned int>{100, 200, 300}));
        fireWireGuid = GuidAt(0);
        usbGuid = GuidAt(1);
        gigEGuid = GuidAt(2);
        EXPECT_TRUE(busMaster->GetDeviceFromIndex(0, &deviceGuid) == ERROR_OK);
        hal.ClearCalls();
        traces.Clear();
    }

    ZevoGuid GuidAt(unsigned int index) {
        ZevoGuid guid;
        EXPECT_TRUE(busMaster->GetCameraFromIndex(index, &guid) == ERROR_OK);
        return guid;
    }

    // The entry of a listed device as calls show it.
    std::uint64_t EntryOf(const ScriptedHal::DevicePointer& of) const {
        return reinterpret_cast<std::uintptr_t>(hal.EntriesOf(of).back());
    }

    ScriptedHal::DevicePointer fireWire, usb, gigE, device;
    ZevoGuid fireWireGuid, usbGuid, gigEGuid, deviceGuid;
};

// ---- FireBusReset --------------------------------------------------------------------------------------------------

TEST_F(BusOperations, FireBusResetAsksTheCamerasOwnBus) {
    EXPECT_OK(busMaster->FireBusReset(&fireWireGuid));
    EXPECT_THAT(hal.CallNames(), ElementsAre("HAL_1394FireBusReset"));
    EXPECT_THAT(hal.Calls()[0].arguments, ElementsAre(EntryOf(fireWire)));
    EXPECT_THAT(traces.Lines(), ElementsAre("Firing a bus reset"));
    ExpectLocksFree(*busMaster);
}

TEST_F(BusOperations, FireBusResetWorksThroughUsbCamerasAndDevices) {
    EXPECT_OK(busMaster->FireBusReset(&usbGuid));
    EXPECT_OK(busMaster->FireBusReset(&deviceGuid));
    EXPECT_THAT(hal.CallNames(), ElementsAre("HAL_UsbFireBusReset", "HAL_1394FireBusReset"));
    EXPECT_THAT(hal.Calls()[1].arguments, ElementsAre(EntryOf(device)));
}

TEST_F(BusOperations, FireBusResetTellsTheStatusThatTheInterfaceGave) {
    fireWire->statuses["HAL_1394FireBusReset"] = 0x2A;
    EXPECT_ERROR(busMaster->FireBusReset(&fireWireGuid), ERROR_LOW_LEVEL_FAILURE,
                 "Unable to fire bus reset. Error 0x2a");
    ExpectLocksFree(*busMaster);
}

TEST_F(BusOperations, FireBusResetThroughABusWithoutResetsFails) {
    EXPECT_ERROR(busMaster->FireBusReset(&gigEGuid), ERROR_LOW_LEVEL_FAILURE, "Unable to fire bus reset. Error 0xc");
    EXPECT_THAT(hal.CallNames(), IsEmpty());
}

TEST_F(BusOperations, FireBusResetOfAnUnknownGuidAnswersWhatTheLookUpSays) {
    ZevoGuid unknown = UnknownGuid;
    EXPECT_ERROR(busMaster->FireBusReset(&unknown), ERROR_NOT_FOUND, "Camera not found with specified guid.");
    EXPECT_THAT(hal.CallNames(), IsEmpty());
    EXPECT_THAT(traces.Lines(), ElementsAre("Firing a bus reset"));
    ExpectLocksFree(*busMaster);
}

// ---- PHY registers -------------------------------------------------------------------------------------------------

TEST_F(BusOperations, ReadPhyRegisterHandsTheSelectorsOnUnchangedAndInOrder) {
    fireWire->phyRegisters[std::uint64_t{7} << 32 | 15u << 16 | 9] = 0xABCD;
    unsigned int value = 0;
    EXPECT_OK(busMaster->ReadPhyRegister(fireWireGuid, 7, 15, 9, &value));
    EXPECT_EQ(value, 0xABCDu);
    ASSERT_THAT(hal.CallNames(), ElementsAre("HAL_1394ReadPhyRegister"));
    EXPECT_THAT(hal.Calls()[0].arguments, ElementsAre(EntryOf(fireWire), 7, 15, 9, 0));
    EXPECT_THAT(traces.Lines(), IsEmpty());
    ExpectLocksFree(*busMaster);
}

TEST_F(BusOperations, ReadPhyRegisterJudgesNoSelector) {
    hal.Replace(&HalHooks::HAL_1394ReadPhyRegister,
                [](void*, std::uint32_t, std::uint32_t, std::uint32_t, std::uint32_t*) -> std::uint32_t { return 0; });
    unsigned int value = 0;
    EXPECT_OK(busMaster->ReadPhyRegister(fireWireGuid, 0xFFFFFFFF, 0x80000000, 0x12345678, &value));
    EXPECT_THAT(hal.Calls()[0].arguments, ElementsAre(EntryOf(fireWire), 0xFFFFFFFF, 0x80000000, 0x12345678, 0));
}

TEST_F(BusOperations, ReadPhyRegisterTellsTheStatusThatTheInterfaceGave) {
    fireWire->statuses["HAL_1394ReadPhyRegister"] = 0xBEEF;
    unsigned int value = 5;
    EXPECT_ERROR(busMaster->ReadPhyRegister(fireWireGuid, 0, 0, 1, &value), ERROR_LOW_LEVEL_FAILURE,
                 "Unable to read phy register. Error 0xbeef");
    EXPECT_EQ(value, 5u);
}

TEST_F(BusOperations, ReadPhyRegisterKnowsNoUnimplementedReading) {
    fireWire->statuses["HAL_1394ReadPhyRegister"] = 5;
    unsigned int value = 0;
    EXPECT_ERROR(busMaster->ReadPhyRegister(fireWireGuid, 0, 0, 1, &value), ERROR_LOW_LEVEL_FAILURE,
                 "Unable to read phy register. Error 0x5");
}

TEST_F(BusOperations, ReadPhyRegisterOfACameraOnAnotherBusFails) {
    unsigned int value = 0;
    EXPECT_ERROR(busMaster->ReadPhyRegister(usbGuid, 0, 0, 1, &value), ERROR_LOW_LEVEL_FAILURE,
                 "Unable to read phy register. Error 0xc");
}

TEST_F(BusOperations, ReadPhyRegisterOfAnUnknownGuidAnswersWhatTheLookUpSays) {
    unsigned int value = 5;
    EXPECT_ERROR(busMaster->ReadPhyRegister(UnknownGuid, 0, 0, 1, &value), ERROR_NOT_FOUND,
                 "Camera not found with specified guid.");
    EXPECT_EQ(value, 5u);
    EXPECT_THAT(hal.CallNames(), IsEmpty());
    ExpectLocksFree(*busMaster);
}

TEST_F(BusOperations, WritePhyRegisterHandsSelectorsAndValueOnUnchangedAndInOrder) {
    EXPECT_OK(busMaster->WritePhyRegister(fireWireGuid, 1, 2, 3, 0xFEDCBA98));
    ASSERT_THAT(hal.CallNames(), ElementsAre("HAL_1394WritePhyRegister"));
    EXPECT_THAT(hal.Calls()[0].arguments, ElementsAre(EntryOf(fireWire), 1, 2, 3, 0xFEDCBA98));
    EXPECT_THAT(traces.Lines(), IsEmpty());
    ExpectLocksFree(*busMaster);
}

TEST_F(BusOperations, WritePhyRegisterThatCannotBeDoneIsNotImplemented) {
    fireWire->statuses["HAL_1394WritePhyRegister"] = 5;
    EXPECT_ERROR(busMaster->WritePhyRegister(fireWireGuid, 0, 0, 1, 0), ERROR_NOT_IMPLEMENTED,
                 "This function has not been implemented.");
}

TEST_F(BusOperations, WritePhyRegisterTellsAnyOtherStatus) {
    fireWire->statuses["HAL_1394WritePhyRegister"] = 7;
    EXPECT_ERROR(busMaster->WritePhyRegister(fireWireGuid, 0, 0, 1, 0), ERROR_LOW_LEVEL_FAILURE,
                 "Unable to write phy register. Error 0x7");
    ExpectLocksFree(*busMaster);
}

TEST_F(BusOperations, WritePhyRegisterOnABusWithoutPhysIsNotImplemented) {
    EXPECT_ERROR(busMaster->WritePhyRegister(gigEGuid, 0, 0, 1, 0), ERROR_NOT_IMPLEMENTED,
                 "This function has not been implemented.");
    EXPECT_THAT(hal.CallNames(), IsEmpty());
}

TEST_F(BusOperations, WritePhyRegisterOfAnUnknownGuidAnswersWhatTheLookUpSays) {
    EXPECT_ERROR(busMaster->WritePhyRegister(UnknownGuid, 0, 0, 1, 0), ERROR_NOT_FOUND,
                 "Camera not found with specified guid.");
    EXPECT_THAT(hal.CallNames(), IsEmpty());
    ExpectLocksFree(*busMaster);
}

// ---- USB -----------------------------------------------------------------------------------------------------------

struct UsbQuestion {
    const char* name;
    const char* function;
    Error (BusMaster::*operation)(ZevoGuid, unsigned int*);
    std::uint32_t ScriptedDevice::*answer;
};

void PrintTo(const UsbQuestion& question, std::ostream* out) { *out << question.name; }

class UsbOperations : public BusOperations, public testing::WithParamInterface<UsbQuestion> {
protected:
    Error Ask(ZevoGuid guid, unsigned int* answer) { return (busMaster.get()->*GetParam().operation)(guid, answer); }
};

TEST_P(UsbOperations, AnswerWhatTheCamerasPortSays) {
    usb.get()->*GetParam().answer = 0x01F40203;
    unsigned int answer = 0;
    EXPECT_OK(Ask(usbGuid, &answer));
    EXPECT_EQ(answer, 0x01F40203u);
    ASSERT_THAT(hal.CallNames(), ElementsAre(GetParam().function));
    EXPECT_THAT(hal.Calls()[0].arguments, ElementsAre(EntryOf(usb), 0));
    EXPECT_THAT(traces.Lines(), IsEmpty());
    ExpectLocksFree(*busMaster);
}

TEST_P(UsbOperations, RefuseCamerasAndDevicesOfOtherBusesWithoutAnyCall) {
    for (const ZevoGuid& guid : {fireWireGuid, gigEGuid, deviceGuid}) {
        unsigned int answer = 5;
        EXPECT_ERROR(Ask(guid, &answer), ERROR_UNSUPPORTED_INTERFACE, "Unsupported Hardware Interface.");
        EXPECT_EQ(answer, 5u);
    }
    EXPECT_THAT(hal.CallNames(), IsEmpty());
    ExpectLocksFree(*busMaster);
}

TEST_P(UsbOperations, DropTheStatusOfAFailedReading) {
    for (const std::uint32_t status : {1u, 5u, 0xFFFFFFFFu}) {
        hal.Change([&] { usb->statuses[GetParam().function] = status; });
        unsigned int answer = 0;
        EXPECT_ERROR(Ask(usbGuid, &answer), ERROR_LOW_LEVEL_FAILURE, "Unable to read card register.");
    }
    ExpectLocksFree(*busMaster);
}

TEST_P(UsbOperations, AnswerWhatTheLookUpSaysOfAnUnknownGuid) {
    unsigned int answer = 5;
    EXPECT_ERROR(Ask(UnknownGuid, &answer), ERROR_NOT_FOUND, "Camera not found with specified guid.");
    EXPECT_EQ(answer, 5u);
    EXPECT_THAT(hal.CallNames(), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Both, UsbOperations,
                         testing::Values(UsbQuestion{"LinkInfo", "HAL_UsbGetLinkInfo", &BusMaster::GetUsbLinkInfo,
                                                     &ScriptedDevice::linkInfo},
                                         UsbQuestion{"PortStatus", "HAL_UsbGetPortStatus", &BusMaster::GetUsbPortStatus,
                                                     &ScriptedDevice::portStatus}),
                         [](const auto& tested) { return std::string(tested.param.name); });

// ---- Link speed ----------------------------------------------------------------------------------------------------

TEST_F(BusOperations, LinkSpeedIsWhatTheCamerasInterfaceSays) {
    fireWire->selfIds = {{{0x80, 0x3F, 0x80, 0x00}}};
    gigE->registers[0x0934] = 0x10000000;
    gigE->registers[0x0670] = 2500;
    unsigned int megabits = 0;
    EXPECT_OK(busMaster->GetLinkSpeed(fireWireGuid, &megabits));
    EXPECT_EQ(megabits, 400u);
    EXPECT_OK(busMaster->GetLinkSpeed(usbGuid, &megabits));
    EXPECT_EQ(megabits, 5000u);
    EXPECT_OK(busMaster->GetLinkSpeed(gigEGuid, &megabits));
    EXPECT_EQ(megabits, 2500u);
    ExpectLocksFree(*busMaster);
}

TEST_F(BusOperations, LinkSpeedTellsWhyThereIsNone) {
    unsigned int megabits = 0;
    EXPECT_ERROR(busMaster->GetLinkSpeed(UnknownGuid, nullptr), ERROR_INVALID_PARAMETER, "Invalid link speed address.");
    EXPECT_ERROR(busMaster->GetLinkSpeed(UnknownGuid, &megabits), ERROR_NOT_FOUND,
                 "Camera not found with specified guid.");
    hal.Change([&] { usb->speed = 0; });
    EXPECT_ERROR(busMaster->GetLinkSpeed(usbGuid, &megabits), ERROR_UNSUPPORTED_INTERFACE,
                 "The camera does not tell how fast its link is.");
    hal.Change([&] { gigE->statuses["HAL_GigEReadRegister"] = 7; });
    EXPECT_ERROR(busMaster->GetLinkSpeed(gigEGuid, &megabits), ERROR_LOW_LEVEL_FAILURE,
                 "Unable to read the link speed. Error 0x7");
    ExpectLocksFree(*busMaster);
}

// ---- All of them ---------------------------------------------------------------------------------------------------

TEST_F(BusMasterFixture, BusOperationsFindNothingBeforeStartUp) {
    hal.AddFireWireCamera(100);
    Construct();
    ZevoGuid guid;
    unsigned int value = 0;
    const char* const message = "Camera not found with specified guid.";
    EXPECT_ERROR(busMaster->FireBusReset(&guid), ERROR_NOT_FOUND, message);
    EXPECT_ERROR(busMaster->ReadPhyRegister(guid, 0, 0, 0, &value), ERROR_NOT_FOUND, message);
    EXPECT_ERROR(busMaster->WritePhyRegister(guid, 0, 0, 0, 0), ERROR_NOT_FOUND, message);
    EXPECT_ERROR(busMaster->GetUsbLinkInfo(guid, &value), ERROR_NOT_FOUND, message);
    EXPECT_ERROR(busMaster->GetUsbPortStatus(guid, &value), ERROR_NOT_FOUND, message);
}

struct Operation {
    const char* name;
    const char* function;
    ZevoGuid (*target)(const ZevoGuid& fireWire, const ZevoGuid& usb);
    Error (*run)(BusMaster& busMaster, ZevoGuid guid, unsigned int* value);
};

void PrintTo(const Operation& operation, std::ostream* out) { *out << operation.name; }

class EveryBusOperation : public BusOperations, public testing::WithParamInterface<Operation> {
protected:
    ZevoGuid Target() const { return GetParam().target(fireWireGuid, usbGuid); }
    Error Run(const ZevoGuid& guid) { return GetParam().run(*busMaster, guid, &value); }

    unsigned int value = 0;
};

TEST_P(EveryBusOperation, RunsItsInterfaceCallWithNoLockHeld) {
    const auto gate = hal.Block(GetParam().function);
    std::thread caller([this] { EXPECT_OK(Run(Target())); });
    EXPECT_TRUE(gate->WaitUntilReached());
    ExpectLocksFree(*busMaster);
    EXPECT_EQ(SerialNumbers().size(), 3u);
    gate->Open();
    caller.join();
}

TEST_P(EveryBusOperation, KeepsTheInterfaceAliveWhenItsCameraLeavesMeanwhile) {
    const auto gate = hal.Block(GetParam().function);
    std::thread caller([this] { EXPECT_OK(Run(Target())); });
    EXPECT_TRUE(gate->WaitUntilReached());
    const auto leaver = hal.DeviceOf(hal.Calls(GetParam().function)[0].Entry());
    void* const entry = hal.EntriesOf(leaver)[0];
    hal.Detach(leaver);
    Cycle();
    EXPECT_EQ(SerialNumbers().size(), 2u);
    EXPECT_EQ(hal.TimesFreed(entry), 0u);
    gate->Open();
    caller.join();
    EXPECT_EQ(hal.TimesFreed(entry), 1u);
    EXPECT_ERROR(Run(Target()), ERROR_NOT_FOUND, "Camera not found with specified guid.");
}

TEST_P(EveryBusOperation, LetsNoExceptionOutWhenMemoryRunsOut) {
    hal.Fail(GetParam().function, 0, 0x33);
    const Error expected = Run(Target());
    bool happened = true;
    for (std::uint64_t nth = 1; happened; ++nth) {
        const AllocationFailure failure(nth);
        const Error error = Run(Target());
        happened = failure.Happened();
        // A trace that could not be composed changes no result.
        EXPECT_TRUE(error == expected.GetType() || error == ERROR_MEMORY_ALLOCATION_FAILED) << error.Describe();
        EXPECT_TRUE(happened || error == expected.GetType());
        ASSERT_LT(nth, 100u);
    }
    ExpectLocksFree(*busMaster);
}

ZevoGuid OfFireWire(const ZevoGuid& fireWire, const ZevoGuid&) { return fireWire; }
ZevoGuid OfUsb(const ZevoGuid&, const ZevoGuid& usb) { return usb; }

INSTANTIATE_TEST_SUITE_P(All, EveryBusOperation,
                         testing::Values(Operation{"FireBusReset", "HAL_1394FireBusReset", OfFireWire,
                                                   [](BusMaster& master, ZevoGuid guid, unsigned int*) {
                                                       return master.FireBusReset(&guid);
                                                   }},
                                         Operation{"ReadPhyRegister", "HAL_1394ReadPhyRegister", OfFireWire,
                                                   [](BusMaster& master, ZevoGuid guid, unsigned int* value) {
                                                       return master.ReadPhyRegister(guid, 0, 0, 1, value);
                                                   }},
                                         Operation{"WritePhyRegister", "HAL_1394WritePhyRegister", OfFireWire,
                                                   [](BusMaster& master, ZevoGuid guid, unsigned int* value) {
                                                       return master.WritePhyRegister(guid, 0, 0, 1, *value);
                                                   }},
                                         Operation{"GetUsbLinkInfo", "HAL_UsbGetLinkInfo", OfUsb,
                                                   [](BusMaster& master, ZevoGuid guid, unsigned int* value) {
                                                       return master.GetUsbLinkInfo(guid, value);
                                                   }},
                                         Operation{"GetLinkSpeed", "HAL_UsbGetSpeed", OfUsb,
                                                   [](BusMaster& master, ZevoGuid guid, unsigned int* value) {
                                                       return master.GetLinkSpeed(guid, value);
                                                   }},
                                         Operation{"GetUsbPortStatus", "HAL_UsbGetPortStatus", OfUsb,
                                                   [](BusMaster& master, ZevoGuid guid, unsigned int* value) {
                                                       return master.GetUsbPortStatus(guid, value);
                                                   }}),
                         [](const auto& tested) { return std::string(tested.param.name); });

}  // namespace
}  // namespace Nimbrel2::Testing
