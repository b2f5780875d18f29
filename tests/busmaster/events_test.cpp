// SPDX-License-Identifier: Apache-2.0
// What bus events do: traces, counters, wake-ups, the bus error's walk, and the generation counters.
#include "common/GuidGenerator.h"
#include "common/IEEE1394Interface.h"
#include "tests/busmaster/BusMasterFixture.h"

namespace Nimbrel2::Testing {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

constexpr HALBusEvent UnknownEvent = static_cast<HALBusEvent>(4);
constexpr HALBusEvent FarEvent = static_cast<HALBusEvent>(0xFFFFFFFF);
constexpr HALInterfaceType UnknownBus = static_cast<HALInterfaceType>(3);
constexpr HALInterfaceType FarBus = static_cast<HALInterfaceType>(0xFFFFFFFF);
constexpr unsigned int EuiHigh = 0x00112233;
constexpr unsigned int EuiLow = 0x44556677;

class Events : public BusMasterFixture {
protected:
    void Raise(HALBusEvent event, HALInterfaceType bus, unsigned int first = 0, unsigned int second = 0,
               unsigned int third = 0) {
        BusMasterTestAccess::HALBusEventCallback(event, busMaster.get(), bus, first, second, third);
    }

    // Lists a device of the test's own, whose guid an event with these words on a bus of that kind makes.
    boost::shared_ptr<HardwareInterface> ListDevice(InterfaceType type, unsigned int first, unsigned int second) {
        auto handle = std::make_unique<BusMasterHandle>();
        EXPECT_TRUE(GuidGenerator::GenerateGUIDForDevice(type, first, second, 0xFFFFFFFF, &handle->guid) == ERROR_OK);
        const auto device = hal.AddFireWireDevice(first, second);
        void* entry = nullptr;
        std::uint64_t count = 1;
        EXPECT_EQ(HAL_OK, HAL_1394GetDevices(&entry, &count));
        hal.Detach(device);
        handle->hwInterface.reset(new IEEE1394Interface(entry));
        const boost::shared_ptr<HardwareInterface> hwInterface = handle->hwInterface;
        const Lock lock(Inside().m_busMasterMutex);
        Inside().m_deviceList.push_back(handle.release());
        return hwInterface;
    }

