// SPDX-License-Identifier: Apache-2.0
// Registration and delivery: order, coalescing, slow and hung callbacks, deregistration, unseen changes. Negative
// claims are proved by a marker event behind what must not come.
#include <algorithm>
#include <atomic>
#include <chrono>
#include <memory>
#include <ostream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "platform/Platform.h"
#include "tests/platform/hal/EventListener.h"
#include "tests/platform/hal/HalFixture.h"
#include "tests/support/Gate.h"
#include "tests/support/ProcessThreads.h"

namespace Nimbrel2::Platform::Testing {
namespace {

using namespace std::chrono_literals;
using SteadyClock = std::chrono::steady_clock;
using Notice = Nimbrel2::Testing::ReportedBus::Notice;

struct BusUnderTest {
    const char* name;
    HALInterfaceType type;
    std::uint32_t (*registerEvents)(void**, HALBusEventFunction, void*);
    std::uint32_t (*deregisterEvents)(void*);
    Nimbrel2::Testing::ReportedBus FakeWorld::*bus;
    std::uint32_t (*list)(void**, std::uint64_t*);
};

std::ostream& operator<<(std::ostream& out, const BusUnderTest& bus) { return out << bus.name; }

constexpr BusUnderTest TestBuses[] = {
    {"FireWire", HAL_INTERFACE_1394, HAL_1394RegisterBusEvents, HAL_1394DeregisterBusEvents, &FakeWorld::fireWire,
     HAL_1394GetCameras},
    {"Usb", HAL_INTERFACE_USB, HAL_UsbRegisterBusEvents, HAL_UsbDeregisterBusEvents, &FakeWorld::usb,
     HAL_UsbGetCameras},
    {"GigE", HAL_INTERFACE_GIGE, HAL_GigERegisterBusEvents, HAL_GigEDeregisterBusEvents, &FakeWorld::gigE,
     HAL_GigEGetCameras},
};

class HalEvents : public HalFixture, public ::testing::WithParamInterface<BusUnderTest> {
protected:
    const BusUnderTest& Bus() const { return GetParam(); }
    Nimbrel2::Testing::ReportedBus& Wire() { return world.get()->*Bus().bus; }

    /// Hung callbacks outlive a test that failed.
    void TearDown() override {
        listener.Release();
        HalFixture::TearDown();
    }

    void* Register(EventListener& to) {
        void* registration = nullptr;
        EXPECT_EQ(Bus().registerEvents(&registration, &EventListener::Callback, &to), HAL_OK);
        EXPECT_NE(registration, nullptr);
        return registration;
    }

    Heard Reset() const { return {HAL_BUS_RESET, Bus().type}; }
    Heard Event(HALBusEvent event, unsigned first = 0, unsigned second = 0) const {
        return {event, Bus().type, first, second};
    }

    /// A bus error; what was raised before it has been delivered once it is heard.
    void RaiseMarker() { Wire().Fail(); }
    Heard Marker() const { return Event(HAL_BUS_ERROR); }

    /// Without bus resets, of which each change brings one and a burst of changes as many as the clock makes of it.
    std::vector<Heard> HeardButResets() {
        std::vector<Heard> heard = listener.HeardSoFar();
        std::erase(heard, Reset());
        return heard;
    }

    /// Leaves a callback hanging in a bus error, so that what is raised from here on waits.
    void HoldInError() {
        listener.Hold();
        Wire().Fail();
        ASSERT_TRUE(listener.WaitForBegun(1));
    }

