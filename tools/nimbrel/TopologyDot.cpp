// SPDX-License-Identifier: Apache-2.0
// The tree as a graph in the DOT language: a colour a bus, a shape a kind of node. Pure.
#include <vector>

#include "tools/nimbrel/Text.h"
#include "tools/nimbrel/TopologyRenderings.h"

namespace Nimbrel2::Tool {
namespace {

// Longer texts would make one node as wide as the rest of the picture.
constexpr std::size_t kLongestLine = 40;

struct Paint {
    const char* dark;
    const char* light;
};

Paint PaintOf(InterfaceType type) {
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

// A quoted string. A backslash would be an escape and an ampersand an entity to whoever reads the label.
std::string Quote(const std::vector<std::string>& lines) {
    std::string quoted = "\"";
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (i != 0) quoted += "\\n";
        std::u32string characters = ToCharacters(lines[i]);
        if (characters.size() > kLongestLine) characters = characters.substr(0, kLongestLine - 3) + U"...";
        for (const char32_t c : characters) {
            if (c == U'\\' || c == U'"') {
                quoted += std::string("\\") + static_cast<char>(c);
            } else if (c == U'&') {
                quoted += "&amp;";
            } else if (c > 0xFFFF) {
                quoted += "&#65533;";  // Graphviz makes invalid UTF-8 of references beyond
            } else if (c < 0x80) {
                quoted += static_cast<char>(c);
            } else {
                quoted += "&#" + std::to_string(static_cast<std::uint32_t>(c)) + ";";
            }
        }
    }
    return quoted + "\"";
}

std::string CountOf(unsigned int count, const std::string& one) {
    return std::to_string(count) + " " + one + (count == 1 ? "" : "s");
}

std::vector<std::string> LabelOf(const TopologyView& view) {
    std::vector<std::string> lines{view.GetName()};
    if (view.camera) lines.push_back("serial " + std::to_string(view.camera->serialNumber));
    if (view.camera && view.camera->IsGigE()) lines.push_back(FormatIp(view.camera->ip));
    if (view.CountSockets() > 1) {
        lines.push_back(std::to_string(view.CountFreeSockets()) + " of " + CountOf(view.CountSockets(), "port") +
                        " free");
    }
    const bool gathers = view.type == TopologyNode::NODE_COMPUTER || view.type == TopologyNode::NODE_BUS;
    if (gathers) lines.push_back(CountOf(view.CountCameras(), "camera"));
    return lines;
}

// What differs from the defaults of the graph.
std::string LookOf(const TopologyView& view) {
    const Paint paint = PaintOf(view.interfaceType);
    const std::string dark = std::string("\"") + paint.dark + "\"";
    const std::string light = std::string("\"") + paint.light + "\"";
    const bool gathers = view.type == TopologyNode::NODE_COMPUTER || view.type == TopologyNode::NODE_BUS;
    const std::string colours =
        gathers ? "color=" + dark + " fillcolor=" + dark + " fontcolor=white" : "color=" + dark + " fontcolor=" + dark;
    if (view.isCamera) return "class=camera style=\"rounded,filled\" penwidth=2 " + colours + " fillcolor=" + light;
    if (view.type == TopologyNode::NODE_COMPUTER) {
        return "class=computer shape=box3d style=filled " + colours + " color=\"#94a3b8\"";
    }
    if (view.type == TopologyNode::NODE_BUS) return "class=bus style=filled " + colours;
    if (view.children.empty()) return "class=device style=dashed " + colours;
    return "class=hub shape=octagon margin=\"0.05,0.02\" style=filled fillcolor=white " + colours;
}

class GraphWriter {
public:
    // Returns the node's name. Names are numbers, since nothing else about a node is unique.
    std::string Add(const TopologyView& view) {
        const std::string name = "n" + std::to_string(m_count++);
        m_text += "    " + name + " [" + LookOf(view) + " label=" + Quote(LabelOf(view)) + "];\n";
        for (const TopologyView& child : view.children) {
            const std::string childName = Add(child);
            m_text.append("    ").append(name).append(" -> ").append(childName);
            m_text.append(" [color=\"").append(PaintOf(child.interfaceType).dark).append("\"");
            std::vector<std::string> label;
            if (child.portAbove) label.push_back("port " + std::to_string(*child.portAbove));
            if (child.speed != 0) label.push_back(FormatSpeed(child.speed));
            if (!label.empty()) m_text += " label=" + Quote(label);
            m_text += "];\n";
        }
        return name;
    }

    std::string Finish() const {
        return "digraph cameras {\n"
               "    graph [rankdir=LR nodesep=0.18 ranksep=0.45 pad=0.2 bgcolor=white];\n"
               "    node [shape=box fontname=Helvetica fontsize=12 margin=\"0.24,0.08\"];\n"
               "    edge [arrowhead=none fontname=Helvetica fontsize=10 fontcolor=\"#475569\" penwidth=1.5];\n" +
               m_text + "}\n";
    }

private:
    unsigned int m_count = 0;
    std::string m_text;
};

}  // namespace

std::string TopologyAsDot(const TopologyView& computer) {
    GraphWriter writer;
    writer.Add(computer);
    return writer.Finish();
}

}  // namespace Nimbrel2::Tool
