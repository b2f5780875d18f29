// SPDX-License-Identifier: Apache-2.0
// Finds cameras in the maps of the buses. Any thread; no lock of its own.
#include "tools/nimbrel/Locations.h"

#include <algorithm>
#include <set>
#include <utility>

#include "tools/nimbrel/BusHealth.h"
#include "tools/nimbrel/GigEValues.h"

namespace Nimbrel2::Tool {
namespace {

using Platform::BusMap;
using Platform::BusMapNode;

constexpr std::size_t Deepest = 16;  // more than any bus allows, fewer than a loop of parents takes

const BusMapNode* FindNode(const BusMap& map, std::uint32_t id) {
    for (const BusMapNode& node : map.nodes) {
        if (node.id == id) {
            return &node;
        }
    }
    return nullptr;
}

std::string LocationOf(const BusMap& map, const BusMapNode& node) {
    if (map.bus == HAL_INTERFACE_GIGE) {
        return map.name;
    }
    if (map.bus == HAL_INTERFACE_1394) {
        return map.name + " PHY " + std::to_string(node.id);
    }
    const std::string path = PortPath(map, node);
    // Ports of the two halves of a controller have the same numbers.
    return map.name + (path.empty() ? "" : " port " + path) + (node.path.empty() ? "" : " (" + node.path + ")");
}

}  // namespace

std::vector<BusMap> ReadBusMaps() {
    std::vector<BusMap> maps;
    if (Platform::DescribeBuses(&maps) != HAL_OK) {
        maps.clear();
    }
    return maps;
}

bool IsNodeOf(const BusMap& map, const BusMapNode& node, const Camera& camera) {
    if (!node.isCamera || !IsOn(map.bus, camera.interfaceType)) {
        return false;
    }
    if (camera.IsGigE() && node.mac != PackMac(camera.mac)) {
        return false;
    }
    return node.serialNumber == camera.serialNumber && node.vendor == camera.vendor && node.model == camera.model;
}

std::string PortPath(const BusMap& map, const BusMapNode& node) {
    std::string path;
    const BusMapNode* at = &node;
    for (std::size_t depth = 0; at != nullptr && at->port && depth < Deepest; ++depth) {
        path = std::to_string(*at->port) + (path.empty() ? "" : "." + path);
        at = at->parent ? FindNode(map, *at->parent) : nullptr;
    }
    return path;
}

void AddLocations(const std::vector<BusMap>& maps, std::vector<Camera>* cameras) {
    std::set<const BusMapNode*> taken;
    for (Camera& camera : *cameras) {
        for (const BusMap& map : maps) {
            const auto node = std::find_if(map.nodes.begin(), map.nodes.end(), [&](const BusMapNode& candidate) {
                return taken.count(&candidate) == 0 && IsNodeOf(map, candidate, camera);
            });
            if (node == map.nodes.end()) {
                continue;
            }
            taken.insert(&*node);
            camera.port = node->port;
            camera.location = LocationOf(map, *node);
            camera.cameraSpeed = node->deviceSpeed;
            camera.portSpeed = node->portSpeed;
            if (camera.speed == 0) {
                camera.speed = node->speed;
            }
            break;
        }
    }
}

void AddLocations(BusMaster& busMaster, std::vector<Camera>* cameras) {
    // Twins get their places in the order of the whole list, so all of it is needed.
    std::vector<Camera> all = ListCameras(busMaster);
    AddLocations(ReadBusMaps(), &all);
    for (Camera& camera : *cameras) {
        for (const Camera& other : all) {
            if (other.index != camera.index || !(other.guid == camera.guid)) {
                continue;
            }
            camera.port = other.port;
            camera.location = other.location;
            camera.cameraSpeed = other.cameraSpeed;
            camera.portSpeed = other.portSpeed;
            if (camera.speed == 0) {
                camera.speed = other.speed;
            }
        }
    }
}

std::string DescribeLocation(const Camera& camera) {
    if (!camera.IsGigE()) {
        return camera.location;
    }
    return FormatIp(camera.ip) + (camera.location.empty() ? "" : " on " + camera.location);
}

}  // namespace Nimbrel2::Tool
