// SPDX-License-Identifier: Apache-2.0
// Bytes to GVCP packets. Nothing is read before its length has been checked.
// Pure functions: any thread, no lock.
#include "platform/gvcp/GvcpCodec.h"

namespace Nimbrel2::Platform::Gvcp {
namespace {

/// The checks that commands and acknowledges share; their headers have length and id in the same places.
DecodeError CheckFrame(Bytes datagram, std::uint16_t payloadBytes, std::uint16_t requestId) {
    if (requestId == 0) {
        return DecodeError::ZeroRequestId;
    }
    const std::size_t received = datagram.size() - HeaderBytes;
    if (payloadBytes > received) {
        return DecodeError::Truncated;
    }
    if (payloadBytes < received) {
        return DecodeError::TrailingBytes;
    }
    if (payloadBytes > MaxPayloadBytes) {
        return DecodeError::PayloadTooLong;
    }
    if (payloadBytes % 4 != 0) {
        return DecodeError::PayloadNotWords;
    }
    return DecodeError::None;
}

DecodeError DecodeForceIp(Bytes payload, Command* body) {
    if (payload.size() != ForceIpPayloadBytes) {
        return DecodeError::WrongPayloadLength;
    }
    ForceIpCommand command;
    command.macHigh = LoadU16(&payload[2]);
    command.macLow = LoadU32(&payload[4]);
    command.ipAddress = LoadU32(&payload[20]);
    command.subnetMask = LoadU32(&payload[36]);
    command.gateway = LoadU32(&payload[52]);
    *body = command;
    return DecodeError::None;
}

DecodeError DecodeCommandBody(MessageId id, Bytes payload, Command* body) {
    switch (id) {
        case MessageId::DiscoveryCmd:
            if (!payload.empty()) {
                return DecodeError::WrongPayloadLength;
            }
            *body = DiscoveryCommand{};
            return DecodeError::None;
        case MessageId::ForceIpCmd:
            return DecodeForceIp(payload, body);
        case MessageId::ReadRegCmd:
            if (payload.empty()) {
                return DecodeError::WrongPayloadLength;
            }
            *body = ReadRegCommand{WordView(payload)};
            return DecodeError::None;
        case MessageId::WriteRegCmd:
            if (payload.empty() || payload.size() % 8 != 0) {
                return DecodeError::WrongPayloadLength;
            }
            *body = WriteRegCommand(WordView(payload));
            return DecodeError::None;
        case MessageId::ReadMemCmd:
            if (payload.size() != 8) {
                return DecodeError::WrongPayloadLength;
            }
            *body = ReadMemCommand{LoadU32(&payload[0]), LoadU16(&payload[6])};
            return DecodeError::None;
        case MessageId::WriteMemCmd:
            if (payload.size() < 8) {
                return DecodeError::WrongPayloadLength;
            }
            *body = WriteMemCommand{LoadU32(&payload[0]), payload.subspan(4)};
            return DecodeError::None;
        default:
            return DecodeError::UnknownMessage;
    }
}

bool IsKnownAcknowledge(MessageId id) {
    switch (id) {
        case MessageId::DiscoveryAck:
        case MessageId::ForceIpAck:
        case MessageId::ReadRegAck:
        case MessageId::WriteRegAck:
        case MessageId::ReadMemAck:
        case MessageId::WriteMemAck:
        case MessageId::PendingAck:
            return true;
        default:
            return false;
    }
}

/// One word: a reserved half that is not looked at, and the number.
template <typename Body>
DecodeError DecodeHalfWord(Bytes payload, Acknowledge* body) {
    if (payload.size() != 4) {
        return DecodeError::WrongPayloadLength;
    }
    *body = Body{LoadU16(&payload[2])};
    return DecodeError::None;
}

DecodeError DecodeAcknowledgeBody(MessageId id, Bytes payload, Acknowledge* body) {
    switch (id) {
        case MessageId::DiscoveryAck:
            if (payload.size() < DiscoveryPayloadBytes) {
                return DecodeError::WrongPayloadLength;
            }
            *body = DiscoveryAcknowledge{DecodeDiscoveryPayload(payload.first<DiscoveryPayloadBytes>())};
            return DecodeError::None;
        case MessageId::ForceIpAck:
            if (!payload.empty()) {
                return DecodeError::WrongPayloadLength;
            }
            *body = ForceIpAcknowledge{};
            return DecodeError::None;
        case MessageId::ReadRegAck:
            if (payload.empty()) {
                return DecodeError::WrongPayloadLength;
            }
            *body = ReadRegAcknowledge{WordView(payload)};
            return DecodeError::None;
        case MessageId::WriteRegAck:
            return DecodeHalfWord<WriteRegAcknowledge>(payload, body);
        case MessageId::ReadMemAck:
            if (payload.size() < 8) {
                return DecodeError::WrongPayloadLength;
            }
            *body = ReadMemAcknowledge{LoadU32(&payload[0]), payload.subspan(4)};
            return DecodeError::None;
        case MessageId::WriteMemAck:
            return DecodeHalfWord<WriteMemAcknowledge>(payload, body);
        case MessageId::PendingAck:
            return DecodeHalfWord<PendingAcknowledge>(payload, body);
        default:
            return DecodeError::UnknownMessage;
    }
}

}  // namespace

DecodedCommand DecodeCommand(Bytes datagram) {
    DecodedCommand decoded;
    if (datagram.size() < HeaderBytes) {
        decoded.error = DecodeError::TooShort;
        return decoded;
    }
    decoded.header.flags = datagram[1];
    decoded.header.id = static_cast<MessageId>(LoadU16(&datagram[2]));
    decoded.header.payloadBytes = LoadU16(&datagram[4]);
    decoded.header.requestId = LoadU16(&datagram[6]);
    if (datagram[0] != CommandKey) {
        decoded.error = DecodeError::BadKey;
        return decoded;
    }
    decoded.error = CheckFrame(datagram, decoded.header.payloadBytes, decoded.header.requestId);
    if (decoded.error == DecodeError::None) {
        decoded.error = DecodeCommandBody(decoded.header.id, datagram.subspan(HeaderBytes), &decoded.body);
    }
    return decoded;
}

DecodedAcknowledge DecodeAcknowledge(Bytes datagram) {
    DecodedAcknowledge decoded;
    if (datagram.size() < HeaderBytes) {
        decoded.error = DecodeError::TooShort;
        return decoded;
    }
    decoded.header.status = static_cast<Status>(LoadU16(&datagram[0]));
    decoded.header.id = static_cast<MessageId>(LoadU16(&datagram[2]));
    decoded.header.payloadBytes = LoadU16(&datagram[4]);
    decoded.header.ackId = LoadU16(&datagram[6]);
    if (datagram[0] == CommandKey) {
        decoded.error = DecodeError::NotAnAcknowledge;
        return decoded;
    }
    decoded.error = CheckFrame(datagram, decoded.header.payloadBytes, decoded.header.ackId);
    if (decoded.error != DecodeError::None) {
        return decoded;
    }

    const Bytes payload = datagram.subspan(HeaderBytes);
    if (decoded.header.status == Status::Success) {
        decoded.error = DecodeAcknowledgeBody(decoded.header.id, payload, &decoded.body);
    } else if (IsKnownAcknowledge(decoded.header.id)) {
        decoded.body = ErrorAcknowledge{WordView(payload)};
    } else {
        decoded.error = DecodeError::UnknownMessage;
    }
    return decoded;
}

const char* Describe(DecodeError error) {
    switch (error) {
        case DecodeError::None:
            return "no error";
        case DecodeError::TooShort:
            return "shorter than a header";
        case DecodeError::BadKey:
            return "wrong key byte";
        case DecodeError::NotAnAcknowledge:
            return "a command, not an acknowledge";
        case DecodeError::ZeroRequestId:
            return "request id 0";
        case DecodeError::Truncated:
            return "payload cut off";
        case DecodeError::TrailingBytes:
            return "bytes after the payload";
        case DecodeError::PayloadTooLong:
            return "payload too long";
        case DecodeError::PayloadNotWords:
            return "payload not a multiple of four bytes";
        case DecodeError::UnknownMessage:
            return "unknown message";
        case DecodeError::WrongPayloadLength:
            return "payload length wrong for this message";
    }
    return "unknown error";
}

}  // namespace Nimbrel2::Platform::Gvcp
