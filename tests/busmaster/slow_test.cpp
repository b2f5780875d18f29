// SPDX-License-Identifier: Apache-2.0
// The bounds that ship, waited for once each: everything else runs with shortened ones. The upper limits leave room for
// a busy computer.
#include <chrono>

#include "tests/busmaster/BusMasterFixture.h"

namespace Nimbrel2::Testing {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::seconds;

class RealDeadlines : public BusMasterFixture {};

TEST_F(RealDeadlines, AStartThatIsNeverConfirmedIsGivenUpAfterFortySeconds) {
    hal.AddUsbCamera(21);
    const auto gate = hal.Block("HAL_1394GetDevices");
    Construct();
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(ERROR_INIT_TIMED_OUT, busMaster->Initialize().GetType());
    const Clock::duration waited = Clock::now() - start;
    EXPECT_LE(seconds(40), waited);
    EXPECT_GT(seconds(60), waited);
    EXPECT_FALSE(busMaster->GetInitialized());
    gate->Open();
    EXPECT_TRUE(WaitUntilIdle());
    EXPECT_TRUE(busMaster->GetInitialized());
}

TEST_F(RealDeadlines, AHungWorkerIsGivenUpAfterFiveJoinsOfASecondAndOneForTheLists) {
    hal.AddUsbCamera(21);
    Start();
    const auto gate = hal.Block("HAL_UsbGetCameras");
    const Clock::time_point rescan = Clock::now();
    EXPECT_TRUE(busMaster->RescanBus() == ERROR_OK);
    EXPECT_LE(seconds(1), Clock::now() - rescan);
    ASSERT_TRUE(gate->WaitUntilReached());
    const Clock::time_point start = Clock::now();
    Destroy();
    const Clock::duration waited = Clock::now() - start;
    EXPECT_LE(seconds(6), waited);
    EXPECT_GT(seconds(20), waited);
    EXPECT_EQ(1U, traces.Count("Timed out while waiting for BusMaster worker thread to exit."));
    gate->Open();
}

TEST_F(RealDeadlines, ACallbackThatNeverEndsIsGivenUpAfterOneSecond) {
    Start();
    Gate gate;
    void* handle = nullptr;
    ASSERT_TRUE(busMaster->RegisterCallback([](void* data, unsigned int) { static_cast<Gate*>(data)->Pass(); },
                                            BUS_RESET, &gate, &handle) == ERROR_OK);
    RaiseReset();
    ASSERT_TRUE(gate.WaitUntilReached());
    const Clock::time_point start = Clock::now();
    Destroy();
    const Clock::duration waited = Clock::now() - start;
    EXPECT_LE(seconds(1), waited);
    EXPECT_GT(seconds(10), waited);
    gate.Open();
    ExpectGone();
}

}  // namespace
}  // namespace Nimbrel2::Testing
