// SPDX-License-Identifier: Apache-2.0
// An ARP packet from the wire: who has an address has a MAC of 48 bits, and no packet says so of two addresses.
#include "fuzz/Require.h"
#include "platform/gvcp/ByteOrder.h"
#include "platform/linux/gige/ArpProbe.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace Nimbrel2::Platform;
    const std::uint32_t ip = size >= 18 ? Gvcp::LoadU32(data + 14) : 0;
    const auto owner = GigE::ParseArpOwner({data, size}, ip);
    NIMBREL2_REQUIRE(!GigE::ParseArpOwner({data, size}, ip + 1));
    if (!owner) {
        return 0;
    }
    NIMBREL2_REQUIRE(size >= GigE::ArpBytes);
    NIMBREL2_REQUIRE(*owner >> 48 == 0);
    return 0;
}
