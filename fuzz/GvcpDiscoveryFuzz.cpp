// SPDX-License-Identifier: Apache-2.0
// The discovery payload as a record and back: nothing but the reserved bytes is lost.
#include <algorithm>
#include <array>
#include <cstring>

#include "fuzz/Require.h"
#include "platform/gvcp/GvcpCodec.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace Nimbrel2::Platform::Gvcp;
    std::array<std::uint8_t, DiscoveryPayloadBytes> payload{};
    std::copy_n(data, std::min(size, payload.size()), payload.begin());
    const GvcpDiscoveryRecord record = DecodeDiscoveryPayload(payload);
    const auto encoded = EncodeDiscoveryPayload(record);
    for (std::size_t i = 0; i < payload.size(); ++i) {
        const bool reserved = i / 2 == 4 || (i >= 24 && i < 36) || (i >= 40 && i < 52) || (i >= 56 && i < 68);
        NIMBREL2_REQUIRE(encoded[i] == (reserved ? 0 : payload[i]));
    }
    const GvcpDiscoveryRecord second = DecodeDiscoveryPayload(encoded);
    NIMBREL2_REQUIRE(std::memcmp(&record, &second, sizeof(record)) == 0);
    return 0;
}
