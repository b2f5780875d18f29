// SPDX-License-Identifier: Apache-2.0
// Matches trees with maps by cameras and device ids. Pure.
#include "tools/nimbrel/BusMaps.h"

#include <map>
#include <set>

#include "tools/nimbrel/BusHealth.h"
#include "tools/nimbrel/Locations.h"

namespace Nimbrel2::Tool {
namespace {

using Platform::BusMap;
using Platform::BusMapNode;
using Kind = TopologyView::Kind;
using NodesById = std::map<std::uint32_t, const BusMapNode*>;

constexpr std::uint32_t UsbHostId = 63;

NodesById IndexNodes(const BusMap& map) {
    NodesById nodes;
    for (const BusMapNode& node : map.nodes) {
        nodes.emplace(node.id, &node);
    }
    return nodes;
}

bool IsUsbHost(const TopologyView& view) {
    return view.interfaceType == INTERFACE_USB_3 && view.id == static_cast<int>(UsbHostId);
}

// Whether the tree can be that of the map: every camera is where the map has it, and the map knows every USB device.
bool Fits(const TopologyView& view, const BusMap& map, const NodesById& nodes) {
    const auto found = nodes.find(static_cast<std::uint32_t>(view.id));
    const bool isKnown = found != nodes.end();
    if (view.camera && (!isKnown || !IsNodeOf(map, *found->second, *view.camera))) {
        return false;
    }
    if (!isKnown && view.interfaceType == INTERFACE_USB_3 && !IsUsbHost(view)) {
        return false;
    }
    for (const TopologyView& child : view.children) {
        if (!Fits(child, map, nodes)) {
            return false;
        }
    }
    return true;
}

void Fill(const BusMap& map, const NodesById& nodes, std::uint32_t above, TopologyView* view) {
    const auto found = nodes.find(static_cast<std::uint32_t>(view->id));
    if (found != nodes.end()) {
        const BusMapNode& node = *found->second;
        if (!view->isCamera) {
            view->name = node.name;
        }
        if (view->speed == 0) {
            view->speed = node.speed;
        }
        view->isThisComputer = node.isThisComputer;
        view->isHub = node.isHub;
        if (node.port) {
            view->portAbove = node.port;
        }
        if (view->places > 1 && node.parent) {
            view->isTruePlace = *node.parent == above;
            view->truePath = PortPath(map, node);
        }
    }
    for (TopologyView& child : view->children) {
        Fill(map, nodes, static_cast<std::uint32_t>(view->id), &child);
    }
}

}  // namespace

void AddMaps(const std::vector<BusMap>& maps, TopologyView* bus) {
    std::set<const BusMap*> used;
    for (TopologyView& root : bus->children) {
        if (root.kind != Kind::Device) {
            continue;
        }
        for (const BusMap& map : maps) {
            if (used.count(&map) != 0 || !IsOn(map.bus, bus->interfaceType)) {
                continue;
            }
            const NodesById nodes = IndexNodes(map);
            if (!Fits(root, map, nodes)) {
                continue;
            }
            used.insert(&map);
            root.busName = map.name;
            Fill(map, nodes, 0, &root);
            break;
        }
    }
}

}  // namespace Nimbrel2::Tool
