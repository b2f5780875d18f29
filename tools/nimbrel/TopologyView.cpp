// SPDX-License-Identifier: Apache-2.0
// Joins the topology tree with the list of cameras. Any thread; no lock of its own.
#include "tools/nimbrel/TopologyView.h"

#include <algorithm>
#include <map>

#include "tools/nimbrel/BusMaps.h"
#include "tools/nimbrel/Capacity.h"
#include "tools/nimbrel/ErrorTexts.h"
#include "tools/nimbrel/Locations.h"

namespace Nimbrel2::Tool {
namespace {

using Node = TopologyNode;
using Kind = TopologyView::Kind;

// What a host controller is called in the tree.
constexpr int UsbHostId = 63;
// The tree of a host shows what is behind at most so many hubs.
constexpr unsigned int DeepestHubs = 4;

Kind KindOf(Node::NodeType type) {
    switch (type) {
        case Node::NODE_COMPUTER:
            return Kind::Computer;
        case Node::NODE_BUS:
            return Kind::Bus;
        case Node::NODE_CAMERA:
            return Kind::Camera;
        case Node::NODE_DEVICE:
            break;
    }
    return Kind::Device;
}

class ViewMaker {
public:
    ViewMaker(BusMaster& busMaster, std::vector<Camera> cameras) : m_busMaster(busMaster) {
        for (Camera& camera : cameras) {
            m_cameras.push_back({std::move(camera), false});
        }
    }

    TopologyView Make(const Node& node, const TopologyView* above = nullptr) {
        TopologyView view;
        view.kind = KindOf(node.GetNodeType());
        view.interfaceType = node.GetInterfaceType();
        view.id = node.GetDeviceId();
        view.guid = node.GetGuid();
        view.isBusRoot = view.kind == Kind::Device && above != nullptr && above->kind == Kind::Bus;
        for (unsigned int i = 0; i < node.GetNumPorts(); ++i) {
            view.ports.push_back(node.GetPortType(i));
        }
        view.isCamera = view.kind == Kind::Camera || !(view.guid == ZevoGuid{});
        if (view.isCamera) {
            AddCamera(&view);
        }
        for (unsigned int i = 0; i < node.GetNumChildren(); ++i) {
            view.children.push_back(Make(node.GetChild(i), &view));
        }
        if (view.kind == Kind::Device && view.interfaceType == INTERFACE_IEEE1394) {
            NumberPorts(&view);
        }
        return view;
    }

    std::vector<UnplacedCamera> GetUnplaced() const {
        std::vector<UnplacedCamera> unplaced;
        for (const Known& known : m_cameras) {
            if (!known.placed) {
                unplaced.push_back({known.camera, ReasonFor(known.camera)});
            }
        }
        return unplaced;
    }

private:
    struct Known {
        Camera camera;
        bool placed = false;
    };

    // Cameras that share a guid are taken in the order of the list, which is that of the tree.
    void AddCamera(TopologyView* view) {
        for (Known& known : m_cameras) {
            if (known.placed || !(known.camera.guid == view->guid)) {
                continue;
            }
            known.placed = true;
            view->camera = known.camera;
            view->speed = known.camera.speed;
            return;
        }
    }

    // Self-IDs tell the ports of a PHY in order, and children come in the order of the ports.
    static void NumberPorts(TopologyView* view) {
        auto child = view->children.begin();
        const std::size_t firstSocket = view->isBusRoot ? 1 : 0;
        for (std::size_t i = firstSocket; i < view->ports.size() && child != view->children.end(); ++i) {
            if (view->ports[i] != Node::PORT_TO_CHILD) {
                continue;
            }
            child->portAbove = static_cast<unsigned int>(i - firstSocket);
            ++child;
        }
    }

    std::string ReasonFor(const Camera& camera) const {
        unsigned int link = 0;
        if (m_busMaster.GetUsbLinkInfo(camera.guid, &link) == ERROR_OK && (link & 0xFF) > DeepestHubs) {
            return "it is more than four hubs deep";
        }
        boost::shared_ptr<HardwareInterface> hwInterface;
        unsigned int generation = 0;
        std::uint64_t bus = 0;
        std::uint64_t count = 0;
        if (camera.interfaceType == INTERFACE_IEEE1394 &&
            m_busMaster.KeepHwInterface(camera.guid, &hwInterface) == ERROR_OK &&
            hwInterface->GetSelfIds(&generation, &bus, &count, nullptr) == HAL_PERMISSION) {
            return "finding out where it is takes a permission";
        }
        if (camera.interfaceType == INTERFACE_IEEE1394 && camera.location.empty()) {
            return "it is virtual, or its bus does not tell where it is";
        }
        return "its bus does not tell where it is";
    }

