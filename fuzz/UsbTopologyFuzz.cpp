// SPDX-License-Identifier: Apache-2.0
// Any bytes as the device records of a USB host controller, eight a record: device id 2, root port 1, route 5, lowest
// first. The tree keeps every rule that holds for broken records too, its size included.
#include <algorithm>
#include <vector>

#include "fuzz/Require.h"
#include "tests/topology/TreeSupport.h"
#include "topology/UsbTopology.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using namespace Nimbrel2;
    std::vector<UsbSelfId> records(std::min<std::size_t>(size / 8, MaxUsbRecords));
    for (std::size_t i = 0; i < records.size(); ++i) {
        const std::uint8_t* const bytes = data + 8 * i;
        records[i].deviceId = static_cast<std::uint32_t>(bytes[0] | bytes[1] << 8);
        records[i].rootPortId = bytes[2];
        for (unsigned int n = 0; n < 5; ++n) {
            records[i].routeString |= static_cast<std::uint64_t>(bytes[3 + n]) << (8 * n);
        }
    }
    const TopologyNode host = BuildUsbHost(records);
    NIMBREL2_REQUIRE(Testing::Violations(host, Testing::Input::Anything).empty());
    return 0;
}
