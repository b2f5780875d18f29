// SPDX-License-Identifier: Apache-2.0
// GVCP packets to bytes.
// Pure functions: any thread, no lock.
#include <algorithm>

#include "platform/gvcp/GvcpCodec.h"

namespace Nimbrel2::Platform::Gvcp {
namespace {

Packet MakeCommand(MessageId id, std::uint8_t flags, std::uint16_t requestId, std::size_t payloadBytes) {
    if (requestId == 0) {
        return Packet();
    }
    Packet packet(payloadBytes);
    if (packet.IsEmpty()) {
        return packet;
    }
    std::uint8_t* bytes = packet.GetMutableData();
    bytes[0] = CommandKey;
    bytes[1] = flags;
    StoreU16(bytes + 2, static_cast<std::uint16_t>(id));
    StoreU16(bytes + 4, static_cast<std::uint16_t>(payloadBytes));
    StoreU16(bytes + 6, requestId);
    return packet;
}

Packet MakeAcknowledge(MessageId id, Status status, std::uint16_t ackId, std::size_t payloadBytes) {
    if (ackId == 0) {
        return Packet();
    }
    Packet packet(payloadBytes);
    if (packet.IsEmpty()) {
        return packet;
    }
    std::uint8_t* bytes = packet.GetMutableData();
    StoreU16(bytes, static_cast<std::uint16_t>(status));
    StoreU16(bytes + 2, static_cast<std::uint16_t>(id));
    StoreU16(bytes + 4, static_cast<std::uint16_t>(payloadBytes));
    StoreU16(bytes + 6, ackId);
    return packet;
}

std::uint8_t* PayloadOf(Packet* packet) { return packet->GetMutableData() + HeaderBytes; }

void StoreWords(std::span<const std::uint32_t> words, std::uint8_t* bytes) {
    for (const std::uint32_t word : words) {
        StoreU32(bytes, word);
        bytes += 4;
    }
}

Packet WithHalfWord(Packet packet, std::uint16_t value) {
    if (!packet.IsEmpty()) {
        StoreU16(PayloadOf(&packet) + 2, value);
    }
    return packet;
}

bool IsMemorySize(std::size_t bytes) { return bytes != 0 && bytes % 4 == 0 && bytes <= MaxMemoryBytes; }

Packet WithMemory(Packet packet, std::uint32_t address, Bytes data) {
    if (packet.IsEmpty()) {
        return packet;
    }
    StoreU32(PayloadOf(&packet), address);
    std::copy(data.begin(), data.end(), PayloadOf(&packet) + 4);
    return packet;
}

}  // namespace

Packet EncodeDiscoveryCommand(std::uint16_t requestId, std::uint8_t flags) {
    return MakeCommand(MessageId::DiscoveryCmd, flags, requestId, 0);
}

Packet EncodeForceIpCommand(std::uint16_t requestId, std::uint8_t flags, const ForceIpCommand& command) {
    Packet packet = MakeCommand(MessageId::ForceIpCmd, flags, requestId, ForceIpPayloadBytes);
    if (packet.IsEmpty()) {
        return packet;
    }
    std::uint8_t* payload = PayloadOf(&packet);
    StoreU16(payload + 2, command.macHigh);
    StoreU32(payload + 4, command.macLow);
    StoreU32(payload + 20, command.ipAddress);
    StoreU32(payload + 36, command.subnetMask);
    StoreU32(payload + 52, command.gateway);
    return packet;
}

Packet EncodeReadRegCommand(std::uint16_t requestId, std::span<const std::uint32_t> addresses) {
    if (addresses.empty()) {
        return Packet();
    }
    Packet packet = MakeCommand(MessageId::ReadRegCmd, Flag::AcknowledgeRequired, requestId, addresses.size_bytes());
    if (!packet.IsEmpty()) {
        StoreWords(addresses, PayloadOf(&packet));
    }
    return packet;
}

Packet EncodeWriteRegCommand(std::uint16_t requestId, std::span<const RegisterWrite> writes) {
    if (writes.empty()) {
        return Packet();
    }
    Packet packet = MakeCommand(MessageId::WriteRegCmd, Flag::AcknowledgeRequired, requestId, 8 * writes.size());
    if (packet.IsEmpty()) {
        return packet;
    }
    std::uint8_t* payload = PayloadOf(&packet);
    for (const RegisterWrite& write : writes) {
        StoreU32(payload, write.address);
        StoreU32(payload + 4, write.value);
        payload += 8;
    }
    return packet;
}

Packet EncodeReadMemCommand(std::uint16_t requestId, std::uint32_t address, std::uint16_t count) {
    if (!IsMemorySize(count)) {
        return Packet();
    }
    Packet packet = MakeCommand(MessageId::ReadMemCmd, Flag::AcknowledgeRequired, requestId, 8);
    if (packet.IsEmpty()) {
        return packet;
    }
    StoreU32(PayloadOf(&packet), address);
    StoreU16(PayloadOf(&packet) + 6, count);
    return packet;
}

Packet EncodeWriteMemCommand(std::uint16_t requestId, std::uint32_t address, Bytes data) {
    if (!IsMemorySize(data.size())) {
        return Packet();
    }
    return WithMemory(MakeCommand(MessageId::WriteMemCmd, Flag::AcknowledgeRequired, requestId, 4 + data.size()),
                      address, data);
}

Packet EncodeDiscoveryAck(std::uint16_t ackId, const GvcpDiscoveryRecord& record) {
    Packet packet = MakeAcknowledge(MessageId::DiscoveryAck, Status::Success, ackId, DiscoveryPayloadBytes);
    if (packet.IsEmpty()) {
        return packet;
    }
    const auto payload = EncodeDiscoveryPayload(record);
    std::copy(payload.begin(), payload.end(), PayloadOf(&packet));
    return packet;
}

Packet EncodeForceIpAck(std::uint16_t ackId) {
    return MakeAcknowledge(MessageId::ForceIpAck, Status::Success, ackId, 0);
}

Packet EncodeReadRegAck(std::uint16_t ackId, std::span<const std::uint32_t> values) {
    if (values.empty()) {
        return Packet();
    }
    Packet packet = MakeAcknowledge(MessageId::ReadRegAck, Status::Success, ackId, values.size_bytes());
    if (!packet.IsEmpty()) {
        StoreWords(values, PayloadOf(&packet));
    }
    return packet;
}

Packet EncodeWriteRegAck(std::uint16_t ackId, std::uint16_t index) {
    return WithHalfWord(MakeAcknowledge(MessageId::WriteRegAck, Status::Success, ackId, 4), index);
}

Packet EncodeReadMemAck(std::uint16_t ackId, std::uint32_t address, Bytes data) {
    if (!IsMemorySize(data.size())) {
        return Packet();
    }
    return WithMemory(MakeAcknowledge(MessageId::ReadMemAck, Status::Success, ackId, 4 + data.size()), address, data);
}

Packet EncodeWriteMemAck(std::uint16_t ackId, std::uint16_t index) {
    return WithHalfWord(MakeAcknowledge(MessageId::WriteMemAck, Status::Success, ackId, 4), index);
}

Packet EncodePendingAck(std::uint16_t ackId, std::uint16_t timeToCompletion) {
    return WithHalfWord(MakeAcknowledge(MessageId::PendingAck, Status::Success, ackId, 4), timeToCompletion);
}

Packet EncodeErrorAck(MessageId id, std::uint16_t ackId, Status status, std::span<const std::uint32_t> words) {
    Packet packet = MakeAcknowledge(id, status, ackId, words.size_bytes());
    if (!packet.IsEmpty()) {
        StoreWords(words, PayloadOf(&packet));
    }
    return packet;
}

std::uint16_t NextRequestId(std::uint16_t requestId) {
    return requestId == 0xFFFF ? std::uint16_t{1} : static_cast<std::uint16_t>(requestId + 1);
}

MessageId AcknowledgeIdOf(MessageId command) {
    return static_cast<MessageId>(static_cast<std::uint16_t>(static_cast<std::uint16_t>(command) + 1));
}

}  // namespace Nimbrel2::Platform::Gvcp
