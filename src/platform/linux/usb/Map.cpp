// SPDX-License-Identifier: Apache-2.0
// Maps of host controllers from what a diagnosis says. Pure.
#include "platform/linux/usb/Map.h"

#include <cstdint>
#include <map>
#include <string>

#include "platform/linux/usb/Place.h"

namespace Nimbrel2::Platform::Usb {

namespace {

std::string NameOf(const UsbDeviceDiagnosis& device) {
    return device.vendor + (device.vendor.empty() || device.model.empty() ? "" : " ") + device.model;
}

BusMapNode NodeOf(const UsbDeviceDiagnosis& device, std::uint32_t parent) {
    BusMapNode node;
    node.id = device.deviceId;
    node.parent = parent;
    node.port = device.port;
    node.path = device.name;
    node.speed = device.speed;
    node.deviceSpeed = device.deviceSpeed;
    node.portSpeed = device.portSpeed;
    node.name = NameOf(device);
    node.isHub = device.isHub;
    node.isCamera = device.isListed;
    if (!node.isCamera) {
        return node;
    }
    node.serialNumber = device.serialNumber;
    node.vendor = device.vendor;
    node.model = device.model;
    return node;
}

}  // namespace

std::vector<BusMap> MapControllers(const std::vector<UsbDeviceDiagnosis>& devices) {
    std::vector<BusMap> maps;
    std::map<std::string, std::uint32_t> ids;  // by name, of the devices before
    std::uint64_t key = 0;
    for (const UsbDeviceDiagnosis& device : devices) {
        if (maps.empty() || device.hostKey != key) {
            key = device.hostKey;
            BusMap& map = maps.emplace_back();
            map.bus = HAL_INTERFACE_USB;
            map.name = device.controller;
        }
        ids.emplace(device.name, device.deviceId);
        if (device.hub.empty()) {
            continue;
        }
        const auto hub = ids.find(device.hub);
        maps.back().nodes.push_back(NodeOf(device, hub != ids.end() ? hub->second : HostDeviceId));
    }
    return maps;
}

}  // namespace Nimbrel2::Platform::Usb
