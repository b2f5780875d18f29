// SPDX-License-Identifier: Apache-2.0
// What a rig is made of: a computer with its buses, before anything happens to it. Plain data; see RigFile for the JSON
// form and Rig for the computer that runs.
#ifndef NIMBREL2_PLATFORM_RIG_RIGDESCRIPTION_H
#define NIMBREL2_PLATFORM_RIG_RIGDESCRIPTION_H

#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "hal/HAL.h"
#include "platform/simulated/SimulatedCameraOptions.h"

namespace Nimbrel2::Platform {

// ---- IEEE 1394 -----------------------------------------------------------------------------------------------------

/// What stands behind a PHY.
enum class PhyKind {
    Card,      ///< The computer's own controller; each bus has exactly one.
    Repeater,  ///< A hub: a PHY without link layer, which answers nothing but PHY packets.
    Camera,    ///< An IIDC camera.
    Device     ///< A node with a link that is no camera: a disk, another computer.
};

struct PhyDescription {
    std::string name;  ///< Unique in the rig.
    PhyKind kind = PhyKind::Camera;
    unsigned int ports = 1;       ///< 1 to 27 (three in packet zero, eight in each of three extended packets).
    unsigned int speed = 2;       ///< Self-ID code: 0 S100, 1 S200, 2 S400, 3 beta.
    unsigned int powerClass = 0;  ///< Self-ID code, 0 to 7.
    bool contender = false;       ///< May become isochronous resource manager.
    bool plugged = true;          ///< False: its cables hang loose until it is plugged in.
    std::uint64_t eui64 = 0;      ///< Not for repeaters. The low 32 bits are the serial number.
    std::string vendor;
    std::string model;
    std::uint32_t unitVersion = 0x000102;  ///< IIDC: 0x000100 to 0x000102.
};

struct CableEnd {
    std::string phy;
    unsigned int port = 0;
};

struct CableDescription {
    std::array<CableEnd, 2> ends;
};

struct FireWireBusDescription {
    std::string name;
    unsigned int gapCount = 63;
    std::vector<PhyDescription> phys;
    std::vector<CableDescription> cables;
    /// Instead of phys and cables: self-ID quadlets as received, shown as they are. Such a bus has repeaters only, but
    /// for cameras whose phy id and identity are given here.
    std::vector<std::uint32_t> selfIds;
    struct PlacedCamera {
        unsigned int phyId = 0;
        PhyDescription camera;
    };
    std::vector<PlacedCamera> placedCameras;
};

// ---- USB -----------------------------------------------------------------------------------------------------------

enum class UsbKind { Hub, Camera, Device };

struct UsbDeviceDescription {
    std::string name;  ///< Unique in the rig.
    UsbKind kind = UsbKind::Camera;
    std::string parent;         ///< The host's name or a hub's.
    unsigned int port = 1;      ///< 1 to 15 on the parent.
    unsigned int speed = 5000;  ///< Mbit/s the device can do: 12, 480, 5000, 10000 or 20000. A hub of 5000 and above
                                ///< has both halves.
    unsigned int ports = 4;     ///< Hubs: 1 to 15.
    bool plugged = true;
    std::uint16_t vendorId = 0;
    std::uint16_t productId = 0;
    std::string serial;
    std::string vendor;
    std::string model;
};

struct UsbHostDescription {
    std::string name;
    unsigned int usb2Ports = 4;  ///< Root ports of each half, 1 to 15; 0: the controller lacks that half.
    unsigned int usb3Ports = 4;
    std::vector<UsbDeviceDescription> devices;
    /// Instead of devices: the records as a driver reads them, shown as they are, with cameras at some of them.
    std::vector<UsbSelfId> records;
    struct PlacedCamera {
        std::uint32_t deviceId = 0;
        UsbDeviceDescription camera;
    };
    std::vector<PlacedCamera> placedCameras;
};

// ---- GigE ----------------------------------------------------------------------------------------------------------

struct GigECameraDescription {
    std::string name;  ///< Unique in the rig.
    bool plugged = true;
    /// Texts, MAC, address, mask, gateway, control and how it misbehaves; interfaceName is the interface that it is on.
    Simulated::SimulatedCameraOptions options;
};

struct NetworkInterfaceDescription {
    std::string name;           ///< Unique in the rig.
    std::uint32_t address = 0;  ///< Of the computer; first octet in the most significant byte.
    std::uint32_t subnetMask = 0xFFFFFF00;
    bool up = true;
    std::vector<GigECameraDescription> cameras;
};

/// Why a description cannot be a computer: where, as a JSON pointer into its JSON form, and what is wrong there.
struct RigProblem {
    std::string pointer;
    std::string reason;
};

}  // namespace Nimbrel2::Platform

#endif
