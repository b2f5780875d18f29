// SPDX-License-Identifier: Apache-2.0
// Encoding: golden packets byte by byte, what the protocol cannot say, and every encoder read back by the decoder.
// One thread, no lock.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <numeric>

#include "GoldenPackets.h"
#include "platform/gvcp/GvcpCodec.h"

namespace Nimbrel2::Platform::Gvcp {
namespace {

using namespace Testing;

ByteVector ToVector(const Packet& packet) { return ByteVector(packet.GetBytes().begin(), packet.GetBytes().end()); }

GvcpDiscoveryRecord ExampleRecord() {
    GvcpDiscoveryRecord record{};
    record.versionMajor = 2;
    record.versionMinor = 1;
    record.deviceMode = 0x80000001;
    record.macHigh = 0x02B0;
    record.macLow = 0x5E0A0B0C;
    record.ipConfigOptions = 7;
    record.ipConfigCurrent = 6;
    record.ipAddress = 0xC0A84D65;
    record.subnetMask = 0xFFFFFF00;
    record.defaultGateway = 0xC0A84DFE;
    std::string("Maker").copy(record.manufacturerName, 32);
    std::string("Model").copy(record.modelName, 32);
    std::string("1.2.3").copy(record.deviceVersion, 32);
    std::string("Info").copy(record.manufacturerInfo, 48);
    std::string("12345").copy(record.serialNumber, 16);
    std::string("left one").copy(record.userDefinedName, 16);
    return record;
}

TEST(GvcpEncode, MakesTheGoldenCommands) {
    const std::uint32_t one[] = {Register::CurrentIpAddress};
    const std::uint32_t four[] = {Register::CurrentIpAddress, Register::ControlChannelPrivilege,
                                  Register::PrimaryApplicationPort, Register::PrimaryApplicationIpAddress};
    const RegisterWrite control[] = {{Register::ControlChannelPrivilege, Ccp::ControlAccess}};
    const ForceIpCommand force{0x0200, 0x00000909, 0xC0A84D32, 0xFFFFFF00, 0xC0A84DFE};
    EXPECT_EQ(ToVector(EncodeDiscoveryCommand(1, 0x11)), Golden::DiscoveryCmd());
    EXPECT_EQ(ToVector(EncodeReadRegCommand(0x0a, one)), Golden::ReadRegCmd());
    EXPECT_EQ(ToVector(EncodeReadRegCommand(0x1e, four)), Golden::ReadFourRegistersCmd());
    EXPECT_EQ(ToVector(EncodeReadMemCommand(0x21, 0x48, 32)), Golden::ReadMemCmd());
    EXPECT_EQ(ToVector(EncodeWriteRegCommand(0x2f, control)), Golden::WriteRegCmd());
    EXPECT_EQ(ToVector(EncodeWriteMemCommand(0x33, 0xe8, Text("left one", 16))), Golden::WriteMemCmd());
    EXPECT_EQ(ToVector(EncodeForceIpCommand(1, 0x11, force)), Golden::ForceIpCmd());
}

TEST(GvcpEncode, MakesTheGoldenAcknowledges) {
    const std::uint32_t value[] = {0xC0A84D65};
    EXPECT_EQ(ToVector(EncodeDiscoveryAck(1, ExampleRecord())), Golden::DiscoveryAck());
    EXPECT_EQ(ToVector(EncodeForceIpAck(1)), Golden::ForceIpAck());
    EXPECT_EQ(ToVector(EncodeReadRegAck(0x0a, value)), Golden::ReadRegAck());
    EXPECT_EQ(ToVector(EncodeReadMemAck(0x21, 0x48, Text("Aravis", 32))), Golden::ReadMemAck());
    EXPECT_EQ(ToVector(EncodeWriteRegAck(0x2f, 1)), Golden::WriteRegAck());
    EXPECT_EQ(ToVector(EncodeWriteMemAck(0x33, 16)), Golden::WriteMemAck());
    EXPECT_EQ(ToVector(EncodePendingAck(0x0a, 500)), Golden::PendingAck());
    EXPECT_EQ(ToVector(EncodeErrorAck(MessageId::ReadRegAck, 1, Status::InvalidAddress)), Golden::AbsentRegisterAck());
    EXPECT_EQ(ToVector(EncodeErrorAck(MessageId::ReadMemAck, 1, Status::BadAlignment)), Golden::MisalignedReadMemAck());
}

TEST(GvcpEncode, MakesNothingForRequestIdZero) {
    const std::uint32_t address[] = {0};
    const RegisterWrite write[] = {{0, 0}};
    EXPECT_TRUE(EncodeDiscoveryCommand(0, 1).IsEmpty());
    EXPECT_TRUE(EncodeForceIpCommand(0, 1, {}).IsEmpty());
    EXPECT_TRUE(EncodeReadRegCommand(0, address).IsEmpty());
    EXPECT_TRUE(EncodeWriteRegCommand(0, write).IsEmpty());
    EXPECT_TRUE(EncodeReadMemCommand(0, 0, 4).IsEmpty());
    EXPECT_TRUE(EncodeWriteMemCommand(0, 0, Zeros(4)).IsEmpty());
    EXPECT_TRUE(EncodeDiscoveryAck(0, {}).IsEmpty());
    EXPECT_TRUE(EncodeForceIpAck(0).IsEmpty());
    EXPECT_TRUE(EncodeReadRegAck(0, address).IsEmpty());
    EXPECT_TRUE(EncodeWriteRegAck(0, 1).IsEmpty());
    EXPECT_TRUE(EncodeReadMemAck(0, 0, Zeros(4)).IsEmpty());
    EXPECT_TRUE(EncodeWriteMemAck(0, 4).IsEmpty());
    EXPECT_TRUE(EncodePendingAck(0, 1).IsEmpty());
    EXPECT_TRUE(EncodeErrorAck(MessageId::ReadRegAck, 0, Status::Busy).IsEmpty());
}

TEST(GvcpEncode, MakesNothingForNoItemsOrTooMany) {
    const std::vector<std::uint32_t> words(MaxReadRegAddresses + 1);
    const std::vector<RegisterWrite> writes(MaxWriteRegPairs + 1);
    const std::span allWords(words);
    const std::span allWrites(writes);
    EXPECT_TRUE(EncodeReadRegCommand(1, {}).IsEmpty());
    EXPECT_TRUE(EncodeReadRegCommand(1, allWords).IsEmpty());
    EXPECT_EQ(EncodeReadRegCommand(1, allWords.first(135)).GetSize(), MaxPacketBytes);
    EXPECT_TRUE(EncodeReadRegAck(1, {}).IsEmpty());
    EXPECT_TRUE(EncodeReadRegAck(1, allWords).IsEmpty());
    EXPECT_TRUE(EncodeErrorAck(MessageId::ReadRegAck, 1, Status::Error, allWords).IsEmpty());
    EXPECT_TRUE(EncodeWriteRegCommand(1, {}).IsEmpty());
    EXPECT_TRUE(EncodeWriteRegCommand(1, allWrites).IsEmpty());
    EXPECT_EQ(EncodeWriteRegCommand(1, allWrites.first(67)).GetSize(), HeaderBytes + 536);
}

TEST(GvcpEncode, MakesNothingForMemorySizesThatAreNone) {
    for (const std::uint16_t size :
         std::initializer_list<std::uint16_t>{0, 1, 2, 3, 5, 31, 538, 540, 544, 65532, 65535}) {
        EXPECT_TRUE(EncodeReadMemCommand(1, 0, size).IsEmpty()) << size;
        EXPECT_TRUE(EncodeWriteMemCommand(1, 0, Zeros(size)).IsEmpty()) << size;
        EXPECT_TRUE(EncodeReadMemAck(1, 0, Zeros(size)).IsEmpty()) << size;
    }
    for (const std::uint16_t size : std::initializer_list<std::uint16_t>{4, 32, 536}) {
        EXPECT_EQ(EncodeReadMemCommand(1, 0, size).GetSize(), HeaderBytes + 8) << size;
        EXPECT_EQ(EncodeWriteMemCommand(1, 0, Zeros(size)).GetSize(), HeaderBytes + 4 + size) << size;
        EXPECT_EQ(EncodeReadMemAck(1, 0, Zeros(size)).GetSize(), HeaderBytes + 4 + size) << size;
    }
}

TEST(GvcpEncode, IsReadBackByTheDecoder) {
    std::vector<std::uint32_t> words(MaxReadRegAddresses);
    std::iota(words.begin(), words.end(), 0xFFFFFF00u);
    const Packet read = EncodeReadRegCommand(0xFFFF, words);
    const DecodedCommand decodedRead = DecodeCommand(read.GetBytes());
    ASSERT_EQ(decodedRead.error, DecodeError::None);
    const WordView addresses = std::get<ReadRegCommand>(decodedRead.body).addresses;
    ASSERT_EQ(addresses.GetCount(), words.size());
    for (std::size_t i = 0; i < words.size(); ++i) {
        EXPECT_EQ(addresses[i], words[i]);
    }

    std::vector<RegisterWrite> writes;
    for (std::uint32_t i = 0; i < MaxWriteRegPairs; ++i) {
        writes.push_back({4 * i, ~i});
    }
    const Packet write = EncodeWriteRegCommand(1, writes);
    const DecodedCommand decodedWrite = DecodeCommand(write.GetBytes());
    ASSERT_EQ(decodedWrite.error, DecodeError::None);
    const auto& pairs = std::get<WriteRegCommand>(decodedWrite.body);
    ASSERT_EQ(pairs.GetCount(), writes.size());
    for (std::size_t i = 0; i < writes.size(); ++i) {
        EXPECT_EQ(pairs[i].address, writes[i].address);
        EXPECT_EQ(pairs[i].value, writes[i].value);
    }

    const Packet error = EncodeErrorAck(MessageId::ReadRegAck, 9, Status::AccessDenied, std::span(words).first(3));
    const DecodedAcknowledge decodedError = DecodeAcknowledge(error.GetBytes());
    ASSERT_EQ(decodedError.error, DecodeError::None);
    EXPECT_EQ(decodedError.header.status, Status::AccessDenied);
    EXPECT_EQ(std::get<ErrorAcknowledge>(decodedError.body).words.GetCount(), 3u);
}

TEST(GvcpDiscoveryPayload, SurvivesTheWayThereAndBack) {
    std::array<std::uint8_t, DiscoveryPayloadBytes> payload{};
    for (std::size_t i = 0; i < payload.size(); ++i) {
        payload[i] = static_cast<std::uint8_t>(i + 1);
    }
    auto expected = payload;
    const auto clear = [&expected](std::size_t from, std::size_t count) {
        std::fill_n(expected.begin() + static_cast<std::ptrdiff_t>(from), count, std::uint8_t{0});
    };
    clear(8, 2);    // reserved
    clear(24, 12);  // reserved
    clear(40, 12);  // reserved
    clear(56, 12);  // reserved
    EXPECT_EQ(EncodeDiscoveryPayload(DecodeDiscoveryPayload(payload)), expected);
}

TEST(GvcpRequestId, NeverBecomesZero) {
    EXPECT_EQ(NextRequestId(0), 1);
    EXPECT_EQ(NextRequestId(1), 2);
    EXPECT_EQ(NextRequestId(0xFFFE), 0xFFFF);
    EXPECT_EQ(NextRequestId(0xFFFF), 1);
}

TEST(GvcpMessageId, AcknowledgeFollowsItsCommand) {
    EXPECT_EQ(AcknowledgeIdOf(MessageId::DiscoveryCmd), MessageId::DiscoveryAck);
    EXPECT_EQ(AcknowledgeIdOf(MessageId::ForceIpCmd), MessageId::ForceIpAck);
    EXPECT_EQ(AcknowledgeIdOf(MessageId::WriteMemCmd), MessageId::WriteMemAck);
    EXPECT_EQ(static_cast<int>(AcknowledgeIdOf(static_cast<MessageId>(0xFFFF))), 0);
}

}  // namespace
}  // namespace Nimbrel2::Platform::Gvcp
