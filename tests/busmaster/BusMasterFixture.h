// SPDX-License-Identifier: Apache-2.0
// A bus master on a scripted HAL, with its traces, deadlines that a test may shorten, and a check at the end that
// everything was given back. The test's thread.
#ifndef NIMBREL2_TESTS_BUSMASTER_BUSMASTERFIXTURE_H
#define NIMBREL2_TESTS_BUSMASTER_BUSMASTERFIXTURE_H

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <boost/weak_ptr.hpp>
#include <condition_variable>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support/AllocationFailure.h"
#include "tests/support/CoreAccess.h"
#include "tests/support/ScriptedHal.h"
#include "tests/support/TraceRecorder.h"

namespace Nimbrel2::Testing {

using Members = BusMasterTestAccess::Members;
using Lines = std::vector<std::string>;
using Lock = boost::unique_lock<boost::mutex>;
using boost::posix_time::milliseconds;

/// Waits for what another thread brings about and no condition variable tells. False when it did not come.
inline bool Eventually(const std::function<bool()>& condition) {
    const auto deadline = std::chrono::steady_clock::now() + TestDeadline;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline) {
            return false;
        }
        std::this_thread::sleep_for(std::chrono::microseconds(200));
    }
    return true;
}

inline std::size_t CountContaining(const Lines& lines, const std::string& part) {
    return static_cast<std::size_t>(std::count_if(
        lines.begin(), lines.end(), [&](const std::string& line) { return line.find(part) != std::string::npos; }));
}

/// Calls of user callbacks, in the order in which they came.
class Heard {
public:
    using Call = std::pair<BusCallbackType, unsigned int>;

    void Register(BusMaster& busMaster, BusCallbackType type) {
        m_registrations.push_back(std::make_unique<Registration>(Registration{this, type}));
        void* handle = nullptr;
        EXPECT_TRUE(busMaster.RegisterCallback(&Heard::Function, type, m_registrations.back().get(), &handle) ==
                    ERROR_OK);
    }
    void RegisterAll(BusMaster& busMaster) {
        Register(busMaster, BUS_RESET);
        Register(busMaster, ARRIVAL);
        Register(busMaster, REMOVAL);
    }

    std::multiset<Call> Calls() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }
    std::size_t Count(BusCallbackType type, unsigned int serialNumber) { return Calls().count({type, serialNumber}); }
    void Clear() {
        const std::lock_guard<std::mutex> lock(m_mutex);
        m_calls.clear();
    }

private:
    struct Registration {
        Heard* heard;
        BusCallbackType type;
    };

    static void Function(void* data, unsigned int serialNumber) {
        const AllocationFailure::Pause pause;
        const auto& registration = *static_cast<Registration*>(data);
        const std::lock_guard<std::mutex> lock(registration.heard->m_mutex);
        registration.heard->m_calls.insert({registration.type, serialNumber});
    }

    std::mutex m_mutex;
    std::multiset<Call> m_calls;
    std::vector<std::unique_ptr<Registration>> m_registrations;
};

class BusMasterFixture : public ::testing::Test {
protected:
    ~BusMasterFixture() override { GetDeadlines() = m_deadlinesBefore; }

    /// Destroys the object if the test has not, and checks what is left of it.
    void TearDown() override {
        Destroy();
        ExpectGone();
        EXPECT_EQ(0U, hal.RegistrationsOutstanding());
        ExpectEntriesGivenBack();
    }

    virtual void ExpectEntriesGivenBack() { hal.ExpectAllEntriesGivenBackOnce(leftToTheHal); }

    void Construct() {
        busMaster = std::make_unique<BusMaster>();
        members = BusMasterTestAccess::Share(*busMaster);
        // The last thing that members let go of: a weak pointer expires before they have begun to.
        m_gone = std::make_shared<std::atomic<bool>>(false);
        auto* const last = new BusMasterHandle;
        last->hwInterface.reset(static_cast<HardwareInterface*>(nullptr),
                                [gone = m_gone](HardwareInterface*) { *gone = true; });
        Inside().m_unsignalledCameras.push_back(last);
    }

    void Start() {
        Construct();
        const Error error = busMaster->Initialize();
        ASSERT_TRUE(error == ERROR_OK) << error.Describe();
        ASSERT_TRUE(busMaster->GetInitialized());
        ASSERT_TRUE(WaitUntilIdle());
    }

    void Destroy() { busMaster.reset(); }

    /// Removed cameras that are kept because nobody could be told.
    std::size_t KeptUnsignalled() { return Inside().m_unsignalledCameras.size() - 1; }

    /// No thread is left that runs on the object: what comes later cannot disturb the next test.
    void ExpectGone() {
        EXPECT_TRUE(Eventually([this] { return !m_gone || *m_gone; })) << "a thread still runs on the object";
    }

    Members& Inside() { return BusMasterTestAccess::Get(*busMaster); }

    /// Until the worker is idle, no reset is pending and no callback is left to run.
    bool WaitUntilIdle() { return busMaster->WaitUntilQuiet(20000); }

    /// One re-enumeration cycle of an idle worker.
    void Cycle() {
        ASSERT_TRUE(WaitUntilIdle());
        ASSERT_TRUE(busMaster->RescanBus() == ERROR_OK);
        ASSERT_TRUE(WaitUntilIdle());
    }

    /// Listings of cameras so far, that of the start included.
    std::size_t Listings() const { return hal.Count("HAL_GigEGetCameras"); }

    std::vector<unsigned int> SerialNumbers() {
        unsigned int count = 0;
        EXPECT_TRUE(busMaster->GetNumOfCameras(&count) == ERROR_OK);
        std::vector<unsigned int> serialNumbers(count);
        for (unsigned int i = 0; i < count; ++i) {
            EXPECT_TRUE(busMaster->GetCameraSerialNumberFromIndex(i, &serialNumbers[i]) == ERROR_OK);
        }
        return serialNumbers;
    }

    unsigned int DeviceCount() {
        unsigned int count = 0;
        EXPECT_TRUE(busMaster->GetNumOfDevices(&count) == ERROR_OK);
        return count;
    }

    void RaiseReset(HALInterfaceType bus = HAL_INTERFACE_1394) { EXPECT_EQ(1U, hal.Raise(HAL_BUS_RESET, bus)); }

    /// Starts the destructor on a thread of its own and waits until it has set the exit flag.
    std::thread DestroyElsewhere() {
        const boost::shared_ptr<Members> share = members.lock();
        std::thread thread([object = std::move(busMaster)]() mutable { object.reset(); });
        EXPECT_TRUE(Eventually([&] { return share->GetExitThread(); }));
        return thread;
    }

    ScriptedHal hal;
    TraceRecorder traces;
    std::vector<ScriptedHal::DevicePointer> leftToTheHal;  ///< Devices with an entry that is never given back.
    boost::weak_ptr<Members> members;
    std::unique_ptr<BusMaster> busMaster;

private:
    const Deadlines m_deadlinesBefore = GetDeadlines();
    std::shared_ptr<std::atomic<bool>> m_gone;
};

}  // namespace Nimbrel2::Testing

#endif
