// SPDX-License-Identifier: Apache-2.0
// The tree for people: branches on the left, what is known of each node in columns beside them. Main thread only, as
// Text.h; no lock.
#include <algorithm>
#include <deque>

#include "tools/nimbrel/Locations.h"
#include "tools/nimbrel/Style.h"
#include "tools/nimbrel/Table.h"
#include "tools/nimbrel/Text.h"
#include "tools/nimbrel/TopologyLabels.h"
#include "tools/nimbrel/TopologyRenderings.h"
#include "tools/nimbrel/Values.h"

namespace Nimbrel2::Tool {
namespace {

// A name keeps this many columns, whatever the depth.
constexpr std::size_t ShortestName = 24;
constexpr std::size_t BranchWidth = 3;
constexpr std::size_t LeastDepth = 4;
const std::string Gap = "  ";

// What the branches are drawn with, each three columns wide.
struct Branches {
    std::string child;
    std::string lastChild;
    std::string passing;
};

Branches BranchesOfLocale() {
    const Branches drawn{"├─ ", "└─ ", "│  "};
    const auto canShow = [](const std::string& text) { return ForTerminal(text, Lines::Kept) == text; };
    const bool all = canShow(drawn.child) && canShow(drawn.lastChild) && canShow(drawn.passing);
    return all ? drawn : Branches{"|- ", "`- ", "|  "};
}

struct Line {
    std::string branches;
    std::string name;
    Colour colour = Colour::None;
    std::string serial;
    std::string speed;
    std::string details;

    std::size_t TreeWidth() const { return DisplayWidth(branches) + DisplayWidth(name); }
};

std::string Join(const std::vector<std::string>& words) {
    std::string text;
    for (const std::string& word : words) {
        text += (text.empty() || word.empty() ? "" : "; ") + word;
    }
    return text;
}

std::string Details(const TopologyView& view) {
    std::vector<std::string> words;
    if (view.camera && view.camera->IsGigE()) {
        words.push_back(FormatIp(view.camera->ip));
    }
    if (view.camera && view.kind == TopologyView::Kind::Camera && !view.camera->IsGigE()) {
        words.push_back(view.camera->location);
    }
    if (view.kind == TopologyView::Kind::Interface && view.link) {
        words.push_back(DescribeLink(*view.link));
    }
    const unsigned int sockets = view.CountSockets();
    if (sockets > 1) {  // one port is the one that leads to the node above
        words.push_back(std::to_string(sockets) + " ports, " + std::to_string(view.CountFreeSockets()) + " free");
    }
    for (const std::string& word : DescribePlaces(view)) {
        words.push_back(word);
    }
    return ForTerminal(Join(words));
}

Line LineOf(const TopologyView& view) {
    Line line;
    line.name = (view.portAbove ? "port " + std::to_string(*view.portAbove) + ": " : "") + ForTerminal(view.GetName());
    line.colour = view.kind == TopologyView::Kind::Computer ? Colour::Bold
                  : view.isCamera || view.Gathers()         ? ColourOf(view.interfaceType)
                                                            : Colour::None;
    if (view.camera) {
        line.serial = std::to_string(view.camera->serialNumber);
    }
    if (view.speed != 0) {
        line.speed = FormatSpeed(view.speed);
    }
    line.details = Details(view);
    return line;
}

class TreeWriter {
public:
    TreeWriter(std::size_t width, bool coloured) : m_width(width), m_coloured(coloured) {}

    std::string Write(const TopologyView& computer) {
        m_withHeader = computer.kind == TopologyView::Kind::Computer;  // whose line has room for it
        Measure(computer);
        Add(computer, "", "", 0);
        if (m_withHeader) {
            m_lines[0].serial = m_serialWidth == 0 ? "" : "SERIAL";
            m_lines[0].speed = m_speedWidth == 0 ? "" : "SPEED";
        }
        std::string text = Render();
        for (std::size_t number = 1; !m_continued.empty(); ++number) {
            const TopologyView* view = m_continued.front();
            m_continued.pop_front();
            m_lines.clear();
            Add(*view, "", "", 0);
            m_lines[0].name = "[" + std::to_string(number) + "] " + m_lines[0].name;
            text += "\n" + Render();
        }
        return text;
    }

private:
    // All trees share their columns.
    void Measure(const TopologyView& view) {
        const Line line = LineOf(view);
        m_serialWidth = std::max(m_serialWidth, WidthOf(line.serial, "SERIAL"));
        m_speedWidth = std::max(m_speedWidth, WidthOf(line.speed, "SPEED"));
        m_detailsWidth = std::max(m_detailsWidth, DisplayWidth(line.details));
        for (const TopologyView& child : view.children) {
            Measure(child);
        }
    }