    EventListener listener;
};

INSTANTIATE_TEST_SUITE_P(, HalEvents, ::testing::ValuesIn(TestBuses),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_P(HalEvents, AreDeliveredOnAThreadThatTakesNoSignalButThoseOfFaults) {
    void* const registration = Register(listener);
    HoldInError();
    const auto threads = Nimbrel2::Testing::ListThreads("hal-events-");
    EXPECT_FALSE(threads.empty());
    EXPECT_EQ(Nimbrel2::Testing::WrongMasks(threads), std::vector<std::string>());
    listener.Release();
    EXPECT_EQ(Bus().deregisterEvents(registration), HAL_OK);
}

TEST_P(HalEvents, EventsComeInOrderWithTheirWordsFromTheirBus) {
    Register(listener);
    Wire().Arrive(1, 2);
    Wire().Arrive(3, 4);
    Wire().Leave(1, 2);
    RaiseMarker();
    ASSERT_TRUE(listener.WaitForHeard(Marker()));
    EXPECT_EQ(HeardButResets(), (std::vector<Heard>{Event(HAL_BUS_ARRIVAL, 1, 2), Event(HAL_BUS_ARRIVAL, 3, 4),
                                                    Event(HAL_BUS_REMOVAL, 1, 2), Marker()}));
}

TEST_P(HalEvents, AChangeIsAResetThenItsEvents) {
    Wire().Arrive(5, 6);
    List(Bus().list);
    Register(listener);
    Wire().Arrive(7, 8);
    ASSERT_TRUE(listener.WaitForBegun(2));
    RaiseMarker();
    ASSERT_TRUE(listener.WaitForBegun(3));
    EXPECT_EQ(listener.HeardSoFar(), (std::vector<Heard>{Reset(), Event(HAL_BUS_ARRIVAL, 7, 8), Marker()}));
}

TEST_P(HalEvents, AReportWithoutAChangeRaisesNothing) {
    Wire().Arrive();
    List(Bus().list);
    Register(listener);
    Wire().Leave(99, 99);
    RaiseMarker();
    ASSERT_TRUE(listener.WaitForBegun(1));
    EXPECT_EQ(listener.HeardSoFar(), std::vector<Heard>{Marker()});
}

TEST_P(HalEvents, AChangeThatAListingFindsIsRaisedOnceToEveryRegistration) {
    EventListener second;
    Register(listener);
    Register(second);
    Wire().Arrive(1, 2, Notice::Unnoticed);
    for (int i = 0; i < 3; ++i) {
        List(Bus().list);
    }
    ASSERT_TRUE(WaitUntilEventsAreDelivered(EventListener::Patience));
    for (EventListener* each : {&listener, &second}) {
        EXPECT_EQ(each->HeardSoFar(), (std::vector<Heard>{Reset(), Event(HAL_BUS_ARRIVAL, 1, 2)}));
    }
    ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK);
}

TEST_P(HalEvents, UnderChurnEachListingRaisesOneReset) {
    Register(listener);
    std::vector<Heard> expected;
    for (unsigned i = 1; i <= 20; ++i) {
        Wire().Arrive(i, 0, Notice::Unnoticed);
        if (i > 1) {
            Wire().Leave(i - 1, 0, Notice::Unnoticed);
        }
        List(Bus().list);
        ASSERT_TRUE(WaitUntilEventsAreDelivered(EventListener::Patience));
        expected.push_back(Reset());
        if (i > 1) {
            expected.push_back(Event(HAL_BUS_REMOVAL, i - 1));
        }
        expected.push_back(Event(HAL_BUS_ARRIVAL, i));
    }
    List(Bus().list);
    ASSERT_TRUE(WaitUntilEventsAreDelivered(EventListener::Patience));
    EXPECT_EQ(listener.HeardSoFar(), expected);
}

/// What was heard of a device, in order: "+-+".
std::string HistoryOf(unsigned device, const std::vector<Heard>& heard) {
    std::string history;
    for (const Heard& event : heard) {
        if (event.first == device && event.event != HAL_BUS_RESET) {
            history += event.event == HAL_BUS_ARRIVAL ? '+' : '-';
        }
    }
    return history;
}

// Changes that the driver notices and changes that a listing finds, two threads that list all the time, registrations
// before and in between: each hears every device come and go in turn, and last what is true.
TEST_P(HalEvents, RegistrationsOfEveryAgeMissNothingAndHearNothingTwiceWhileOthersList) {
    constexpr unsigned numDevices = 5;
    std::vector<std::unique_ptr<EventListener>> listeners;
    const auto registerOne = [&] { Register(*listeners.emplace_back(std::make_unique<EventListener>())); };
    List(Bus().list);
    registerOne();
    std::atomic<bool> done{false};
    std::vector<std::thread> listers;
    for (int i = 0; i < 2; ++i) {
        listers.emplace_back([&] {
            while (!done) {
                List(Bus().list);
            }
        });
    }
    std::vector<bool> present(numDevices, false);
    for (unsigned i = 0; i < 300; ++i) {
        const unsigned device = i * 7 % numDevices;
        const Notice notice = i % 3 == 0 ? Notice::Unnoticed : Notice::AtOnce;
        if (present[device]) {
            Wire().Leave(device + 1, 0, notice);
        } else {
            Wire().Arrive(device + 1, 0, notice);
        }
        present[device] = !present[device];
        if (i % 30 == 0) {
            registerOne();
        }
    }
    done = true;
    for (std::thread& lister : listers) {
        lister.join();
    }
    List(Bus().list);
    ASSERT_TRUE(WaitUntilEventsAreDelivered(EventListener::Patience));
    for (std::size_t i = 0; i < listeners.size(); ++i) {
        const std::vector<Heard> heard = listeners[i]->HeardSoFar();
        for (unsigned device = 0; device < numDevices; ++device) {
            const std::string history = HistoryOf(device + 1, heard);
            EXPECT_EQ(history.find("++"), std::string::npos) << history;
            EXPECT_EQ(history.find("--"), std::string::npos) << history;
            if (!history.empty()) {
                EXPECT_EQ(history.back(), present[device] ? '+' : '-') << history;
            }
            if (i == 0) {
                EXPECT_EQ(history.substr(0, 1), "+") << "registered when nothing was there";
            }
        }
    }
    ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK);
}

TEST_P(HalEvents, EventsOfOtherBusesAreNotHeard) {
    Register(listener);
    for (const BusUnderTest& other : TestBuses) {
        if (other.type == Bus().type) {
            continue;
        }
        (world.get()->*other.bus).Arrive();
    }
    RaiseMarker();
    ASSERT_TRUE(listener.WaitForBegun(1));
    EXPECT_EQ(listener.HeardSoFar(), std::vector<Heard>{Marker()});
}

TEST_P(HalEvents, ResetsThatWaitAreOneAndGoFirst) {
    Wire().Arrive(5, 6);
    List(Bus().list);
    Register(listener);
    HoldInError();
    Wire().Leave(5, 6);
    Wire().Reset();
    Wire().Arrive(7, 8);
    Wire().Reset();
    RaiseMarker();
    listener.Release();
    ASSERT_TRUE(listener.WaitForBegun(5));
    EXPECT_EQ(listener.HeardSoFar(), (std::vector<Heard>{Marker(), Reset(), Event(HAL_BUS_REMOVAL, 5, 6),
                                                         Event(HAL_BUS_ARRIVAL, 7, 8), Marker()}));
}

TEST_P(HalEvents, AResetWaitsForTenQuietMilliseconds) {
    Register(listener);
    const SteadyClock::time_point begin = SteadyClock::now();
    Wire().Reset();
    Wire().Reset();
    ASSERT_TRUE(listener.WaitForBegun(1));
    EXPECT_GE(SteadyClock::now() - begin, 10ms);
    RaiseMarker();
    ASSERT_TRUE(listener.WaitForBegun(2));
    EXPECT_EQ(listener.HeardSoFar(), (std::vector<Heard>{Reset(), Marker()}));
}

TEST_P(HalEvents, AResetWhoseBurstIsOverDoesNotWait) {
    Register(listener);
    // A busy computer may take longer each single time.
    const SteadyClock::time_point deadline = SteadyClock::now() + EventListener::Patience;
    SteadyClock::duration shortest = EventListener::Patience;
    for (std::size_t resets = 1; shortest >= 10ms && SteadyClock::now() < deadline; ++resets) {
        const SteadyClock::time_point begin = SteadyClock::now();
        Wire().ResetSettled();
        ASSERT_TRUE(listener.WaitForBegun(resets));
        shortest = std::min(shortest, SteadyClock::now() - begin);
    }
    EXPECT_LT(shortest, 10ms);
}

TEST_P(HalEvents, ABusThatNeverRestsIsHeardAllTheSame) {
    Register(listener);
    const SteadyClock::time_point deadline = SteadyClock::now() + EventListener::Patience;
    while (listener.HeardSoFar().empty() && SteadyClock::now() < deadline) {
        Wire().Reset();
    }
    // More may have come since: the last ones raised after the first callback are a burst of their own.
    ASSERT_FALSE(listener.HeardSoFar().empty());
    EXPECT_EQ(listener.HeardSoFar().front(), Reset());
}

TEST_P(HalEvents, EachRegistrationHasAThreadOfItsOwnThatCallsOneAtATime) {
    EventListener other;
    other.Hold();
    Register(listener);
    Register(other);
    for (unsigned i = 0; i < 50; ++i) {
        Wire().Fail();
    }
    // The other one hangs in its first callback and keeps nobody waiting: neither the sink nor the first listener.
    ASSERT_TRUE(other.WaitForBegun(1));
    ASSERT_TRUE(listener.WaitForReturned(50));
    EXPECT_EQ(other.HeardSoFar().size(), 1u);
    other.Release();
    ASSERT_TRUE(other.WaitForReturned(50));
    EXPECT_EQ(listener.MostAtOnce(), 1u);
    EXPECT_EQ(other.MostAtOnce(), 1u);
    EXPECT_NE(listener.Threads().front(), other.Threads().front());
    EXPECT_EQ(listener.Threads(), std::vector<std::thread::id>(50, listener.Threads().front()));
    ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK);
}

