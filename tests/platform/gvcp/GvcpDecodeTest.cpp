// SPDX-License-Identifier: Apache-2.0
// Decoding: golden packets field by field, tables of packets that are none, every truncation, every size up to the
// largest UDP datagram. One thread, no lock.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <random>

#include "GoldenPackets.h"
#include "platform/gvcp/GvcpCodec.h"

namespace Nimbrel2::Platform::Gvcp {
namespace {

using namespace Testing;

constexpr std::size_t LargestDatagram = 65507;

/// The bytes in a heap block of exactly their size, so that the sanitizers see a read past the end.
class Exact {
public:
    explicit Exact(const ByteVector& bytes, std::size_t size) : m_bytes(new std::uint8_t[size]), m_size(size) {
        if (size != 0) {
            std::memcpy(m_bytes.get(), bytes.data(), size);
        }
    }
    explicit Exact(const ByteVector& bytes) : Exact(bytes, bytes.size()) {}
    operator Bytes() const { return Bytes(m_bytes.get(), m_size); }

private:
    std::unique_ptr<std::uint8_t[]> m_bytes;
    std::size_t m_size;
};

ByteVector Command(std::uint16_t id, std::size_t payloadBytes) {
    ByteVector bytes{0x42, 0x01, 0, 0, 0, 0, 0x00, 0x07};
    StoreU16(&bytes[2], id);
    StoreU16(&bytes[4], static_cast<std::uint16_t>(payloadBytes));
    bytes.resize(HeaderBytes + payloadBytes);
    return bytes;
}

ByteVector Ack(std::uint16_t status, std::uint16_t id, std::size_t payloadBytes) {
    ByteVector bytes{0, 0, 0, 0, 0, 0, 0x00, 0x07};
    StoreU16(&bytes[0], status);
    StoreU16(&bytes[2], id);
    StoreU16(&bytes[4], static_cast<std::uint16_t>(payloadBytes));
    bytes.resize(HeaderBytes + payloadBytes);
    return bytes;
}

ByteVector With(ByteVector bytes, std::size_t offset, std::initializer_list<std::uint8_t> values) {
    std::copy(values.begin(), values.end(), bytes.begin() + static_cast<std::ptrdiff_t>(offset));
    return bytes;
}

// ---- Commands ------------------------------------------------------------------------------------------------------

TEST(GvcpDecodeCommand, ReadsDiscovery) {
    const DecodedCommand decoded = DecodeCommand(Exact(Golden::DiscoveryCmd()));
    EXPECT_EQ(decoded.error, DecodeError::None);
    EXPECT_TRUE(std::holds_alternative<DiscoveryCommand>(decoded.body));
    EXPECT_EQ(decoded.header.id, MessageId::DiscoveryCmd);
    EXPECT_EQ(decoded.header.requestId, 1);
    EXPECT_TRUE(decoded.header.IsAcknowledgeRequired());
    EXPECT_TRUE(decoded.header.MayBroadcastAcknowledge());
}

TEST(GvcpDecodeCommand, ReadsTheFieldsOfForceIp) {
    const DecodedCommand decoded = DecodeCommand(Exact(Golden::ForceIpCmd()));
    ASSERT_EQ(decoded.error, DecodeError::None);
    const auto& command = std::get<ForceIpCommand>(decoded.body);
    EXPECT_EQ(command.macHigh, 0x0200);
    EXPECT_EQ(command.macLow, 0x00000909u);
    EXPECT_EQ(command.ipAddress, 0xC0A84D32u);
    EXPECT_EQ(command.subnetMask, 0xFFFFFF00u);
    EXPECT_EQ(command.gateway, 0xC0A84DFEu);
}

TEST(GvcpDecodeCommand, ReadsSeveralAddressesOfOneReadReg) {
    const Exact packet(Golden::ReadFourRegistersCmd());
    const DecodedCommand decoded = DecodeCommand(packet);
    ASSERT_EQ(decoded.error, DecodeError::None);
    const WordView addresses = std::get<ReadRegCommand>(decoded.body).addresses;
    ASSERT_EQ(addresses.GetCount(), 4u);
    EXPECT_EQ(addresses[0], Register::CurrentIpAddress);
    EXPECT_EQ(addresses[1], Register::ControlChannelPrivilege);
    EXPECT_EQ(addresses[2], Register::PrimaryApplicationPort);
    EXPECT_EQ(addresses[3], Register::PrimaryApplicationIpAddress);
    EXPECT_EQ(decoded.header.requestId, 0x1e);
    EXPECT_FALSE(decoded.header.MayBroadcastAcknowledge());
}

TEST(GvcpDecodeCommand, ReadsWriteReg) {
    const Exact packet(Golden::WriteRegCmd());
    const DecodedCommand decoded = DecodeCommand(packet);
    ASSERT_EQ(decoded.error, DecodeError::None);
    const auto& command = std::get<WriteRegCommand>(decoded.body);
    ASSERT_EQ(command.GetCount(), 1u);
    EXPECT_EQ(command[0].address, Register::ControlChannelPrivilege);
    EXPECT_EQ(command[0].value, Ccp::ControlAccess);
}

TEST(GvcpDecodeCommand, ReadsReadMemAsSent) {
    const DecodedCommand decoded = DecodeCommand(Exact(With(Golden::ReadMemCmd(), 12, {0xff, 0xff, 0x00, 0x1f})));
    ASSERT_EQ(decoded.error, DecodeError::None);
    const auto& command = std::get<ReadMemCommand>(decoded.body);
    EXPECT_EQ(command.address, Register::ManufacturerName);
    EXPECT_EQ(command.count, 31) << "whether 31 bytes may be read is the device's to say";
}

TEST(GvcpDecodeCommand, ReadsWriteMem) {
    const Exact packet(Golden::WriteMemCmd());
    const DecodedCommand decoded = DecodeCommand(packet);
    ASSERT_EQ(decoded.error, DecodeError::None);
    const auto& command = std::get<WriteMemCommand>(decoded.body);
    EXPECT_EQ(command.address, Register::UserDefinedName);
    EXPECT_EQ(ByteVector(command.data.begin(), command.data.end()), Text("left one", 16));
}

struct BadPacket {
    const char* name;
    ByteVector bytes;
    DecodeError error;
};

std::ostream& operator<<(std::ostream& out, const BadPacket& row) { return out << row.name; }

std::string NameOf(const ::testing::TestParamInfo<BadPacket>& info) { return info.param.name; }

class GvcpBadCommand : public ::testing::TestWithParam<BadPacket> {};

TEST_P(GvcpBadCommand, IsNotDecoded) {
    const DecodedCommand decoded = DecodeCommand(Exact(GetParam().bytes));
    EXPECT_EQ(decoded.error, GetParam().error) << Describe(decoded.error);
    EXPECT_TRUE(std::holds_alternative<std::monostate>(decoded.body));
}

INSTANTIATE_TEST_SUITE_P(
    Table, GvcpBadCommand,
    ::testing::Values(
        BadPacket{"Empty", {}, DecodeError::TooShort},
        BadPacket{"SevenBytes", {0x42, 0x01, 0x00, 0x02, 0x00, 0x00, 0x00}, DecodeError::TooShort},
        BadPacket{"WrongKey", With(Golden::DiscoveryCmd(), 0, {0x41}), DecodeError::BadKey},
        BadPacket{"AcknowledgeInsteadOfCommand", Golden::ReadRegAck(), DecodeError::BadKey},
        BadPacket{"RequestIdZero", With(Golden::DiscoveryCmd(), 6, {0, 0}), DecodeError::ZeroRequestId},
        BadPacket{"LengthOneWordMoreThanCame", With(Golden::ReadRegCmd(), 4, {0x00, 0x08}), DecodeError::Truncated},
        BadPacket{"LengthAllOnes", With(Golden::ReadRegCmd(), 4, {0xff, 0xff}), DecodeError::Truncated},
        BadPacket{"LengthOneWordLessThanCame", With(Golden::ReadRegCmd(), 4, {0x00, 0x00}), DecodeError::TrailingBytes},
        BadPacket{"OneByteAfterDiscovery", Join({Golden::DiscoveryCmd(), {0x00}}), DecodeError::TrailingBytes},
        BadPacket{"PayloadOfFiveBytes", Command(0x0080, 5), DecodeError::PayloadNotWords},
        BadPacket{"PayloadOfTwoBytes", Command(0x0080, 2), DecodeError::PayloadNotWords},
        BadPacket{"ReadRegOf136Addresses", Command(0x0080, 544), DecodeError::PayloadTooLong},
        BadPacket{"DiscoveryWithPayload", Command(0x0002, 4), DecodeError::WrongPayloadLength},
        BadPacket{"ForceIpWithoutPayload", Command(0x0004, 0), DecodeError::WrongPayloadLength},
        BadPacket{"ForceIpOneWordShort", Command(0x0004, 52), DecodeError::WrongPayloadLength},
        BadPacket{"ForceIpOneWordLong", Command(0x0004, 60), DecodeError::WrongPayloadLength},
        BadPacket{"ReadRegWithoutAddress", Command(0x0080, 0), DecodeError::WrongPayloadLength},
        BadPacket{"WriteRegWithoutPair", Command(0x0082, 0), DecodeError::WrongPayloadLength},
        BadPacket{"WriteRegWithAddressOnly", Command(0x0082, 4), DecodeError::WrongPayloadLength},
        BadPacket{"WriteRegWithOneAndAHalfPairs", Command(0x0082, 12), DecodeError::WrongPayloadLength},
        BadPacket{"ReadMemWithoutCount", Command(0x0084, 4), DecodeError::WrongPayloadLength},
        BadPacket{"ReadMemOneWordLong", Command(0x0084, 12), DecodeError::WrongPayloadLength},
        BadPacket{"WriteMemWithoutAddress", Command(0x0086, 0), DecodeError::WrongPayloadLength},
        BadPacket{"WriteMemWithoutData", Command(0x0086, 4), DecodeError::WrongPayloadLength},
        BadPacket{"WriteMemOf540Bytes", Command(0x0086, 544), DecodeError::PayloadTooLong},
        BadPacket{"CommandIdZero", Command(0x0000, 0), DecodeError::UnknownMessage},
        BadPacket{"AcknowledgeIdInACommand", Command(0x0081, 4), DecodeError::UnknownMessage},
        BadPacket{"ActionCommand", Command(0x0100, 12), DecodeError::UnknownMessage},
        BadPacket{"UnknownCommand", Command(0xffff, 0), DecodeError::UnknownMessage}),
    NameOf);

TEST(GvcpDecodeCommand, TellsTheHeaderOfAWrongCommand) {
    const DecodedCommand decoded = DecodeCommand(Exact(Command(0x0082, 12)));
    EXPECT_EQ(decoded.header.id, MessageId::WriteRegCmd);
    EXPECT_EQ(decoded.header.requestId, 7);
    EXPECT_EQ(decoded.header.payloadBytes, 12);
    EXPECT_TRUE(decoded.header.IsAcknowledgeRequired());
}

TEST(GvcpDecodeCommand, AcceptsTheLargestOfEach) {
    EXPECT_EQ(DecodeCommand(Exact(Command(0x0080, 540))).error, DecodeError::None);
    EXPECT_EQ(DecodeCommand(Exact(Command(0x0082, 536))).error, DecodeError::None);
    EXPECT_EQ(DecodeCommand(Exact(Command(0x0086, 540))).error, DecodeError::None);
    EXPECT_EQ(DecodeCommand(Exact(Command(0x0086, 8))).error, DecodeError::None);
}

// ---- Acknowledges --------------------------------------------------------------------------------------------------

TEST(GvcpDecodeAcknowledge, ReadsEveryFieldOfDiscovery) {
    const DecodedAcknowledge decoded = DecodeAcknowledge(Exact(Golden::DiscoveryAck()));
    ASSERT_EQ(decoded.error, DecodeError::None);
    EXPECT_EQ(decoded.header.ackId, 1);
    const GvcpDiscoveryRecord& record = std::get<DiscoveryAcknowledge>(decoded.body).record;
    EXPECT_EQ(record.versionMajor, 2);
    EXPECT_EQ(record.versionMinor, 1);
    EXPECT_EQ(record.deviceMode, 0x80000001u);
    EXPECT_EQ(record.macHigh, 0x02B0);
    EXPECT_EQ(record.padding, 0);
    EXPECT_EQ(record.macLow, 0x5E0A0B0Cu);
    EXPECT_EQ(record.ipConfigOptions, 7u);
    EXPECT_EQ(record.ipConfigCurrent, 6u);
    EXPECT_EQ(record.ipAddress, 0xC0A84D65u);
    EXPECT_EQ(record.subnetMask, 0xFFFFFF00u);
    EXPECT_EQ(record.defaultGateway, 0xC0A84DFEu);
    EXPECT_STREQ(record.manufacturerName, "Maker");
    EXPECT_STREQ(record.modelName, "Model");
    EXPECT_STREQ(record.deviceVersion, "1.2.3");
    EXPECT_STREQ(record.manufacturerInfo, "Info");
    EXPECT_STREQ(record.serialNumber, "12345");
    EXPECT_STREQ(record.userDefinedName, "left one");
}

TEST(GvcpDecodeAcknowledge, KeepsATextThatFillsItsField) {
    const ByteVector packet = With(Golden::DiscoveryAck(), HeaderBytes + 216,
                                   {'0', '1', '2', '3', '4', '5', '6', '7', '8', '9', 'A', 'B', 'C', 'D', 'E', 'F'});
    const DecodedAcknowledge decoded = DecodeAcknowledge(Exact(packet));
    ASSERT_EQ(decoded.error, DecodeError::None);
    const GvcpDiscoveryRecord& record = std::get<DiscoveryAcknowledge>(decoded.body).record;
    EXPECT_EQ(std::string(record.serialNumber, 16), "0123456789ABCDEF");
    EXPECT_STREQ(record.userDefinedName, "left one") << "the neighbour is untouched";
}

TEST(GvcpDecodeAcknowledge, IgnoresWhatFollowsTheKnownDiscoveryFields) {
    ByteVector packet = With(Join({Golden::DiscoveryAck(), {0xde, 0xad, 0xbe, 0xef}}), 4, {0x00, 0xfc});
    const DecodedAcknowledge decoded = DecodeAcknowledge(Exact(packet));
    ASSERT_EQ(decoded.error, DecodeError::None);
    EXPECT_STREQ(std::get<DiscoveryAcknowledge>(decoded.body).record.userDefinedName, "left one");
}

TEST(GvcpDecodeAcknowledge, ReadsRegisters) {
    const Exact packet(Golden::ReadRegAck());
    const DecodedAcknowledge decoded = DecodeAcknowledge(packet);
    ASSERT_EQ(decoded.error, DecodeError::None);
    const WordView values = std::get<ReadRegAcknowledge>(decoded.body).values;
    ASSERT_EQ(values.GetCount(), 1u);
    EXPECT_EQ(values[0], 0xC0A84D65u);
    EXPECT_EQ(decoded.header.ackId, 0x0a);
    EXPECT_EQ(decoded.header.status, Status::Success);
}

TEST(GvcpDecodeAcknowledge, ReadsMemory) {
    const Exact packet(Golden::ReadMemAck());
    const DecodedAcknowledge decoded = DecodeAcknowledge(packet);
    ASSERT_EQ(decoded.error, DecodeError::None);
    const auto& body = std::get<ReadMemAcknowledge>(decoded.body);
    EXPECT_EQ(body.address, 0x48u);
    EXPECT_EQ(ByteVector(body.data.begin(), body.data.end()), Text("Aravis", 32));
}

TEST(GvcpDecodeAcknowledge, ReadsIndexesAndTimes) {
    const DecodedAcknowledge written = DecodeAcknowledge(Exact(Golden::WriteRegAck()));
    ASSERT_EQ(written.error, DecodeError::None);
    EXPECT_EQ(std::get<WriteRegAcknowledge>(written.body).index, 1);
    const DecodedAcknowledge memory = DecodeAcknowledge(Exact(Golden::WriteMemAck()));
    ASSERT_EQ(memory.error, DecodeError::None);
    EXPECT_EQ(std::get<WriteMemAcknowledge>(memory.body).index, 16);
    const DecodedAcknowledge pending = DecodeAcknowledge(Exact(Golden::PendingAck()));
    ASSERT_EQ(pending.error, DecodeError::None);
    EXPECT_EQ(std::get<PendingAcknowledge>(pending.body).timeToCompletion, 500);
    const DecodedAcknowledge forced = DecodeAcknowledge(Exact(Golden::ForceIpAck()));
    ASSERT_EQ(forced.error, DecodeError::None);
    EXPECT_TRUE(std::holds_alternative<ForceIpAcknowledge>(forced.body));
}

TEST(GvcpDecodeAcknowledge, ReadsErrorsWithAndWithoutPayload) {
    const DecodedAcknowledge absent = DecodeAcknowledge(Exact(Golden::AbsentRegisterAck()));
    ASSERT_EQ(absent.error, DecodeError::None);
    EXPECT_EQ(absent.header.status, Status::InvalidAddress);
    EXPECT_EQ(std::get<ErrorAcknowledge>(absent.body).words.GetCount(), 0u);

    const DecodedAcknowledge misaligned = DecodeAcknowledge(Exact(Golden::MisalignedReadMemAck()));
    ASSERT_EQ(misaligned.error, DecodeError::None);
    EXPECT_EQ(misaligned.header.status, Status::BadAlignment);
    EXPECT_EQ(misaligned.header.id, MessageId::ReadMemAck);

    const Exact partial(With(Ack(0x8003, 0x0081, 8), 8, {0, 0, 0, 1, 0, 0, 0, 2}));
    const DecodedAcknowledge decoded = DecodeAcknowledge(partial);
    ASSERT_EQ(decoded.error, DecodeError::None);
    const WordView words = std::get<ErrorAcknowledge>(decoded.body).words;
    ASSERT_EQ(words.GetCount(), 2u);
    EXPECT_EQ(words[1], 2u);
}

class GvcpBadAcknowledge : public ::testing::TestWithParam<BadPacket> {};

TEST_P(GvcpBadAcknowledge, IsNotDecoded) {
    const DecodedAcknowledge decoded = DecodeAcknowledge(Exact(GetParam().bytes));
    EXPECT_EQ(decoded.error, GetParam().error) << Describe(decoded.error);
    EXPECT_TRUE(std::holds_alternative<std::monostate>(decoded.body));
}

INSTANTIATE_TEST_SUITE_P(
    Table, GvcpBadAcknowledge,
    ::testing::Values(
        BadPacket{"Empty", {}, DecodeError::TooShort},
        BadPacket{"SevenBytes", {0x00, 0x00, 0x00, 0x05, 0x00, 0x00, 0x00}, DecodeError::TooShort},
        BadPacket{"CommandInsteadOfAcknowledge", Golden::ReadRegCmd(), DecodeError::NotAnAcknowledge},
        BadPacket{"AckIdZero", With(Golden::ReadRegAck(), 6, {0, 0}), DecodeError::ZeroRequestId},
        BadPacket{"LengthOneWordMoreThanCame", With(Golden::ReadRegAck(), 4, {0x00, 0x08}), DecodeError::Truncated},
        BadPacket{"LengthOneWordLessThanCame", With(Golden::ReadRegAck(), 4, {0x00, 0x00}), DecodeError::TrailingBytes},
        BadPacket{"OneByteAfterForceIp", Join({Golden::ForceIpAck(), {0x00}}), DecodeError::TrailingBytes},
        BadPacket{"PayloadOfFiveBytes", Ack(0, 0x0081, 5), DecodeError::PayloadNotWords},
        BadPacket{"ReadRegOf136Values", Ack(0, 0x0081, 544), DecodeError::PayloadTooLong},
        BadPacket{"DiscoveryOneWordShort", Ack(0, 0x0003, 244), DecodeError::WrongPayloadLength},
        BadPacket{"DiscoveryWithoutPayload", Ack(0, 0x0003, 0), DecodeError::WrongPayloadLength},
        BadPacket{"ForceIpWithPayload", Ack(0, 0x0005, 4), DecodeError::WrongPayloadLength},
        BadPacket{"ReadRegWithoutValue", Ack(0, 0x0081, 0), DecodeError::WrongPayloadLength},
        BadPacket{"WriteRegWithoutIndex", Ack(0, 0x0083, 0), DecodeError::WrongPayloadLength},
        BadPacket{"WriteRegOneWordLong", Ack(0, 0x0083, 8), DecodeError::WrongPayloadLength},
        BadPacket{"ReadMemWithoutAddress", Ack(0, 0x0085, 0), DecodeError::WrongPayloadLength},
        BadPacket{"ReadMemWithoutData", Ack(0, 0x0085, 4), DecodeError::WrongPayloadLength},
        BadPacket{"ReadMemOf540Bytes", Ack(0, 0x0085, 544), DecodeError::PayloadTooLong},
        BadPacket{"WriteMemWithoutIndex", Ack(0, 0x0087, 0), DecodeError::WrongPayloadLength},
        BadPacket{"PendingWithoutTime", Ack(0, 0x0089, 0), DecodeError::WrongPayloadLength},
        BadPacket{"PendingOneWordLong", Ack(0, 0x0089, 8), DecodeError::WrongPayloadLength},
        BadPacket{"CommandIdInAnAcknowledge", Ack(0, 0x0080, 4), DecodeError::UnknownMessage},
        BadPacket{"EventAcknowledge", Ack(0, 0x00c1, 0), DecodeError::UnknownMessage},
        BadPacket{"UnknownAcknowledge", Ack(0, 0xffff, 0), DecodeError::UnknownMessage},
        BadPacket{"ErrorOfAnUnknownAcknowledge", Ack(0x8001, 0xffff, 0), DecodeError::UnknownMessage},
        BadPacket{"ErrorPayloadCutOff", With(Ack(0x8003, 0x0081, 4), 4, {0, 8}), DecodeError::Truncated}),
    NameOf);

// ---- Both: any cut, any size, any bytes ----------------------------------------------------------------------------

std::vector<ByteVector> AllCommands() {
    return {Golden::DiscoveryCmd(), Golden::ReadRegCmd(),  Golden::ReadFourRegistersCmd(),
            Golden::ReadMemCmd(),   Golden::WriteRegCmd(), Golden::WriteMemCmd(),
            Golden::ForceIpCmd()};
}

std::vector<ByteVector> AllAcknowledges() {
    return {Golden::DiscoveryAck(), Golden::ReadRegAck(),        Golden::ReadMemAck(),
            Golden::WriteRegAck(),  Golden::WriteMemAck(),       Golden::ForceIpAck(),
            Golden::PendingAck(),   Golden::AbsentRegisterAck(), Golden::MisalignedReadMemAck()};
}

TEST(GvcpDecode, RefusesEveryPacketCutAtEveryByte) {
    for (const ByteVector& packet : AllCommands()) {
        for (std::size_t size = 0; size < packet.size(); ++size) {
            const DecodeError expected = size < HeaderBytes ? DecodeError::TooShort : DecodeError::Truncated;
            EXPECT_EQ(DecodeCommand(Exact(packet, size)).error, expected) << "cut at " << size;
        }
        EXPECT_EQ(DecodeCommand(Exact(packet)).error, DecodeError::None);
    }
    for (const ByteVector& packet : AllAcknowledges()) {
        for (std::size_t size = 0; size < packet.size(); ++size) {
            const DecodeError expected = size < HeaderBytes ? DecodeError::TooShort : DecodeError::Truncated;
            EXPECT_EQ(DecodeAcknowledge(Exact(packet, size)).error, expected) << "cut at " << size;
        }
        EXPECT_EQ(DecodeAcknowledge(Exact(packet)).error, DecodeError::None);
    }
}

TEST(GvcpDecode, RefusesDatagramsAboveTheLargestPacketWhateverTheySay) {
    for (const std::size_t size : {MaxPacketBytes + 1, std::size_t{1500}, std::size_t{9000}, LargestDatagram}) {
        ByteVector command = Golden::ReadRegCmd();
        command.resize(size);
        EXPECT_EQ(DecodeCommand(Exact(command)).error, DecodeError::TrailingBytes);
        StoreU16(&command[4], static_cast<std::uint16_t>(size - HeaderBytes));
        EXPECT_EQ(DecodeCommand(Exact(command)).error, DecodeError::PayloadTooLong);

        ByteVector acknowledge = Golden::DiscoveryAck();
        acknowledge.resize(size);
        EXPECT_EQ(DecodeAcknowledge(Exact(acknowledge)).error, DecodeError::TrailingBytes);
        StoreU16(&acknowledge[4], static_cast<std::uint16_t>(size - HeaderBytes));
        EXPECT_EQ(DecodeAcknowledge(Exact(acknowledge)).error, DecodeError::PayloadTooLong);
    }
}

TEST(GvcpDecode, SurvivesRandomChangesOfGoodPackets) {
    std::mt19937 random(20240607);
    std::vector<ByteVector> packets = AllCommands();
    for (ByteVector& packet : AllAcknowledges()) {
        packets.push_back(std::move(packet));
    }
    for (int round = 0; round < 20000; ++round) {
        ByteVector packet = packets[random() % packets.size()];
        for (unsigned change = random() % 4; change != 0; --change) {
            packet[random() % packet.size()] = static_cast<std::uint8_t>(random());
        }
        packet.resize(random() % 4 == 0 ? random() % (packet.size() + 8) : packet.size());
        const Exact exact(packet);
        const DecodedCommand command = DecodeCommand(exact);
        const DecodedAcknowledge acknowledge = DecodeAcknowledge(exact);
        EXPECT_EQ(command.error == DecodeError::None, !std::holds_alternative<std::monostate>(command.body));
        EXPECT_EQ(acknowledge.error == DecodeError::None, !std::holds_alternative<std::monostate>(acknowledge.body));
        EXPECT_FALSE(command.error == DecodeError::None && acknowledge.error == DecodeError::None);
    }
}

TEST(GvcpDecode, NamesEveryReason) {
    std::vector<std::string> names;
    for (int error = 0; error <= static_cast<int>(DecodeError::WrongPayloadLength); ++error) {
        names.emplace_back(Describe(static_cast<DecodeError>(error)));
    }
    EXPECT_THAT(names, ::testing::Each(::testing::Not(::testing::StrEq("unknown error"))));
    std::sort(names.begin(), names.end());
    EXPECT_EQ(std::adjacent_find(names.begin(), names.end()), names.end());
}

}  // namespace
}  // namespace Nimbrel2::Platform::Gvcp