    // An empty column has no header either.
    std::size_t WidthOf(const std::string& cell, const std::string& header) const {
        return cell.empty() ? 0 : std::max(cell.size(), m_withHeader ? header.size() : 0);
    }

    std::size_t RoomForTree() const {
        const std::size_t taken = m_serialWidth + m_speedWidth + m_detailsWidth + 3 * Gap.size();
        return m_width == Unlimited ? Unlimited : m_width - std::min(m_width, taken);
    }

    std::size_t DeepestLevel() const {
        const std::size_t room = RoomForTree();
        if (room == Unlimited) {
            return Unlimited;
        }
        return std::max(LeastDepth, (room - std::min(room, ShortestName)) / BranchWidth);
    }

    void Add(const TopologyView& view, const std::string& branches, const std::string& branchesBelow,
             std::size_t depth) {
        Line line = LineOf(view);
        line.branches = branches;
        const bool goesOnBelow = depth >= DeepestLevel() && !view.children.empty();
        if (goesOnBelow) {
            m_continued.push_back(&view);
            line.name = "[" + std::to_string(++m_numbers) + "] " + line.name;
        }
        m_lines.push_back(line);
        for (std::size_t i = 0; i < view.children.size() && !goesOnBelow; ++i) {
            const bool last = i + 1 == view.children.size();
            Add(view.children[i], branchesBelow + (last ? m_branches.lastChild : m_branches.child),
                branchesBelow + (last ? "   " : m_branches.passing), depth + 1);
        }
    }

    std::string Render() {
        const std::size_t room = RoomForTree();
        std::size_t tree = 0;
        for (Line& line : m_lines) {
            const std::size_t branches = DisplayWidth(line.branches);
            if (room != Unlimited) {
                line.name = CutToWidth(line.name, std::max(ShortestName, room - std::min(room, branches)));
            }
            tree = std::max(tree, line.TreeWidth());
        }
        std::string text;
        for (const Line& line : m_lines) {
            std::string row = line.branches + Paint(line.name, line.colour, m_coloured);
            std::string gap = std::string(tree - line.TreeWidth(), ' ') + Gap;
            const auto add = [&row, &gap](const std::string& cell, std::size_t width, bool right) {
                const std::string padding(width - std::min(width, DisplayWidth(cell)), ' ');
                if (cell.empty()) {
                    gap += padding + Gap;
                    return;
                }
                row += gap + (right ? padding : "") + cell;
                gap = (right ? "" : padding) + Gap;
            };
            add(line.serial, m_serialWidth, true);
            add(line.speed, m_speedWidth, true);
            add(line.details, m_detailsWidth, false);
            text += row + "\n";
        }
        return text;
    }

    const Branches m_branches = BranchesOfLocale();
    const std::size_t m_width;
    const bool m_coloured;
    bool m_withHeader = false;
    std::size_t m_serialWidth = 0;
    std::size_t m_speedWidth = 0;
    std::size_t m_detailsWidth = 0;
    std::vector<Line> m_lines;
    std::deque<const TopologyView*> m_continued;
    std::size_t m_numbers = 0;
};

}  // namespace

std::string TopologyAsText(const Topology& topology, std::size_t width, bool coloured) {
    const TopologyView drawn = WithInterfaces(topology.computer);
    std::string text = TreeWriter(width, coloured).Write(drawn);
    if (!topology.unplaced.empty()) {
        text += "\nNot in the tree:\n";
    }
    for (const UnplacedCamera& unplaced : topology.unplaced) {
        const Camera& camera = unplaced.camera;
        const std::string where = DescribeLocation(camera);
        text += "  camera " + std::to_string(camera.serialNumber) + " " +
                ForTerminal(camera.vendor + " " + camera.model) + (where.empty() ? "" : ", " + ForTerminal(where)) +
                ": " + unplaced.reason + "\n";
    }
    for (const std::string& sentence : topology.cut) {
        text += "\n" + sentence + "\n";
    }
    return text;
}

}  // namespace Nimbrel2::Tool