TEST_P(HalEvents, NoHalCallWaitsForASlowCallback) {
    Register(listener);
    HoldInError();
    world->gigECameras = world->usbCameras = world->fireWireCameras = 1;
    EXPECT_EQ(List(Bus().list).size(), 1u);
    EventListener other;
    void* const registration = Register(other);
    EXPECT_EQ(Bus().deregisterEvents(registration), HAL_OK);
    Wire().Reset();
}

TEST_P(HalEvents, ACallbackMayCallEveryHalFunction) {
    EventListener inner;
    std::uint32_t statuses[4] = {99, 99, 99, 99};
    listener.onEvent = [&](const Heard&) {
        void* entries[1];
        std::uint64_t count = 1;
        statuses[0] = Bus().list(entries, &count);
        void* registration = nullptr;
        statuses[1] = Bus().registerEvents(&registration, &EventListener::Callback, &inner);
        statuses[2] = Bus().deregisterEvents(registration);
        statuses[3] = HAL_GvcpForceIpAuto();
    };
    Register(listener);
    Wire().Fail();
    ASSERT_TRUE(listener.WaitForReturned(1));
    for (const std::uint32_t status : statuses) {
        EXPECT_EQ(status, HAL_OK);
    }
}

TEST_P(HalEvents, ACallbackThatThrowsIsCalledAgain) {
    struct Thrower {
        static void Callback(HALBusEvent event, void* context, HALInterfaceType bus, unsigned first, unsigned second,
                             unsigned third) {
            EventListener::Callback(event, context, bus, first, second, third);
            throw 42;
        }
    };
    void* registration = nullptr;
    ASSERT_EQ(Bus().registerEvents(&registration, &Thrower::Callback, &listener), HAL_OK);
    Wire().Fail();
    RaiseMarker();
    ASSERT_TRUE(listener.WaitForBegun(2));
    EXPECT_EQ(listener.HeardSoFar().back(), Marker());
}

