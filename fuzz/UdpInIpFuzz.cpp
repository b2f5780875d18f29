// SPDX-License-Identifier: Apache-2.0
// A packet from the wire: what is found in it lies inside it.
#include "fuzz/Require.h"
#include "platform/linux/gige/PacketListener.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const auto udp = Nimbrel2::Platform::GigE::ParseUdpInIp({data, size});
    if (!udp) {
        return 0;
    }
    NIMBREL2_REQUIRE(size >= 28);
    NIMBREL2_REQUIRE(udp->payload.data() >= data + 28);
    NIMBREL2_REQUIRE(udp->payload.data() + udp->payload.size() <= data + size);
    NIMBREL2_REQUIRE(udp->payload.size() <= 65535 - 28);
    return 0;
}
