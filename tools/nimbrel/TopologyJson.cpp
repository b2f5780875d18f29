// SPDX-License-Identifier: Apache-2.0
// The tree as JSON. Pure.
#include "tools/nimbrel/TopologyRenderings.h"

namespace Nimbrel2::Tool {
namespace {

const char* TypeName(TopologyNode::NodeType type) {
    switch (type) {
        case TopologyNode::NODE_COMPUTER:
            return "computer";
        case TopologyNode::NODE_BUS:
            return "bus";
        case TopologyNode::NODE_CAMERA:
            return "camera";
        case TopologyNode::NODE_DEVICE:
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

Json ToJson(const TopologyView& view) {
    Json ports = Json::array();
    for (const TopologyNode::PortType port : view.ports) ports.push_back(PortName(port));
    Json children = Json::array();
    for (const TopologyView& child : view.children) children.push_back(ToJson(child));
    Json json{{"type", TypeName(view.type)},
              {"interface", FormatInterface(view.interfaceType)},
              {"id", view.id},
              {"guid", FormatGuid(view.guid)},
              {"ports", std::move(ports)},
              {"children", std::move(children)}};
    if (view.portAbove) json["port"] = *view.portAbove;
    if (view.camera) {
        json["serial"] = view.camera->serialNumber;
        json["serial_text"] = view.camera->serialText;
        json["vendor"] = view.camera->vendor;
        json["model"] = view.camera->model;
        if (view.camera->IsGigE()) json["ip"] = FormatIp(view.camera->ip);
    }
    if (view.speed != 0) json["speed"] = view.speed;
    return json;
}

}  // namespace

std::string TopologyAsJson(const TopologyView& computer) { return Dump(ToJson(computer), 2); }

}  // namespace Nimbrel2::Tool
