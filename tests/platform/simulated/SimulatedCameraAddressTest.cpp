// SPDX-License-Identifier: Apache-2.0
// Discovery, forced and persistent IP configurations, in memory. One thread; time is what the test says.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "CameraTalk.h"

namespace Nimbrel2::Platform::Simulated {
namespace {

using ::testing::IsEmpty;
using ::testing::SizeIs;

constexpr std::uint8_t AcknowledgeOnly = 0x01;
constexpr std::uint8_t BroadcastAllowed = 0x11;

Gvcp::ForceIpCommand ForceTo(std::uint32_t address) { return {0x02B0, 0x5E0A0B0C, address, 0xFFFFFF00, 0xC0A84DFE}; }

// ---- Discovery -----------------------------------------------------------------------------------------------------

TEST(SimulatedCameraDiscovery, TellsWhatTheRegistersTell) {
    Conversation talk;
    const std::vector<Answer> answers = talk.Send(Gvcp::EncodeDiscoveryCommand(0xFFFF, AcknowledgeOnly));
    ASSERT_THAT(answers, SizeIs(1));
    const auto decoded = Gvcp::DecodeAcknowledge(answers[0].packet.GetBytes());
    ASSERT_EQ(decoded.error, Gvcp::DecodeError::None);
    EXPECT_EQ(decoded.header.ackId, 0xFFFF);
    const GvcpDiscoveryRecord& record = std::get<Gvcp::DiscoveryAcknowledge>(decoded.body).record;
    EXPECT_EQ(record.versionMajor, 2);
    EXPECT_EQ(record.deviceMode, 0x80000001u);
    EXPECT_EQ(record.macHigh, 0x02B0);
    EXPECT_EQ(record.macLow, 0x5E0A0B0Cu);
    EXPECT_EQ(record.ipConfigOptions, 7u);
    EXPECT_EQ(record.ipConfigCurrent, 6u);
    EXPECT_EQ(record.ipAddress, 0xC0A84D65u);
    EXPECT_EQ(record.subnetMask, 0xFFFFFF00u);
    EXPECT_EQ(record.defaultGateway, 0xC0A84DFEu);
    EXPECT_STREQ(record.manufacturerName, "Maker");
    EXPECT_STREQ(record.modelName, "Model");
    EXPECT_STREQ(record.deviceVersion, "1.0");
    EXPECT_STREQ(record.manufacturerInfo, "Simulated");
    EXPECT_STREQ(record.serialNumber, "12345");
    EXPECT_STREQ(record.userDefinedName, "left one");
    EXPECT_EQ(talk.camera.GetStatistics().discovery, 1u);
}

struct DiscoveryRow {
    const char* name;
    std::uint8_t flags;
    Arrival arrival;
    Endpoint asker;
    bool answered;
    bool broadcast;
};

std::ostream& operator<<(std::ostream& out, const DiscoveryRow& row) { return out << row.name; }

class SimulatedCameraDiscoveryAnswer : public ::testing::TestWithParam<DiscoveryRow> {};

TEST_P(SimulatedCameraDiscoveryAnswer, GoesTheWayItMust) {
    const DiscoveryRow& row = GetParam();
    Conversation talk;
    const std::vector<Answer> answers = talk.Send(Gvcp::EncodeDiscoveryCommand(1, row.flags), row.asker, row.arrival);
    ASSERT_THAT(answers, SizeIs(row.answered ? 1 : 0));
    if (row.answered) {
        EXPECT_EQ(answers[0].broadcast, row.broadcast);
    }
}

INSTANTIATE_TEST_SUITE_P(
    Table, SimulatedCameraDiscoveryAnswer,
    ::testing::Values(
        DiscoveryRow{"SameSubnetByBroadcast", AcknowledgeOnly, Arrival::Broadcast, TestHost, true, false},
        DiscoveryRow{"SameSubnetByBroadcastMayBeBroadcast", BroadcastAllowed, Arrival::Broadcast, TestHost, true,
                     false},
        DiscoveryRow{"SameSubnetByUnicast", AcknowledgeOnly, Arrival::Unicast, TestHost, true, false},
        DiscoveryRow{"ForeignByBroadcast", AcknowledgeOnly, Arrival::Broadcast, ForeignHost, false, false},
        DiscoveryRow{"ForeignByBroadcastMayBeBroadcast", BroadcastAllowed, Arrival::Broadcast, ForeignHost, true, true},
        DiscoveryRow{"ForeignByUnicast", AcknowledgeOnly, Arrival::Unicast, ForeignHost, true, false},
        DiscoveryRow{"ForeignByUnicastMayBeBroadcast", BroadcastAllowed, Arrival::Unicast, ForeignHost, true, false},
        DiscoveryRow{"WithoutAcknowledge", 0x00, Arrival::Broadcast, TestHost, false, false}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(SimulatedCameraDiscovery, WaitsARandomTimeWhenBroadcast) {
    SimulatedCameraOptions options = ExampleOptions();
    options.discoveryDelay = 100;
    Conversation talk(options);
    std::set<milliseconds> delays;
    for (int i = 0; i < 200; ++i) {
        const auto answers = talk.Send(Gvcp::EncodeDiscoveryCommand(1, AcknowledgeOnly), TestHost, Arrival::Broadcast);
        ASSERT_THAT(answers, SizeIs(1));
        delays.insert(answers[0].delay);
    }
    EXPECT_LE(*delays.begin(), milliseconds(10));
    EXPECT_GE(*delays.rbegin(), milliseconds(90));
    EXPECT_LE(*delays.rbegin(), milliseconds(100));
    EXPECT_GT(delays.size(), 50u);
    const auto unicast = talk.Send(Gvcp::EncodeDiscoveryCommand(1, AcknowledgeOnly));
    EXPECT_EQ(unicast.at(0).delay, milliseconds(0));
}

// ---- FORCEIP -------------------------------------------------------------------------------------------------------

TEST(SimulatedCameraForceIp, MovesTheCameraAtOnce) {
    Conversation talk;
    const auto answers =
        talk.Send(Gvcp::EncodeForceIpCommand(9, AcknowledgeOnly, ForceTo(0xC0A84D32)), TestHost, Arrival::Broadcast);
    EXPECT_EQ(talk.camera.GetAddress(), 0xC0A84D32u);
    ASSERT_THAT(answers, SizeIs(1));
    const Reply reply = ReadReply(answers[0]);
    EXPECT_EQ(reply.id, Gvcp::MessageId::ForceIpAck);
    EXPECT_EQ(reply.status, Status::Success);
    EXPECT_EQ(reply.ackId, 9);
    EXPECT_FALSE(reply.broadcast);
    EXPECT_THAT(talk.Read({0x0024, 0x0034, 0x0044, 0x064C}).words,
                ::testing::ElementsAre(0xC0A84D32, 0xFFFFFF00, 0xC0A84DFE, 0))
        << "the persistent configuration stays as it was";
}

TEST(SimulatedCameraForceIp, IsAnsweredByBroadcastOnlyToForeignAskersThatAllowIt) {
    Conversation talk;
    const auto ask = [&talk](std::uint8_t flags, const Endpoint& peer) {
        const auto answers =
            talk.Send(Gvcp::EncodeForceIpCommand(9, flags, ForceTo(0xC0A84D32)), peer, Arrival::Broadcast);
        EXPECT_THAT(answers, SizeIs(1));
        return !answers.empty() && answers[0].broadcast;
    };
    EXPECT_FALSE(ask(AcknowledgeOnly, TestHost));
    EXPECT_FALSE(ask(BroadcastAllowed, TestHost));
    EXPECT_FALSE(ask(AcknowledgeOnly, ForeignHost));
    EXPECT_TRUE(ask(BroadcastAllowed, ForeignHost));
}

TEST(SimulatedCameraForceIp, IsCarriedOutWithoutAnswerWhenNoneIsWanted) {
    Conversation talk;
    EXPECT_THAT(talk.Send(Gvcp::EncodeForceIpCommand(9, 0, ForceTo(0xC0A84D32)), TestHost, Arrival::Broadcast),
                IsEmpty());
    EXPECT_EQ(talk.camera.GetAddress(), 0xC0A84D32u);
}

TEST(SimulatedCameraForceIp, IsNotForAnotherMac) {
    for (const auto& [high, low] : std::vector<std::pair<std::uint16_t, std::uint32_t>>{
             {0x02B1, 0x5E0A0B0C}, {0x02B0, 0x5E0A0B0D}, {0, 0}, {0xFFFF, 0xFFFFFFFF}}) {
        Conversation talk;
        Gvcp::ForceIpCommand command = ForceTo(0xC0A84D32);
        command.macHigh = high;
        command.macLow = low;
        EXPECT_THAT(talk.Send(Gvcp::EncodeForceIpCommand(9, AcknowledgeOnly, command), TestHost, Arrival::Broadcast),
                    IsEmpty());
        EXPECT_EQ(talk.camera.GetAddress(), 0xC0A84D65u);
    }
}

TEST(SimulatedCameraForceIp, IsIgnoredWhileAnybodyHoldsControl) {
    for (const std::uint32_t privilege : {Gvcp::Ccp::ControlAccess, Gvcp::Ccp::ExclusiveAccess}) {
        Conversation talk;
        talk.TakeControl(TestHost, privilege);
        const Gvcp::Packet force = Gvcp::EncodeForceIpCommand(9, AcknowledgeOnly, ForceTo(0xC0A84D32));
        EXPECT_THAT(talk.Send(force, OtherHost, Arrival::Broadcast), IsEmpty());
        EXPECT_THAT(talk.Send(force, TestHost, Arrival::Broadcast), IsEmpty()) << "its holder is nothing better";
        EXPECT_EQ(talk.camera.GetAddress(), 0xC0A84D65u);
        talk.now += milliseconds(3000);
        EXPECT_THAT(talk.Send(force, OtherHost, Arrival::Broadcast), SizeIs(1)) << "control has lapsed";
    }
}

TEST(SimulatedCameraForceIp, IsIgnoredForAddressesThatNoHostMayHave) {
    const auto force = [](std::uint32_t address, std::uint32_t mask) {
        Conversation talk;
        Gvcp::ForceIpCommand command = ForceTo(address);
        command.subnetMask = mask;
        const auto answers =
            talk.Send(Gvcp::EncodeForceIpCommand(9, AcknowledgeOnly, command), TestHost, Arrival::Broadcast);
        EXPECT_EQ(talk.camera.GetAddress(), answers.empty() ? 0xC0A84D65u : address);
        return !answers.empty();
    };
    EXPECT_FALSE(force(0xFFFFFFFF, 0xFFFFFF00));
    EXPECT_FALSE(force(0xE0000001, 0xFFFFFF00)) << "multicast";
    EXPECT_FALSE(force(0x00000001, 0xFFFFFF00)) << "this network";
    EXPECT_FALSE(force(0xC0A84D32, 0xFF00FF00)) << "a mask with a hole";
    EXPECT_FALSE(force(0xC0A84D32, 0x00000000));
    EXPECT_FALSE(force(0xC0A84D32, 0x000000FF));
    EXPECT_TRUE(force(0xC0A84D32, 0xFFFFFFFF));
    EXPECT_TRUE(force(0x0A090909, 0xFF000000));
}

TEST(SimulatedCameraForceIp, WithoutAddressRestartsInSilence) {
    SimulatedCameraOptions options = ExampleOptions();
    Conversation talk(options);
    talk.Send(Gvcp::EncodeForceIpCommand(9, AcknowledgeOnly, ForceTo(0xC0A84D32)), TestHost, Arrival::Broadcast);
    EXPECT_THAT(talk.Send(Gvcp::EncodeForceIpCommand(10, AcknowledgeOnly, ForceTo(0)), TestHost, Arrival::Broadcast),
                IsEmpty());
    EXPECT_EQ(talk.camera.GetAddress(), 0xC0A84D65u);
}

TEST(SimulatedCameraPersistentIp, IsUsedFromTheNextRestartOn) {
    Conversation talk;
    talk.TakeControl();
    talk.Ask(talk.MakeWrite({{Register::PersistentIpAddress, 0x0A010203},
                             {Register::PersistentSubnetMask, 0xFFFF0000},
                             {Register::PersistentDefaultGateway, 0x0A010001}}));
    talk.camera.PowerCycle();
    EXPECT_EQ(talk.camera.GetAddress(), 0xC0A84D65u) << "it is not enabled";
    EXPECT_FALSE(talk.camera.GetRegisters().IsControlHeld());

    talk.TakeControl();
    talk.Write(Register::CurrentIpConfiguration, 0x5);
    EXPECT_EQ(talk.camera.GetAddress(), 0xC0A84D65u) << "enabling it changes nothing now";
    talk.TakeControl(TestHost, 0);
    talk.Send(Gvcp::EncodeForceIpCommand(9, AcknowledgeOnly, ForceTo(0)), TestHost, Arrival::Broadcast);
    EXPECT_THAT(talk.Read({0x0024, 0x0034, 0x0044}).words, ::testing::ElementsAre(0x0A010203, 0xFFFF0000, 0x0A010001));
}

TEST(SimulatedCameraPersistentIp, MayBeThereFromTheStart) {
    SimulatedCameraOptions options = ExampleOptions();
    options.persistentIpEnabled = true;
    options.persistentAddress = 0x0A010203;
    options.persistentSubnetMask = 0xFFFF0000;
    EXPECT_EQ(Conversation(options).camera.GetAddress(), 0x0A010203u);
}

TEST(SimulatedCameraPower, LosesWhatIsForcedAndKeepsWhatIsStored) {
    Conversation talk;
    talk.Send(Gvcp::EncodeForceIpCommand(9, AcknowledgeOnly, ForceTo(0xC0A84D32)), TestHost, Arrival::Broadcast);
    talk.TakeControl();
    talk.Write(Register::HeartbeatTimeout, 10000);
    talk.WriteMemory(Register::UserDefinedName, "new name");
    talk.camera.PowerCycle();
    EXPECT_EQ(talk.camera.GetAddress(), 0xC0A84D65u);
    EXPECT_EQ(talk.ReadValue(Register::ControlChannelPrivilege), 0u);
    EXPECT_EQ(talk.ReadValue(Register::HeartbeatTimeout), 3000u);
    EXPECT_EQ(TextOf(talk.ReadMemory(Register::UserDefinedName, 16)), "new name");
}

}  // namespace
}  // namespace Nimbrel2::Platform::Simulated
