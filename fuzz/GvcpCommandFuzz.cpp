// SPDX-License-Identifier: Apache-2.0
// GVCP commands as a camera receives them: any bytes; what is understood says the same when it is encoded again.
#include <algorithm>
#include <vector>

#include "fuzz/Require.h"
#include "platform/gvcp/GvcpCodec.h"

namespace {

using namespace Nimbrel2::Platform::Gvcp;

Packet EncodeAgain(const DecodedCommand& decoded) {
    const CommandHeader& header = decoded.header;
    if (std::holds_alternative<DiscoveryCommand>(decoded.body)) {
        return EncodeDiscoveryCommand(header.requestId, header.flags);
    }
    if (const auto* force = std::get_if<ForceIpCommand>(&decoded.body)) {
        return EncodeForceIpCommand(header.requestId, header.flags, *force);
    }
    if (const auto* read = std::get_if<ReadRegCommand>(&decoded.body)) {
        std::vector<std::uint32_t> addresses;
        for (std::size_t i = 0; i < read->addresses.GetCount(); ++i) {
            addresses.push_back(read->addresses[i]);
        }
        return EncodeReadRegCommand(header.requestId, addresses);
    }
    if (const auto* write = std::get_if<WriteRegCommand>(&decoded.body)) {
        std::vector<RegisterWrite> writes;
        for (std::size_t i = 0; i < write->GetCount(); ++i) {
            writes.push_back((*write)[i]);
        }
        return EncodeWriteRegCommand(header.requestId, writes);
    }
    if (const auto* write = std::get_if<WriteMemCommand>(&decoded.body)) {
        return EncodeWriteMemCommand(header.requestId, write->address, write->data);
    }
    const auto& read = std::get<ReadMemCommand>(decoded.body);
    return EncodeReadMemCommand(header.requestId, read.address, read.count);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const Bytes datagram(data, size);
    const DecodedCommand decoded = DecodeCommand(datagram);
    NIMBREL2_REQUIRE((decoded.error == DecodeError::None) == !std::holds_alternative<std::monostate>(decoded.body));
    NIMBREL2_REQUIRE(Describe(decoded.error) != nullptr);
    if (decoded.error != DecodeError::None) {
        return 0;
    }
    NIMBREL2_REQUIRE(decoded.header.requestId != 0);
    NIMBREL2_REQUIRE(size == HeaderBytes + decoded.header.payloadBytes);
    NIMBREL2_REQUIRE(size <= MaxPacketBytes);

    const Packet again = EncodeAgain(decoded);
    const auto* readMemory = std::get_if<ReadMemCommand>(&decoded.body);
    if (readMemory != nullptr && again.IsEmpty()) {
        // The one body whose numbers are handed on though no encoder would make them.
        NIMBREL2_REQUIRE(readMemory->count % 4 != 0 || readMemory->count == 0 || readMemory->count > MaxMemoryBytes);
        return 0;
    }
    NIMBREL2_REQUIRE(again.GetSize() == size);
    const DecodedCommand second = DecodeCommand(again.GetBytes());
    NIMBREL2_REQUIRE(second.error == DecodeError::None);
    NIMBREL2_REQUIRE(second.header.id == decoded.header.id);
    NIMBREL2_REQUIRE(second.header.requestId == decoded.header.requestId);
    NIMBREL2_REQUIRE(second.body.index() == decoded.body.index());
    const bool hasReserved = readMemory != nullptr || std::holds_alternative<ForceIpCommand>(decoded.body);
    if (!hasReserved) {
        NIMBREL2_REQUIRE(std::equal(data + HeaderBytes, data + size, again.GetData() + HeaderBytes));
    }
    return 0;
}
