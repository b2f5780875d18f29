// SPDX-License-Identifier: Apache-2.0
// Start and clean-up: alternating, failing, with calls and callbacks in flight.
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <system_error>
#include <thread>

#include "platform/hal/Session.h"
#include "tests/platform/hal/EventListener.h"
#include "tests/platform/hal/HalFixture.h"
#include "tests/support/ProcessThreads.h"

namespace Nimbrel2::Platform::Testing {
namespace {

using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;

/// A door that threads wait at until the test opens it.
class Door {
public:
    void Open() {
        const std::lock_guard lock(m_mutex);
        m_open = true;
        m_changed.notify_all();
    }
    void WaitUntilOpen() {
        std::unique_lock lock(m_mutex);
        EXPECT_TRUE(m_changed.wait_for(lock, EventListener::Patience, [this] { return m_open; }));
    }

private:
    std::mutex m_mutex;
    std::condition_variable m_changed;
    bool m_open = false;
};

class HalLifecycle : public HalFixture {};

TEST_F(HalLifecycle, ASecondStartIsBusyAndASecondCleanUpIsClosed) {
    EXPECT_EQ(HAL_InitLibrary(), HAL_BUSY);
    EXPECT_EQ(world->livingBuses, 3);
    EXPECT_EQ(HAL_CleanupLibrary(), HAL_OK);
    EXPECT_EQ(HAL_CleanupLibrary(), HAL_CLOSED);
    EXPECT_EQ(HAL_InitLibrary(), HAL_OK);
}

TEST_F(HalLifecycle, StartAndCleanUpAlternateAThousandTimes) {
    ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK);
    world->gigECameras = world->usbCameras = world->fireWireCameras = world->fireWireDevices = 2;
    EventListener listener;
    for (int i = 0; i < 1000; ++i) {
        ASSERT_EQ(HAL_InitLibrary(), HAL_OK) << i;
        void* registration = nullptr;
        ASSERT_EQ(HAL_GigERegisterBusEvents(&registration, &EventListener::Callback, &listener), HAL_OK) << i;
        EXPECT_EQ(List(HAL_1394GetCameras).size(), 2u);
        EXPECT_EQ(List(HAL_GigEGetCameras).size(), 2u);
        if (i % 2 == 0) {
            world->gigE.Arrive();
        }
        if (i % 3 == 0) {
            EXPECT_EQ(HAL_GigEDeregisterBusEvents(registration), HAL_OK) << i;
        }
        ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK) << i;
        ASSERT_EQ(world->livingDevices, 0) << i;
        ASSERT_EQ(world->livingBuses, 0) << i;
        ASSERT_EQ(world->startedBuses, 0) << i;
    }
    ASSERT_EQ(HAL_InitLibrary(), HAL_OK);
}

TEST_F(HalLifecycle, IsClosedInAForkedProcessWhichCleansNothingUp) {
    world->usbCameras = 2;
    const std::vector<void*> entries = List(HAL_UsbGetCameras);
    ASSERT_EQ(entries.size(), 2u);
    EXPECT_EQ(Nimbrel2::Testing::InForkedProcess([&] {
                  void* entry = nullptr;
                  std::uint64_t count = 1;
                  std::uint32_t speed = 0;
                  const bool isClosed = HAL_UsbGetCameras(&entry, &count) == HAL_CLOSED &&
                                        HAL_UsbGetSpeed(entries[0], &speed) == HAL_CLOSED &&
                                        HAL_UsbFreeCamera(entries[0]) == HAL_CLOSED &&
                                        HAL_CleanupLibrary() == HAL_CLOSED && HAL_InitLibrary() == HAL_CLOSED;
                  return isClosed && !Configure({}) && world->livingBuses == 3 ? 0 : 1;
              }),
              0);
    // Nothing has happened in the first process.
    std::uint32_t speed = 0;
    EXPECT_EQ(HAL_UsbGetSpeed(entries[0], &speed), HAL_OK);
    EXPECT_EQ(HAL_CleanupLibrary(), HAL_OK);
    EXPECT_EQ(Nimbrel2::Testing::InForkedProcess([] { return HAL_InitLibrary() == HAL_OK ? 0 : 1; }), 0)
        << "there is no session to keep out of";
    EXPECT_EQ(HAL_InitLibrary(), HAL_OK);
}

