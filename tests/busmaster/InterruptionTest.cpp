// SPDX-License-Identifier: Apache-2.0
// Operations that wait, on a boost::thread that was told to interrupt itself: they wait all the same, and the
// interruption stays for the thread's own next wait. The worker is held up, so that there is something to wait for.
#include <boost/thread/thread.hpp>
#include <future>

#include "tests/busmaster/BusMasterFixture.h"

namespace Nimbrel2::Testing {
namespace {

class OnAnInterruptedThread : public BusMasterFixture {
protected:
    // False when the operation took the interruption for itself.
    template <class Operation>
    static bool Leaves(Operation operation) {
        bool left = false;
        std::promise<void> interrupted;
        boost::thread thread([&] {
            interrupted.get_future().wait();
            operation();
            left = boost::this_thread::interruption_requested();
        });
        thread.interrupt();
        interrupted.set_value();
        thread.join();
        return left;
    }
};

TEST_F(OnAnInterruptedThread, TheStartIsWaitedFor) {
    GetDeadlines().startConfirmation = milliseconds(50);
    const auto listing = hal.Block("HAL_UsbGetCameras");
    Construct();
    Error error;
    EXPECT_TRUE(Leaves([&] { error = busMaster->Initialize(); }));
    EXPECT_EQ(ERROR_INIT_TIMED_OUT, error.GetType()) << error.Describe();
    listing->Open();
    EXPECT_TRUE(Eventually([this] { return busMaster->GetInitialized(); }));
}

TEST_F(OnAnInterruptedThread, ARescanIsWaitedFor) {
    Start();
    GetDeadlines().rescan = milliseconds(50);
    const auto listing = hal.Block("HAL_UsbGetCameras", 2);
    Error error = InternalError(ERROR_FAILED);
    EXPECT_TRUE(Leaves([&] { error = busMaster->RescanBus(); }));
    EXPECT_EQ(ERROR_OK, error.GetType()) << error.Describe();
    listing->Open();
}

TEST_F(OnAnInterruptedThread, QuietIsWaitedFor) {
    Start();
    const auto listing = hal.Block("HAL_UsbGetCameras", 2);
    RaiseReset();
    ASSERT_TRUE(listing->WaitUntilReached());
    EXPECT_TRUE(Leaves([&] { EXPECT_NO_THROW(EXPECT_FALSE(busMaster->WaitUntilQuiet(1))); }));
    listing->Open();
}

TEST_F(OnAnInterruptedThread, TheObjectIsDestroyed) {
    hal.AddUsbCamera(1);
    Start();
    EXPECT_TRUE(Leaves([this] { Destroy(); }));
}

}  // namespace
}  // namespace Nimbrel2::Testing