    HardwareInterface* Device(unsigned int index = 0) {
        ZevoGuid guid;
        HardwareInterface* device = nullptr;
        EXPECT_TRUE(busMaster->GetDeviceFromIndex(index, &guid) == ERROR_OK);
        EXPECT_TRUE(busMaster->GetHwInterfaceFromGuid(guid, &device) == ERROR_OK);
        return device;
    }
};

std::vector<std::uint32_t> Counts(const HardwareInterface& device) {
    return {device.arrivalCount, device.removalCount, device.busResetCount, device.busErrorCount};
}

// ---- Traces -------------------------------------------------------------------------------------------------------

struct Named {
    std::uint32_t value;
    const char* name;
};

class EventTrace : public Events, public ::testing::WithParamInterface<std::tuple<Named, Named>> {};

TEST_P(EventTrace, NamesTheEventAndTheBus) {
    const auto& [event, bus] = GetParam();
    Start();
    traces.Clear();
    Raise(static_cast<HALBusEvent>(event.value), static_cast<HALInterfaceType>(bus.value));
    EXPECT_EQ(std::string("Bus event: ") + event.name + " on " + bus.name + " interface", traces.Lines().at(0));
    EXPECT_TRUE(WaitUntilIdle());
}

INSTANTIATE_TEST_SUITE_P(All, EventTrace,
                         ::testing::Combine(::testing::Values(Named{0, "Bus reset"}, Named{1, "Bus arrival"},
                                                              Named{2, "Bus removal"}, Named{3, "Bus error"},
                                                              Named{4, "Unknown bus event"},
                                                              Named{0xFFFFFFFF, "Unknown bus event"}),
                                            ::testing::Values(Named{0, "1394"}, Named{1, "USB"}, Named{2, "GigE"},
                                                              Named{3, "Unknown"}, Named{0xFFFFFFFF, "Unknown"})));

// ---- What an event wakes ------------------------------------------------------------------------------------------

TEST_F(Events, OnlyAResetHasTheBusesListedAgain) {
    hal.AddFireWireDevice(EuiHigh, EuiLow);
    Start();
    hal.AddUsbCamera(21);
    for (const HALBusEvent event : {HAL_BUS_ARRIVAL, HAL_BUS_REMOVAL, HAL_BUS_ERROR, UnknownEvent, FarEvent}) {
        for (const HALInterfaceType bus : {HAL_INTERFACE_1394, HAL_INTERFACE_USB, HAL_INTERFACE_GIGE, UnknownBus}) {
            Raise(event, bus);
            Raise(event, bus, EuiHigh, EuiLow);
        }
    }
    EXPECT_TRUE(WaitUntilIdle());
    EXPECT_EQ(1U, Listings());
    EXPECT_THAT(SerialNumbers(), IsEmpty());
}

TEST_F(Events, AResetWithoutWordsWakesTheWorkerWhateverItsBus) {
    Start();
    std::size_t listings = 1;
    for (const HALInterfaceType bus : {HAL_INTERFACE_1394, HAL_INTERFACE_USB, HAL_INTERFACE_GIGE, UnknownBus, FarBus}) {
        Raise(HAL_BUS_RESET, bus);
        ASSERT_TRUE(WaitUntilIdle());
        EXPECT_EQ(listings += 2, Listings());
    }
}

TEST_F(Events, BeforeTheStartAResetIsKeptForTheWorker) {
    Construct();
    Raise(HAL_BUS_RESET, HAL_INTERFACE_USB);
    ASSERT_TRUE(busMaster->Initialize() == ERROR_OK);
    ASSERT_TRUE(WaitUntilIdle());
    EXPECT_EQ(1U, traces.Count("Handling outstanding bus reset (1)"));
    EXPECT_EQ(2U, Listings());
}

TEST_F(Events, AResetThatTheRegistrationItselfReportsIsHandled) {
    hal.Replace(
        &HalHooks::HAL_UsbRegisterBusEvents, [this](void** registration, HALBusEventFunction function, void* context) {
            const std::uint32_t status = hal.Defaults().HAL_UsbRegisterBusEvents(registration, function, context);
            std::thread(function, HAL_BUS_RESET, context, HAL_INTERFACE_USB, 0, 0, 0).join();
            return status;
        });
    Start();
    EXPECT_EQ(2U, Listings());
    EXPECT_EQ(1U, traces.Count("Handling outstanding bus reset (1)"));
}

// ---- Device words -------------------------------------------------------------------------------------------------

TEST_F(Events, WordsNameTheListedDeviceByTheHalvesOfItsEui64) {
    hal.AddFireWireDevice(1, 2);
    hal.AddFireWireDevice(EuiHigh, EuiLow);
    Start();
    Raise(HAL_BUS_ARRIVAL, HAL_INTERFACE_1394, EuiHigh, EuiLow);
    Raise(HAL_BUS_REMOVAL, HAL_INTERFACE_1394, EuiHigh, EuiLow, 99);
    Raise(HAL_BUS_REMOVAL, HAL_INTERFACE_1394, EuiHigh, EuiLow);
    Raise(HAL_BUS_ERROR, HAL_INTERFACE_1394, EuiHigh, EuiLow);
    Raise(UnknownEvent, HAL_INTERFACE_1394, EuiHigh, EuiLow);
    EXPECT_THAT(Counts(*Device(1)), ElementsAre(1, 2, 0, 1));
    EXPECT_THAT(Counts(*Device(0)), ElementsAre(0, 0, 0, 0));
    Raise(HAL_BUS_ARRIVAL, HAL_INTERFACE_1394, EuiLow, EuiHigh);
    Raise(HAL_BUS_ARRIVAL, HAL_INTERFACE_1394, EuiHigh, 0);
    Raise(HAL_BUS_ARRIVAL, HAL_INTERFACE_1394, 0, EuiLow);
    Raise(HAL_BUS_ARRIVAL, HAL_INTERFACE_USB, EuiHigh, EuiLow);
    EXPECT_THAT(Counts(*Device(1)), ElementsAre(1, 2, 0, 1)) << "other words name another device";
}

TEST_F(Events, OneWordIsEnoughToNameADevice) {
    hal.AddFireWireDevice(0, 5);
    hal.AddFireWireDevice(6, 0);
    Start();
    Raise(HAL_BUS_ARRIVAL, HAL_INTERFACE_1394, 0, 5);
    Raise(HAL_BUS_ARRIVAL, HAL_INTERFACE_1394, 6, 0);
    EXPECT_THAT(Counts(*Device(0)), ElementsAre(1, 0, 0, 0));
    EXPECT_THAT(Counts(*Device(1)), ElementsAre(1, 0, 0, 0));
}

TEST_F(Events, AResetWithWordsCountsOnTheDeviceAndWakes) {
    Start();
    const auto device = ListDevice(INTERFACE_IEEE1394, EuiHigh, EuiLow);
    Raise(HAL_BUS_RESET, HAL_INTERFACE_1394, EuiHigh, EuiLow);
    ASSERT_TRUE(WaitUntilIdle());
    EXPECT_THAT(Counts(*device), ElementsAre(0, 0, 1, 0));
    EXPECT_EQ(3U, Listings());
}

TEST_F(Events, EachBusMakesGuidsOfItsOwnInterfaceType) {
    Start();
    const auto fireWire = ListDevice(INTERFACE_IEEE1394, 1, 2);
    const auto usb = ListDevice(INTERFACE_USB_2, 1, 2);
    const auto gigE = ListDevice(INTERFACE_GIGE, 1, 2);
    const auto none = ListDevice(INTERFACE_NONE, 1, 2);
    const auto usb3 = ListDevice(INTERFACE_USB_3, 1, 2);
    Raise(HAL_BUS_ARRIVAL, HAL_INTERFACE_1394, 1, 2);
    Raise(HAL_BUS_REMOVAL, HAL_INTERFACE_USB, 1, 2);
    Raise(HAL_BUS_ERROR, HAL_INTERFACE_GIGE, 1, 2);
    Raise(HAL_BUS_ARRIVAL, UnknownBus, 1, 2);
    Raise(HAL_BUS_ARRIVAL, FarBus, 1, 2);
    EXPECT_THAT(Counts(*fireWire), ElementsAre(1, 0, 0, 0));
    EXPECT_THAT(Counts(*usb), ElementsAre(0, 1, 0, 0));
    EXPECT_THAT(Counts(*gigE), ElementsAre(0, 0, 0, 1));
    EXPECT_THAT(Counts(*none), ElementsAre(2, 0, 0, 0));
    EXPECT_THAT(Counts(*usb3), ElementsAre(0, 0, 0, 0));
}

TEST_F(Events, WithWordsWaitForTheRunningCycleWithoutThemAreRecordedAtOnce) {
    hal.AddFireWireDevice(EuiHigh, EuiLow);
    Start();
    const auto gate = hal.Block("HAL_GigEGetCameras");
    Inside().NotifyWorker();
    ASSERT_TRUE(gate->WaitUntilReached());
    traces.Clear();

    Raise(HAL_BUS_RESET, HAL_INTERFACE_USB);
    EXPECT_EQ(1U, Inside().m_pendingBusResets);
    std::atomic<bool> recorded{false};
    std::thread event([&] {
        Raise(HAL_BUS_RESET, HAL_INTERFACE_1394, EuiHigh, EuiLow);
        recorded = true;
    });
    ASSERT_TRUE(traces.WaitFor("Bus event: Bus reset on 1394 interface"));
    EXPECT_FALSE(recorded);
    EXPECT_EQ(1U, Inside().m_pendingBusResets);
    gate->Open();
    event.join();
    ASSERT_TRUE(WaitUntilIdle());
    EXPECT_LE(3U, Listings());
}

TEST_F(Events, WithoutMemoryToNameTheDeviceAreRecordedAllTheSame) {
    hal.AddFireWireDevice(EuiHigh, EuiLow);
    Start();
    std::size_t listings = 1;
    for (std::uint64_t nth = 1;; ++nth) {
        const AllocationFailure failure(nth);
        Raise(HAL_BUS_RESET, HAL_INTERFACE_1394, EuiHigh, EuiLow);
        const AllocationFailure::Pause pause;
        ASSERT_TRUE(WaitUntilIdle());
        ASSERT_EQ(listings += 2, Listings()) << "the reset was lost with allocation " << nth;
        if (!failure.Happened()) {
            break;
        }
    }
}

// ---- Bus errors ---------------------------------------------------------------------------------------------------

class BusError : public Events {
protected:
    static constexpr std::uint64_t IsoEnable = 0xF0F00614;