TEST_F(HalLifecycle, ABusThatDoesNotStartIsEmptyAndRegistersAllTheSame) {
    ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK);
    world->fireWireStart = HAL_NO_BUS;
    world->usbStart = HAL_FAILED;
    world->gigEStart = HAL_PERMISSION;
    world->fireWireCameras = world->fireWireDevices = world->virtualCameras = world->usbCameras = 1;
    world->gigECameras = 1;
    ASSERT_EQ(HAL_InitLibrary(), HAL_OK);
    EXPECT_EQ(world->livingBuses, 0);
    EXPECT_TRUE(List(HAL_1394GetCameras).empty());
    EXPECT_TRUE(List(HAL_1394GetDevices).empty());
    EXPECT_TRUE(List(HAL_UsbGetCameras).empty());
    EXPECT_TRUE(List(HAL_GigEGetCameras).empty());
    void* entries[256];
    std::uint64_t count = 0;
    EXPECT_EQ(HAL_1394GetVirtualCameras(entries, nullptr, &count), HAL_OK);
    EXPECT_EQ(count, 0u);
    EventListener listener;
    for (const auto registerEvents : {HAL_1394RegisterBusEvents, HAL_UsbRegisterBusEvents, HAL_GigERegisterBusEvents}) {
        void* registration = nullptr;
        EXPECT_EQ(registerEvents(&registration, &EventListener::Callback, &listener), HAL_OK);
    }
    // Why no request can be sent is what the start answered.
    std::uint32_t records = 0;
    EXPECT_EQ(HAL_GvcpDiscovery(nullptr, &records), HAL_PERMISSION);
    EXPECT_EQ(HAL_GvcpForceIp(0, 1, 0xC0A80002, 0xFFFFFF00, 0), HAL_PERMISSION);
    EXPECT_EQ(HAL_GvcpForceIpAuto(), HAL_PERMISSION);
    EXPECT_EQ(HAL_GvcpAutoForceIpToCamera(1), HAL_PERMISSION);
    ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK);
}

TEST_F(HalLifecycle, AStartWithoutMemoryLeavesNothingRunning) {
    ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK);
    for (std::uint32_t FakeWorld::*start : {&FakeWorld::fireWireStart, &FakeWorld::usbStart, &FakeWorld::gigEStart}) {
        world.get()->*start = HAL_OUT_OF_MEMORY;
        EXPECT_EQ(HAL_InitLibrary(), HAL_OUT_OF_MEMORY);
        EXPECT_EQ(world->startedBuses, 0);
        EXPECT_EQ(world->livingBuses, 0);
        EXPECT_EQ(HAL_GvcpForceIpAuto(), HAL_CLOSED);
        EXPECT_EQ(HAL_CleanupLibrary(), HAL_CLOSED);
        world.get()->*start = HAL_OK;
    }
    EXPECT_EQ(HAL_InitLibrary(), HAL_OK);
}

TEST_F(HalLifecycle, AFactoryThatThrowsLeavesNothingRunning) {
    ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK);
    const struct {
        DriverFactory factory;
        std::uint32_t status;
    } rows[] = {
        {[](const Options&, const BusEventSinks&) -> Drivers { throw std::bad_alloc(); }, HAL_OUT_OF_MEMORY},
        {[](const Options&, const BusEventSinks&) -> Drivers {
             throw std::system_error(std::make_error_code(std::errc::too_many_files_open));
         },
         HAL_OUT_OF_MEMORY},
        {[](const Options&, const BusEventSinks&) -> Drivers { throw std::runtime_error("no"); }, HAL_FAILED},
    };
    for (const auto& [factory, status] : rows) {
        ASSERT_EQ(Process::Get().SetDriverFactory(factory), HAL_OK);
        EXPECT_EQ(HAL_InitLibrary(), status);
        EXPECT_EQ(HAL_GvcpForceIpAuto(), HAL_CLOSED);
    }
    ASSERT_EQ(Process::Get().SetDriverFactory(FakeDrivers(world)), HAL_OK);
    EXPECT_EQ(HAL_InitLibrary(), HAL_OK);
}

TEST_F(HalLifecycle, WhileASessionStartsEverythingElseIsClosed) {
    ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK);
    std::uint32_t statuses[3] = {99, 99, 99};
    const DriverFactory real = FakeDrivers(world);
    ASSERT_EQ(Process::Get().SetDriverFactory([&](const Options& options, const BusEventSinks& sinks) {
        statuses[0] = HAL_GvcpForceIpAuto();
        statuses[1] = HAL_CleanupLibrary();
        statuses[2] = HAL_InitLibrary();
        return real(options, sinks);
    }),
              HAL_OK);
    ASSERT_EQ(HAL_InitLibrary(), HAL_OK);
    EXPECT_EQ(statuses[0], HAL_CLOSED);
    EXPECT_EQ(statuses[1], HAL_CLOSED);
    EXPECT_EQ(statuses[2], HAL_BUSY);
}

