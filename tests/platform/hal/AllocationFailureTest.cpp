// SPDX-License-Identifier: Apache-2.0
// Every allocation of every HAL function that makes one fails in turn: the answer says so, and nothing is kept. A
// binary of its own, because it replaces operator new; only the thread that asks for failures gets them.
#include <functional>
#include <string>
#include <utility>

#include "platform/Platform.h"
#include "tests/platform/hal/EventListener.h"
#include "tests/platform/hal/HalFixture.h"
#include "tests/support/AllocationFailure.h"

namespace Nimbrel2::Platform::Testing {
namespace {

class HalAllocationFailure : public HalFixture {
protected:
    void SetUp() override {
        world->logging = false;
        HalFixture::SetUp();
    }

    /// Runs a call again and again, with its first allocation failing, its second and so on, until a run makes it
    /// through untouched. @return how many allocations it makes.
    static std::uint64_t FailEachAllocation(const char* name, const std::function<std::uint32_t()>& call,
                                            const std::function<void()>& checkAfterFailure) {
        for (std::uint64_t failing = 1; failing < 1000; ++failing) {
            std::uint32_t status = HAL_OK;
            bool failed = false;
            {
                const Nimbrel2::Testing::AllocationFailure failure(failing);
                status = call();
                failed = failure.Happened();
            }
            if (!failed) {
                EXPECT_EQ(status, HAL_OK) << name;
                return failing - 1;
            }
            EXPECT_EQ(status, HAL_OUT_OF_MEMORY) << name << ", allocation " << failing;
            checkAfterFailure();
        }
        ADD_FAILURE() << name << " never ran untouched";
        return 0;
    }
};

TEST_F(HalAllocationFailure, InAListingHandsNothingOut) {
    world->gigECameras = world->usbCameras = world->fireWireCameras = world->fireWireDevices = 3;
    world->virtualCameras = 3;
    const std::uint64_t serials[] = {1, 2};
    void* entries[256] = {};
    std::uint64_t count = 0;
    const std::pair<const char*, std::function<std::uint32_t()>> listings[] = {
        {"HAL_1394GetCameras", [&] { return HAL_1394GetCameras(entries, &(count = 3)); }},
        {"HAL_1394GetDevices", [&] { return HAL_1394GetDevices(entries, &(count = 3)); }},
        {"HAL_UsbGetCameras", [&] { return HAL_UsbGetCameras(entries, &(count = 3)); }},
        {"HAL_GigEGetCameras", [&] { return HAL_GigEGetCameras(entries, &(count = 3)); }},
        {"HAL_1394GetVirtualCameras", [&] { return HAL_1394GetVirtualCameras(entries, serials, &(count = 2)); }},
    };
    int handedOut = 0;
    for (const auto& listing : listings) {
        // No structured binding: clang 14 cannot capture one.
        const char* const name = listing.first;
        const auto& list = listing.second;
        EXPECT_GT(FailEachAllocation(name, list, [&] { EXPECT_EQ(world->livingDevices, handedOut) << name; }), 6u);
        EXPECT_EQ(count, 3u) << name;
        handedOut += 3;
    }
}

TEST_F(HalAllocationFailure, InAListingThatFoundAChangeSwallowsItForNobody) {
    EventListener listener;
    void* registration = nullptr;
    ASSERT_EQ(HAL_GigERegisterBusEvents(&registration, &EventListener::Callback, &listener), HAL_OK);
    const Heard reset{HAL_BUS_RESET, HAL_INTERFACE_GIGE};
    std::vector<Heard> expected;
    unsigned change = 0;
    const auto changeUnnoticed = [&] {
        world->gigE.Arrive(++change, 0, Nimbrel2::Testing::ReportedBus::Notice::Unnoticed);
        expected.push_back(reset);
        expected.push_back({HAL_BUS_ARRIVAL, HAL_INTERFACE_GIGE, change});
    };
    // Whatever was told meanwhile, the next listing finds the rest; nothing is told twice.
    const auto listAgain = [&] {
        void* entries[3] = {};
        std::uint64_t count = 3;
        EXPECT_EQ(HAL_GigEGetCameras(entries, &count), HAL_OK);
        EXPECT_TRUE(WaitUntilEventsAreDelivered(EventListener::Patience));
        EXPECT_EQ(listener.HeardSoFar(), expected) << change;
        EventListener newcomer;
        void* fresh = nullptr;
        EXPECT_EQ(HAL_GigERegisterBusEvents(&fresh, &EventListener::Callback, &newcomer), HAL_OK);
        EXPECT_TRUE(WaitUntilEventsAreDelivered(EventListener::Patience));
        EXPECT_EQ(HAL_GigEDeregisterBusEvents(fresh), HAL_OK);
        EXPECT_TRUE(newcomer.HeardSoFar().empty()) << "what was listed is known";
        changeUnnoticed();
    };
    world->gigECameras = 3;
    changeUnnoticed();
    void* entries[3] = {};
    std::uint64_t count = 0;
    EXPECT_GT(FailEachAllocation(
                  "HAL_GigEGetCameras", [&] { return HAL_GigEGetCameras(entries, &(count = 3)); }, listAgain),
              6u);
    ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK);
}

TEST_F(HalAllocationFailure, InARegistrationLeavesNoThreadThatWouldCallBack) {
    EventListener listener;
    void* registration = nullptr;
    const std::pair<const char*, std::uint32_t (*)(void**, HALBusEventFunction, void*)> rows[] = {
        {"HAL_1394RegisterBusEvents", HAL_1394RegisterBusEvents},
        {"HAL_UsbRegisterBusEvents", HAL_UsbRegisterBusEvents},
        {"HAL_GigERegisterBusEvents", HAL_GigERegisterBusEvents},
    };
    for (const auto& [name, registerEvents] : rows) {
        const auto call = [&, function = registerEvents] {
            return function(&registration, &EventListener::Callback, &listener);
        };
        EXPECT_GT(FailEachAllocation(name, call, [&] { EXPECT_EQ(registration, nullptr); }), 2u) << name;
        EXPECT_NE(registration, nullptr) << name;
    }
    world->gigE.Fail();
    ASSERT_TRUE(listener.WaitForReturned(1));
    ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK);
    EXPECT_EQ(listener.HeardSoFar().size(), 1u);
}