TEST_P(HalEvents, DeregisteringBeginsNoNewCallbackAndDoesNotWaitForOneInFlight) {
    void* const registration = Register(listener);
    HoldInError();
    Wire().Reset();
    // Were it to wait, this would never return: the callback is released only behind it.
    EXPECT_EQ(Bus().deregisterEvents(registration), HAL_OK);
    EXPECT_EQ(Bus().deregisterEvents(registration), HAL_GONE);
    RaiseMarker();
    listener.Release();
    // The clean-up has joined the thread when it returns, so whatever it was going to call has been called.
    ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK);
    EXPECT_EQ(listener.HeardSoFar(), std::vector<Heard>{Marker()});
}

TEST_P(HalEvents, ARegistrationMayEndItselfInsideItsOwnCallback) {
    void* registration = nullptr;
    std::uint32_t status = 99;
    listener.onEvent = [&](const Heard&) { status = Bus().deregisterEvents(registration); };
    listener.Hold();
    registration = Register(listener);
    Wire().Fail();
    RaiseMarker();
    listener.Release();
    ASSERT_TRUE(listener.WaitForReturned(1));
    EXPECT_EQ(status, HAL_OK);
    EXPECT_EQ(Bus().deregisterEvents(registration), HAL_GONE);
    ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK);
    EXPECT_EQ(listener.HeardSoFar(), std::vector<Heard>{Marker()});
}

TEST_P(HalEvents, ARegistrationOfAnotherBusIsGone) {
    void* const registration = Register(listener);
    for (const BusUnderTest& other : TestBuses) {
        if (other.type == Bus().type) {
            continue;
        }
        EXPECT_EQ(other.deregisterEvents(registration), HAL_GONE);
    }
    EXPECT_EQ(Bus().deregisterEvents(registration), HAL_OK);
}

TEST_P(HalEvents, ARegistrationIsNullAfterAFailure) {
    int something = 0;
    void* registration = &something;
    EXPECT_EQ(Bus().registerEvents(&registration, nullptr, nullptr), HAL_INVALID_ARGUMENT);
    EXPECT_EQ(registration, nullptr);
    ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK);
    registration = &something;
    EXPECT_EQ(Bus().registerEvents(&registration, &EventListener::Callback, &listener), HAL_CLOSED);
    EXPECT_EQ(registration, nullptr);
}

