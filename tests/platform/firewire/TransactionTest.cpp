// SPDX-License-Identifier: Apache-2.0
// Registers of nodes: retries, time-outs, generations, and that nobody waits for a camera that is mute.
#include <linux/firewire-constants.h>

#include <condition_variable>
#include <mutex>
#include <thread>

#include "tests/platform/firewire/FireWireFixture.h"

namespace Nimbrel2::Platform::FireWire {
namespace {

using ::testing::SizeIs;
using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr std::uint64_t NoRegister = 0xFFFFE0000000;
constexpr std::uint64_t RomHeader = 0xFFFFF0000400;

class FireWireTransactions : public FireWireDriverOfTwoCameras {
protected:
    static std::uint32_t Read(FireWireDevice& device, std::uint64_t offset = IsoEnableRegister) {
        std::uint32_t value = 0;
        return device.ReadQuadlet(offset, &value);
    }
    static std::uint32_t Value(FireWireDevice& device, std::uint64_t offset = IsoEnableRegister) {
        std::uint32_t value = 0;
        EXPECT_EQ(device.ReadQuadlet(offset, &value), HAL_OK);
        return value;
    }
};

TEST_F(FireWireTransactions, ReadAndWriteRegistersInHostOrder) {
    EXPECT_EQ(Value(*m_left, SerialNumberRegister), 0x00031001u);
    EXPECT_EQ(Value(*m_left, RomHeader) >> 24, 4u);
    EXPECT_EQ(m_left->WriteQuadlet(IsoEnableRegister, 0x80000001), HAL_OK);
    EXPECT_EQ(m_computer.GetRegister("left", IsoEnableRegister), 0x80000001u);
    EXPECT_EQ(m_computer.GetRegister("right", IsoEnableRegister), 0u);
    EXPECT_EQ(Value(*m_left), 0x80000001u);
    EXPECT_EQ(Value(*m_right), 0u);
}

TEST_F(FireWireTransactions, ReadOtherNodesToo) {
    const Devices devices = ListDevices();
    ASSERT_THAT(devices, SizeIs(1));
    EXPECT_EQ(Value(*devices[0], SerialNumberRegister), 0x0000D15Cu);
}

TEST_F(FireWireTransactions, TellWhyANodeRefuses) {
    EXPECT_EQ(Read(*m_left, NoRegister), HAL_NO_SUCH_REGISTER);
    EXPECT_EQ(m_left->WriteQuadlet(NoRegister, 1), HAL_NO_SUCH_REGISTER);
    EXPECT_EQ(m_left->WriteQuadlet(RomHeader, 1), HAL_WRITE_PROTECTED);
    m_computer.AnswerWith("left", RCODE_TYPE_ERROR, 1);
    EXPECT_EQ(Read(*m_left), HAL_REFUSED);
    m_computer.AnswerWith("left", RCODE_DATA_ERROR, 1);
    EXPECT_EQ(Read(*m_left), HAL_REFUSED);
    m_computer.AnswerWith("left", 0x0F, 1);
    EXPECT_EQ(Read(*m_left), HAL_BAD_ANSWER);
    m_computer.CutAnswers("left", 3);
    EXPECT_EQ(Read(*m_left), HAL_BAD_ANSWER);
}

TEST_F(FireWireTransactions, AreRepeatedWhileANodeIsBusy) {
    for (const std::uint32_t rcode : {RCODE_BUSY, RCODE_CONFLICT_ERROR, RCODE_SEND_ERROR}) {
        const unsigned int before = m_computer.CountRequests("left", IsoEnableRegister);
        m_computer.AnswerWith("left", rcode, 3);
        EXPECT_EQ(Read(*m_left), HAL_OK) << rcode;
        EXPECT_EQ(m_computer.CountRequests("left", IsoEnableRegister), before + 4) << rcode;
    }
}

TEST_F(FireWireTransactions, EndWhenANodeStaysBusy) {
    m_computer.AnswerWith("left", RCODE_BUSY, 1000);
    EXPECT_EQ(Read(*m_left), HAL_BUSY);
    EXPECT_EQ(m_computer.CountRequests("left", IsoEnableRegister), 11u) << "ten repetitions";
    EXPECT_EQ(m_left->WriteQuadlet(IsoEnableRegister, 1), HAL_BUSY);
    EXPECT_EQ(Read(*m_right), HAL_OK);
}

// ---- Generations ---------------------------------------------------------------------------------------------------

TEST_F(FireWireTransactions, AreRepeatedWhenTheBusIsResetMeanwhile) {
    m_computer.SetRegister("left", IsoEnableRegister, 42);
    for (int i = 0; i < 10; ++i) {
        m_computer.ResetIn("left", Testing::FileCall::SendRequest);
        EXPECT_EQ(Value(*m_left), 42u);
    }
    EXPECT_EQ(m_computer.CountResets("left"), 10u);
}

TEST_F(FireWireTransactions, UseTheGenerationOfAResetWhoseEventIsLate) {
    m_computer.HoldResetEvents("left", true);
    m_computer.SetRegister("left", IsoEnableRegister, 42);
    m_computer.Reset("left");
    EXPECT_EQ(Value(*m_left), 42u);
}

// The number of the camera that left belongs to its neighbour now.
TEST_F(FireWireTransactions, OfACameraThatHasLeftNeverBringItsNeighboursData) {
    m_computer.SetRegister("right", IsoEnableRegister, 2);
    for (int i = 0; i < 20; ++i) {
        ASSERT_EQ(m_computer.GetPhyId("left"), 0u);
        m_computer.Unplug("left");
        ASSERT_EQ(m_computer.GetPhyId("right"), 0u);
        // At once, whether or not the driver has heard of it.
        EXPECT_EQ(Read(*m_left), HAL_GONE);
        EXPECT_EQ(Read(*m_left, SerialNumberRegister), HAL_GONE);
        EXPECT_EQ(m_left->WriteQuadlet(IsoEnableRegister, 3), HAL_GONE);
        EXPECT_EQ(m_computer.GetRegister("right", IsoEnableRegister), 2u);
        EXPECT_EQ(Value(*m_right), 2u);
        m_computer.Plug("left");
        m_computer.SetRegister("left", IsoEnableRegister, 1);
        EXPECT_EQ(Value(*m_left), 1u);
        EXPECT_EQ(Value(*m_left, SerialNumberRegister), 0x00031001u);
    }
}

TEST_F(FireWireTransactions, OfACameraThatHasLeftAreNotSentToItsNeighbourEither) {
    m_computer.Unplug("left");
    ASSERT_TRUE(m_sink.WaitForDevices(2));
    const unsigned int before = m_computer.CountRequests("right", IsoEnableRegister);
    EXPECT_EQ(Read(*m_left), HAL_GONE);
    EXPECT_EQ(m_computer.CountRequests("right", IsoEnableRegister), before);
}

class FireWireTransactionsOfAUser : public FireWireDriver {};

TEST_F(FireWireTransactionsOfAUser, FindOutThatACameraHasLeftWithoutTheControllersFile) {
    AddStandardBus();
    m_computer.Deny("card");
    const Testing::NoPermissionOverride user;
    Start();
    const auto left = FindCamera(0x00031001);
    const auto right = FindCamera(0x00031002);
    m_computer.SetRegister("right", IsoEnableRegister, 2);
    m_computer.Unplug("left");
    std::uint32_t value = 0;
    EXPECT_EQ(left->ReadQuadlet(IsoEnableRegister, &value), HAL_GONE);
    EXPECT_EQ(right->ReadQuadlet(IsoEnableRegister, &value), HAL_OK);
    EXPECT_EQ(value, 2u);
    m_computer.Plug("left");
    EXPECT_EQ(left->ReadQuadlet(IsoEnableRegister, &value), HAL_OK);
}

TEST_F(FireWireTransactionsOfAUser, FindOutThatTheOnlyCameraHasLeftWithoutAnyOtherFile) {
    AddStandardBus();
    for (const char* phy : {"card", "right", "disk"}) {
        m_computer.Deny(phy);
    }
    const Testing::NoPermissionOverride user;
    Start();
    const auto left = FindCamera(0x00031001);
    m_computer.Unplug("left");
    std::uint32_t value = 0;
    EXPECT_EQ(left->ReadQuadlet(IsoEnableRegister, &value), HAL_GONE);
    m_computer.Plug("left");
    EXPECT_EQ(left->ReadQuadlet(IsoEnableRegister, &value), HAL_OK);
}

// ---- Time-outs -----------------------------------------------------------------------------------------------------

TEST_F(FireWireTransactions, OfAMuteNodeTimeOutAndThenAtOnceForASecond) {
    m_computer.SetMute("left", true, milliseconds(50));
    EXPECT_EQ(Read(*m_left), HAL_TIMED_OUT);
    const Clock::time_point timedOut = Clock::now();
    const unsigned int asked = m_computer.CountRequests("left", IsoEnableRegister);
    EXPECT_EQ(asked, 1u);
    for (int i = 0; i < 100; ++i) {
        EXPECT_EQ(Read(*m_left), HAL_TIMED_OUT);
        EXPECT_EQ(m_left->WriteQuadlet(IsoEnableRegister, 1), HAL_TIMED_OUT);
    }
    if (Clock::now() - timedOut < milliseconds(900)) {
        EXPECT_EQ(m_computer.CountRequests("left", IsoEnableRegister), asked);
    }
    EXPECT_EQ(Read(*m_right), HAL_OK);
    EXPECT_TRUE(WaitUntil([&] {
        Read(*m_left);
        return m_computer.CountRequests("left", IsoEnableRegister) > asked;
    })) << "it is asked again";
    EXPECT_GE(Clock::now() - timedOut, milliseconds(950));
}

TEST_F(FireWireTransactions, ThatNobodyAcknowledgesTimeOutToo) {
    m_computer.AnswerWith("left", RCODE_NO_ACK, 1);
    EXPECT_EQ(Read(*m_left), HAL_TIMED_OUT);
    EXPECT_EQ(Read(*m_left), HAL_TIMED_OUT) << "at once";
}

TEST_F(FireWireTransactions, TimeOutWhenEvenTheKernelTellsNoEnd) {
    m_computer.SetMute("left", true, std::chrono::hours(1));
    const Clock::time_point start = Clock::now();
    EXPECT_EQ(Read(*m_left), HAL_TIMED_OUT);
    EXPECT_GE(Clock::now() - start, milliseconds(2000)) << "the kernel's own time";
}

TEST_F(FireWireTransactions, OfAMuteNodeEndWithTheDriver) {
    m_computer.SetMute("left", true, std::chrono::hours(1));
    std::uint32_t status = HAL_OK;
    std::thread reader([&] { status = Read(*m_left); });
    EXPECT_TRUE(WaitUntil([&] { return m_computer.CountRequests("left", IsoEnableRegister) == 1; }));
    m_bus->Stop();
    reader.join();
    EXPECT_EQ(status, HAL_CLOSED);
}

TEST_F(FireWireTransactions, AreRepeatedWhenAResetHasSwallowedTheAnswer) {
    m_computer.SetRegister("left", IsoEnableRegister, 42);
    m_computer.SetMute("left", true, milliseconds(200));
    std::uint32_t value = 0;
    std::uint32_t status = HAL_CLOSED;
    std::thread reader([&] { status = m_left->ReadQuadlet(IsoEnableRegister, &value); });
    EXPECT_TRUE(WaitUntil([&] { return m_computer.CountRequests("left", IsoEnableRegister) == 1; }));
    m_computer.SetMute("left", false);
    m_computer.Reset("left");
    reader.join();
    EXPECT_EQ(status, HAL_OK);
    EXPECT_EQ(value, 42u);
    EXPECT_EQ(Read(*m_left), HAL_OK) << "it does not count as mute";
}

TEST_F(FireWireTransactions, ThatWaitForACameraEndWhenItLeavesAndNotWhenTheKernelGivesUp) {
    m_computer.SetMute("left", true, std::chrono::hours(1));
    std::uint32_t status = HAL_OK;
    std::thread reader([&] { status = Read(*m_left); });
    EXPECT_TRUE(WaitUntil([&] { return m_computer.CountRequests("left", IsoEnableRegister) == 1; }));
    m_computer.Unplug("left");
    reader.join();
    EXPECT_EQ(status, HAL_GONE);
    m_computer.SetMute("left", false);
    m_computer.Plug("left");
    EXPECT_EQ(Read(*m_left), HAL_OK) << "it does not count as mute";
}

TEST_F(FireWireTransactions, OfAMuteCameraAreTriedByTheDriverUntilItAnswersAndThenUsersEnumerateAnew) {
    m_computer.SetMute("left", true, milliseconds(10));
    EXPECT_EQ(Read(*m_left, SerialNumberRegister), HAL_TIMED_OUT);
    const unsigned int asked = m_computer.CountRequests("left", SerialNumberRegister);
    EXPECT_TRUE(WaitUntil([&] { return m_computer.CountRequests("left", SerialNumberRegister) > asked; }));
    EXPECT_EQ(Read(*m_left, SerialNumberRegister), HAL_TIMED_OUT) << "a cycle of the bus master never waits for it";
    const std::uint64_t resets = m_sink.GetLast().resets;
    m_computer.SetMute("left", false);
    EXPECT_TRUE(m_sink.WaitForResets(resets + 1));
    EXPECT_EQ(Value(*m_left, SerialNumberRegister), 0x00031001u);
    EXPECT_EQ(Read(*m_left), HAL_OK);
}

TEST_F(FireWireTransactions, AreSentAtOnceToAMuteCameraThatIsPluggedInAgain) {
    m_computer.SetMute("left", true, milliseconds(10));
    EXPECT_EQ(Read(*m_left, SerialNumberRegister), HAL_TIMED_OUT);
    m_computer.Unplug("left");
    ASSERT_TRUE(m_sink.WaitForDevices(2));
    m_computer.SetMute("left", false);
    m_computer.Plug("left");
    EXPECT_EQ(Read(*m_left), HAL_OK);
    EXPECT_EQ(Value(*m_left, SerialNumberRegister), 0x00031001u);
}

TEST_F(FireWireTransactions, AreRepeatedWhenAResetOfWhichNobodyHasReadHasSwallowedTheAnswer) {
    for (const char* phy : {"card", "left", "right", "disk"}) {
        m_computer.HoldResetEvents(phy, true);
    }
    m_computer.SetMute("left", true, milliseconds(200));
    std::uint32_t status = HAL_CLOSED;
    std::thread reader([&] { status = Read(*m_left); });
    EXPECT_TRUE(WaitUntil([&] { return m_computer.CountRequests("left", IsoEnableRegister) == 1; }));
    m_computer.SetMute("left", false);
    m_computer.Reset("left");
    reader.join();
    EXPECT_EQ(status, HAL_OK);
}

TEST_F(FireWireTransactions, ThatTimeOutForOneRegisterBringNoEnumerationWhenNoCycleMissedAnything) {
    m_computer.SetRegisterMute("left", IsoEnableRegister, true, milliseconds(10));
    EXPECT_EQ(Read(*m_left), HAL_TIMED_OUT);
    const std::uint64_t resets = m_sink.GetLast().resets;
    const unsigned int asked = m_computer.CountRequests("left", SerialNumberRegister);
    EXPECT_TRUE(WaitUntil([&] { return m_computer.CountRequests("left", SerialNumberRegister) > asked; }));
    EXPECT_TRUE(WaitUntil([&] { return Read(*m_left, RomHeader) == HAL_OK; })) << "it answers everything else";
    ListCameras();
    EXPECT_EQ(m_sink.GetLast().resets, resets);
}

// Its link layer answers for the configuration ROM, and what is behind it hangs.
TEST_F(FireWireTransactions, OfACycleAreNotWrittenAgainAndAgainToACameraThatAnswersOnlyInPart) {
    m_computer.SetRegisterMute("left", IsoEnableRegister, true, milliseconds(10));
    const std::uint64_t resets = m_sink.GetLast().resets;
    EXPECT_EQ(m_left->WriteQuadlet(IsoEnableRegister, 0x80000000), HAL_TIMED_OUT);
    // The driver tries that register itself, by reading, once the camera has answered for its serial number.
    EXPECT_TRUE(WaitUntil([&] { return m_computer.CountRequests("left", IsoEnableRegister) == 3; }));
    EXPECT_EQ(Value(*m_left, SerialNumberRegister), 0x00031001u);
    EXPECT_EQ(m_left->WriteQuadlet(IsoEnableRegister, 0x80000000), HAL_TIMED_OUT);
    EXPECT_EQ(m_computer.CountRequests("left", IsoEnableRegister), 3u) << "nobody waits for it";
    EXPECT_EQ(m_sink.GetLast().resets, resets) << "a cycle would write in vain";
    m_computer.SetRegisterMute("left", IsoEnableRegister, false);
    EXPECT_TRUE(m_sink.WaitForResets(resets + 1)) << "now it would not";
    EXPECT_EQ(m_left->WriteQuadlet(IsoEnableRegister, 0x80000000), HAL_OK);
}

// ---- What a cycle of the bus master asks ---------------------------------------------------------------------------

TEST_F(FireWireTransactions, OfACycleAreOneForEachCamera) {
    const auto countRequests = [this] {
        return m_computer.CountRequests("left", SerialNumberRegister) +
               m_computer.CountRequests("right", SerialNumberRegister);
    };
    m_computer.Reset("left");
    ASSERT_TRUE(m_sink.WaitForResets(1));
    EXPECT_TRUE(WaitUntil([&] { return countRequests() == 2; })) << "read before anybody asks";
    EXPECT_EQ(Value(*m_left, SerialNumberRegister), 0x00031001u);
    EXPECT_EQ(Value(*m_right, SerialNumberRegister), 0x00031002u);
    EXPECT_EQ(countRequests(), 2u);
}

TEST_F(FireWireTransactions, OfACycleGoToTheCameraAgainAfterASecond) {
    EXPECT_EQ(Value(*m_left, SerialNumberRegister), 0x00031001u);
    EXPECT_TRUE(WaitUntil([&] {
        return Read(*m_left, SerialNumberRegister) == HAL_OK &&
               m_computer.CountRequests("left", SerialNumberRegister) > 1;
    }));
}

TEST_F(FireWireTransactions, OfACycleAreTriedAgainForACameraThatIsBusy) {
    m_computer.AnswerWith("left", RCODE_BUSY, 3);
    EXPECT_EQ(Value(*m_left, SerialNumberRegister), 0x00031001u);
}

class FireWireCycle : public FireWireDriver {
protected:
    static constexpr unsigned int NumCameras = 16;
    static constexpr unsigned int NumMuteCameras = 8;
    // The kernel waits two seconds for each mute camera. On a busy machine everything else takes its time too.
    static constexpr milliseconds WaitForOne{6000};
    static constexpr milliseconds NoWait{1900};