TEST_F(HalLifecycle, AListingInFlightDuringTheCleanUpEndsClosedAndHandsNothingOut) {
    world->gigECameras = 2;
    Door listing;
    Door cleaned;
    world->duringListing = [&](const std::string&) {
        listing.Open();
        cleaned.WaitUntilOpen();
    };
    std::uint32_t status = 99;
    void* entries[2] = {};
    std::uint64_t count = 2;
    std::thread lister([&] { status = HAL_GigEGetCameras(entries, &count); });
    listing.WaitUntilOpen();
    EXPECT_EQ(HAL_CleanupLibrary(), HAL_OK);
    EXPECT_EQ(world->startedBuses, 0);
    // A new session stands on its own while the old one is still in use.
    EXPECT_EQ(HAL_InitLibrary(), HAL_OK);
    EXPECT_EQ(world->startedBuses, 3);
    cleaned.Open();
    lister.join();
    EXPECT_EQ(status, HAL_CLOSED);
    EXPECT_EQ(entries[0], nullptr);
    EXPECT_EQ(world->livingDevices, 0);
    EXPECT_EQ(world->livingBuses, 3);
    world->duringListing = nullptr;
}

TEST_F(HalLifecycle, TheCleanUpWaitsForACallbackInFlight) {
    EventListener listener;
    std::atomic<bool> returned{false};
    Door begun;
    listener.onEvent = [&](const Heard&) {
        begun.Open();
        // Long enough for the clean-up to get to its wait; were it not to wait, returned would still be false.
        while (HAL_GvcpForceIpAuto() != HAL_CLOSED) {
            std::this_thread::yield();
        }
        returned = true;
    };
    void* registration = nullptr;
    ASSERT_EQ(HAL_UsbRegisterBusEvents(&registration, &EventListener::Callback, &listener), HAL_OK);
    world->usb.Fail();
    begun.WaitUntilOpen();
    ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK);
    EXPECT_TRUE(returned);
}

TEST_F(HalLifecycle, TheCleanUpLeavesHungCallbacksBehindAfterOneSecond) {
    EventListener listeners[3];
    void* registrations[3] = {};
    Nimbrel2::Testing::ReportedBus* const buses[] = {&world->fireWire, &world->usb, &world->gigE};
    const decltype(&HAL_1394RegisterBusEvents) registerEvents[] = {HAL_1394RegisterBusEvents, HAL_UsbRegisterBusEvents,
                                                                   HAL_GigERegisterBusEvents};
    for (int i = 0; i < 3; ++i) {
        listeners[i].Hold();
        ASSERT_EQ(registerEvents[i](&registrations[i], &EventListener::Callback, &listeners[i]), HAL_OK);
        buses[i]->Fail();
        ASSERT_TRUE(listeners[i].WaitForBegun(1));
        buses[i]->Fail();
    }
    ASSERT_EQ(HAL_GigEDeregisterBusEvents(registrations[2]), HAL_OK);

    const SteadyClock::time_point begin = SteadyClock::now();
    EXPECT_EQ(HAL_CleanupLibrary(), HAL_OK);
    const SteadyClock::duration taken = SteadyClock::now() - begin;
    EXPECT_GE(taken, Session::CallbackGrace);
    EXPECT_LT(taken, Session::CallbackGrace + 1s) << "the second is one for all buses together";
    EXPECT_EQ(world->livingBuses, 0);

    // The hung ones come back when everything of their session is gone, and into another session.
    EXPECT_EQ(HAL_InitLibrary(), HAL_OK);
    for (EventListener& listener : listeners) {
        listener.Release();
        EXPECT_TRUE(listener.WaitForReturned(1));
        EXPECT_EQ(listener.HeardSoFar().size(), 1u);
    }
}

TEST_F(HalLifecycle, ACleanUpInsideACallbackDoesNotWaitForItself) {
    EventListener listener;
    std::uint32_t status = 99;
    SteadyClock::duration taken{};
    listener.onEvent = [&](const Heard&) {
        const SteadyClock::time_point begin = SteadyClock::now();
        status = HAL_CleanupLibrary();
        taken = SteadyClock::now() - begin;
    };
    void* registration = nullptr;
    ASSERT_EQ(HAL_UsbRegisterBusEvents(&registration, &EventListener::Callback, &listener), HAL_OK);
    world->usb.Fail();
    ASSERT_TRUE(listener.WaitForReturned(1));
    EXPECT_EQ(status, HAL_OK);
    EXPECT_LT(taken, Session::CallbackGrace);
}

