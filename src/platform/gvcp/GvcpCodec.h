// SPDX-License-Identifier: Apache-2.0
// GVCP packets to and from bytes, both directions: what a host sends and reads, and what a camera does.
// Pure functions: no I/O, no lock, no clock, no allocation; any thread.
#ifndef NIMBREL2_PLATFORM_GVCP_GVCPCODEC_H
#define NIMBREL2_PLATFORM_GVCP_GVCPCODEC_H

#include <algorithm>
#include <array>
#include <cassert>
#include <cstddef>
#include <cstdint>
#include <span>
#include <variant>

#include "hal/HAL.h"
#include "platform/gvcp/ByteOrder.h"
#include "platform/gvcp/GvcpConstants.h"

namespace Nimbrel2::Platform::Gvcp {

using Bytes = std::span<const std::uint8_t>;

/// One encoded packet, held by value. Empty when what was to be encoded does not fit the protocol.
class Packet {
public:
    Packet() = default;

    /// A packet of HeaderBytes + payloadBytes zero bytes; empty when the payload is longer than MaxPayloadBytes.
    explicit Packet(std::size_t payloadBytes)
        : m_size(payloadBytes <= MaxPayloadBytes ? HeaderBytes + payloadBytes : 0) {}

    bool IsEmpty() const { return m_size == 0; }
    std::size_t GetSize() const { return m_size; }
    const std::uint8_t* GetData() const { return m_bytes.data(); }
    Bytes GetBytes() const { return Bytes(m_bytes.data(), m_size); }
    std::uint8_t* GetMutableData() { return m_bytes.data(); }
    /// Cuts the packet, header or payload, whatever its length field says: for tests of those who must notice.
    void Truncate(std::size_t size) { m_size = std::min(m_size, size); }

private:
    std::array<std::uint8_t, MaxPacketBytes> m_bytes{};
    std::size_t m_size = 0;
};

/// Big-endian 32-bit numbers inside a received packet; valid as long as the packet's bytes are.
class WordView {
public:
    WordView() = default;
    explicit WordView(Bytes bytes) : m_bytes(bytes) {}

    std::size_t GetCount() const { return m_bytes.size() / 4; }
    std::uint32_t operator[](std::size_t index) const {
        assert(index < GetCount());
        return LoadU32(m_bytes.data() + 4 * index);
    }

private:
    Bytes m_bytes;
};

// ---- Commands ------------------------------------------------------------------------------------------------------

struct CommandHeader {
    std::uint8_t flags = 0;
    MessageId id{};
    std::uint16_t payloadBytes = 0;
    std::uint16_t requestId = 0;