    void LetStream(unsigned int serialNumber) {
        HardwareInterface* camera = nullptr;
        ASSERT_TRUE(busMaster->GetHwInterfaceFromSerialNumber(serialNumber, &camera) == ERROR_OK);
        dynamic_cast<IEEE1394Interface&>(*camera).isoEnabled = true;
    }

    std::vector<unsigned int> Enabled() {
        std::vector<unsigned int> serialNumbers;
        for (const HalCall& call : hal.Calls("HAL_1394WriteRegister")) {
            EXPECT_EQ(IsoEnable, call.arguments.at(1));
            EXPECT_EQ(0xFFFFFFFFU, call.arguments.at(2));
            EXPECT_EQ(0x80000000U, call.arguments.at(3));
            EXPECT_EQ(0U, call.arguments.at(4));
            serialNumbers.push_back(hal.DeviceOf(call.Entry())->serialNumber);
        }
        return serialNumbers;
    }
};

TEST_F(BusError, SwitchesIsoOnAgainOnEveryListedCameraInOrder) {
    hal.AddFireWireCamera(11);
    hal.AddFireWireCamera(12);
    hal.AddFireWireCamera(13);
    hal.AddUsbCamera(21);
    Start();
    LetStream(11);
    LetStream(13);
    for (const HALInterfaceType bus : {HAL_INTERFACE_1394, HAL_INTERFACE_USB, HAL_INTERFACE_GIGE, UnknownBus}) {
        hal.ClearCalls();
        Raise(HAL_BUS_ERROR, bus);
        EXPECT_THAT(Enabled(), ElementsAre(11, 13)) << "whichever bus it comes from";
        EXPECT_EQ(3U, hal.Count("HAL_1394ReadRegister"));
    }
    EXPECT_EQ(8U, traces.Count("Write to iso bit succeeded"));
}

TEST_F(BusError, TracesAWriteThatFails) {
    hal.AddFireWireCamera(11);
    Start();
    LetStream(11);
    hal.Fail("HAL_1394WriteRegister", 1, 0xAB);
    Raise(HAL_BUS_ERROR, HAL_INTERFACE_1394);
    EXPECT_EQ(1U, traces.Count("Write to iso bit failed with error 000000AB"));
}

TEST_F(BusError, NeitherWaitsForACycleNorSeesItsHalfMergedList) {
    hal.AddFireWireCamera(11);
    hal.AddFireWireCamera(12);
    Start();
    LetStream(11);
    LetStream(12);
    const auto gate = traces.BlockAt("Updating camera list. Current size: 2, new size: 2");
    Inside().NotifyWorker();
    ASSERT_TRUE(gate->WaitUntilReached());
    hal.ClearCalls();
    Raise(HAL_BUS_ERROR, HAL_INTERFACE_1394);  // on this thread, with the worker in its cycle
    EXPECT_THAT(Enabled(), ElementsAre(11, 12));
    gate->Open();
    ASSERT_TRUE(WaitUntilIdle());
}

TEST_F(BusError, WalksTheListAsTheLastCycleLeftIt) {
    const auto leaves = hal.AddFireWireCamera(11);
    Start();
    LetStream(11);
    hal.Detach(leaves);
    hal.AddFireWireCamera(12);
    Cycle();
    LetStream(12);
    hal.ClearCalls();
    Raise(HAL_BUS_ERROR, HAL_INTERFACE_1394);
    EXPECT_THAT(Enabled(), ElementsAre(12));
}

// Its walk holds the interface objects: a camera that is freed under it is given back when the transaction ends.
TEST_F(BusError, OnACameraThatIsRemovedMeanwhileGivesItBackAfterTheTransaction) {
    const auto leaves = hal.AddFireWireCamera(11);
    Start();
    LetStream(11);
    hal.ClearCalls();
    const auto gate = hal.Block("HAL_1394ReadRegister");
    std::thread error([this] { Raise(HAL_BUS_ERROR, HAL_INTERFACE_1394); });
    ASSERT_TRUE(gate->WaitUntilReached());
    hal.Detach(leaves);
    Cycle();
    EXPECT_THAT(SerialNumbers(), IsEmpty());
    EXPECT_EQ(0U, hal.TimesFreed(hal.EntriesOf(leaves).at(0)));
    gate->Open();
    error.join();
    EXPECT_EQ(1U, hal.TimesFreed(hal.EntriesOf(leaves).at(0)));
}

TEST_F(BusError, StormWhileCamerasComeAndGoTouchesNoFreedCamera) {
    std::vector<ScriptedHal::DevicePointer> cameras;
    for (unsigned int i = 0; i < 6; ++i) {
        cameras.push_back(hal.AddFireWireCamera(11 + i));
    }
    Start();
    std::atomic<bool> stop{false};
    std::vector<std::thread> errors;
    for (int i = 0; i < 2; ++i) {
        errors.emplace_back([&] {
            while (!stop) {
                Raise(HAL_BUS_ERROR, HAL_INTERFACE_1394);
            }
        });
    }
    for (unsigned int i = 0; i < 60; ++i) {
        hal.Detach(cameras[i % 6]);
        EXPECT_TRUE(busMaster->RescanBus() == ERROR_OK);
        hal.Attach(cameras[i % 6]);
        EXPECT_TRUE(busMaster->RescanBus() == ERROR_OK);
    }
    stop = true;
    for (std::thread& error : errors) {
        error.join();
    }
    hal.ExpectNoMisuse();
}

// ---- The object behind the context ----------------------------------------------------------------------------------

TEST_F(Events, ForADestroyedObjectAreIgnored) {
    Start();
    void* const context = busMaster.get();
    Destroy();
    ExpectGone();
    traces.Clear();
    for (const HALBusEvent event : {HAL_BUS_RESET, HAL_BUS_ARRIVAL, HAL_BUS_REMOVAL, HAL_BUS_ERROR}) {
        BusMasterTestAccess::HALBusEventCallback(event, context, HAL_INTERFACE_1394, 1, 2, 3);
        BusMasterTestAccess::HALBusEventCallback(event, context, HAL_INTERFACE_1394, 0, 0, 0);
    }
    EXPECT_THAT(traces.Lines(), IsEmpty());
}

TEST_F(Events, ForAContextThatNeverWasAnObjectAreIgnored) {
    int none = 0;
    BusMasterTestAccess::HALBusEventCallback(HAL_BUS_RESET, nullptr, HAL_INTERFACE_1394, 0, 0, 0);
    BusMasterTestAccess::HALBusEventCallback(HAL_BUS_RESET, &none, HAL_INTERFACE_1394, 1, 2, 3);
    EXPECT_THAT(traces.Lines(), IsEmpty());
}

TEST_F(Events, ThatComeWhileTheObjectIsDestroyedEndWell) {
    hal.AddFireWireCamera(11);
    hal.AddFireWireDevice(EuiHigh, EuiLow);
    for (int i = 0; i < 20; ++i) {
        Start();
        void* const context = busMaster.get();
        std::atomic<bool> stop{false};
        std::vector<std::thread> threads;
        for (const HALBusEvent event : {HAL_BUS_RESET, HAL_BUS_ARRIVAL, HAL_BUS_ERROR}) {
            threads.emplace_back([&stop, context, event] {
                while (!stop) {
                    BusMasterTestAccess::HALBusEventCallback(event, context, HAL_INTERFACE_1394, EuiHigh, EuiLow, 0);
                }
            });
        }
        Destroy();
        stop = true;
        for (std::thread& thread : threads) {
            thread.join();
        }
        ExpectGone();
        traces.Clear();
    }
}

// ---- Generations --------------------------------------------------------------------------------------------------

TEST_F(Events, AGenerationNobodyHasCountedIsZeroAndThereAfterwards) {
    Construct();
    EXPECT_EQ(0U, busMaster->GetGeneration(7));
    EXPECT_EQ(1U, Inside().m_generations.count(7));
    busMaster->IncrementGeneration(7);
    busMaster->IncrementGeneration(7);
    EXPECT_EQ(2U, busMaster->GetGeneration(7));
    busMaster->SetGeneration(7, 0xFFFFFFFF);
    busMaster->IncrementGeneration(7);
    EXPECT_EQ(0U, busMaster->GetGeneration(7));
    busMaster->SetGeneration(8, 3);
    EXPECT_EQ(3U, busMaster->GetGeneration(8));
    EXPECT_EQ(0U, busMaster->GetGeneration(0xFFFFFFFF));
}

TEST_F(Events, AGenerationThatFindsNoMemoryReadsAsZero) {
    Construct();
    const AllocationFailure failure(1);
    EXPECT_EQ(0U, busMaster->GetGeneration(7));
    EXPECT_TRUE(failure.Happened());
}

TEST_F(Events, GenerationsCountFromManyThreads) {
    Construct();
    std::vector<std::thread> threads;
    for (int i = 0; i < 4; ++i) {
        threads.emplace_back([this] {
            for (unsigned int k = 0; k < 1000; ++k) {
                busMaster->IncrementGeneration(k % 3);
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(4 * 334U, busMaster->GetGeneration(0));
    EXPECT_EQ(4 * 333U, busMaster->GetGeneration(1));
    EXPECT_EQ(4 * 333U, busMaster->GetGeneration(2));
}

}  // namespace
}  // namespace Nimbrel2::Testing
