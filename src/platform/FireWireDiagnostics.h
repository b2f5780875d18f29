// SPDX-License-Identifier: Apache-2.0
// What the IEEE 1394 driver knows beyond what a listing shows: buses with their trees, managers and resets, and what
// this user may not open. As in Diagnostics.h: plain values of the caller's own, results are HALStatus values;
// HAL_CLOSED when the HAL is not running.
#ifndef NIMBREL2_PLATFORM_FIREWIREDIAGNOSTICS_H
#define NIMBREL2_PLATFORM_FIREWIREDIAGNOSTICS_H

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "hal/HAL.h"

namespace Nimbrel2::Platform {

enum class FireWirePortStatus : std::uint8_t { Absent = 0, NotConnected = 1, ToParent = 2, ToChild = 3 };

struct FireWirePort {
    FireWirePortStatus status = FireWirePortStatus::Absent;
    std::optional<unsigned int> neighbour;  ///< phy id of the PHY at the other end of the cable

    bool operator==(const FireWirePort& other) const { return status == other.status && neighbour == other.neighbour; }
};

/// One PHY, as it tells itself after a bus reset (IEEE 1394a-2000 4.3.4.1).
struct FireWirePhy {
    unsigned int phyId = 0;
    bool linkActive = false;      ///< there is a node behind it that can be asked
    unsigned int gapCount = 0;    ///< must be the same all over a bus
    unsigned int speed = 0;       ///< 0 S100, 1 S200, 2 S400, 3 S800 or more
    bool contender = false;       ///< could manage the bus' resources
    unsigned int powerClass = 0;  ///< 0 none, 1 to 3 provides 15, 30, 45 W, 4, 6, 7 takes up to 3, 6, 10 W
    bool initiatedReset = false;
    std::vector<FireWirePort> ports;  ///< by port number

    /// Only passes on what it hears. A PHY with one port and no link is a device without power.
    bool IsHub() const { return !linkActive && ports.size() > 1; }

    bool operator==(const FireWirePhy& other) const {
        return phyId == other.phyId && linkActive == other.linkActive && gapCount == other.gapCount &&
               speed == other.speed && contender == other.contender && powerClass == other.powerClass &&
               initiatedReset == other.initiatedReset && ports == other.ports;
    }
};

/// A node that the kernel knows. A PHY without an active link has none.
struct FireWireNode {
    std::string name;  ///< of its file below /dev, "fw1"
    std::uint64_t eui64 = 0;
    std::string vendor;  ///< texts of its configuration ROM
    std::string model;
    bool camera = false;
    bool local = false;  ///< this computer's controller
    bool cycleMasterCapable = false;
    int error = 0;                      ///< errno of its file when it cannot be opened
    std::optional<unsigned int> phyId;  ///< nothing when its file cannot be opened
    bool mute = false;                  ///< the last transaction with it timed out
};

/// A socket in which a cable comes and goes.
struct FireWirePortChanges {
    unsigned int phyId = 0;  ///< as it is now
    unsigned int port = 0;
    unsigned int changes = 0;  ///< within the time that resets are counted in
};

struct FireWireBusDiagnosis {
    std::string path;                   ///< the controller, below the root of sysfs
    std::optional<std::uint32_t> card;  ///< its number; nothing when no file of the bus can be opened
    bool seesResets = false;            ///< the file of one node at least is open
    /// errno of the file of the controller itself, without which nobody sees the tree or a PHY register; 0: it is open.
    int treeError = 0;
    std::uint32_t selfIdStatus = HAL_OK;  ///< HALStatus: why phys is empty

    std::optional<unsigned int> local;  ///< phy ids; nothing: there is none, or it is not known
    std::optional<unsigned int> root;
    std::optional<unsigned int> busManager;
    std::optional<unsigned int> resourceManager;
    std::optional<bool> hasCycleMaster;  ///< nothing: the root cannot be asked

    std::vector<FireWirePhy> phys;    ///< by phy id
    std::vector<FireWireNode> nodes;  ///< by EUI-64

    unsigned int resets = 0;               ///< within the last minute, or since the driver has been watching
    std::chrono::milliseconds watched{0};  ///< how long that is
    std::vector<FireWirePortChanges> portChanges;
};

struct FireWireDiagnosis {
    bool driverLoaded = false;                 ///< the kernel's; without it there are no buses
    std::vector<std::string> idleControllers;  ///< on the PCI bus, that no driver serves
    std::vector<FireWireBusDiagnosis> buses;   ///< by path
};

/// What is known of the IEEE 1394 buses of this computer, those that nobody may open included.
/// @param askNodes   Asks for one register of each camera, all at once, and of the root of each bus, at most 3 s each,
///                   and reads the self-IDs of a bus that has just been reset. Without it what has not been read yet is
///                   missing: selfIdStatus is HAL_BUSY.
/// @param diagnosis  Overwritten.
/// @return HAL_OK; HAL_NO_BUS when nobody drives the buses.
/// @par Threads  Any, but an event callback. Without askNodes no bus I/O.
NIMBREL2_API std::uint32_t DiagnoseFireWire(bool askNodes, FireWireDiagnosis* diagnosis);

}  // namespace Nimbrel2::Platform

#endif
