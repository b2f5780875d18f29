// SPDX-License-Identifier: Apache-2.0
// The n-th HAL call, allocation and thread start failing, for n = 1, 2, 3, ... until a run passes untouched: after
// each, the object works, finds everything with the next enumeration, and nothing has leaked.
#include "tests/busmaster/BusMasterFixture.h"
#include "tests/support/ThreadStartFailure.h"

namespace Nimbrel2::Testing {
namespace {

using ::testing::UnorderedElementsAre;

constexpr std::uint32_t InjectedStatus = 0x77;

// What fails in the n-th run, and whether its n-th occasion came at all.
class Failure {
public:
    virtual ~Failure() = default;
    virtual bool Happened() const = 0;
};

class HalFailure : public Failure {
public:
    HalFailure(ScriptedHal& hal, unsigned int nth) : m_hal(hal), m_injection(hal.FailAny(nth, InjectedStatus)) {}
    ~HalFailure() override { m_hal.FailNothing(); }
    bool Happened() const override { return m_injection->fired; }

private:
    ScriptedHal& m_hal;
    std::shared_ptr<Injection> m_injection;
};

class MemoryFailure : public Failure {
public:
    explicit MemoryFailure(unsigned int nth) : m_failure(nth, AllocationFailure::Scope::AllThreads) {}
    bool Happened() const override { return m_failure.Happened(); }

private:
    AllocationFailure m_failure;
};

class ThreadFailure : public Failure {
public:
    ThreadFailure(unsigned int nth, ThreadStartFailure::Kind kind) : m_failure(nth, kind) {}
    bool Happened() const override { return m_failure.Happened(); }

private:
    ThreadStartFailure m_failure;
};

enum class Kind { HalCall, Allocation, Thread, ThreadWithoutMemory };

std::unique_ptr<Failure> MakeFailure(Kind kind, ScriptedHal& hal, unsigned int nth) {
    const AllocationFailure::Pause pause;
    switch (kind) {
        case Kind::HalCall:
            return std::make_unique<HalFailure>(hal, nth);
        case Kind::Allocation:
            return std::make_unique<MemoryFailure>(nth);
        case Kind::Thread:
            return std::make_unique<ThreadFailure>(nth, ThreadStartFailure::Kind::ThreadResourceError);
        default:
            return std::make_unique<ThreadFailure>(nth, ThreadStartFailure::Kind::BadAlloc);
    }
}

class FailureSweep : public BusMasterFixture, public ::testing::WithParamInterface<Kind> {
protected:
    // Listings hold virtual cameras, too: the switch is the process's.
    void SetUp() override {
        Construct();
        busMaster->EnableVirtualDeviceEnumeration();
        Destroy();
    }
    void TearDown() override {
        Construct();
        busMaster->DisableVirtualDeviceEnumeration();
        Destroy();
    }

    void AttachEverything() {
        hal.DetachAll();
        hal.AddFireWireCamera(11);
        hal.AddFireWireCamera(12);
        hal.AddUsbCamera(21);
        hal.AddGigECamera(31, 0x0A000001);
        hal.AddVirtualCamera(41);
        hal.AddFireWireDevice(1, 2);
        hal.AddFireWireDevice(3, 4);
    }

    // A GigE camera that cannot be identified is left to the HAL, and a removed camera that could not be signalled is
    // kept; every other entry has come back.
    void ExpectOnlyWhatIsLeftOnPurpose() {
        m_left += CountContaining(traces.Lines(), "Error signaling bus removal callback");
        for (const HalCall& call : hal.Calls("HAL_GigEGetConfigInfo")) {
            m_left += call.returned && call.status == InjectedStatus ? 1 : 0;
        }
        EXPECT_EQ(m_left, hal.EntriesOutstanding());
        hal.ExpectNoMisuse();
    }

    // Ends one run and clears the stage for the next.
    void EndRun() {
        Destroy();
        ExpectGone();
        EXPECT_EQ(0U, hal.RegistrationsOutstanding());
        ExpectOnlyWhatIsLeftOnPurpose();
        EXPECT_EQ(0U, traces.Count("An exception ended a thread of the bus master."));
        traces.Clear();
        hal.ClearCalls();
    }

