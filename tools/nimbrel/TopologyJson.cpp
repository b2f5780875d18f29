// SPDX-License-Identifier: Apache-2.0
// The tree as JSON. Pure.
#include "tools/nimbrel/TopologyRenderings.h"

namespace Nimbrel2::Tool {
namespace {

using Kind = TopologyView::Kind;

const char* TypeName(Kind kind) {
    switch (kind) {
        case Kind::Computer:
            return "computer";
        case Kind::Bus:
            return "bus";
        case Kind::Camera:
            return "camera";
        case Kind::Interface:
        case Kind::Device:
            break;
    }
    return "device";
}

const char* PortName(TopologyNode::PortType type) {
    switch (type) {
        case TopologyNode::PORT_TO_PARENT:
            return "parent";
        case TopologyNode::PORT_TO_CHILD:
            return "child";
        case TopologyNode::PORT_NOT_CONNECTED:
            break;
    }
    return "unconnected";
}

Json ToJson(const NetworkLink& link) {
    Json json{{"name", link.name}, {"up", link.up}};
    if (link.speed != 0) {
        json["speed"] = link.speed;
    }
    return json;
}

void AddCamera(const Camera& camera, Json* json) {
    (*json)["serial"] = camera.serialNumber;
    (*json)["serial_text"] = camera.serialText;
    (*json)["vendor"] = camera.vendor;
    (*json)["model"] = camera.model;
    if (!camera.name.empty()) {
        (*json)["name"] = camera.name;
    }
    if (!camera.location.empty()) {
        (*json)["location"] = camera.location;
    }
    if (camera.IsGigE()) {
        (*json)["ip"] = FormatIp(camera.ip);
    }
}

Json ToJson(const TopologyView& view) {
    Json ports = Json::array();
    for (const TopologyNode::PortType port : view.ports) {
        ports.push_back(PortName(port));
    }
    Json children = Json::array();
    for (const TopologyView& child : view.children) {
        children.push_back(ToJson(child));
    }
    Json json{{"type", TypeName(view.kind)},
              {"interface", FormatInterface(view.interfaceType)},
              {"id", view.id},
              {"guid", FormatGuid(view.guid)},
              {"ports", std::move(ports)},
              {"children", std::move(children)}};
    if (view.portAbove) {
        json["port"] = *view.portAbove;
    }
    if (view.camera) {
        AddCamera(*view.camera, &json);
    }
    if (!view.name.empty()) {
        json["name"] = view.name;
    }
    if (!view.busName.empty()) {
        json["bus"] = view.busName;
    }
    if (view.isThisComputer) {
        json["this_computer"] = true;
    }
    if (view.speed != 0) {
        json["speed"] = view.speed;
    }
    if (view.link) {
        json["link"] = ToJson(*view.link);
    }
    if (view.places > 1) {
        json["places"] = view.places;
        json["true_place"] = view.isTruePlace;
    }
    return json;
}

Json ToJson(const UnplacedCamera& unplaced) {
    Json json{{"interface", FormatInterface(unplaced.camera.interfaceType)},
              {"guid", FormatGuid(unplaced.camera.guid)}};
    AddCamera(unplaced.camera, &json);
    json["reason"] = unplaced.reason;
    return json;
}

}  // namespace

std::string TopologyAsJson(const Topology& topology) {
    Json json = ToJson(topology.computer);
    json["unplaced"] = Json::array();
    for (const UnplacedCamera& unplaced : topology.unplaced) {
        json["unplaced"].push_back(ToJson(unplaced));
    }
    json["cut"] = topology.cut;
    return Dump(json, 2);
}

}  // namespace Nimbrel2::Tool
