// SPDX-License-Identifier: Apache-2.0
// Any bytes as a topology map: what is taken from it is the stream of a whole bus, whose PHYs make a tree.
#include <vector>

#include "fuzz/Require.h"
#include "platform/base/SelfIds.h"
#include "platform/linux/firewire/TopologyMap.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace Nimbrel2::Platform;
    const std::vector<std::uint8_t> bytes(data, data + size);  // of exactly that size, so that reading on is seen
    std::vector<SelfIdPacket_t> packets;
    if (FireWire::ParseTopologyMap(bytes, &packets) != HAL_OK) {
        NIMBREL2_REQUIRE(packets.empty());
        return 0;
    }
    NIMBREL2_REQUIRE(!packets.empty() && packets.size() <= 252);
    const auto phys = DecodeSelfIds(packets);
    NIMBREL2_REQUIRE(phys && !phys->empty() && phys->size() <= 63);
    std::size_t numCables = 0;
    for (std::size_t i = 0; i < phys->size(); ++i) {
        const FireWirePhy& phy = (*phys)[i];
        NIMBREL2_REQUIRE(phy.phyId == i && phy.ports.size() <= 27);
        for (const FireWirePort& port : phy.ports) {
            const bool connected =
                port.status == FireWirePortStatus::ToParent || port.status == FireWirePortStatus::ToChild;
            NIMBREL2_REQUIRE(connected == port.neighbour.has_value());
            if (!connected) {
                continue;
            }
            NIMBREL2_REQUIRE(*port.neighbour < phys->size());
            NIMBREL2_REQUIRE((*port.neighbour > i) == (port.status == FireWirePortStatus::ToParent));
            numCables += port.status == FireWirePortStatus::ToChild ? 1 : 0;
        }
    }
    NIMBREL2_REQUIRE(numCables == phys->size() - 1);
    return 0;
}