    void ExpectEntriesGivenBack() override {}  // looked at after each run

private:
    std::size_t m_left = 0;
};

TEST_P(FailureSweep, OfTheStart) {
    unsigned int nth = 0;
    for (bool happened = true; happened;) {
        ++nth;
        ASSERT_LT(nth, 3000U);
        SCOPED_TRACE(testing::Message() << "failing occasion " << nth);
        AttachEverything();
        Construct();
        Error first;
        {
            const std::unique_ptr<Failure> failure = MakeFailure(GetParam(), hal, nth);
            first = busMaster->Initialize();
            if (first == ERROR_OK && busMaster->GetInitialized()) {
                EXPECT_TRUE(WaitUntilIdle());
            }
            happened = failure->Happened();
        }
        ExpectLocksFree(*busMaster);
        if (!busMaster->GetInitialized()) {
            EXPECT_TRUE(happened);
            EXPECT_TRUE(first.GetType() == ERROR_LOW_LEVEL_FAILURE || first.GetType() == ERROR_MEMORY_ALLOCATION_FAILED)
                << first.Describe();
            ASSERT_TRUE(busMaster->Initialize() == ERROR_OK);
        }
        Cycle();
        EXPECT_THAT(SerialNumbers(), UnorderedElementsAre(11, 12, 21, 31, 41));
        EXPECT_EQ(2U, DeviceCount());
        EndRun();
        if (HasFailure()) {
            return;
        }
    }
    EXPECT_LT(1U, nth);
}

TEST_P(FailureSweep, OfACycle) {
    unsigned int nth = 0;
    for (bool happened = true; happened;) {
        ++nth;
        ASSERT_LT(nth, 3000U);
        SCOPED_TRACE(testing::Message() << "failing occasion " << nth);
        AttachEverything();
        const auto leaves = hal.AddUsbCamera(22);
        Start();
        Heard heard;
        heard.RegisterAll(*busMaster);
        hal.Detach(leaves);
        hal.AddUsbCamera(23);
        {
            const std::unique_ptr<Failure> failure = MakeFailure(GetParam(), hal, nth);
            Cycle();
            happened = failure->Happened();
        }
        ExpectLocksFree(*busMaster);
        EXPECT_TRUE(busMaster->GetInitialized());
        if (!happened) {
            EXPECT_EQ(1U, heard.Count(BUS_RESET, 0));
            EXPECT_EQ(1U, heard.Count(ARRIVAL, 23));
            EXPECT_EQ(1U, heard.Count(REMOVAL, 22));
        }
        Cycle();
        EXPECT_THAT(SerialNumbers(), UnorderedElementsAre(11, 12, 21, 23, 31, 41));
        EXPECT_EQ(2U, DeviceCount());
        EndRun();
        if (HasFailure()) {
            return;
        }
    }
    EXPECT_LT(1U, nth);
}

TEST_P(FailureSweep, OfTheDestruction) {
    unsigned int nth = 0;
    for (bool happened = true; happened;) {
        ++nth;
        ASSERT_LT(nth, 3000U);
        SCOPED_TRACE(testing::Message() << "failing occasion " << nth);
        AttachEverything();
        Start();
        Heard heard;
        heard.RegisterAll(*busMaster);
        {
            const std::unique_ptr<Failure> failure = MakeFailure(GetParam(), hal, nth);
            Destroy();
            happened = failure->Happened();
        }
        EndRun();
        if (HasFailure()) {
            return;
        }
    }
}

std::string KindName(const ::testing::TestParamInfo<Kind>& test) {
    static const char* const names[] = {"HalCalls", "Allocations", "Threads", "ThreadsWithoutMemory"};
    return names[static_cast<int>(test.param)];
}

INSTANTIATE_TEST_SUITE_P(Of, FailureSweep,
                         ::testing::Values(Kind::HalCall, Kind::Allocation, Kind::Thread, Kind::ThreadWithoutMemory),
                         &KindName);

}  // namespace
}  // namespace Nimbrel2::Testing