TEST_P(HalEvents, ManyRegistrationsComeAndGo) {
    for (int i = 0; i < 200; ++i) {
        void* const registration = Register(listener);
        Wire().Reset();
        EXPECT_EQ(Bus().deregisterEvents(registration), HAL_OK);
    }
}

TEST_P(HalEvents, AThreadThatCannotBeMadeFailsTheRegistrationOnly) {
    ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK);
    ASSERT_EQ(Process::Get().SetThreadStarter([](const char*, const std::function<void()>&) -> std::thread {
        throw std::system_error(std::make_error_code(std::errc::resource_unavailable_try_again));
    }),
              HAL_OK);
    ASSERT_EQ(HAL_InitLibrary(), HAL_OK);
    void* registration = &listener;
    EXPECT_EQ(Bus().registerEvents(&registration, &EventListener::Callback, &listener), HAL_OUT_OF_MEMORY);
    EXPECT_EQ(registration, nullptr);
    Wire().Reset();
    EXPECT_TRUE(List(Bus().list).empty());
}

TEST_P(HalEvents, WaitingForDeliveryReturnsWhenTheLastCallbackHas) {
    Register(listener);
    Wire().Fail();
    Wire().Reset();
    EXPECT_TRUE(WaitUntilEventsAreDelivered(EventListener::Patience));
    EXPECT_EQ(listener.ReturnedSoFar(), 2u);
    EXPECT_TRUE(WaitUntilEventsAreDelivered(0ms));
}

TEST_P(HalEvents, WaitingForDeliveryGivesUpOnACallbackThatHangs) {
    Register(listener);
    HoldInError();
    EXPECT_FALSE(WaitUntilEventsAreDelivered(20ms));
    listener.Release();
    EXPECT_TRUE(WaitUntilEventsAreDelivered(EventListener::Patience));
}

TEST_P(HalEvents, NothingIsDeliveredWithoutASession) {
    ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK);
    EXPECT_FALSE(WaitUntilEventsAreDelivered(0ms));
}

// ---- Unseen changes. The first event of a registration is the queued reset, or the marker when there is none: a reset
// would have gone first.

class HalUnseenChange : public HalEvents {
protected:
    bool RegisteringQueuesAReset() {
        EventListener fresh;
        void* const registration = Register(fresh);
        RaiseMarker();
        // The marker comes after all that was queued before it.
        EXPECT_TRUE(fresh.WaitForHeard(Marker()));
        const std::vector<Heard> heard = fresh.HeardSoFar();
        EXPECT_TRUE(fresh.WaitForReturned(heard.size()));
        EXPECT_EQ(Bus().deregisterEvents(registration), HAL_OK);
        return heard.front() == Reset();
    }
};

