// SPDX-License-Identifier: Apache-2.0
// Any bytes as the self-ID packets of a bus: the tree keeps every rule that holds for broken streams too.
#include <algorithm>
#include <vector>

#include "fuzz/Require.h"
#include "tests/topology/TreeSupport.h"
#include "topology/SelfIdParsing.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace Nimbrel2;
    // A block of exactly the packets' size, so that a read behind the last one is seen.
    std::vector<SelfIdPacket_t> packets(std::min<std::size_t>(size / 4, MaxSelfIdPackets));
    for (std::size_t i = 0; i < packets.size(); ++i) {
        std::copy_n(data + 4 * i, 4, packets[i].bytes);
    }
    const TopologyNode tree = ParseSelfIdPackets(packets);
    if (packets.empty()) {
        NIMBREL2_REQUIRE(tree.GetNodeType() == TopologyNode::NODE_COMPUTER && tree.GetNumChildren() == 0);
        return 0;
    }
    NIMBREL2_REQUIRE(Testing::Violations(tree, Testing::Input::Anything).empty());
    NIMBREL2_REQUIRE(Testing::CountNodes(tree) <= packets.size());
    return 0;
}
