// SPDX-License-Identifier: Apache-2.0
// The tests' own doubles: what they record, fail and block is what the other tests stand on.
#include <gtest/gtest-spi.h>
#include <gtest/gtest.h>

#include <thread>
#include <vector>

#include "common/Trace.h"
#include "tests/support/AllocationFailure.h"
#include "tests/support/CoreAccess.h"
#include "tests/support/ScriptedHal.h"
#include "tests/support/ThreadStartFailure.h"
#include "tests/support/TraceRecorder.h"

namespace Nimbrel2::Testing {
namespace {

TEST(ScriptedHal, AnswersClosedWhenThereIsNone) { EXPECT_EQ(HAL_CLOSED, HAL_InitLibrary()); }

TEST(ScriptedHal, HasNothingAttachedUntilTheTestAttachesIt) {
    const ScriptedHal hal;
    void* entries[4] = {};
    std::uint64_t count = 4;
    EXPECT_EQ(HAL_OK, HAL_1394GetCameras(entries, &count));
    EXPECT_EQ(0U, count);
    EXPECT_EQ((std::vector<std::uint64_t>{reinterpret_cast<std::uintptr_t>(&entries), 4}), hal.Calls()[0].arguments);
}

TEST(ScriptedHal, ListsAndFreesWhatIsAttached) {
    ScriptedHal hal;
    const auto camera = hal.AddUsbCamera(7);
    void* entries[4] = {};
    std::uint64_t count = 4;
    ASSERT_EQ(HAL_OK, HAL_UsbGetCameras(entries, &count));
    ASSERT_EQ(1U, count);
    EXPECT_EQ(camera, hal.DeviceOf(entries[0]));
    EXPECT_EQ(1U, hal.EntriesOutstanding());
    EXPECT_EQ(HAL_OK, HAL_UsbFreeCamera(entries[0]));
    hal.ExpectAllEntriesGivenBackOnce();
}

TEST(ScriptedHal, ReportsLeakedAndTwiceFreedEntries) {
    ScriptedHal hal;
    hal.AddUsbCamera(7);
    void* entries[4] = {};
    std::uint64_t count = 4;
    HAL_UsbGetCameras(entries, &count);
    EXPECT_NONFATAL_FAILURE(hal.ExpectAllEntriesGivenBackOnce(), "given back");
    HAL_UsbFreeCamera(entries[0]);
    EXPECT_EQ(HAL_GONE, HAL_UsbFreeCamera(entries[0]));
    EXPECT_NONFATAL_FAILURE(hal.ExpectNoMisuse(), "given back");
}

TEST(ScriptedHal, ReportsAnEntryThatIsUsedAfterItWasGivenBack) {
    ScriptedHal hal;
    hal.AddUsbCamera(7);
    void* entries[4] = {};
    std::uint64_t count = 4;
    HAL_UsbGetCameras(entries, &count);
    HAL_UsbFreeCamera(entries[0]);
    std::uint32_t speed = 0;
    EXPECT_EQ(HAL_GONE, HAL_UsbGetSpeed(entries[0], &speed));
    EXPECT_NONFATAL_FAILURE(hal.ExpectNoMisuse(), "HAL_UsbGetSpeed");
}

TEST(ScriptedHal, FailsTheNthCallOfAFunction) {
    ScriptedHal hal;
    const auto injection = hal.Fail("HAL_GvcpForceIpAuto", 2, HAL_BUSY);
    EXPECT_EQ(HAL_OK, HAL_GvcpForceIpAuto());
    EXPECT_FALSE(injection->fired);
    EXPECT_EQ(HAL_BUSY, HAL_GvcpForceIpAuto());
    EXPECT_TRUE(injection->fired);
    EXPECT_EQ(HAL_OK, HAL_GvcpForceIpAuto());
}

TEST(ScriptedHal, FailsTheNthCallOfAll) {
    ScriptedHal hal;
    hal.FailAny(2, HAL_BUSY);
    EXPECT_EQ(HAL_OK, HAL_GvcpForceIpAuto());
    EXPECT_EQ(HAL_OK, HAL_InitLibrary());
    EXPECT_EQ(HAL_BUSY, HAL_GvcpAutoForceIpToCamera(1));
    EXPECT_EQ(HAL_OK, HAL_GvcpAutoForceIpToCamera(1));
}

TEST(ScriptedHal, BlocksACallUntilItsGateOpens) {
    ScriptedHal hal;
    const auto gate = hal.Block("HAL_GvcpForceIpAuto");
    std::thread caller([] { HAL_GvcpForceIpAuto(); });
    EXPECT_TRUE(gate->WaitUntilReached());
    EXPECT_FALSE(hal.Calls()[0].returned);
    gate->Open();
    caller.join();
    EXPECT_TRUE(hal.Calls()[0].returned);
}

TEST(ScriptedHal, RaisesEventsThroughLiveRegistrationsOfTheBusOnly) {
    ScriptedHal hal;
    struct Heard {
        static void Function(HALBusEvent, void* context, HALInterfaceType, unsigned int first, unsigned int,
                             unsigned int) {
            *static_cast<unsigned int*>(context) += first;
        }
    };
    unsigned int sum = 0;
    void* registration = nullptr;
    ASSERT_EQ(HAL_OK, HAL_UsbRegisterBusEvents(&registration, &Heard::Function, &sum));
    EXPECT_EQ(1U, hal.RegistrationsOutstanding());
    EXPECT_EQ(1U, hal.Raise(HAL_BUS_RESET, HAL_INTERFACE_USB, 3));
    EXPECT_EQ(0U, hal.Raise(HAL_BUS_RESET, HAL_INTERFACE_GIGE, 5));
    EXPECT_EQ(HAL_OK, HAL_UsbDeregisterBusEvents(registration));
    EXPECT_EQ(0U, hal.Raise(HAL_BUS_RESET, HAL_INTERFACE_USB, 7));
    EXPECT_EQ(3U, sum);
}

TEST(AllocationFailure, FailsTheNthAllocationOfThisThreadOnce) {
    std::vector<std::unique_ptr<int>> numbers(3);
    const AllocationFailure failure(2);
    numbers[0] = std::make_unique<int>(1);
    EXPECT_FALSE(failure.Happened());
    EXPECT_THROW(numbers[1] = std::make_unique<int>(2), std::bad_alloc);
    EXPECT_TRUE(failure.Happened());
    EXPECT_NO_THROW(numbers[2] = std::make_unique<int>(3));
}

TEST(AllocationFailure, LeavesPausedAllocationsAndOtherThreadsAlone) {
    std::unique_ptr<int> number;
    const AllocationFailure failure(1);
    {
        const AllocationFailure::Pause pause;
        EXPECT_NO_THROW(number = std::make_unique<int>(1));
        std::thread([&number] { number = std::make_unique<int>(1); }).join();
    }
    EXPECT_EQ(0U, failure.Count());
}

TEST(AllocationFailure, CountsOverAllThreadsWhenAsked) {
    bool failed = false;
    std::unique_ptr<int> number;  // outside, so that no compiler leaves the allocation out
    Gate armed;
    std::thread other([&] {
        armed.Pass();
        try {
            number = std::make_unique<int>(1);
        } catch (const std::bad_alloc&) {
            failed = true;
        }
    });
    ASSERT_TRUE(armed.WaitUntilReached());
    const AllocationFailure failure(1, AllocationFailure::Scope::AllThreads);
    armed.Open();
    other.join();
    EXPECT_TRUE(failed);
    EXPECT_TRUE(failure.Happened());
}

TEST(TraceRecorder, RecordsWaitsAndBlocks) {
    TraceRecorder traces;
    const auto gate = traces.BlockAt("second");
    std::thread emitter([] {
        Trace("first");
        Trace("second");
        Trace("third");
    });
    EXPECT_TRUE(gate->WaitUntilReached());
    EXPECT_EQ((std::vector<std::string>{"first", "second"}), traces.Lines());
    gate->Open();
    EXPECT_TRUE(traces.WaitFor("third"));
    emitter.join();
    EXPECT_TRUE(traces.LinesOfThisThread().empty());
}

TEST(ThreadStartFailure, FailsTheNthStart) {
    const ThreadStartFailure failure(2);
    StartThread("test", [] {}).join();
    EXPECT_FALSE(failure.Happened());
    EXPECT_THROW(StartThread("test", [] {}), boost::thread_resource_error);
    EXPECT_TRUE(failure.Happened());
    StartThread("test", [] {}).join();
    EXPECT_EQ(3U, failure.Count());
}

TEST(BusMasterOnTheScriptedHal, StartsAndEndsWithNothingAttached) {
    const ScriptedHal hal;
    {
        BusMaster busMaster;
        EXPECT_FALSE(busMaster.Initialize() != ERROR_OK);
        EXPECT_TRUE(busMaster.GetInitialized());
        ExpectLocksFree(busMaster);
    }
    EXPECT_EQ(0U, hal.RegistrationsOutstanding());
    EXPECT_EQ("HAL_CleanupLibrary", hal.CallNames().back());
    hal.ExpectAllEntriesGivenBackOnce();
}

}  // namespace
}  // namespace Nimbrel2::Testing
