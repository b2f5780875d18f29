// SPDX-License-Identifier: Apache-2.0
// The tree for people: branches on the left, what is known of each node in columns beside them. Main thread only, as
// Text.h; no lock.
#include <algorithm>

#include "tools/nimbrel/Text.h"
#include "tools/nimbrel/TopologyRenderings.h"
#include "tools/nimbrel/Values.h"

namespace Nimbrel2::Tool {
namespace {

// A name is not cut below this, even if the line becomes too long.
constexpr std::size_t kShortestName = 12;
const std::string kGap = "  ";

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
    std::string serial;
    std::string speed;
    std::string details;

    std::size_t TreeWidth() const { return DisplayWidth(branches) + DisplayWidth(name); }
};

std::string Details(const TopologyView& view) {
    if (view.camera && view.camera->IsGigE()) return FormatIp(view.camera->ip);
    const unsigned int sockets = view.CountSockets();
    if (sockets < 2) return {};  // one port is the one it hangs on
    return std::to_string(sockets) + " ports, " + std::to_string(view.CountFreeSockets()) + " free";
}

class TreeWriter {
public:
    void Add(const TopologyView& view, const std::string& branches, const std::string& branchesBelow) {
        Line line;
        line.branches = branches;
        line.name =
            (view.portAbove ? "port " + std::to_string(*view.portAbove) + ": " : "") + ForTerminal(view.GetName());
        if (view.camera) line.serial = std::to_string(view.camera->serialNumber);
        if (view.speed != 0) line.speed = FormatSpeed(view.speed);
        line.details = Details(view);
        m_lines.push_back(line);
        for (std::size_t i = 0; i < view.children.size(); ++i) {
            const bool last = i + 1 == view.children.size();
            Add(view.children[i], branchesBelow + (last ? m_branches.lastChild : m_branches.child),
                branchesBelow + (last ? "   " : m_branches.passing));
        }
    }

    std::string Render(std::size_t width) {
        if (m_lines.size() > 1) {
            m_lines[0].serial = "SERIAL";
            m_lines[0].speed = "SPEED";
        }
        const std::size_t serial = Widest(&Line::serial);
        const std::size_t speed = Widest(&Line::speed);
        const std::size_t taken = serial + speed + Widest(&Line::details) + 3 * kGap.size();
        const std::size_t room = std::max(width, taken) - taken;
        std::size_t tree = 0;
        for (Line& line : m_lines) {
            const std::size_t branches = DisplayWidth(line.branches);
            line.name = CutToWidth(line.name, std::max(kShortestName, room - std::min(room, branches)));
            tree = std::max(tree, line.TreeWidth());
        }
        std::string text;
        for (const Line& line : m_lines) {
            std::string row = line.branches + line.name;
            row.append(tree - line.TreeWidth(), ' ').append(kGap);
            row.append(serial - line.serial.size(), ' ').append(line.serial).append(kGap);
            row.append(speed - line.speed.size(), ' ').append(line.speed).append(kGap).append(line.details);
            row.erase(row.find_last_not_of(' ') + 1);
            text += row + "\n";
        }
        return text;
    }

private:
    std::size_t Widest(std::string Line::*column) const {
        std::size_t widest = 0;
        for (const Line& line : m_lines) widest = std::max(widest, (line.*column).size());
        return widest;
    }

    const Branches m_branches = BranchesOfLocale();
    std::vector<Line> m_lines;
};

}  // namespace

std::string TopologyAsText(const Topology& topology, std::size_t width) {
    TreeWriter writer;
    writer.Add(topology.computer, "", "");
    std::string text = writer.Render(width);
    if (!topology.unplaced.empty()) {
        std::vector<std::string> serials;
        for (const Camera& camera : topology.unplaced) serials.push_back(std::to_string(camera.serialNumber));
        text += "\nNot in the tree, for nothing tells where they are: " +
                std::string(serials.size() == 1 ? "camera " : "cameras ") + Enumerate(serials) + "\n";
    }
    return text;
}

}  // namespace Nimbrel2::Tool
