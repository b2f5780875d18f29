// SPDX-License-Identifier: Apache-2.0
// The register model in memory: what is where, each access right and each error status, control and its heartbeat.
// One thread; time is what the test says.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "CameraTalk.h"
#include "platform/simulated/GenicamDescription.h"

namespace Nimbrel2::Platform::Simulated {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;
using ::testing::StartsWith;

// ---- Values --------------------------------------------------------------------------------------------------------

struct ValueRow {
    const char* name;
    std::uint32_t address;
    std::uint32_t value;
};

std::ostream& operator<<(std::ostream& out, const ValueRow& row) { return out << row.name; }

class SimulatedCameraRegister : public ::testing::TestWithParam<ValueRow> {};

TEST_P(SimulatedCameraRegister, HasItsValue) {
    Conversation talk;
    EXPECT_EQ(talk.ReadValue(GetParam().address), GetParam().value);
}

INSTANTIATE_TEST_SUITE_P(
    Table, SimulatedCameraRegister,
    ::testing::Values(ValueRow{"Version", 0x0000, 0x00020000}, ValueRow{"DeviceMode", 0x0004, 0x80000001},
                      ValueRow{"MacHigh", 0x0008, 0x000002B0}, ValueRow{"MacLow", 0x000C, 0x5E0A0B0C},
                      ValueRow{"SupportedIpConfiguration", 0x0010, 0x7},
                      ValueRow{"CurrentIpConfiguration", 0x0014, 0x6},
                      ValueRow{"ReservedInTheDiscoveryBlock", 0x0018, 0}, ValueRow{"CurrentIp", 0x0024, 0xC0A84D65},
                      ValueRow{"CurrentMask", 0x0034, 0xFFFFFF00}, ValueRow{"CurrentGateway", 0x0044, 0xC0A84DFE},
                      ValueRow{"FirstLettersOfTheMaker", 0x0048, 0x4D616B65}, ValueRow{"NetworkInterfaces", 0x0600, 1},
                      ValueRow{"PersistentIp", 0x064C, 0}, ValueRow{"LinkSpeed", 0x0670, 1000},
                      ValueRow{"MessageChannels", 0x0900, 0}, ValueRow{"StreamChannels", 0x0904, 1},
                      ValueRow{"ActionSignals", 0x0908, 0}, ValueRow{"Capability", 0x0934, 0xF9800023},
                      ValueRow{"Heartbeat", 0x0938, 3000}, ValueRow{"TickFrequencyHigh", 0x093C, 0},
                      ValueRow{"TickFrequencyLow", 0x0940, 1000000000}, ValueRow{"DiscoveryDelay", 0x0950, 0},
                      ValueRow{"GvcpConfiguration", 0x0954, 0}, ValueRow{"PendingTimeout", 0x0958, 1000},
                      ValueRow{"ControlChannelPrivilege", 0x0A00, 0}, ValueRow{"PrimaryApplicationPort", 0x0A04, 0},
                      ValueRow{"PrimaryApplicationIp", 0x0A14, 0}, ValueRow{"StreamChannelPort", 0x0D00, 0},
                      ValueRow{"Width", 0xA000, 640}, ValueRow{"StartOfTheDescription", 0x10000, 0x3C3F786D}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(SimulatedCameraRegisters, TellTheirTexts) {
    Conversation talk;
    EXPECT_EQ(TextOf(talk.ReadMemory(Register::ManufacturerName, 32)), "Maker");
    EXPECT_EQ(TextOf(talk.ReadMemory(Register::ModelName, 32)), "Model");
    EXPECT_EQ(TextOf(talk.ReadMemory(Register::DeviceVersion, 32)), "1.0");
    EXPECT_EQ(TextOf(talk.ReadMemory(Register::ManufacturerInfo, 48)), "Simulated");
    EXPECT_EQ(TextOf(talk.ReadMemory(Register::SerialNumber, 16)), "12345");
    EXPECT_EQ(TextOf(talk.ReadMemory(Register::UserDefinedName, 16)), "left one");
    EXPECT_EQ(TextOf(talk.ReadMemory(Register::SecondUrl, 512)), "");
}

TEST(SimulatedCameraRegisters, CutTextsAtTheirField) {
    SimulatedCameraOptions options = ExampleOptions();
    options.serialNumber = "0123456789ABCDEFXXX";
    Conversation talk(options);
    EXPECT_EQ(TextOf(talk.ReadMemory(Register::SerialNumber, 16)), "0123456789ABCDEF");
    EXPECT_EQ(TextOf(talk.ReadMemory(Register::UserDefinedName, 16)), "left one");
}

TEST(SimulatedCameraRegisters, HoldTheDescriptionWhereTheUrlSays) {
    Conversation talk;
    const std::string url = TextOf(talk.ReadMemory(Register::FirstUrl, 512));
    unsigned int address = 0;
    unsigned int size = 0;
    ASSERT_EQ(std::sscanf(url.c_str(), "Local:nimbrel2_simulated.xml;%x;%x", &address, &size), 2) << url;
    std::string text;
    for (unsigned int offset = 0; offset < size; offset += 512) {
        const auto count = static_cast<std::uint16_t>(std::min(512u, size - offset));
        text += TextOf(talk.ReadMemory(address + offset, count));
    }
    EXPECT_EQ(text, GetGenicamDescription());
    EXPECT_THAT(text, StartsWith("<?xml"));
    EXPECT_EQ(talk.Read({address + size}).status, Status::InvalidAddress) << "and end there";
}

TEST(SimulatedCameraRegisters, AreReadSeveralAtATime) {
    Conversation talk;
    const Reply reply = talk.Read({0x0024, 0x0A00, 0x0A04, 0x0A14});
    EXPECT_EQ(reply.status, Status::Success);
    EXPECT_EQ(reply.id, Gvcp::MessageId::ReadRegAck);
    EXPECT_THAT(reply.words, ElementsAre(0xC0A84D65, 0, 0, 0));
}

TEST(SimulatedCameraRegisters, AnswerWithTheValuesBeforeTheOneThatFails) {
    Conversation talk;
    const Reply reply = talk.Read({0x0024, 0x0938, 0x0100, 0x0024});
    EXPECT_EQ(reply.status, Status::InvalidAddress);
    EXPECT_THAT(reply.words, ElementsAre(0xC0A84D65, 3000));
}

// ---- What may not be read ------------------------------------------------------------------------------------------

struct ReadRow {
    const char* name;
    std::uint32_t address;
    Status status;
};

std::ostream& operator<<(std::ostream& out, const ReadRow& row) { return out << row.name; }

class SimulatedCameraRefusedRead : public ::testing::TestWithParam<ReadRow> {};

TEST_P(SimulatedCameraRefusedRead, AnswersItsStatus) {
    Conversation talk;
    const Reply reply = talk.Read({GetParam().address});
    EXPECT_EQ(reply.status, GetParam().status);
    EXPECT_EQ(reply.id, Gvcp::MessageId::ReadRegAck);
    EXPECT_THAT(reply.words, IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(Table, SimulatedCameraRefusedRead,
                         ::testing::Values(ReadRow{"BetweenBlocks", 0x00F8, Status::InvalidAddress},
                                           ReadRow{"SecondInterface", 0x0680, Status::InvalidAddress},
                                           ReadRow{"SwitchoverKey", 0x095C, Status::InvalidAddress},
                                           ReadRow{"MessageChannel", 0x0B00, Status::InvalidAddress},
                                           ReadRow{"SecondStreamChannel", 0x0D40, Status::InvalidAddress},
                                           ReadRow{"BehindTheImageRegisters", 0xA100, Status::InvalidAddress},
                                           ReadRow{"LastAddress", 0xFFFFFFFC, Status::InvalidAddress},
                                           ReadRow{"MisalignedByOne", 0x0025, Status::BadAlignment},
                                           ReadRow{"MisalignedByTwo", 0x0A02, Status::BadAlignment},
                                           ReadRow{"MisalignedAndAbsent", 0xFFFFFFFF, Status::BadAlignment}),
                         [](const auto& row) { return std::string(row.param.name); });

struct MemoryRow {
    const char* name;
    std::uint32_t address;
    std::uint16_t count;
    Status status;
};

std::ostream& operator<<(std::ostream& out, const MemoryRow& row) { return out << row.name; }

class SimulatedCameraReadMem : public ::testing::TestWithParam<MemoryRow> {};

TEST_P(SimulatedCameraReadMem, AnswersItsStatus) {
    // Built by hand: the encoder makes no wrong sizes.
    std::vector<std::uint8_t> command{0x42, 0x01, 0x00, 0x84, 0x00, 0x08, 0x00, 0x01, 0, 0, 0, 0, 0, 0, 0, 0};
    Gvcp::StoreU32(&command[8], GetParam().address);
    Gvcp::StoreU16(&command[14], GetParam().count);
    Conversation talk;
    const Reply reply = talk.Ask(command);
    EXPECT_EQ(reply.status, GetParam().status);
    EXPECT_EQ(reply.words.size(), reply.status == Status::Success ? 1u + GetParam().count / 4 : 0u);
}

INSTANTIATE_TEST_SUITE_P(Table, SimulatedCameraReadMem,
                         ::testing::Values(MemoryRow{"OneRegister", 0x0024, 4, Status::Success},
                                           MemoryRow{"WholeDiscoveryBlock", 0x0000, 248, Status::Success},
                                           MemoryRow{"AcrossBothUrls", 0x0300, 512, Status::Success},
                                           MemoryRow{"LargestSize", 0x10000, 536, Status::Success},
                                           MemoryRow{"NoBytes", 0x0048, 0, Status::InvalidParameter},
                                           MemoryRow{"OneWordTooMuch", 0x10000, 540, Status::InvalidParameter},
                                           MemoryRow{"FarTooMuch", 0x10000, 65532, Status::InvalidParameter},
                                           MemoryRow{"CountOf31", 0x0048, 31, Status::BadAlignment},
                                           MemoryRow{"MisalignedAddress", 0x0049, 32, Status::BadAlignment},
                                           MemoryRow{"PastTheDiscoveryBlock", 0x00E8, 20, Status::InvalidAddress},
                                           MemoryRow{"Absent", 0x0100, 4, Status::InvalidAddress},
                                           MemoryRow{"PastTheEndOfTheAddresses", 0xFFFFFFFC, 8,
                                                     Status::InvalidAddress}),
                         [](const auto& row) { return std::string(row.param.name); });

// ---- What may not be written ---------------------------------------------------------------------------------------

struct WriteRow {
    const char* name;
    std::uint32_t address;
    Status whileFree;  ///< nobody holds control
    Status asController;
    Status whileControlled;  ///< by another
};

std::ostream& operator<<(std::ostream& out, const WriteRow& row) { return out << row.name; }

class SimulatedCameraWrite : public ::testing::TestWithParam<WriteRow> {};

TEST_P(SimulatedCameraWrite, IsAllowedToThoseWhoMay) {
    const WriteRow& row = GetParam();
    Conversation free;
    EXPECT_EQ(free.Write(row.address, 0), row.whileFree);
    Conversation controlled;
    ASSERT_EQ(controlled.TakeControl(), Status::Success);
    EXPECT_EQ(controlled.Write(row.address, 0, OtherHost), row.whileControlled);
    EXPECT_EQ(controlled.Write(row.address, 0), row.asController);
}

INSTANTIATE_TEST_SUITE_P(
    Table, SimulatedCameraWrite,
    ::testing::Values(
        WriteRow{"ControlChannelPrivilege", 0x0A00, Status::Success, Status::Success, Status::AccessDenied},
        WriteRow{"Heartbeat", 0x0938, Status::AccessDenied, Status::Success, Status::AccessDenied},
        WriteRow{"DiscoveryDelay", 0x0950, Status::AccessDenied, Status::Success, Status::AccessDenied},
        WriteRow{"GvcpConfiguration", 0x0954, Status::AccessDenied, Status::Success, Status::AccessDenied},
        WriteRow{"IpConfiguration", 0x0014, Status::AccessDenied, Status::Success, Status::AccessDenied},
        WriteRow{"PersistentIp", 0x064C, Status::AccessDenied, Status::Success, Status::AccessDenied},
        WriteRow{"PersistentMask", 0x065C, Status::AccessDenied, Status::Success, Status::AccessDenied},
        WriteRow{"PersistentGateway", 0x066C, Status::AccessDenied, Status::Success, Status::AccessDenied},
        WriteRow{"UserName", 0x00E8, Status::AccessDenied, Status::Success, Status::AccessDenied},
        WriteRow{"StreamChannelPort", 0x0D00, Status::AccessDenied, Status::Success, Status::AccessDenied},
        WriteRow{"Width", 0xA000, Status::AccessDenied, Status::Success, Status::AccessDenied},
        WriteRow{"CurrentIp", 0x0024, Status::WriteProtect, Status::WriteProtect, Status::AccessDenied},
        WriteRow{"Version", 0x0000, Status::WriteProtect, Status::WriteProtect, Status::AccessDenied},
        WriteRow{"Serial", 0x00D8, Status::WriteProtect, Status::WriteProtect, Status::AccessDenied},
        WriteRow{"Capability", 0x0934, Status::WriteProtect, Status::WriteProtect, Status::AccessDenied},
        WriteRow{"PrimaryApplicationPort", 0x0A04, Status::WriteProtect, Status::WriteProtect, Status::AccessDenied},
        WriteRow{"Description", 0x10000, Status::WriteProtect, Status::WriteProtect, Status::AccessDenied},
        WriteRow{"Absent", 0x0100, Status::InvalidAddress, Status::InvalidAddress, Status::AccessDenied},
        WriteRow{"Misaligned", 0x0A02, Status::BadAlignment, Status::BadAlignment, Status::AccessDenied}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(SimulatedCameraWrites, TellHowManyRegistersWereWritten) {
    Conversation talk;
    talk.TakeControl();
    const Reply all = talk.Ask(talk.MakeWrite({{0xA000, 1}, {0xA004, 2}, {0xA008, 3}}));
    EXPECT_EQ(all.status, Status::Success);
    EXPECT_EQ(all.id, Gvcp::MessageId::WriteRegAck);
    EXPECT_THAT(all.words, ElementsAre(3));
    const Reply some = talk.Ask(talk.MakeWrite({{0xA000, 4}, {0xA004, 5}, {0x0024, 6}, {0xA008, 7}}));
    EXPECT_EQ(some.status, Status::WriteProtect);
    EXPECT_THAT(some.words, ElementsAre(2));
    EXPECT_THAT(talk.Read({0xA000, 0xA004, 0xA008}).words, ElementsAre(4, 5, 3));
}

TEST(SimulatedCameraWrites, TellHowManyBytesWereWritten) {
    Conversation talk;
    talk.TakeControl();
    const Reply all = talk.WriteMemory(Register::UserDefinedName, "right one       ");
    EXPECT_EQ(all.status, Status::Success);
    EXPECT_EQ(all.id, Gvcp::MessageId::WriteMemAck);
    EXPECT_THAT(all.words, ElementsAre(16));
    EXPECT_EQ(TextOf(talk.ReadMemory(Register::UserDefinedName, 16)), "right one       ");
    EXPECT_STREQ(talk.camera.GetRegisters().GetDiscoveryRecord().modelName, "Model");

    const Reply some = talk.WriteMemory(0xA0F8, "eightbytes..");
    EXPECT_EQ(some.status, Status::InvalidAddress);
    EXPECT_THAT(some.words, ElementsAre(8));
}

TEST(SimulatedCameraWrites, AreBroughtIntoRange) {
    Conversation talk;
    talk.TakeControl();
    EXPECT_EQ(talk.Write(Register::HeartbeatTimeout, 100), Status::Success);
    EXPECT_EQ(talk.ReadValue(Register::HeartbeatTimeout), 500u);
    EXPECT_EQ(talk.Write(Register::CurrentIpConfiguration, 0xFFFFFFFF), Status::Success);
    EXPECT_EQ(talk.ReadValue(Register::CurrentIpConfiguration), 7u);
    EXPECT_EQ(talk.Write(Register::CurrentIpConfiguration, 0), Status::Success);
    EXPECT_EQ(talk.ReadValue(Register::CurrentIpConfiguration), 4u) << "the link-local address cannot be switched off";
    EXPECT_EQ(talk.Write(Register::DiscoveryAckDelay, 0x12345678), Status::Success);
    EXPECT_EQ(talk.ReadValue(Register::DiscoveryAckDelay), 0x5678u);
    EXPECT_EQ(talk.Write(Register::GvcpConfiguration, 0xFFFFFFFF), Status::Success);
    EXPECT_EQ(talk.ReadValue(Register::GvcpConfiguration), 3u);
}

TEST(SimulatedCameraRegisters, TakeOneAtATimeWithoutConcatenation) {
    SimulatedCameraOptions options = ExampleOptions();
    options.concatenation = false;
    Conversation talk(options);
    EXPECT_EQ(talk.ReadValue(Register::GvcpCapability) & Gvcp::Capability::Concatenation, 0u);
    EXPECT_EQ(talk.Read({0x0024, 0x0034}).status, Status::InvalidParameter);
    talk.TakeControl();
    EXPECT_EQ(talk.Ask(talk.MakeWrite({{0xA000, 1}, {0xA004, 2}})).status, Status::InvalidParameter);
    EXPECT_EQ(talk.ReadValue(0xA000), 640u);
}

// ---- Packets that are none -----------------------------------------------------------------------------------------

struct PacketRow {
    const char* name;
    std::vector<std::uint8_t> bytes;
    std::optional<Status> status;  ///< none: no answer
};

std::ostream& operator<<(std::ostream& out, const PacketRow& row) { return out << row.name; }

class SimulatedCameraMalformed : public ::testing::TestWithParam<PacketRow> {};

TEST_P(SimulatedCameraMalformed, IsRefusedOrIgnored) {
    Conversation talk;
    const std::vector<Answer> answers = talk.Send(Gvcp::Bytes(GetParam().bytes));
    ASSERT_EQ(answers.size(), GetParam().status ? 1u : 0u);
    if (GetParam().status) {
        const Reply reply = ReadReply(answers[0]);
        EXPECT_EQ(reply.status, *GetParam().status);
        EXPECT_EQ(reply.ackId, 7);
        EXPECT_EQ(static_cast<std::uint16_t>(reply.id), Gvcp::LoadU16(&GetParam().bytes[2]) + 1);
    }
    EXPECT_THAT(talk.Send(Gvcp::Bytes(GetParam().bytes), TestHost, Arrival::Broadcast), IsEmpty());
}

INSTANTIATE_TEST_SUITE_P(
    Table, SimulatedCameraMalformed,
    ::testing::Values(
        PacketRow{"Empty", {}, {}}, PacketRow{"HalfAHeader", {0x42, 0x01, 0x00, 0x80}, {}},
        PacketRow{"WrongKey", {0x43, 0x01, 0x00, 0x80, 0x00, 0x04, 0x00, 0x07, 0, 0, 0, 0x24}, {}},
        PacketRow{"RequestIdZero", {0x42, 0x01, 0x00, 0x80, 0x00, 0x04, 0x00, 0x00, 0, 0, 0, 0x24}, {}},
        PacketRow{"AnAcknowledge", {0x00, 0x00, 0x00, 0x81, 0x00, 0x04, 0x00, 0x07, 0, 0, 0, 0x24}, {}},
        PacketRow{"CutOff", {0x42, 0x01, 0x00, 0x80, 0x00, 0x08, 0x00, 0x07, 0, 0, 0, 0x24}, Status::InvalidHeader},
        PacketRow{"TooMuch", {0x42, 0x01, 0x00, 0x80, 0x00, 0x00, 0x00, 0x07, 0, 0, 0, 0x24}, Status::InvalidHeader},
        PacketRow{"NoAddress", {0x42, 0x01, 0x00, 0x80, 0x00, 0x00, 0x00, 0x07}, Status::InvalidParameter},
        PacketRow{"OddSize", {0x42, 0x01, 0x00, 0x80, 0x00, 0x02, 0x00, 0x07, 0, 0}, Status::InvalidParameter},
        PacketRow{
            "HalfAWrite", {0x42, 0x01, 0x00, 0x82, 0x00, 0x04, 0x00, 0x07, 0, 0, 0, 0x24}, Status::InvalidParameter},
        PacketRow{"DiscoveryWithPayload",
                  {0x42, 0x01, 0x00, 0x02, 0x00, 0x04, 0x00, 0x07, 0, 0, 0, 0},
                  Status::InvalidParameter},
        PacketRow{"UnknownCommand", {0x42, 0x01, 0x0F, 0x00, 0x00, 0x00, 0x00, 0x07}, Status::NotImplemented},
        PacketRow{"UnknownCommandThatWantsNoAnswer", {0x42, 0x00, 0x0F, 0x00, 0x00, 0x00, 0x00, 0x07}, {}},
        PacketRow{"ActionCommand",
                  {0x42, 0x01, 0x01, 0x00, 0x00, 0x0C, 0x00, 0x07, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0},
                  Status::NotImplemented}),
    [](const auto& row) { return std::string(row.param.name); });

TEST(SimulatedCameraPackets, AreCarriedOutWithoutAnswerWhenNoneIsWanted) {
    Conversation talk;
    Gvcp::Packet write = talk.MakeWrite({{Register::ControlChannelPrivilege, 2}});
    write.GetMutableData()[1] = 0;
    EXPECT_THAT(talk.Send(write), IsEmpty());
    EXPECT_EQ(talk.ReadValue(Register::ControlChannelPrivilege), 2u);
}

TEST(SimulatedCameraPackets, OfRegistersAreIgnoredWhenBroadcast) {
    Conversation talk;
    EXPECT_THAT(talk.Send(talk.MakeRead({0x0024}), TestHost, Arrival::Broadcast), IsEmpty());
    EXPECT_THAT(talk.Send(talk.MakeWrite({{0x0A00, 2}}), TestHost, Arrival::Broadcast), IsEmpty());
    EXPECT_FALSE(talk.camera.GetRegisters().IsControlHeld());
}

// ---- Control -------------------------------------------------------------------------------------------------------

TEST(SimulatedCameraControl, IsTakenShownAndGivenBack) {
    Conversation talk;
    EXPECT_EQ(talk.TakeControl(), Status::Success);
    EXPECT_THAT(talk.Read({0x0A00, 0x0A04, 0x0A14}, OtherHost).words, ElementsAre(2, 50000, 0xC0A84D01));
    EXPECT_EQ(talk.camera.GetRegisters().GetPrimaryApplication(), TestHost);
    EXPECT_EQ(talk.TakeControl(TestHost, 0), Status::Success);
    EXPECT_THAT(talk.Read({0x0A00, 0x0A04, 0x0A14}, OtherHost).words, ElementsAre(0, 0, 0));
    EXPECT_EQ(talk.TakeControl(OtherHost), Status::Success);
}

TEST(SimulatedCameraControl, IsRefusedToAnother) {
    Conversation talk;
    talk.TakeControl();
    EXPECT_EQ(talk.TakeControl(OtherHost), Status::AccessDenied);
    EXPECT_EQ(talk.TakeControl(OtherHost, 0), Status::AccessDenied) << "nor may it be taken away";
    const Endpoint samePlaceOtherPort{TestHost.address, 50001};
    EXPECT_EQ(talk.TakeControl(samePlaceOtherPort), Status::AccessDenied);
    EXPECT_EQ(talk.TakeControl(), Status::Success) << "its holder may write it again";
    EXPECT_EQ(talk.camera.GetRegisters().GetPrimaryApplication(), TestHost);
}

TEST(SimulatedCameraControl, LeavesReadingToOthersUnlessItIsExclusive) {
    Conversation talk;
    talk.TakeControl();
    EXPECT_EQ(talk.Read({0x0024}, OtherHost).status, Status::Success);
    EXPECT_EQ(talk.ReadMemory(0x0048, 32, OtherHost).status, Status::Success);
    talk.TakeControl(TestHost, Gvcp::Ccp::ExclusiveAccess);
    EXPECT_EQ(talk.ReadValue(Register::ControlChannelPrivilege), 1u);
    EXPECT_EQ(talk.Read({0x0024}, OtherHost).status, Status::AccessDenied);
    EXPECT_EQ(talk.Read({0x0A00}, OtherHost).status, Status::AccessDenied);
    EXPECT_EQ(talk.ReadMemory(0x0048, 32, OtherHost).status, Status::AccessDenied);
    EXPECT_EQ(talk.WriteMemory(0x00E8, "name", OtherHost).status, Status::AccessDenied);
    EXPECT_EQ(talk.Ask(std::vector<std::uint8_t>{0x42, 0x01, 0x0F, 0x00, 0, 0, 0, 7}, OtherHost).status,
              Status::AccessDenied);
    EXPECT_EQ(talk.Send(Gvcp::EncodeDiscoveryCommand(1, 1), OtherHost).size(), 1u) << "discovery is for everybody";
    EXPECT_EQ(talk.Read({0x0024}).status, Status::Success);
}

TEST(SimulatedCameraControl, IsNoOneElsesBusinessToSwitchOver) {
    Conversation talk;
    EXPECT_EQ(talk.TakeControl(TestHost, 0x12340006), Status::Success);
    EXPECT_EQ(talk.ReadValue(Register::ControlChannelPrivilege), 2u) << "this camera has no switchover";
}

TEST(SimulatedCameraControl, LapsesWhenTheHeartbeatRunsOut) {
    Conversation talk;
    talk.TakeControl();
    talk.now += milliseconds(2999);
    EXPECT_EQ(talk.ReadValue(0x0A00, OtherHost), 2u);
    talk.now += milliseconds(1);
    EXPECT_THAT(talk.Read({0x0A00, 0x0A04, 0x0A14}, OtherHost).words, ElementsAre(0, 0, 0));
}

TEST(SimulatedCameraControl, IsKeptByCommandsOfItsHolderOnly) {
    Conversation talk;
    talk.TakeControl();
    for (int i = 0; i < 5; ++i) {
        talk.now += milliseconds(2000);
        EXPECT_EQ(talk.ReadValue(Register::CurrentIpAddress), 0xC0A84D65u) << "any command keeps it";
    }
    for (int i = 0; i < 29; ++i) {
        talk.now += milliseconds(100);
        EXPECT_EQ(talk.ReadValue(0x0A00, OtherHost), 2u) << "others' reads do not";
    }
    talk.now += milliseconds(100);
    EXPECT_EQ(talk.ReadValue(0x0A00, OtherHost), 0u);
}

TEST(SimulatedCameraControl, IsLostEvenWhenTheFirstToAskAfterwardsIsItsHolder) {
    Conversation talk;
    talk.TakeControl();
    talk.now += milliseconds(3000);
    EXPECT_EQ(talk.ReadValue(0x0A00), 0u);
}

TEST(SimulatedCameraControl, FollowsTheHeartbeatRegisters) {
    Conversation talk;
    talk.TakeControl();
    talk.Write(Register::HeartbeatTimeout, 600);
    talk.now += milliseconds(600);
    EXPECT_EQ(talk.ReadValue(0x0A00), 0u);

    talk.TakeControl();
    talk.Write(Register::GvcpConfiguration, Gvcp::GvcpConfiguration::HeartbeatDisable);
    talk.now += std::chrono::hours(1);
    EXPECT_EQ(talk.ReadValue(0x0A00, OtherHost), 2u);
}

TEST(SimulatedCameraControl, ClosesTheStreamChannelWhenItEnds) {
    Conversation talk;
    talk.TakeControl();
    talk.Write(Register::StreamChannelPort, 40000);
    talk.Write(Register::StreamChannelDestination, TestHost.address);
    talk.now += milliseconds(3000);
    EXPECT_THAT(talk.Read({0x0D00, 0x0D18}).words, ElementsAre(0, 0));
}

TEST(SimulatedCameraControl, MayBeHeldElsewhereForGood) {
    SimulatedCameraOptions options = ExampleOptions();
    options.owner = ControlOwner{{0xC0A84D09, 1234}, false};
    Conversation talk(options);
    talk.now += std::chrono::hours(24);
    EXPECT_THAT(talk.Read({0x0A00, 0x0A04, 0x0A14}).words, ElementsAre(2, 1234, 0xC0A84D09));
    EXPECT_EQ(talk.TakeControl(), Status::AccessDenied);
    talk.camera.GetRegisters().HoldControl({{0xC0A84D09, 1234}, true});
    EXPECT_EQ(talk.Read({0x0A00}).status, Status::AccessDenied);
    talk.camera.GetRegisters().ReleaseControl();
    EXPECT_EQ(talk.TakeControl(), Status::Success);
}

TEST(SimulatedCameraControl, DoesNotTellItsHolderWhenTheCameraCannot) {
    SimulatedCameraOptions options = ExampleOptions();
    options.tellsOwner = false;
    Conversation talk(options);
    talk.TakeControl();
    EXPECT_EQ(talk.ReadValue(0x0A00, OtherHost), 2u);
    EXPECT_EQ(talk.Read({0x0A04}, OtherHost).status, Status::InvalidAddress);
    EXPECT_EQ(talk.Read({0x0A14}, OtherHost).status, Status::InvalidAddress);
    EXPECT_EQ(talk.ReadValue(0x0934) & Gvcp::Capability::PrimaryApplicationPortAndIp, 0u);
}

}  // namespace
}  // namespace Nimbrel2::Platform::Simulated