/// Every kind of call from several threads while sessions come and go: statuses stay among the expected ones, and
/// nothing is left at the end.
TEST_F(HalLifecycle, CallsOnAllThreadsSurviveSessionsThatComeAndGo) {
    world->gigECameras = world->usbCameras = world->fireWireCameras = world->fireWireDevices = 3;
    world->logging = false;
    std::atomic<bool> stop{false};
    std::atomic<std::uint64_t> calls{0};
    EventListener listener;

    const auto expect = [](std::uint32_t status) {
        EXPECT_TRUE(status == HAL_OK || status == HAL_CLOSED || status == HAL_GONE) << status;
    };
    const auto useCameras = [&](ListFunction list, std::uint32_t (*giveBack)(void*)) {
        while (!stop) {
            void* entries[4] = {};
            std::uint64_t count = 4;
            const std::uint32_t listed = list(entries, &count);
            expect(listed);
            for (std::uint64_t i = 0; listed == HAL_OK && i < count; ++i) {
                std::uint32_t value = 0;
                const std::uint32_t statuses[] = {HAL_1394ReadRegister(entries[i], 0, 0xFFFFFFFF, &value),
                                                  HAL_UsbGetSpeed(entries[i], &value),
                                                  HAL_GigEReadRegister(entries[i], 0, &value)};
                for (const std::uint32_t status : statuses) {
                    expect(status);
                }
                if (i != 1) {
                    expect(giveBack(entries[i]));
                }
            }
            ++calls;
        }
    };
    const auto useEvents = [&] {
        while (!stop) {
            void* registration = nullptr;
            const std::uint32_t status = HAL_GigERegisterBusEvents(&registration, &EventListener::Callback, &listener);
            expect(status);
            if (status == HAL_OK && calls % 3 != 0) {
                expect(HAL_GigEDeregisterBusEvents(registration));
            }
            ++calls;
        }
    };

    std::thread threads[] = {std::thread(useCameras, HAL_1394GetCameras, HAL_1394FreeCamera),
                             std::thread(useCameras, HAL_UsbGetCameras, HAL_UsbFreeCamera),
                             std::thread(useCameras, HAL_GigEGetCameras, HAL_GigEFreeCamera), std::thread(useEvents)};
    for (int session = 0; session < 300; ++session) {
        const std::uint64_t before = calls;
        // Some sessions end at once, some in the middle of work.
        while (session % 2 == 0 && calls < before + 3) {
            std::this_thread::yield();
        }
        world->gigE.Reset();
        world->gigE.Arrive();
        ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK) << session;
        ASSERT_EQ(HAL_InitLibrary(), HAL_OK) << session;
    }
    stop = true;
    for (std::thread& thread : threads) {
        thread.join();
    }
    ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK);
    EXPECT_EQ(world->livingDevices, 0);
    EXPECT_EQ(world->livingBuses, 0);
    EXPECT_EQ(world->startedBuses, 0);
}

TEST(ShippedHal, WithNoDriversThereIsNothingAndNoBus) {
    Options options;
    options.fireWire = options.usb = options.gigE = Driver::None;
    ASSERT_TRUE(Configure(options));
    ASSERT_EQ(HAL_InitLibrary(), HAL_OK);
    void* entries[1];
    for (const auto list : {HAL_1394GetCameras, HAL_1394GetDevices, HAL_UsbGetCameras, HAL_GigEGetCameras}) {
        std::uint64_t count = 1;
        EXPECT_EQ(list(entries, &count), HAL_OK);
        EXPECT_EQ(count, 0u);
    }
    std::uint32_t records = 0;
    EXPECT_EQ(HAL_GvcpDiscovery(nullptr, &records), HAL_NO_BUS);
    EXPECT_EQ(HAL_GvcpForceIp(0, 1, 0xC0A80002, 0xFFFFFF00, 0), HAL_NO_BUS);
    EXPECT_EQ(HAL_GvcpForceIpAuto(), HAL_NO_BUS);
    EXPECT_EQ(HAL_GvcpAutoForceIpToCamera(1), HAL_NO_BUS);
    EXPECT_EQ(HAL_CleanupLibrary(), HAL_OK);
    ASSERT_TRUE(Configure(Options{}));
}

TEST(ShippedHal, UsesTheNetworkInterfacesThatWereConfiguredAndHasNoBusWithoutThem) {
    Options options;
    options.networkInterfaces = {"no-such-netdev"};
    options.discoveryWindow = 10ms;
    ASSERT_TRUE(Configure(options));
    ASSERT_EQ(HAL_InitLibrary(), HAL_OK);
    void* entries[1];
    std::uint64_t count = 1;
    EXPECT_EQ(HAL_GigEGetCameras(entries, &count), HAL_OK);
    EXPECT_EQ(count, 0u);
    EventListener listener;
    void* registration = nullptr;
    EXPECT_EQ(HAL_GigERegisterBusEvents(&registration, &EventListener::Callback, &listener), HAL_OK);
    std::uint32_t records = 0;
    EXPECT_EQ(HAL_GvcpDiscovery(nullptr, &records), HAL_NO_BUS);
    EXPECT_EQ(HAL_CleanupLibrary(), HAL_OK);
    EXPECT_TRUE(listener.HeardSoFar().empty());
    ASSERT_TRUE(Configure(Options{}));
}

}  // namespace
}  // namespace Nimbrel2::Platform::Testing