INSTANTIATE_TEST_SUITE_P(, HalUnseenChange, ::testing::ValuesIn(TestBuses),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_P(HalUnseenChange, NoneWithoutAChange) {
    EXPECT_FALSE(RegisteringQueuesAReset());
    List(Bus().list);
    EXPECT_FALSE(RegisteringQueuesAReset());
}

TEST_P(HalUnseenChange, SeveralChangesSinceTheListingAreOneReset) {
    List(Bus().list);
    Wire().Reset();
    Wire().Reset();
    EXPECT_TRUE(RegisteringQueuesAReset());
}

TEST_P(HalUnseenChange, AChangeBeforeTheFirstListingIsSeenByIt) {
    Wire().Reset();
    EXPECT_TRUE(RegisteringQueuesAReset());
    List(Bus().list);
    EXPECT_FALSE(RegisteringQueuesAReset());
}

TEST_P(HalUnseenChange, WhatWasListedBeforeTheFirstRegistrationIsNoNews) {
    world->gigECameras = world->usbCameras = world->fireWireCameras = 2;
    Wire().Arrive();
    Wire().Arrive();
    EXPECT_EQ(List(Bus().list).size(), 2u);
    EXPECT_FALSE(RegisteringQueuesAReset());
}

TEST_P(HalUnseenChange, WhatCameAndLeftSinceTheListingIsToldToANewRegistration) {
    Wire().Arrive(1, 2);
    List(Bus().list);
    Wire().Leave(1, 2);
    Wire().Arrive(3, 4);
    Register(listener);
    RaiseMarker();
    ASSERT_TRUE(listener.WaitForBegun(4));
    EXPECT_EQ(listener.HeardSoFar(),
              (std::vector<Heard>{Reset(), Event(HAL_BUS_REMOVAL, 1, 2), Event(HAL_BUS_ARRIVAL, 3, 4), Marker()}));
}

TEST_P(HalUnseenChange, AListingBySomebodyElseSwallowsNoNews) {
    List(Bus().list);
    Register(listener);
    HoldInError();
    Wire().Arrive();
    List(Bus().list);
    List(Bus().list);
    listener.Release();
    ASSERT_TRUE(listener.WaitForBegun(3));
    RaiseMarker();
    ASSERT_TRUE(listener.WaitForBegun(4));
    EXPECT_EQ(listener.HeardSoFar(), (std::vector<Heard>{Marker(), Reset(), Event(HAL_BUS_ARRIVAL), Marker()}));
}

TEST_P(HalUnseenChange, AChangeWhileAListingRunsIsUnseen) {
    world->duringListing = [this](const std::string&) { Wire().Reset(); };
    List(Bus().list);
    world->duringListing = nullptr;
    EXPECT_TRUE(RegisteringQueuesAReset());
    List(Bus().list);
    EXPECT_FALSE(RegisteringQueuesAReset());
}

// The listing that began first looked before the change and ends first; the other one looked after it.
TEST_P(HalUnseenChange, AListingThatEndsLastDoesNotSpeakForAnotherThatRanMeanwhile) {
    Nimbrel2::Testing::Gate otherHasLooked;
    std::thread other;
    std::atomic<int> number{0};
    world->duringListing = [&](const std::string&) {
        if (++number > 1) {
            otherHasLooked.Pass();
            return;
        }
        Wire().Arrive();
        other = std::thread([&] { List(Bus().list); });
        EXPECT_TRUE(otherHasLooked.WaitUntilReached());
    };
    List(Bus().list);
    otherHasLooked.Open();
    other.join();
    world->duringListing = nullptr;
    EXPECT_TRUE(RegisteringQueuesAReset());
    List(Bus().list);
    EXPECT_FALSE(RegisteringQueuesAReset());
}

TEST_P(HalUnseenChange, AFailedListingSeesNothing) {
    Wire().Reset();
    world->status = HAL_PERMISSION;
    void* entries[1];
    std::uint64_t count = 1;
    EXPECT_EQ(Bus().list(entries, &count), HAL_PERMISSION);
    EXPECT_TRUE(RegisteringQueuesAReset());
}

TEST_P(HalUnseenChange, WhatIsThereIsToldToWhoeverNeverListed) {
    Wire().Arrive(1, 2);
    Register(listener);
    RaiseMarker();
    ASSERT_TRUE(listener.WaitForBegun(3));
    EXPECT_EQ(listener.HeardSoFar(), (std::vector<Heard>{Reset(), Event(HAL_BUS_ARRIVAL, 1, 2), Marker()}));
}

TEST_P(HalUnseenChange, IsForgottenWithTheSession) {
    Wire().Arrive();
    EXPECT_TRUE(RegisteringQueuesAReset());
    ASSERT_EQ(HAL_CleanupLibrary(), HAL_OK);
    Wire().Leave();
    ASSERT_EQ(HAL_InitLibrary(), HAL_OK);
    EXPECT_FALSE(RegisteringQueuesAReset());
}

class HalUnseenFireWireChange : public HalUnseenChange {};
INSTANTIATE_TEST_SUITE_P(, HalUnseenFireWireChange, ::testing::Values(TestBuses[0]),
                         [](const auto& row) { return std::string(row.param.name); });

TEST_P(HalUnseenFireWireChange, AChangeBetweenTheListingsOfCamerasAndDevicesIsUnseen) {
    List(HAL_1394GetCameras);
    Wire().Reset();
    List(HAL_1394GetDevices);
    EXPECT_TRUE(RegisteringQueuesAReset());
    List(HAL_1394GetCameras);
    EXPECT_FALSE(RegisteringQueuesAReset());
}

TEST_P(HalUnseenFireWireChange, AListingOfVirtualCamerasShowsNothingOfTheBus) {
    List(HAL_1394GetCameras);
    Wire().Reset();
    void* entries[256];
    std::uint64_t count = 0;
    ASSERT_EQ(HAL_1394GetVirtualCameras(entries, nullptr, &count), HAL_OK);
    EXPECT_TRUE(RegisteringQueuesAReset());
}

}  // namespace
}  // namespace Nimbrel2::Platform::Testing
