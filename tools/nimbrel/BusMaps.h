// SPDX-License-Identifier: Apache-2.0
// Adds what drivers know of a bus to its tree. Pure.
#ifndef NIMBREL2_TOOLS_NIMBREL_BUSMAPS_H
#define NIMBREL2_TOOLS_NIMBREL_BUSMAPS_H

#include <vector>

#include "platform/BusMap.h"
#include "tools/nimbrel/TopologyView.h"

namespace Nimbrel2::Tool {

/// Finds the map of each tree below an IEEE 1394 or USB 3 bus node and fills in names, ports, speeds, which PHY is this
/// computer's, and the true places of devices that stand at several. A tree without a map stays as it is.
void AddMaps(const std::vector<Platform::BusMap>& maps, TopologyView* bus);

}  // namespace Nimbrel2::Tool

#endif