    bool IsAcknowledgeRequired() const { return (flags & Flag::AcknowledgeRequired) != 0; }
    bool MayBroadcastAcknowledge() const { return (flags & Flag::AllowBroadcastAcknowledge) != 0; }
};

struct DiscoveryCommand {};

/// Addresses have their first octet in the most significant byte.
struct ForceIpCommand {
    std::uint16_t macHigh = 0;  ///< octets 0 and 1
    std::uint32_t macLow = 0;   ///< octets 2 to 5
    std::uint32_t ipAddress = 0;
    std::uint32_t subnetMask = 0;
    std::uint32_t gateway = 0;
};

struct ReadRegCommand {
    WordView addresses;  ///< at least one
};

struct RegisterWrite {
    std::uint32_t address = 0;
    std::uint32_t value = 0;
};

/// At least one write.
class WriteRegCommand {
public:
    WriteRegCommand() = default;
    explicit WriteRegCommand(WordView words) : m_words(words) {}
    std::size_t GetCount() const { return m_words.GetCount() / 2; }
    RegisterWrite operator[](std::size_t index) const { return {m_words[2 * index], m_words[2 * index + 1]}; }

private:
    WordView m_words;
};

struct ReadMemCommand {
    std::uint32_t address = 0;
    std::uint16_t count = 0;  ///< bytes, as sent: not checked for size or alignment
};

struct WriteMemCommand {
    std::uint32_t address = 0;
    Bytes data;  ///< at least four bytes; valid as long as the packet's bytes are
};

using Command = std::variant<std::monostate, DiscoveryCommand, ForceIpCommand, ReadRegCommand, WriteRegCommand,
                             ReadMemCommand, WriteMemCommand>;

// ---- Acknowledges --------------------------------------------------------------------------------------------------

struct AcknowledgeHeader {
    Status status{};
    MessageId id{};
    std::uint16_t payloadBytes = 0;
    std::uint16_t ackId = 0;  ///< the command's request id
};

struct DiscoveryAcknowledge {
    GvcpDiscoveryRecord record{};
};

struct ForceIpAcknowledge {};

struct ReadRegAcknowledge {
    WordView values;  ///< at least one
};

struct WriteRegAcknowledge {
    std::uint16_t index = 0;  ///< how many registers were written
};

struct ReadMemAcknowledge {
    std::uint32_t address = 0;
    Bytes data;  ///< at least four bytes; valid as long as the packet's bytes are
};

struct WriteMemAcknowledge {
    std::uint16_t index = 0;  ///< how many bytes were written
};

/// The answer comes later: wait this long for it, from now.
struct PendingAcknowledge {
    std::uint16_t timeToCompletion = 0;  ///< milliseconds
};

/// Any acknowledge whose status is not Success. Most devices send no payload; what is there of READREG are the values
/// before the one that failed, of WRITEREG and WRITEMEM one word with the index in its low half.
struct ErrorAcknowledge {
    WordView words;
};

using Acknowledge =
    std::variant<std::monostate, DiscoveryAcknowledge, ForceIpAcknowledge, ReadRegAcknowledge, WriteRegAcknowledge,
                 ReadMemAcknowledge, WriteMemAcknowledge, PendingAcknowledge, ErrorAcknowledge>;

// ---- Decoding ------------------------------------------------------------------------------------------------------

/// Why a datagram is no packet.
enum class DecodeError : std::uint8_t {
    None,
    TooShort,            ///< fewer bytes than a header
    BadKey,              ///< a command must begin with CommandKey
    NotAnAcknowledge,    ///< begins with CommandKey, so it is a command
    ZeroRequestId,       ///< request ids begin at 1
    Truncated,           ///< the header promises more payload than came
    TrailingBytes,       ///< more came than the header promises
    PayloadTooLong,      ///< above MaxPayloadBytes
    PayloadNotWords,     ///< not a multiple of four bytes
    UnknownMessage,      ///< an id that is no command (or acknowledge) this codec reads
    WrongPayloadLength,  ///< a length that this message cannot have
};

/// A word or two for a trace; never null.
const char* Describe(DecodeError error);

/// The header is filled whenever the datagram has the bytes of one, whatever the error: a camera answers some wrong
/// commands with a status. The body is std::monostate on every error.
struct DecodedCommand {
    DecodeError error = DecodeError::None;
    CommandHeader header;
    Command body;
};

struct DecodedAcknowledge {
    DecodeError error = DecodeError::None;
    AcknowledgeHeader header;
    Acknowledge body;
};

/// Reads a command as a camera receives it. Datagrams of any size; every length is checked. Addresses, counts and
/// values are handed on as they came: whether a register may be accessed so is the device's to say.
DecodedCommand DecodeCommand(Bytes datagram);

/// Reads an acknowledge as an application receives it. Datagrams of any size; every length is checked. A DISCOVERY_ACK
/// may be longer than this version of the record; the rest is ignored. Who sent it, and for which request, is the
/// caller's to check.
DecodedAcknowledge DecodeAcknowledge(Bytes datagram);

// ---- Encoding ------------------------------------------------------------------------------------------------------
// Commands carry AcknowledgeRequired unless they take flags. Each function answers an empty packet for what the
// protocol cannot say: request id 0, no item, too many items, memory sizes that are no multiple of four.

Packet EncodeDiscoveryCommand(std::uint16_t requestId, std::uint8_t flags);
Packet EncodeForceIpCommand(std::uint16_t requestId, std::uint8_t flags, const ForceIpCommand& command);
Packet EncodeReadRegCommand(std::uint16_t requestId, std::span<const std::uint32_t> addresses);
Packet EncodeWriteRegCommand(std::uint16_t requestId, std::span<const RegisterWrite> writes);
Packet EncodeReadMemCommand(std::uint16_t requestId, std::uint32_t address, std::uint16_t count);
Packet EncodeWriteMemCommand(std::uint16_t requestId, std::uint32_t address, Bytes data);

Packet EncodeDiscoveryAck(std::uint16_t ackId, const GvcpDiscoveryRecord& record);
Packet EncodeForceIpAck(std::uint16_t ackId);
Packet EncodeReadRegAck(std::uint16_t ackId, std::span<const std::uint32_t> values);
Packet EncodeWriteRegAck(std::uint16_t ackId, std::uint16_t index);
Packet EncodeReadMemAck(std::uint16_t ackId, std::uint32_t address, Bytes data);
Packet EncodeWriteMemAck(std::uint16_t ackId, std::uint16_t index);
Packet EncodePendingAck(std::uint16_t ackId, std::uint16_t timeToCompletion);

/// An acknowledge with a status other than Success and what was done before it (see ErrorAcknowledge).
Packet EncodeErrorAck(MessageId id, std::uint16_t ackId, Status status, std::span<const std::uint32_t> words = {});

// ---- Small things --------------------------------------------------------------------------------------------------

/// The request id after that one: 1 to 65535, then 1 again.
std::uint16_t NextRequestId(std::uint16_t requestId);

/// The id of the acknowledge that answers a command.
MessageId AcknowledgeIdOf(MessageId command);

/// What a GVCP status is called above the HAL.
HALStatus ToHalStatus(Status status);

/// The DISCOVERY_ACK payload as a record. Texts are copied byte for byte, what follows their zero included.
GvcpDiscoveryRecord DecodeDiscoveryPayload(std::span<const std::uint8_t, DiscoveryPayloadBytes> payload);

/// A record as DISCOVERY_ACK payload; reserved fields are zero.
std::array<std::uint8_t, DiscoveryPayloadBytes> EncodeDiscoveryPayload(const GvcpDiscoveryRecord& record);

}  // namespace Nimbrel2::Platform::Gvcp

#endif