    void SetUp() override {
        m_computer.AddBus(Testing::FireWireBusOfCameras(NumCameras), FirstCard);
        Start();
        m_cameras = ListCameras();
        ASSERT_THAT(m_cameras, SizeIs(NumCameras));
        for (unsigned int i = 0; i < NumMuteCameras; ++i) {
            m_computer.SetMute("camera" + std::to_string(2 * i), true);
        }
    }

    /// What a cycle does on this bus, one camera after the other: it lists, and reads one register of each camera that
    /// it keeps. @return how long it took.
    milliseconds Cycle() {
        const Clock::time_point start = Clock::now();
        EXPECT_THAT(ListCameras(), SizeIs(NumCameras));
        ListDevices();
        for (unsigned int i = 0; i < NumCameras; ++i) {
            std::uint32_t value = 0;
            const bool isMute = i % 2 == 0 && i / 2 < NumMuteCameras;
            EXPECT_EQ(m_cameras[i]->ReadQuadlet(SerialNumberRegister, &value), isMute ? HAL_TIMED_OUT : HAL_OK) << i;
            if (!isMute) {
                EXPECT_EQ(value, 0x00040000u + i);
            }
        }
        return std::chrono::duration_cast<milliseconds>(Clock::now() - start);
    }
    unsigned int CountRequestsToMute() const {
        unsigned int count = 0;
        for (unsigned int i = 0; i < NumMuteCameras; ++i) {
            count += m_computer.CountRequests("camera" + std::to_string(2 * i), SerialNumberRegister);
        }
        return count;
    }

