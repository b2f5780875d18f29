// SPDX-License-Identifier: Apache-2.0
// Which registration a signalled call belongs to, and that the worker never waits for user code.
#include <limits>

#include "tests/busmaster/BusMasterFixture.h"

namespace Nimbrel2::Testing {
namespace {

using CallbackData = BusMasterTestAccess::CallbackData;
using CallbackThreadData = BusMasterTestAccess::CallbackThreadData;

class Signalling : public BusMasterFixture {
protected:
    static void Count(void* data, unsigned int) { ++*static_cast<std::atomic<int>*>(data); }
    static void Pass(void* data, unsigned int) { static_cast<Gate*>(data)->Pass(); }

    std::atomic<int> calls{0};
};

TEST_F(Signalling, ACallIsMadeForTheRegistrationThatWasSignalledOnly) {
    Start();
    void* handle = nullptr;
    ASSERT_TRUE(busMaster->RegisterCallback(&Count, ARRIVAL, &calls, &handle) == ERROR_OK);
    auto* const record = static_cast<CallbackData*>(handle);
    // A registration that was withdrawn, at an address that this one has now.
    BusMasterTestAccess::SignalCallbackThread(new CallbackThreadData{record, 5, record->number - 1},
                                              Inside().m_callbackSet, Inside().m_callbackMutex);
    EXPECT_EQ(0, calls);
    BusMasterTestAccess::SignalCallbackThread(new CallbackThreadData{record, 5, record->number}, Inside().m_callbackSet,
                                              Inside().m_callbackMutex);
    EXPECT_EQ(1, calls);
}

TEST_F(Signalling, RegistrationsNeverShareANumber) {
    Start();
    std::set<std::uint64_t> numbers;
    for (int i = 0; i < 100; ++i) {
        void* handle = nullptr;
        ASSERT_TRUE(busMaster->RegisterCallback(&Count, ARRIVAL, &calls, &handle) == ERROR_OK);
        EXPECT_TRUE(numbers.insert(static_cast<CallbackData*>(handle)->number).second);
        ASSERT_TRUE(busMaster->UnregisterCallback(handle) == ERROR_OK);
    }
}

TEST_F(Signalling, CyclesGoOnWhileACallbackHangs) {
    Start();
    Gate gate;
    void* handle = nullptr;
    ASSERT_TRUE(busMaster->RegisterCallback(&Pass, BUS_RESET, &gate, &handle) == ERROR_OK);
    RaiseReset();
    ASSERT_TRUE(gate.WaitUntilReached());
    for (unsigned int i = 1; i <= 3; ++i) {
        hal.AddUsbCamera(i);
        // A request that finds the worker in the second cycle of the reset is lost, as it may be.
        for (int request = 0; request < 100 && SerialNumbers().size() < i; ++request) {
            ASSERT_TRUE(busMaster->RescanBus() == ERROR_OK);
        }
        EXPECT_EQ(i, SerialNumbers().size());
    }
    EXPECT_FALSE(busMaster->WaitUntilQuiet(1)) << "a callback is left to run";
    gate.Open();
    EXPECT_TRUE(WaitUntilIdle());
}

// Its own callback would be waited for until the time is over.
TEST_F(Signalling, ACallThatAsksForQuietIsAnsweredAtOnce) {
    struct Asker {
        BusMaster* busMaster = nullptr;
        std::atomic<int> answer{-1};

        static void Run(void* data, unsigned int) {
            auto& asker = *static_cast<Asker*>(data);
            asker.answer = asker.busMaster->WaitUntilQuiet(std::numeric_limits<unsigned int>::max()) ? 1 : 0;
        }
    } asker;
    Start();
    asker.busMaster = busMaster.get();
    void* handle = nullptr;
    ASSERT_TRUE(busMaster->RegisterCallback(&Asker::Run, BUS_RESET, &asker, &handle) == ERROR_OK);
    RaiseReset();
    EXPECT_TRUE(WaitUntilIdle());
    EXPECT_EQ(0, asker.answer);
}

// The calls that wait behind a hanging one are for a registration that is withdrawn as soon as that one ends.
TEST_F(Signalling, WhatIsWithdrawnIsNotCalledAfterwards) {
    Start();
    Gate gate;
    void* hanging = nullptr;
    ASSERT_TRUE(busMaster->RegisterCallback(&Pass, BUS_RESET, &gate, &hanging) == ERROR_OK);
    RaiseReset();
    ASSERT_TRUE(gate.WaitUntilReached());
    void* counting = nullptr;
    std::thread registering([&] {
        ASSERT_TRUE(busMaster->RegisterCallback(&Count, BUS_RESET, &calls, &counting) == ERROR_OK);
        ASSERT_TRUE(busMaster->RescanBus() == ERROR_OK);
        ASSERT_TRUE(busMaster->UnregisterCallback(counting) == ERROR_OK);
        calls = 0;
    });
    gate.Open();
    registering.join();
    EXPECT_TRUE(WaitUntilIdle());
    EXPECT_EQ(0, calls);
}

}  // namespace
}  // namespace Nimbrel2::Testing
