// SPDX-License-Identifier: Apache-2.0
// What stands where on the buses of this computer, as drivers see it: names, ports, speeds and links, for who draws the
// tree of BusMaster::GetTopology or tells two cameras apart. Plain values, and the function that fetches them.
#ifndef NIMBREL2_PLATFORM_BUSMAP_H
#define NIMBREL2_PLATFORM_BUSMAP_H

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "hal/Export.h"
#include "hal/HAL.h"

namespace Nimbrel2::Platform {

/// One device on a bus.
struct BusMapNode {
    /// The device id in the tree of the topology: the phy id on IEEE 1394, on USB the device number below the host
    /// controller. On a network interface the position in the list.
    std::uint32_t id = 0;
    std::optional<std::uint32_t> parent;  ///< USB: id of the hub above, 63 for the host controller
    std::optional<std::uint32_t> port;    ///< USB: the port of the hub above, from 1
    std::uint32_t speed = 0;        ///< Mbit/s; IEEE 1394: of the PHY (800 and more: 800), USB: of the link; 0: unknown
    std::uint32_t deviceSpeed = 0;  ///< USB: the most that the device can do; 0: unknown
    std::uint32_t portSpeed = 0;    ///< USB: the most that its port can do; 0: unknown
    std::string path;               ///< USB: the kernel's name of the place, "2-1.3"; empty when there is none
    std::string name;               ///< what the device calls itself; empty when it does not
    bool isThisComputer = false;    ///< IEEE 1394: the computer's own card
    bool isHub = false;             ///< USB hub, IEEE 1394 repeater

    // Cameras only; nothing of it is unique.
    bool isCamera = false;
    std::uint32_t serialNumber = 0;
    std::string vendor;
    std::string model;
    std::uint64_t mac = 0;  ///< GigE: octet 0 in bits 47..40
};

/// One IEEE 1394 bus, USB host controller or network interface.
struct BusMap {
    HALInterfaceType bus = HAL_INTERFACE_1394;
    std::string name;             ///< "fw0", "0000:00:14.0", "eth0"
    bool hasLink = true;          ///< network interface: it is up and its cable carries a signal
    std::uint32_t linkSpeed = 0;  ///< network interface: Mbit/s; 0: unknown
    std::vector<BusMapNode> nodes;
};

/// Describes every bus that is searched: IEEE 1394, USB, GigE, in this order. A device that comes or goes meanwhile may
/// be missing here and stand in the topology, or the other way round.
/// @param maps  Overwritten.
/// @return HAL_OK, also when a bus cannot be described, which then has no map.
/// @par Threads  Any, but an event callback. No bus I/O.
NIMBREL2_API std::uint32_t DescribeBuses(std::vector<BusMap>* maps);

}  // namespace Nimbrel2::Platform

#endif