    Devices m_cameras;
};

TEST_F(FireWireCycle, AfterAResetWaitsOnceForAllMuteCamerasAndThenForNone) {
    m_computer.Reset("camera0");
    ASSERT_TRUE(m_sink.WaitForResets(1));
    const milliseconds first = Cycle();
    EXPECT_LE(first, WaitForOne) << "the kernel's time-out of one camera; the goal on an idle computer is 3 s";
    EXPECT_EQ(CountRequestsToMute(), NumMuteCameras);
    const milliseconds second = Cycle();
    RecordProperty("first_ms", static_cast<int>(first.count()));
    RecordProperty("second_ms", static_cast<int>(second.count()));
    EXPECT_LE(second, NoWait) << "nobody is waited for; the goal on an idle computer is 50 ms";
}

// The cycle may be that of another bus: nothing was read in advance.
TEST_F(FireWireCycle, WithoutAResetWaitsOnceForAllMuteCamerasToo) {
    EXPECT_LE(Cycle(), WaitForOne);
    EXPECT_EQ(CountRequestsToMute(), NumMuteCameras);
    EXPECT_LE(Cycle(), NoWait);
}

TEST_F(FireWireCycle, MuchLaterStillWaitsForNoCameraThatIsKnownToBeMute) {
    Cycle();
    const unsigned int asked = CountRequestsToMute();
    // The driver has tried again by itself, and waits for the kernel to give up.
    EXPECT_TRUE(WaitUntil([&] { return CountRequestsToMute() > asked; }));
    EXPECT_LE(Cycle(), NoWait);
    m_computer.Reset("camera0");
    ASSERT_TRUE(m_sink.WaitForResets(1));
    EXPECT_LE(Cycle(), NoWait);
}

// A mute camera owes its answer in one generation after the other, and the kernel gives up none of them in time.
TEST_F(FireWireCycle, OnABusThatIsResetAgainAndAgainWaitsOnceForAllMuteCamerasToo) {
    std::mutex mutex;
    std::condition_variable ended;
    bool ends = false;
    std::thread storm([&] {
        std::unique_lock lock(mutex);
        while (!ended.wait_for(lock, milliseconds(300), [&] { return ends; })) {
            m_computer.Reset("camera0");
        }
    });
    const Clock::time_point start = Clock::now();
    for (std::size_t i = 0; i < NumMuteCameras; ++i) {
        std::uint32_t value = 0;
        EXPECT_THAT(m_cameras[2 * i]->ReadQuadlet(SerialNumberRegister, &value),
                    ::testing::AnyOf(HAL_TIMED_OUT, HAL_BUSY))
            << i;
    }
    const milliseconds took = std::chrono::duration_cast<milliseconds>(Clock::now() - start);
    {
        const std::lock_guard lock(mutex);
        ends = true;
        ended.notify_all();
    }
    storm.join();
    EXPECT_LE(took, 2 * WaitForOne) << "one after the other they take 24 s";
}

TEST_F(FireWireTransactions, OnDifferentCamerasRunInParallel) {
    constexpr int Rounds = 50;
    std::vector<std::thread> threads;
    std::atomic<int> failures{0};
    for (const auto& device : {m_left, m_left, m_right, m_right}) {
        threads.emplace_back([&failures, device] {
            const std::uint32_t own = SerialNumberOf(*device);
            for (int i = 0; i < Rounds; ++i) {
                std::uint32_t value = 0;
                if (device->ReadQuadlet(SerialNumberRegister, &value) != HAL_OK || value != own) {
                    ++failures;
                }
                if (device->ReadQuadlet(IsoEnableRegister, &value) != HAL_OK) {
                    ++failures;
                }
            }
        });
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures, 0);
}

// ---- A node that leaves inside a call ------------------------------------------------------------------------------

using Testing::FileCall;

class FireWireVanishing : public FireWireTransactions, public ::testing::WithParamInterface<FileCall> {};

TEST_P(FireWireVanishing, IsAnsweredAsGoneAndMissedFromThenOn) {
    m_computer.HoldResetEvents("left", true);  // so that it is asked for what its event would tell
    m_computer.VanishIn("left", GetParam());
    m_computer.Reset("right");
    std::uint32_t value = 0;
    std::vector<std::uint32_t> serialNumbers;
    // One of these makes the call; those before it succeed.
    EXPECT_THAT(Read(*m_left), ::testing::AnyOf(HAL_GONE, HAL_OK));
    EXPECT_THAT(m_left->FireBusReset(), ::testing::AnyOf(HAL_GONE, HAL_OK));
    EXPECT_THAT(m_left->ReadPhy(0, 0, 0, &value), ::testing::AnyOf(HAL_GONE, HAL_OK));
    EXPECT_THAT(m_left->GetNodeSerialNumbers(&serialNumbers), ::testing::AnyOf(HAL_GONE, HAL_OK));
    ListCameras();
    if (GetParam() == FileCall::ReceivePhyPackets || GetParam() == FileCall::SendPhyPacket) {
        m_computer.Unplug("left");  // calls that only the controller's own file knows
        m_computer.Forget("left");
    }
    EXPECT_TRUE(WaitUntil([&] { return Describe(*m_left) == "gone"; }));
    EXPECT_EQ(Read(*m_left), HAL_GONE);
    EXPECT_EQ(m_left->WriteQuadlet(IsoEnableRegister, 1), HAL_GONE);
    EXPECT_THAT(ListCameras(), SizeIs(1));
    EXPECT_EQ(Read(*m_right), HAL_OK);
    m_computer.Plug("left");
    EXPECT_TRUE(m_sink.WaitForDevices(3));
    EXPECT_THAT(ListCameras(), SizeIs(2));
    EXPECT_EQ(Read(*m_left), HAL_OK);
}

INSTANTIATE_TEST_SUITE_P(InEachCall, FireWireVanishing,
                         ::testing::Values(FileCall::GetInfo, FileCall::SendRequest, FileCall::ResetBus,
                                           FileCall::ReceivePhyPackets, FileCall::SendPhyPacket, FileCall::Read));

}  // namespace
}  // namespace Nimbrel2::Platform::FireWire