TEST_F(HalAllocationFailure, InTheStartLeavesNothingRunning) {
    ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK);
    EXPECT_GT(FailEachAllocation("HAL_InitLibrary", &HAL_InitLibrary,
                                 [&] {
                                     EXPECT_EQ(world->livingBuses, 0);
                                     EXPECT_EQ(world->startedBuses, 0);
                                     EXPECT_EQ(HAL_GvcpForceIpAuto(), HAL_CLOSED);
                                 }),
              3u);
    EXPECT_EQ(world->startedBuses, 3);
}

TEST_F(HalAllocationFailure, InAnOperationOnAnEntryIsItsAnswer) {
    world->configInfo.vendor = "a vendor's name that is too long to be kept without an allocation";
    world->serialText = world->configInfo.vendor;
    world->selfIds.resize(3);
    world->usbRecords.resize(3);
    world->nodeSerialNumbers.resize(3);
    world->discovered.cameras.resize(3);
    void* const fireWire = FireWireCamera();
    void* const usb = UsbCamera();

    std::uint32_t n[5] = {};
    char vendor[128];
    char model[128];
    std::uint32_t vendorSize = 128;
    std::uint32_t modelSize = 128;
    std::uint64_t count = 0;
    std::uint32_t records = 0;
    std::uint64_t key = 0;
    SelfIdPacket_t packets[3];
    UsbSelfId usbRecords[3];
    GvcpDiscoveryRecord discovered[3];
    const std::pair<const char*, std::function<std::uint32_t()>> rows[] = {
        {"HAL_1394GetConfigInfo",
         [&] {
             return HAL_1394GetConfigInfo(fireWire, &n[0], &n[1], &n[2], &n[3], &n[4], vendor, model, &vendorSize,
                                          &modelSize);
         }},
        {"HAL_UsbGetConfigInfo",
         [&] {
             return HAL_UsbGetConfigInfo(usb, &n[0], &n[1], &n[2], &n[3], &n[4], vendor, model, &vendorSize,
                                         &modelSize);
         }},
        {"HAL_UsbGetSerialText", [&] { return HAL_UsbGetSerialText(usb, vendor, &vendorSize); }},
        {"HAL_1394GetSelfIds", [&] { return HAL_1394GetSelfIds(fireWire, packets, &(count = 3), &key, &n[0]); }},
        {"HAL_1394GetNodeSerialNumbers", [&] { return HAL_1394GetNodeSerialNumbers(fireWire, n, 3); }},
        {"HAL_UsbGetSelfIds", [&] { return HAL_UsbGetSelfIds(usb, usbRecords, &(count = 3), &n[0], &key, &n[1]); }},
        {"HAL_GvcpDiscovery", [&] { return HAL_GvcpDiscovery(discovered, &(records = 3)); }},
    };
    for (const auto& [name, call] : rows) {
        EXPECT_GT(FailEachAllocation(name, call, [] {}), 0u) << name;
    }
}

TEST_F(HalAllocationFailure, InConfigureChangesNothing) {
    ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK);
    Options options;
    options.networkInterfaces = {"eth0", "eth1"};
    options.usbCameraIds = {{1, 2}};
    EXPECT_GT(FailEachAllocation(
                  "Configure", [&] { return Configure(options).status; }, [] {}),
              1);

    options.networkInterfaces = {"a name that is much too long for any network interface"};
    {
        const Nimbrel2::Testing::AllocationFailure failure(1);
        EXPECT_EQ(Configure(options).status, HAL_OUT_OF_MEMORY);
    }
    EXPECT_TRUE(Configure(Options{}));
}

}  // namespace
}  // namespace Nimbrel2::Platform::Testing
