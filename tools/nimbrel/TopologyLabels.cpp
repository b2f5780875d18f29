// SPDX-License-Identifier: Apache-2.0
// Words for nodes and cables. Pure.
#include "tools/nimbrel/TopologyLabels.h"

#include "tools/nimbrel/Text.h"
#include "tools/nimbrel/Values.h"
#include "tools/nimbrel/Words.h"

namespace Nimbrel2::Tool {
namespace {

// Longer texts would make one node as wide as the rest of the picture.
constexpr std::size_t LongestLine = 40;

}  // namespace

std::vector<std::string> LabelOf(const TopologyView& view) {
    std::vector<std::string> lines{view.GetName()};
    if (view.camera) {
        lines.push_back("serial " + std::to_string(view.camera->serialNumber));
        if (view.camera->IsGigE()) {
            lines.push_back(FormatIp(view.camera->ip));
        }
        const bool standsAlone = view.kind == TopologyView::Kind::Camera && !view.camera->IsGigE();
        if (standsAlone && !view.camera->location.empty()) {
            lines.push_back(view.camera->location);
        }
    }
    if (view.kind == TopologyView::Kind::Interface && view.link) {
        lines.push_back((view.link->speed != 0 ? FormatSpeed(view.link->speed) + ", " : "") + DescribeLink(*view.link));
    }
    if (view.CountSockets() > 1) {
        lines.push_back(std::to_string(view.CountFreeSockets()) + " of " + CountOf(view.CountSockets(), "port") +
                        " free");
    }
    for (const std::string& line : DescribePlaces(view)) {
        lines.push_back(line);
    }
    if (view.Gathers()) {
        lines.push_back(CountOf(view.CountCameras(), "camera"));
    }
    return lines;
}

std::vector<std::string> CableLabelOf(const TopologyView& view) {
    std::vector<std::string> lines;
    if (view.portAbove) {
        lines.push_back("port " + std::to_string(*view.portAbove));
    }
    if (view.speed != 0 && !view.Gathers() && !view.isBusRoot) {
        lines.push_back(FormatSpeed(view.speed));
    }
    return lines;
}

std::vector<std::string> DescribePlaces(const TopologyView& view) {
    if (view.places < 2) {
        return {};
    }
    std::vector<std::string> lines{"shown at " + CountOf(view.places, "place")};
    if (!view.truePath.empty()) {
        lines.push_back(view.isTruePlace ? "this is the true one" : "really at port " + view.truePath);
    }
    return lines;
}

std::string DescribeLink(const NetworkLink& link) { return link.up ? "link up" : "no link"; }

std::vector<std::string> LabelOf(const UnplacedCamera& unplaced) {
    const Camera& camera = unplaced.camera;
    const std::string name = camera.vendor + (camera.vendor.empty() || camera.model.empty() ? "" : " ") + camera.model;
    return {name.empty() ? "Camera" : name, "serial " + std::to_string(camera.serialNumber),
            "not in the tree:", unplaced.reason};
}

BusPaint PaintOf(InterfaceType type) {
    switch (type) {
        case INTERFACE_IEEE1394:
            return {"#b45309", "#fef3c7"};
        case INTERFACE_USB_2:
            return {"#0f766e", "#ccfbf1"};
        case INTERFACE_USB_3:
            return {"#1d4ed8", "#dbeafe"};
        case INTERFACE_GIGE:
            return {"#7e22ce", "#f3e8ff"};
        case INTERFACE_NONE:
            break;
    }
    return {"#334155", "#e2e8f0"};
}

std::u32string ForPicture(const std::string& text) {
    const std::u32string characters = ToCharacters(text);
    return characters.size() <= LongestLine ? characters : characters.substr(0, LongestLine - 3) + U"...";
}

}  // namespace Nimbrel2::Tool
