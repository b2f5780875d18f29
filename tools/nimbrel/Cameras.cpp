// SPDX-License-Identifier: Apache-2.0
// Reads the bus master's lists. Any thread; no lock of its own.
#include "tools/nimbrel/Cameras.h"

#include <cstdio>

#include "tools/nimbrel/ErrorTexts.h"
#include "tools/nimbrel/GigEValues.h"
#include "tools/nimbrel/Text.h"

namespace Nimbrel2::Tool {
namespace {

using Count = Error (BusMaster::*)(unsigned int*);
using FromIndex = Error (BusMaster::*)(unsigned int, ZevoGuid*);

std::vector<ZevoGuid> ReadGuids(BusMaster& busMaster, Count count, FromIndex fromIndex) {
    unsigned int size = 0;
    Check((busMaster.*count)(&size), "the cameras cannot be listed");
    std::vector<ZevoGuid> guids;
    for (unsigned int index = 0; index < size; ++index) {
        ZevoGuid guid;
        const Error error = (busMaster.*fromIndex)(index, &guid);
        if (error == ERROR_INVALID_PARAMETER) {
            break;  // the list has become shorter
        }
        Check(error, "the cameras cannot be listed");
        guids.push_back(guid);
    }
    return guids;
}

// A list may change between two look-ups: two equal readings were true at one time. On a bus that never rests the last
// reading must do.
std::vector<ZevoGuid> ReadGuidsTwice(BusMaster& busMaster, Count count, FromIndex fromIndex) {
    constexpr int MostReadings = 10;
    std::vector<ZevoGuid> guids = ReadGuids(busMaster, count, fromIndex);
    for (int reading = 1; reading < MostReadings; ++reading) {
        std::vector<ZevoGuid> again = ReadGuids(busMaster, count, fromIndex);
        if (again == guids) {
            break;
        }
        guids = std::move(again);
    }
    return guids;
}

// What the bus master itself remembers of a camera that does not answer now. False when it is no longer listed.
bool ReadWithoutDevice(BusMaster& busMaster, Camera* camera) {
    if (busMaster.GetInterfaceTypeFromGuid(camera->guid, &camera->interfaceType) != ERROR_OK) {
        return false;
    }
    ZevoGuid guid;
    return busMaster.GetCameraSerialNumberFromIndex(camera->index, &camera->serialNumber) == ERROR_OK &&
           busMaster.GetCameraFromIndex(camera->index, &guid) == ERROR_OK && guid == camera->guid;
}

}  // namespace

std::vector<Camera> ListCameras(BusMaster& busMaster) {
    std::vector<Camera> cameras;
    unsigned int index = 0;
    for (const ZevoGuid& guid :
         ReadGuidsTwice(busMaster, &BusMaster::GetNumOfCameras, &BusMaster::GetCameraFromIndex)) {
        Camera camera;
        camera.index = index++;
        camera.guid = guid;
        CameraInfo info;
        if (busMaster.GetCameraInfo(guid, &info) == ERROR_OK) {
            camera.serialNumber = info.serialNumber;
            camera.serialText = FromField(info.serialText);
            camera.interfaceType = info.interfaceType;
            camera.vendor = FromField(info.vendorName);
            camera.model = FromField(info.modelName);
            camera.name = FromField(info.userDefinedName);
            camera.mac = info.macAddress;
            camera.ip = info.ipAddress;
        } else if (!ReadWithoutDevice(busMaster, &camera)) {
            continue;
        }
        cameras.push_back(camera);
    }
    return cameras;
}

std::vector<Device> ListDevices(BusMaster& busMaster) {
    std::vector<Device> devices;
    unsigned int index = 0;
    for (const ZevoGuid& guid :
         ReadGuidsTwice(busMaster, &BusMaster::GetNumOfDevices, &BusMaster::GetDeviceFromIndex)) {
        Device device{index++, guid, INTERFACE_IEEE1394};
        if (busMaster.GetInterfaceTypeFromGuid(guid, &device.interfaceType) != ERROR_OK) {
            continue;
        }
        devices.push_back(device);
    }
    return devices;
}

std::string FormatGuid(const ZevoGuid& guid) {
    char text[40];
    std::snprintf(text, sizeof text, "%08x-%08x-%08x-%08x", guid.value[0], guid.value[1], guid.value[2], guid.value[3]);
    return text;
}

std::string FormatIp(const IPAddress& ip) {
    char text[16];
    std::snprintf(text, sizeof text, "%u.%u.%u.%u", ip.octets[0], ip.octets[1], ip.octets[2], ip.octets[3]);
    return text;
}

std::string FormatInterface(InterfaceType type) {
    switch (type) {
        case INTERFACE_IEEE1394:
            return "1394";
        case INTERFACE_USB_2:
            return "USB2";
        case INTERFACE_USB_3:
            return "USB3";
        case INTERFACE_GIGE:
            return "GigE";
        case INTERFACE_NONE:
            break;
    }
    return "none";
}

std::string FormatControl(Platform::ControlState state) {
    switch (state) {
        case Platform::ControlState::Free:
            return "free";
        case Platform::ControlState::Ours:
            return "ours";
        case Platform::ControlState::Controlled:
            return "controlled";
        case Platform::ControlState::Exclusive:
            return "exclusive";
        case Platform::ControlState::Unknown:
            break;
    }
    return "unknown";
}

Json ToJson(const Camera& camera) {
    Json json{{"index", camera.index},
              {"serial", camera.serialNumber},
              {"serial_text", camera.serialText},
              {"guid", FormatGuid(camera.guid)},
              {"interface", FormatInterface(camera.interfaceType)},
              {"vendor", camera.vendor},
              {"model", camera.model}};
    if (!camera.name.empty()) {
        json["name"] = camera.name;
    }
    if (camera.speed != 0) {
        json["speed"] = camera.speed;
    }
    if (camera.port) {
        json["port"] = *camera.port;
    }
    if (!camera.location.empty()) {
        json["location"] = camera.location;
    }
    if (camera.IsGigE()) {
        json["ip"] = FormatIp(camera.ip);
        json["mac"] = FormatMac(camera.mac);
    }
    if (camera.control) {
        json["control"] = FormatControl(*camera.control);
    }
    return json;
}

Json ToJson(const Device& device) {
    return Json{{"index", device.index},
                {"guid", FormatGuid(device.guid)},
                {"interface", FormatInterface(device.interfaceType)}};
}

std::string Dump(const Json& json, int indent) {
    return json.dump(indent, ' ', true, Json::error_handler_t::replace) + "\n";
}

}  // namespace Nimbrel2::Tool
