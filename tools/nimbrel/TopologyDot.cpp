// SPDX-License-Identifier: Apache-2.0
// The tree as a graph in the DOT language: a colour per bus, a shape per kind of node. Pure.
#include <vector>

#include "tools/nimbrel/Text.h"
#include "tools/nimbrel/TopologyLabels.h"
#include "tools/nimbrel/TopologyRenderings.h"

namespace Nimbrel2::Tool {
namespace {

using Kind = TopologyView::Kind;

// A quoted string. A backslash would be an escape and an ampersand an entity in a label.
std::string Quote(const std::vector<std::string>& lines) {
    std::string quoted = "\"";
    for (std::size_t i = 0; i < lines.size(); ++i) {
        if (i != 0) {
            quoted += "\\n";
        }
        for (const char32_t c : ForPicture(lines[i])) {
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

// What differs from the defaults of the graph.
std::string LookOf(const TopologyView& view) {
    const BusPaint paint = PaintOf(view.interfaceType);
    const std::string dark = std::string("\"") + paint.dark + "\"";
    const std::string light = std::string("\"") + paint.light + "\"";
    const std::string colours = view.Gathers() ? "color=" + dark + " fillcolor=" + dark + " fontcolor=white"
                                               : "color=" + dark + " fontcolor=" + dark;
    if (view.isCamera) {
        return "class=camera style=\"rounded,filled\" penwidth=2 " + colours + " fillcolor=" + light;
    }
    if (view.kind == Kind::Computer) {
        return "class=computer shape=box3d style=filled " + colours + " color=\"#94a3b8\"";
    }
    if (view.kind == Kind::Interface) {
        return "class=interface style=filled " + colours;
    }
    if (view.kind == Kind::Bus) {
        return "class=bus style=filled " + colours;
    }
    if (view.children.empty() && !view.isHub) {
        return "class=device style=dashed " + colours;
    }
    return "class=hub shape=octagon margin=\"0.05,0.02\" style=filled fillcolor=white " + colours;
}

class GraphWriter {
public:
    // Returns the node's name. Names are numbers, because nothing else about a node is unique.
    std::string Add(const TopologyView& view) {
        const std::string name = NextName();
        m_text += "    " + name + " [" + LookOf(view) + " label=" + Quote(LabelOf(view)) + "];\n";
        for (const TopologyView& child : view.children) {
            const std::string childName = Add(child);
            m_text.append("    ").append(name).append(" -> ").append(childName);
            m_text.append(" [color=\"").append(PaintOf(child.interfaceType).dark).append("\"");
            const std::vector<std::string> label = CableLabelOf(child);
            if (!label.empty()) {
                m_text += " label=" + Quote(label);
            }
            m_text += "];\n";
        }
        return name;
    }

    void Add(const UnplacedCamera& unplaced) {
        const std::string dark = PaintOf(unplaced.camera.interfaceType).dark;
        m_text += "    " + NextName() + " [class=unplaced style=\"rounded,dashed\" color=\"" + dark +
                  "\" fontcolor=\"" + dark + "\" label=" + Quote(LabelOf(unplaced)) + "];\n";
    }

    void Add(const std::string& remark) {
        m_text += "    " + NextName() + " [class=remark shape=plaintext label=" + Quote({remark}) + "];\n";
    }

    std::string Finish() const {
        return "digraph cameras {\n"
               "    graph [rankdir=LR nodesep=0.18 ranksep=0.45 pad=0.2 bgcolor=white];\n"
               "    node [shape=box fontname=Helvetica fontsize=12 margin=\"0.24,0.08\"];\n"
               "    edge [arrowhead=none fontname=Helvetica fontsize=10 fontcolor=\"#475569\" penwidth=1.5];\n" +
               m_text + "}\n";
    }

private:
    std::string NextName() { return "n" + std::to_string(m_count++); }

    unsigned int m_count = 0;
    std::string m_text;
};

}  // namespace

std::string TopologyAsDot(const Topology& topology) {
    GraphWriter writer;
    writer.Add(WithInterfaces(topology.computer));
    for (const UnplacedCamera& unplaced : topology.unplaced) {
        writer.Add(unplaced);
    }
    for (const std::string& sentence : topology.cut) {
        writer.Add(sentence);
    }
    return writer.Finish();
}

}  // namespace Nimbrel2::Tool
