// SPDX-License-Identifier: Apache-2.0
// `nimbrel topology`: how the cameras are connected to the computer. Main thread only; no lock.
#include <unistd.h>

#include <array>
#include <cerrno>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "tools/nimbrel/CameraArgument.h"
#include "tools/nimbrel/Commands.h"
#include "tools/nimbrel/ErrorTexts.h"
#include "tools/nimbrel/Table.h"
#include "tools/nimbrel/TopologyRenderings.h"
#include "tools/nimbrel/UnseenFireWire.h"
#include "tools/nimbrel/Words.h"

namespace Nimbrel2::Tool {
namespace {

const char Footer[] =
    R"help(Exit status:
  0  The topology was printed, even if nothing is attached.
  1  Failed, or a bus cannot be searched (the others are shown); standard error
     says why.
  2  Wrong usage; standard error names the option and the value.
  Ctrl-C ends it at once (status 130).

JSON: {"type","interface","id","guid","ports","children"}, the children being
such objects again; "type" is one of computer, bus, camera, device, and "ports"
a list of parent, child, unconnected. A camera inside the tree of its bus is a
device with a guid. What is known follows: "port" (of the node above), "serial",
"serial_text", "vendor", "model", "name", "location", "ip", "bus",
"this_computer", "speed" (Mbit/s), "link" ({"name","up","speed"}), "places",
"true_place"; at the top also "unplaced", cameras that are not in the tree, each
with its "reason", and "cut".

Examples:
  nimbrel topology                                as a tree of text
  nimbrel topology --format svg --output line.svg as a picture
  nimbrel topology --format png --output line.png the same in pixels
  nimbrel topology --below 200705                 a camera and what is behind it
  nimbrel topology --format dot | dot -Tpdf >line.pdf
                                                  drawn to your own taste
  nimbrel topology --json | jq '.. | objects | select(.serial) | .model'
)help";

enum class Format { Text, Json, Dot, Svg, Png };

struct FormatName {
    const char* name;
    Format format;
};

constexpr std::array<FormatName, 5> Formats{
    {{"text", Format::Text}, {"json", Format::Json}, {"dot", Format::Dot}, {"svg", Format::Svg}, {"png", Format::Png}}};

Format ParseFormat(const std::string& text) {
    std::vector<std::string> names;
    for (const FormatName& known : Formats) {
        if (text == known.name) {
            return known.format;
        }
        names.emplace_back(known.name);
    }
    throw CommandError("--format: \"" + text + "\" is not one of " + Enumerate(names, "or") + DidYouMean(text, names),
                       ExitUsage);
}

void WriteFile(const std::string& file, const std::string& text) {
    errno = 0;
    std::ofstream stream(file, std::ios::binary);
    stream << text;
    stream.close();
    if (!stream) {
        throw CommandError("--output: \"" + file + "\" cannot be written: " + std::generic_category().message(errno));
    }
}

class TopologyCommand {
public:
    explicit TopologyCommand(CommandContext& context) : m_context(context) {}

    void AddOptions(CLI::App& command) {
        CommandContext::AddValue(command, "--format", "text|json|dot|svg|png",
                                 "How to show the tree: for people, for programs,\n"
                                 "for Graphviz, or as a picture. Default: text.",
                                 [this](const std::string& text) { m_format = ParseFormat(text); });
        m_context.AddJsonOption(command, "The same as --format json.");
        CommandContext::AddValue(command, "--below", "CAMERA",
                                 "Show this camera and what is behind it only\n"
                                 "(serial:N, index:N, ip:A, mac:M or guid:G).",
                                 [this](const std::string& text) { m_below = ParseCamera(text); });
        CommandContext::AddValue(command, "--output", "FILE", "Write to this file instead of standard output.",
                                 [this](const std::string& file) { m_file = file; });
        m_context.AddBusOptions(command);
    }

    int Run() {
        const Format format = ChooseFormat();
        const BusMasterSession busMaster = m_context.StartBusMaster();
        const bool healthy = m_context.CheckBuses(*busMaster);
        WarnOfUnseenFireWire(Shown::Tree);
        Topology topology = ReadTopology(*busMaster);
        if (m_below) {
            topology = Below(*busMaster, topology);
        }
        const std::string text = Render(topology, format);
        if (m_file) {
            WriteFile(*m_file, text);
        } else {
            m_context.Print(text);
        }
        m_context.NoteFilters("topology");
        m_context.NoteBusesWithoutDriver("topology");
        return healthy ? ExitDone : ExitFailed;
    }

private:
    Format ChooseFormat() const {
        const Format format = m_format.value_or(m_context.WantsJson() ? Format::Json : Format::Text);
        if (m_context.WantsJson() && format != Format::Json) {
            throw CommandError("--json and --format cannot be combined", ExitUsage);
        }
        if (format == Format::Png && !m_file && isatty(STDOUT_FILENO) == 1) {
            throw CommandError("--format png is not text: write it to a file with --output", ExitUsage);
        }
        return format;
    }

    Topology Below(BusMaster& busMaster, const Topology& topology) const {
        const FoundCamera camera = FindCamera(busMaster, *m_below);
        for (const UnplacedCamera& unplaced : topology.unplaced) {
            if (unplaced.camera.guid == camera.guid) {
                throw CommandError(camera.name + " is not in the tree: " + unplaced.reason);
            }
        }
        const TopologyView* view = FindInTree(topology.computer, camera.guid);
        if (view == nullptr) {
            throw CommandError(camera.name + " has left meanwhile").WithHint(NextStep(HAL_GONE, camera.interfaceType));
        }
        Topology below;
        below.computer = *view;
        return below;
    }

    std::string Render(const Topology& topology, Format format) const {
        switch (format) {
            case Format::Json:
                return TopologyAsJson(topology);
            case Format::Dot:
                return TopologyAsDot(topology);
            case Format::Svg:
                return TopologyAsSvg(topology);
            case Format::Png:
                return TopologyAsPng(topology);
            case Format::Text:
                break;
        }
        const bool nothing = !m_below && topology.computer.children.empty() && topology.unplaced.empty();
        return TopologyAsText(topology, OutputWidth(), m_context.UsesColour()) +
               (nothing ? "\nNo cameras found on " + m_context.DescribeBuses("or") +
                              ". `nimbrel list` shows what to check.\n"
                        : "");
    }

    CommandContext& m_context;
    std::optional<Format> m_format;
    std::optional<std::string> m_file;
    std::optional<CameraChoice> m_below;
};

}  // namespace

void AddTopologyCommand(CLI::App& app, CommandContext& context) {
    const auto topology = std::make_shared<TopologyCommand>(context);
    CLI::App* command = context.AddCommand(app, "topology", "Shows how the cameras are connected.",
                                           [topology] { return topology->Run(); });
    topology->AddOptions(*command);
    command->footer(Footer);
}

}  // namespace Nimbrel2::Tool
