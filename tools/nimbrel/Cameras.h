// SPDX-License-Identifier: Apache-2.0
// What the bus master lists, as values that commands print. Any thread; each look-up waits while the lists are rebuilt.
#ifndef NIMBREL2_TOOLS_NIMBREL_CAMERAS_H
#define NIMBREL2_TOOLS_NIMBREL_CAMERAS_H

#include <cstdint>
#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <vector>

#include "busmaster/BusMaster.h"
#include "platform/Diagnostics.h"

namespace Nimbrel2::Tool {

/// Objects keep the order in which their members are added.
using Json = nlohmann::ordered_json;

/// One camera. Its texts are the camera's own, so they may hold anything.
struct Camera {
    unsigned int index = 0;
    ZevoGuid guid;
    std::uint32_t serialNumber = 0;
    std::string serialText;
    InterfaceType interfaceType = INTERFACE_IEEE1394;
    std::string vendor;
    std::string model;

    // GigE only.
    std::string name;  ///< The one that users give.
    MACAddress mac;
    IPAddress ip;

    // Not read by ListCameras.
    std::uint32_t speed = 0;           ///< Of its link, in Mbit/s; 0: unknown.
    std::uint32_t cameraSpeed = 0;     ///< USB: the most that the camera can do; 0: unknown.
    std::uint32_t portSpeed = 0;       ///< USB: the most that its port can do; 0: unknown.
    std::optional<unsigned int> port;  ///< Of the hub, host controller or PHY above.
    std::string location;              ///< "xhci0 port 1.2", "fw0 PHY 3", "eth0".
    std::optional<Platform::ControlState> control;

    bool IsGigE() const { return interfaceType == INTERFACE_GIGE; }
};

/// An IEEE 1394 node other than a camera.
struct Device {
    unsigned int index = 0;
    ZevoGuid guid;
    InterfaceType interfaceType = INTERFACE_IEEE1394;
};

/// The lists as they are now. A camera that leaves meanwhile is left out or listed with empty texts.
/// @throws CommandError with the bus master's error.
std::vector<Camera> ListCameras(BusMaster& busMaster);
std::vector<Device> ListDevices(BusMaster& busMaster);

/// Four groups of eight lower-case hexadecimal digits joined by `-`.
std::string FormatGuid(const ZevoGuid& guid);
/// The dotted form.
std::string FormatIp(const IPAddress& ip);
/// `1394`, `USB2`, `USB3` or `GigE`.
std::string FormatInterface(InterfaceType type);

/// "free", "ours", "controlled", "exclusive" or "unknown".
std::string FormatControl(Platform::ControlState state);

/// What is unknown of it is left out.
Json ToJson(const Camera& camera);
Json ToJson(const Device& device);

/// JSON in ASCII, one line unless indent is positive: valid whatever bytes the texts hold, harmless to any terminal.
std::string Dump(const Json& json, int indent = -1);

}  // namespace Nimbrel2::Tool

#endif