    BusMaster& m_busMaster;
    std::vector<Known> m_cameras;
};

// ---- Devices that stand at several places --------------------------------------------------------------------------

using DevicePlaces = std::map<int, std::vector<TopologyView*>>;

void CollectPlaces(TopologyView* view, DevicePlaces* places) {
    (*places)[view->id].push_back(view);
    for (TopologyView& child : view->children) {
        CollectPlaces(&child, places);
    }
}

void MarkPlaces(TopologyView* root) {
    DevicePlaces places;
    CollectPlaces(root, &places);
    for (auto& [id, views] : places) {
        for (TopologyView* view : views) {
            view->places = static_cast<unsigned int>(views.size());
        }
    }
}

// ---- Network links -------------------------------------------------------------------------------------------------

void AddLinks(TopologyView* bus, const std::vector<Platform::BusMap>& maps) {
    for (TopologyView& view : bus->children) {
        if (!view.camera) {
            continue;
        }
        for (const Platform::BusMap& map : maps) {
            const bool isThere = std::any_of(map.nodes.begin(), map.nodes.end(),
                                             [&](const auto& node) { return IsNodeOf(map, node, *view.camera); });
            if (!isThere || map.bus != HAL_INTERFACE_GIGE) {
                continue;
            }
            view.link = NetworkLink{map.name, map.hasLink, map.linkSpeed};
            break;
        }
    }
}

std::string NameOfDevice(const TopologyView& view) {
    if (view.interfaceType != INTERFACE_IEEE1394) {
        if (view.id == UsbHostId) {
            return "USB host" + (view.busName.empty() ? "" : " " + view.busName);
        }
        if (!view.name.empty()) {
            return view.name;
        }
        return view.isHub || !view.children.empty() ? "Hub" : "Device";
    }
    const std::string phy = "PHY " + std::to_string(view.id);
    const std::string own = view.name.empty() && view.isHub ? "hub" : view.name;
    const std::string name = view.isThisComputer ? "this computer" : own;
    return (view.busName.empty() ? "" : view.busName + ": ") + (name.empty() ? phy : name + " (" + phy + ")");
}

}  // namespace

std::string TopologyView::GetName() const {
    if (isCamera) {
        const std::string bus = busName.empty() ? "" : busName + ": ";
        if (!camera || (camera->vendor.empty() && camera->model.empty())) {
            return bus + "Camera";
        }
        return bus + camera->vendor + (camera->vendor.empty() || camera->model.empty() ? "" : " ") + camera->model;
    }
    switch (kind) {
        case Kind::Computer:
            return "Computer";
        case Kind::Bus:
            return BusName(interfaceType);
        case Kind::Interface:
            return name;
        case Kind::Camera:
        case Kind::Device:
            break;
    }
    return NameOfDevice(*this);
}

unsigned int TopologyView::CountSockets() const {
    if (kind != Kind::Device || interfaceType != INTERFACE_IEEE1394) {
        return 0;
    }
    return static_cast<unsigned int>(ports.size()) - (isBusRoot && !ports.empty() ? 1 : 0);
}

unsigned int TopologyView::CountFreeSockets() const {
    return static_cast<unsigned int>(std::count(ports.begin(), ports.end(), Node::PORT_NOT_CONNECTED));
}

unsigned int TopologyView::CountCameras() const {
    unsigned int count = isCamera ? 1 : 0;
    for (const TopologyView& child : children) {
        count += child.CountCameras();
    }
    return count;
}

Topology ReadTopology(BusMaster& busMaster) {
    std::vector<Camera> cameras = ListCameras(busMaster);
    const std::vector<Platform::BusMap> maps = ReadBusMaps();
    for (Camera& camera : cameras) {
        unsigned int speed = 0;
        if (busMaster.GetLinkSpeed(camera.guid, &speed) == ERROR_OK) {
            camera.speed = speed;
        }
    }
    AddLocations(maps, &cameras);
    Topology topology;
    topology.cut = FindCutListings(cameras);
    ViewMaker maker(busMaster, cameras);
    TopologyNode tree;
    Check(busMaster.GetTopology(&tree), "the topology cannot be read");
    topology.computer = maker.Make(tree);
    for (TopologyView& bus : topology.computer.children) {
        if (bus.interfaceType == INTERFACE_GIGE) {
            AddLinks(&bus, maps);
        }
        const bool hasTrees = bus.interfaceType == INTERFACE_IEEE1394 || bus.interfaceType == INTERFACE_USB_3;
        if (!hasTrees) {
            continue;
        }
        for (TopologyView& root : bus.children) {
            if (root.kind == Kind::Device) {
                MarkPlaces(&root);
            }
        }
        AddMaps(maps, &bus);
    }
    topology.unplaced = maker.GetUnplaced();
    return topology;
}

TopologyView WithInterfaces(const TopologyView& computer) {
    TopologyView drawn = computer;
    for (TopologyView& bus : drawn.children) {
        if (bus.interfaceType != INTERFACE_GIGE) {
            continue;
        }
        std::vector<TopologyView> below;
        for (TopologyView& camera : bus.children) {
            if (!camera.link) {
                below.push_back(std::move(camera));
                continue;
            }
            auto interface = std::find_if(below.begin(), below.end(), [&camera](const TopologyView& view) {
                return view.kind == Kind::Interface && view.link == camera.link;
            });
            if (interface == below.end()) {
                TopologyView view;
                view.kind = Kind::Interface;
                view.interfaceType = INTERFACE_GIGE;
                view.name = camera.link->name;
                view.link = camera.link;
                view.speed = camera.link->speed;
                interface = below.insert(below.end(), std::move(view));
            }
            interface->children.push_back(std::move(camera));
        }
        bus.children = std::move(below);
    }
    return drawn;
}

const TopologyView* FindInTree(const TopologyView& view, const ZevoGuid& guid) {
    if (view.isCamera && view.guid == guid) {
        return &view;
    }
    for (const TopologyView& child : view.children) {
        if (const TopologyView* found = FindInTree(child, guid)) {
            return found;
        }
    }
    return nullptr;
}

}  // namespace Nimbrel2::Tool
