// SPDX-License-Identifier: Apache-2.0
// GVCP acknowledges as an application receives them: any bytes; what is understood says the same when encoded again.
#include <algorithm>
#include <vector>

#include "fuzz/Require.h"
#include "platform/gvcp/GvcpCodec.h"

namespace {

using namespace Nimbrel2::Platform::Gvcp;

std::vector<std::uint32_t> ToVector(const WordView& words) {
    std::vector<std::uint32_t> copy;
    for (std::size_t i = 0; i < words.GetCount(); ++i) {
        copy.push_back(words[i]);
    }
    return copy;
}

Packet EncodeAgain(const DecodedAcknowledge& decoded) {
    const std::uint16_t id = decoded.header.ackId;
    if (const auto* discovery = std::get_if<DiscoveryAcknowledge>(&decoded.body)) {
        return EncodeDiscoveryAck(id, discovery->record);
    }
    if (std::holds_alternative<ForceIpAcknowledge>(decoded.body)) {
        return EncodeForceIpAck(id);
    }
    if (const auto* read = std::get_if<ReadRegAcknowledge>(&decoded.body)) {
        return EncodeReadRegAck(id, ToVector(read->values));
    }
    if (const auto* write = std::get_if<WriteRegAcknowledge>(&decoded.body)) {
        return EncodeWriteRegAck(id, write->index);
    }
    if (const auto* read = std::get_if<ReadMemAcknowledge>(&decoded.body)) {
        return EncodeReadMemAck(id, read->address, read->data);
    }
    if (const auto* write = std::get_if<WriteMemAcknowledge>(&decoded.body)) {
        return EncodeWriteMemAck(id, write->index);
    }
    if (const auto* pending = std::get_if<PendingAcknowledge>(&decoded.body)) {
        return EncodePendingAck(id, pending->timeToCompletion);
    }
    const auto& error = std::get<ErrorAcknowledge>(decoded.body);
    return EncodeErrorAck(decoded.header.id, id, decoded.header.status, ToVector(error.words));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Bytes datagram(data, size);
    const DecodedAcknowledge decoded = DecodeAcknowledge(datagram);
    NIMBREL2_REQUIRE((decoded.error == DecodeError::None) == !std::holds_alternative<std::monostate>(decoded.body));
    NIMBREL2_REQUIRE(Describe(decoded.error) != nullptr);
    if (decoded.error != DecodeError::None) {
        return 0;
    }
    NIMBREL2_REQUIRE(data[0] != CommandKey);
    NIMBREL2_REQUIRE(decoded.header.ackId != 0);
    NIMBREL2_REQUIRE(size == HeaderBytes + decoded.header.payloadBytes);
    NIMBREL2_REQUIRE((decoded.header.status != Status::Success) ==
                     std::holds_alternative<ErrorAcknowledge>(decoded.body));

    const Packet again = EncodeAgain(decoded);
    NIMBREL2_REQUIRE(!again.IsEmpty());
    const DecodedAcknowledge second = DecodeAcknowledge(again.GetBytes());
    NIMBREL2_REQUIRE(second.error == DecodeError::None);
    NIMBREL2_REQUIRE(second.header.id == decoded.header.id);
    NIMBREL2_REQUIRE(second.header.ackId == decoded.header.ackId);
    NIMBREL2_REQUIRE(second.header.status == decoded.header.status);
    NIMBREL2_REQUIRE(second.body.index() == decoded.body.index());
    const bool isWhole = std::holds_alternative<ErrorAcknowledge>(decoded.body) ||
                         std::holds_alternative<ReadRegAcknowledge>(decoded.body) ||
                         std::holds_alternative<ReadMemAcknowledge>(decoded.body);
    if (isWhole) {
        NIMBREL2_REQUIRE(std::equal(data, data + size, again.GetData(), again.GetData() + again.GetSize()));
    }
    return 0;
}
