// SPDX-License-Identifier: Apache-2.0
// rtnetlink messages as the kernel sends them, or does not: reading ends, and what is read makes sense.
#include "fuzz/Require.h"
#include "platform/base/NetlinkMessages.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace Nimbrel2::Platform;
    Netlink::Bytes rest(data, size);
    std::size_t messages = 0;
    while (const auto message = Netlink::NextMessage(rest)) {
        NIMBREL2_REQUIRE(++messages <= size / 16);
        NIMBREL2_REQUIRE(message->payload.size() <= size);
        const auto link = Netlink::ParseLink(message->payload);
        NIMBREL2_REQUIRE(!link || (link->index > 0 && !link->name.empty()));
        const auto address = Netlink::ParseAddress(message->payload);
        NIMBREL2_REQUIRE(!address || address->address.prefixLength <= 32);
        NIMBREL2_REQUIRE(!address || address->address.Contains(address->address.address));
        const auto route = Netlink::ParseRoute(message->payload);
        NIMBREL2_REQUIRE(!route || !route->direct || route->gateway == 0);
        const auto neighbour = Netlink::ParseNeighbour(message->payload);
        NIMBREL2_REQUIRE(!neighbour || neighbour->mac >> 48 == 0);
        Netlink::ParseRpFilter(message->payload);
    }
    return 0;
}
