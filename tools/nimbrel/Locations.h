// SPDX-License-Identifier: Apache-2.0
// Where cameras are attached, from the maps of the buses. Pure but for the reading of the maps.
#ifndef NIMBREL2_TOOLS_NIMBREL_LOCATIONS_H
#define NIMBREL2_TOOLS_NIMBREL_LOCATIONS_H

#include <cstdint>
#include <string>
#include <vector>

#include "platform/BusMap.h"
#include "tools/nimbrel/Cameras.h"

namespace Nimbrel2::Tool {

/// The maps of all buses; empty when the buses cannot be described.
std::vector<Platform::BusMap> ReadBusMaps();

/// Whether that node is that camera, as far as one can tell: its twin, with the same texts and numbers, fits as well.
bool IsNodeOf(const Platform::BusMap& map, const Platform::BusMapNode& node, const Camera& camera);

/// "1.4.2": the ports from the host controller down to the node. Empty when that is not known.
std::string PortPath(const Platform::BusMap& map, const Platform::BusMapNode& node);

/// Fills in port, location and, where it is missing, speed. Of twins the first gets the first place of the map.
void AddLocations(const std::vector<Platform::BusMap>& maps, std::vector<Camera>* cameras);
void AddLocations(BusMaster& busMaster, std::vector<Camera>* cameras);

/// Where it is attached and its address: "192.168.77.10 on eth0", "xhci0 port 1.2", "fw0 PHY 3". May be empty.
std::string DescribeLocation(const Camera& camera);

}  // namespace Nimbrel2::Tool

#endif
