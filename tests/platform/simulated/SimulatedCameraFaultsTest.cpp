// SPDX-License-Identifier: Apache-2.0
// Retransmissions, and everything that a camera may be told to do wrong, in memory. One thread.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "CameraTalk.h"

namespace Nimbrel2::Platform::Simulated {
namespace {

using ::testing::Each;
using ::testing::IsEmpty;
using ::testing::SizeIs;

Conversation WithFaults(const Faults& faults, std::uint64_t seed = 1) {
    SimulatedCameraOptions options = ExampleOptions();
    options.faults = faults;
    return Conversation(options, seed);
}

// ---- Retransmissions -----------------------------------------------------------------------------------------------

TEST(SimulatedCameraRetransmission, IsAnsweredAgainAndNotCarriedOutTwice) {
    Conversation talk;
    const Gvcp::Packet take = talk.MakeWrite({{Register::ControlChannelPrivilege, 2}});
    EXPECT_EQ(talk.Ask(take).status, Status::Success);
    talk.camera.GetRegisters().ReleaseControl();
    EXPECT_EQ(talk.Ask(take).status, Status::Success);
    EXPECT_FALSE(talk.camera.GetRegisters().IsControlHeld()) << "the second was only an echo";
    EXPECT_EQ(talk.camera.GetStatistics().executed, 1u);
    EXPECT_EQ(talk.camera.GetStatistics().repeated, 1u);
}

TEST(SimulatedCameraRetransmission, GetsTheFirstAnswerEvenIfTheRegisterHasChanged) {
    Conversation talk;
    const Gvcp::Packet read = talk.MakeRead({0xA000});
    EXPECT_EQ(talk.Ask(read).words.at(0), 640u);
    talk.camera.GetRegisters().Poke(0xA000, 641);
    EXPECT_EQ(talk.Ask(read).words.at(0), 640u);
    EXPECT_EQ(talk.ReadValue(0xA000), 641u) << "a new request reads anew";
}

TEST(SimulatedCameraRetransmission, IsToldByPeerIdAndBytes) {
    Conversation talk;
    const std::uint32_t first[] = {0x0024};
    const std::uint32_t second[] = {0x0034};
    EXPECT_EQ(talk.Ask(Gvcp::EncodeReadRegCommand(5, first)).words.at(0), 0xC0A84D65u);
    EXPECT_EQ(talk.Ask(Gvcp::EncodeReadRegCommand(5, second)).words.at(0), 0xFFFFFF00u) << "same id, other command";
    EXPECT_EQ(talk.Ask(Gvcp::EncodeReadRegCommand(6, second)).words.at(0), 0xFFFFFF00u);
    EXPECT_EQ(talk.Ask(Gvcp::EncodeReadRegCommand(6, second), OtherHost).words.at(0), 0xFFFFFF00u);
    EXPECT_EQ(talk.camera.GetStatistics().repeated, 0u);
}

TEST(SimulatedCameraRetransmission, IsRememberedForAFewPeersOnly) {
    Conversation talk;
    const Gvcp::Packet read = talk.MakeRead({0x0024});
    for (std::uint16_t port = 1; port <= 1000; ++port) {
        talk.Ask(read, {0x0A000001, port});
    }
    EXPECT_EQ(talk.camera.GetStatistics().repeated, 0u);
    talk.Ask(read, {0x0A000001, 1000});
    EXPECT_EQ(talk.camera.GetStatistics().repeated, 1u);
    talk.Ask(read, {0x0A000001, 1});
    EXPECT_EQ(talk.camera.GetStatistics().repeated, 1u) << "long forgotten";
}

// ---- Errors --------------------------------------------------------------------------------------------------------

TEST(SimulatedCameraErrorRule, HitsEveryCommandWhenItNamesNone) {
    Faults faults;
    faults.errors = {{.status = Status::Busy}};
    Conversation talk = WithFaults(faults);
    EXPECT_EQ(talk.Read({0x0024}).status, Status::Busy);
    EXPECT_EQ(talk.ReadMemory(0x0048, 32).status, Status::Busy);
    EXPECT_EQ(talk.TakeControl(), Status::Busy);
    EXPECT_FALSE(talk.camera.GetRegisters().IsControlHeld()) << "and nothing was carried out";
    EXPECT_EQ(talk.Ask(Gvcp::EncodeDiscoveryCommand(1, 1)).status, Status::Busy);
    const auto force = Gvcp::EncodeForceIpCommand(2, 1, {0x02B0, 0x5E0A0B0C, 0xC0A84D32, 0xFFFFFF00, 0});
    const Reply reply = talk.Ask(force);
    EXPECT_EQ(reply.status, Status::Busy);
    EXPECT_EQ(reply.id, Gvcp::MessageId::ForceIpAck);
    EXPECT_EQ(talk.camera.GetAddress(), 0xC0A84D65u);
}

TEST(SimulatedCameraErrorRule, HitsOneKindOfCommand) {
    Faults faults;
    faults.errors = {{.command = Gvcp::MessageId::ReadMemCmd, .status = Status::Error}};
    Conversation talk = WithFaults(faults);
    EXPECT_EQ(talk.ReadMemory(0x0048, 32).status, Status::Error);
    EXPECT_EQ(talk.Read({0x0048}).status, Status::Success);
}

TEST(SimulatedCameraErrorRule, HitsOneRegisterHoweverItIsReached) {
    Faults faults;
    faults.errors = {{.address = 0x0A00, .status = Status::AccessDenied}};
    Conversation talk = WithFaults(faults);
    EXPECT_EQ(talk.Read({0x0A00}).status, Status::AccessDenied);
    EXPECT_EQ(talk.Read({0x0024, 0x0A00}).status, Status::AccessDenied);
    EXPECT_EQ(talk.Read({0x0024}).status, Status::Success);
    EXPECT_EQ(talk.TakeControl(), Status::AccessDenied);
    EXPECT_EQ(talk.ReadMemory(0x0A00, 8).status, Status::AccessDenied);
    EXPECT_EQ(talk.ReadMemory(0x0A04, 4).status, Status::Success);
    EXPECT_EQ(talk.WriteMemory(0x0A00, std::string("\0\0\0\2", 4)).status, Status::AccessDenied);
}

TEST(SimulatedCameraErrorRule, HitsTheNthOnly) {
    Faults faults;
    faults.errors = {{.command = Gvcp::MessageId::ReadRegCmd, .status = Status::Busy, .first = 3, .count = 2}};
    Conversation talk = WithFaults(faults);
    std::vector<Status> statuses;
    for (int i = 0; i < 6; ++i) {
        statuses.push_back(talk.Read({0x0024}).status);
    }
    EXPECT_THAT(statuses, ::testing::ElementsAre(Status::Success, Status::Success, Status::Busy, Status::Busy,
                                                 Status::Success, Status::Success));
    talk.camera.SetFaults(faults);
    EXPECT_EQ(talk.Read({0x0024}).status, Status::Success) << "counted anew";
}

TEST(SimulatedCameraErrorRule, IsNotCountedByRetransmissions) {
    Faults faults;
    faults.errors = {{.status = Status::Busy, .first = 1, .count = 1}};
    Conversation talk = WithFaults(faults);
    const Gvcp::Packet read = talk.MakeRead({0x0024});
    EXPECT_EQ(talk.Ask(read).status, Status::Busy);
    EXPECT_EQ(talk.Ask(read).status, Status::Busy);
    EXPECT_EQ(talk.Read({0x0024}).status, Status::Success);
}

TEST(SimulatedCameraErrorRule, LeavesTheCommandToTheNextRuleWhenItDoesNotApply) {
    Faults faults;
    faults.errors = {{.status = Status::Busy, .first = 2, .count = 1}, {.status = Status::Error}};
    Conversation talk = WithFaults(faults);
    EXPECT_EQ(talk.Read({0x0024}).status, Status::Error);
    EXPECT_EQ(talk.Read({0x0024}).status, Status::Busy);
    EXPECT_EQ(talk.Read({0x0024}).status, Status::Error);
}

// ---- Time ----------------------------------------------------------------------------------------------------------

TEST(SimulatedCameraDelay, IsFixedOrRandomWithinItsRange) {
    Faults faults;
    faults.delayMinimum = faults.delayMaximum = milliseconds(40);
    Conversation fixed = WithFaults(faults);
    EXPECT_EQ(fixed.Read({0x0024}).delay, milliseconds(40));
    EXPECT_EQ(fixed.Ask(Gvcp::EncodeDiscoveryCommand(1, 1)).delay, milliseconds(40));

    faults.delayMaximum = milliseconds(60);
    Conversation random = WithFaults(faults);
    std::vector<milliseconds> delays;
    for (int i = 0; i < 200; ++i) {
        delays.push_back(random.Read({0x0024}).delay);
    }
    EXPECT_EQ(*std::min_element(delays.begin(), delays.end()), milliseconds(40));
    EXPECT_EQ(*std::max_element(delays.begin(), delays.end()), milliseconds(60));
}

TEST(SimulatedCameraPending, GoesBeforeTheAnswer) {
    Faults faults;
    faults.pendingAnnounced = milliseconds(500);
    faults.pendingActual = milliseconds(300);
    faults.delayMinimum = faults.delayMaximum = milliseconds(10);
    Conversation talk = WithFaults(faults);
    const auto answers = talk.Send(talk.MakeRead({0x0024}));
    ASSERT_THAT(answers, SizeIs(2));
    const Reply pending = ReadReply(answers[0]);
    EXPECT_EQ(pending.id, Gvcp::MessageId::PendingAck);
    EXPECT_EQ(pending.words.at(0), 500u);
    EXPECT_EQ(pending.delay, milliseconds(10));
    const Reply real = ReadReply(answers[1]);
    EXPECT_EQ(real.id, Gvcp::MessageId::ReadRegAck);
    EXPECT_EQ(real.ackId, pending.ackId);
    EXPECT_EQ(real.delay, milliseconds(310));
    EXPECT_THAT(talk.Send(Gvcp::EncodeDiscoveryCommand(1, 1)), SizeIs(1)) << "not before a discovery acknowledge";
}

TEST(SimulatedCameraPending, AnnouncesNoMoreThanItsFieldHolds) {
    Faults faults;
    faults.pendingAnnounced = std::chrono::hours(1);
    Conversation talk = WithFaults(faults);
    EXPECT_EQ(ReadReply(talk.Send(talk.MakeRead({0x0024})).at(0)).words.at(0), 65535u);
}

// ---- Chance --------------------------------------------------------------------------------------------------------

std::vector<std::size_t> CountAnswers(Conversation& talk, int commands) {
    std::vector<std::size_t> counts;
    for (int i = 0; i < commands; ++i) {
        counts.push_back(talk.Send(talk.MakeRead({0x0024})).size());
    }
    return counts;
}

TEST(SimulatedCameraLoss, LosesCommandsAndAnswersAlike) {
    Faults faults;
    faults.lossPercent = 20;
    Conversation talk = WithFaults(faults);
    const auto counts = CountAnswers(talk, 5000);
    const auto answered = std::count(counts.begin(), counts.end(), 1u);
    EXPECT_NEAR(static_cast<double>(answered), 5000 * 0.8 * 0.8, 200);
    const CameraStatistics& statistics = talk.camera.GetStatistics();
    EXPECT_NEAR(static_cast<double>(statistics.executed), 5000 * 0.8, 150);
    EXPECT_EQ(statistics.answered, static_cast<std::uint64_t>(answered));
    EXPECT_EQ(statistics.lost + statistics.answered, 5000u);
}

TEST(SimulatedCameraLoss, IsNeverOrAlwaysAtItsEnds) {
    Faults faults;
    Conversation never = WithFaults(faults);
    EXPECT_THAT(CountAnswers(never, 1000), Each(1u));
    faults.lossPercent = 100;
    Conversation always = WithFaults(faults);
    EXPECT_THAT(CountAnswers(always, 1000), Each(0u));
}

TEST(SimulatedCameraDuplicates, AreTheSameAnswerTwice) {
    Faults faults;
    faults.duplicatePercent = 100;
    Conversation talk = WithFaults(faults);
    const auto answers = talk.Send(talk.MakeRead({0x0024}));
    ASSERT_THAT(answers, SizeIs(2));
    EXPECT_TRUE(std::ranges::equal(answers[0].packet.GetBytes(), answers[1].packet.GetBytes()));
    faults.duplicatePercent = 30;
    talk.camera.SetFaults(faults);
    const auto counts = CountAnswers(talk, 5000);
    EXPECT_NEAR(static_cast<double>(std::count(counts.begin(), counts.end(), 2u)), 1500, 150);
}

TEST(SimulatedCameraChance, IsTheSameForTheSameSeed) {
    Faults faults;
    faults.lossPercent = 30;
    faults.duplicatePercent = 30;
    Conversation one = WithFaults(faults, 42);
    Conversation same = WithFaults(faults, 42);
    Conversation other = WithFaults(faults, 43);
    const auto counts = CountAnswers(one, 500);
    EXPECT_EQ(CountAnswers(same, 500), counts);
    EXPECT_NE(CountAnswers(other, 500), counts);
}

// ---- Silence and cuts ----------------------------------------------------------------------------------------------

TEST(SimulatedCameraSilence, IsCompleteAndEnds) {
    Conversation talk;
    talk.TakeControl();
    talk.camera.SetSilent(true);
    EXPECT_THAT(talk.Send(talk.MakeRead({0x0024})), IsEmpty());
    EXPECT_THAT(talk.Send(Gvcp::EncodeDiscoveryCommand(1, 1), TestHost, Arrival::Broadcast), IsEmpty());
    EXPECT_THAT(talk.Send(talk.MakeWrite({{0xA000, 1}})), IsEmpty());
    talk.camera.SetSilent(false);
    EXPECT_EQ(talk.ReadValue(0xA000), 640u) << "what was sent meanwhile was not carried out";
    EXPECT_EQ(talk.ReadValue(0x0A00), 2u) << "and control is still held";
}

TEST(SimulatedCameraTruncation, CutsAnswersAtAnyByte) {
    Conversation talk;
    const Gvcp::Packet whole = talk.Send(talk.MakeRead({0x0024, 0x0034})).at(0).packet;
    for (std::size_t size = 0; size <= whole.GetSize() + 4; ++size) {
        Faults faults;
        faults.truncateTo = size;
        talk.camera.SetFaults(faults);
        const auto answers = talk.Send(talk.MakeRead({0x0024, 0x0034}));
        ASSERT_THAT(answers, SizeIs(1));
        EXPECT_EQ(answers[0].packet.GetSize(), std::min(size, whole.GetSize()));
    }
}

}  // namespace
}  // namespace Nimbrel2::Platform::Simulated
