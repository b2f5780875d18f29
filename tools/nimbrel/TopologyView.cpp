// SPDX-License-Identifier: Apache-2.0
// Joins the topology tree with the list of cameras. Any thread; no lock of its own.
#include "tools/nimbrel/TopologyView.h"

#include <algorithm>
#include <map>

namespace Nimbrel2::Tool {
namespace {

using Node = TopologyNode;

// What a host controller is called in the tree.
constexpr int kUsbHostId = 63;

struct ByNumbers {
    bool operator()(const ZevoGuid& a, const ZevoGuid& b) const {
        return std::lexicographical_compare(std::begin(a.value), std::end(a.value), std::begin(b.value),
                                            std::end(b.value));
    }
};

class ViewMaker {
public:
    explicit ViewMaker(BusMaster& busMaster) : m_busMaster(busMaster) {
        for (const Camera& camera : ListCameras(busMaster)) m_cameras.emplace(camera.guid, Known{camera});
    }

    TopologyView Make(const Node& node, const TopologyView* above = nullptr) {
        TopologyView view;
        view.type = node.GetNodeType();
        view.interfaceType = node.GetInterfaceType();
        view.id = node.GetDeviceId();
        view.guid = node.GetGuid();
        view.isFireWireRoot = IsPhy(view) && above != nullptr && above->type == Node::NODE_BUS;
        for (unsigned int i = 0; i < node.GetNumPorts(); ++i) view.ports.push_back(node.GetPortType(i));
        view.isCamera = view.type == Node::NODE_CAMERA || !(view.guid == ZevoGuid{});
        if (view.isCamera) AddCamera(&view);
        for (unsigned int i = 0; i < node.GetNumChildren(); ++i) view.children.push_back(Make(node.GetChild(i), &view));
        NumberPorts(&view);
        return view;
    }

    std::vector<Camera> GetUnplaced() const {
        std::vector<Camera> unplaced;
        for (const auto& [guid, known] : m_cameras) {
            if (!known.placed) unplaced.push_back(known.camera);
        }
        std::sort(unplaced.begin(), unplaced.end(), [](const Camera& a, const Camera& b) { return a.index < b.index; });
        return unplaced;
    }

private:
    struct Known {
        Camera camera;
        bool placed = false;
    };

    static bool IsPhy(const TopologyView& view) {
        return view.type == Node::NODE_DEVICE && view.interfaceType == INTERFACE_IEEE1394;
    }

    void AddCamera(TopologyView* view) {
        const auto found = m_cameras.find(view->guid);
        if (found == m_cameras.end()) return;
        found->second.placed = true;
        view->camera = found->second.camera;
        unsigned int speed = 0;
        if (m_busMaster.GetLinkSpeed(view->guid, &speed) == ERROR_OK) view->speed = speed;
    }

    void NumberPorts(TopologyView* view) const {
        if (view->type != Node::NODE_DEVICE) return;
        if (!IsPhy(*view)) {
            for (TopologyView& child : view->children) {
                if (child.isCamera) child.portAbove = UsbPort(child.guid);
            }
            return;
        }
        auto child = view->children.begin();
        const std::size_t firstSocket = view->isFireWireRoot ? 1 : 0;
        for (std::size_t i = firstSocket; i < view->ports.size() && child != view->children.end(); ++i) {
            if (view->ports[i] != Node::PORT_TO_CHILD) continue;
            child->portAbove = static_cast<unsigned int>(i - firstSocket);
            ++child;
        }
    }

    // The tree of a USB host says what hangs on a hub, and not on which of its ports; the camera does.
    std::optional<unsigned int> UsbPort(const ZevoGuid& guid) const {
        unsigned int link = 0;
        if (m_busMaster.GetUsbLinkInfo(guid, &link) != ERROR_OK) return std::nullopt;
        const unsigned int port = link >> 8 & 0xFF;
        return port == 0 ? std::nullopt : std::optional(port);
    }

    BusMaster& m_busMaster;
    std::map<ZevoGuid, Known, ByNumbers> m_cameras;
};

std::string BusName(InterfaceType type) {
    switch (type) {
        case INTERFACE_IEEE1394:
            return "IEEE 1394";
        case INTERFACE_USB_2:
            return "USB 2";
        case INTERFACE_USB_3:
            return "USB 3";
        case INTERFACE_GIGE:
            return "GigE";
        case INTERFACE_NONE:
            break;
    }
    return "Bus";
}

}  // namespace

std::string TopologyView::GetName() const {
    if (isCamera) {
        if (!camera || (camera->vendor.empty() && camera->model.empty())) return "Camera";
        return camera->vendor + (camera->vendor.empty() || camera->model.empty() ? "" : " ") + camera->model;
    }
    if (type == TopologyNode::NODE_COMPUTER) return "Computer";
    if (type == TopologyNode::NODE_BUS) return BusName(interfaceType);
    if (interfaceType == INTERFACE_IEEE1394) return "PHY " + std::to_string(id);
    if (id == kUsbHostId) return "USB host";
    return children.empty() ? "Device" : "Hub";
}

unsigned int TopologyView::CountSockets() const {
    if (type != TopologyNode::NODE_DEVICE || interfaceType != INTERFACE_IEEE1394) return 0;
    return static_cast<unsigned int>(ports.size()) - (isFireWireRoot && !ports.empty() ? 1 : 0);
}

unsigned int TopologyView::CountFreeSockets() const {
    return static_cast<unsigned int>(std::count(ports.begin(), ports.end(), TopologyNode::PORT_NOT_CONNECTED));
}

unsigned int TopologyView::CountCameras() const {
    unsigned int count = isCamera ? 1 : 0;
    for (const TopologyView& child : children) count += child.CountCameras();
    return count;
}

Topology ReadTopology(BusMaster& busMaster) {
    ViewMaker maker(busMaster);
    TopologyNode tree;
    Check(busMaster.GetTopology(&tree));
    Topology topology;
    topology.computer = maker.Make(tree);
    topology.unplaced = maker.GetUnplaced();
    return topology;
}

std::string FormatSpeed(std::uint32_t megabits) {
    if (megabits < 1000) return std::to_string(megabits) + " Mbit/s";
    std::string text = std::to_string(megabits / 1000);
    std::string decimals = std::to_string(1000 + megabits % 1000).substr(1);
    decimals.erase(decimals.find_last_not_of('0') + 1);
    return text + (decimals.empty() ? "" : "." + decimals) + " Gbit/s";
}

}  // namespace Nimbrel2::Tool
