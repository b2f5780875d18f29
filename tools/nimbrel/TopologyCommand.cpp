// SPDX-License-Identifier: Apache-2.0
// `nimbrel topology`: how the cameras are connected to the computer. Main thread only; no lock.
#include "tools/nimbrel/TopologyCommand.h"

#include <array>
#include <cerrno>
#include <fstream>
#include <memory>
#include <optional>
#include <string>
#include <system_error>
#include <vector>

#include "tools/nimbrel/Table.h"
#include "tools/nimbrel/TopologyRenderings.h"
#include "tools/nimbrel/UnseenFireWire.h"
#include "tools/nimbrel/Values.h"

namespace Nimbrel2::Tool {
namespace {

const char kFooter[] =
    R"help(Exit status:
  0  The tree was printed, be it the computer alone.
  1  It failed, or a bus cannot be searched (the others are shown); standard
     error says why.
  2  Wrong usage; standard error names the option and the value.
  Ctrl-C ends it at once (status 130).

JSON: {"type","interface","id","guid","ports","children"}, the children being
such objects again; "type" is one of computer, bus, camera, device, and "ports"
a list of parent, child, unconnected. A camera inside the tree of its bus is a
device with a guid. What is known of it follows: "port" (of the node above),
"serial", "serial_text", "vendor", "model", "ip", "speed" (Mbit/s).

Examples:
  nimbrel topology                                as a tree of text
  nimbrel topology --format svg --output line.svg as a picture
  nimbrel topology --format dot | dot -Tpng >line.png
                                                  drawn to your own taste
  nimbrel topology --json | jq '.. | objects | select(.serial) | .model'
)help";

enum class Format { Text, Json, Dot, Svg };

struct FormatName {
    const char* name;
    Format format;
};

constexpr std::array<FormatName, 4> kFormats{
    {{"text", Format::Text}, {"json", Format::Json}, {"dot", Format::Dot}, {"svg", Format::Svg}}};

Format ParseFormat(const std::string& text) {
    for (const FormatName& known : kFormats) {
        if (text == known.name) return known.format;
    }
    throw CommandError("--format: \"" + text + "\" is not one of text, json, dot, svg", kUsage);
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
        CommandContext::AddValue(command, "--format", "text|json|dot|svg",
                                 "How to show the tree: for people, for programs,\n"
                                 "for Graphviz, or as a picture. Without it: text.",
                                 [this](const std::string& text) { m_format = ParseFormat(text); });
        m_context.AddJsonOption(command, "The same as --format json.");
        CommandContext::AddValue(command, "--output", "FILE", "Write to this file instead of standard output.",
                                 [this](const std::string& file) { m_file = file; });
        m_context.AddBusOptions(command);
    }

    int Run() {
        const Format format = ChooseFormat();
        const BusMasterSession busMaster = m_context.StartBusMaster();
        const bool healthy = m_context.CheckBuses(*busMaster);
        WarnOfUnseenFireWire(Shown::Tree);
        const std::string text = Render(ReadTopology(*busMaster), format);
        if (m_file) {
            WriteFile(*m_file, text);
        } else {
            m_context.Print(text);
        }
        return healthy ? kDone : kFailed;
    }

private:
    Format ChooseFormat() const {
        if (!m_context.WantsJson()) return m_format.value_or(Format::Text);
        if (m_format.value_or(Format::Json) == Format::Json) return Format::Json;
        throw CommandError("--json and --format are one too many", kUsage);
    }

    std::string Render(const Topology& topology, Format format) const {
        switch (format) {
            case Format::Json:
                return TopologyAsJson(topology.computer);
            case Format::Dot:
                return TopologyAsDot(topology.computer);
            case Format::Svg:
                return TopologyAsSvg(topology.computer);
            case Format::Text:
                break;
        }
        const bool nothing = topology.computer.children.empty() && topology.unplaced.empty();
        return TopologyAsText(topology, OutputWidth()) +
               (nothing
                    ? "\nNo cameras found on " + m_context.DescribeBuses() + ". `nimbrel list` tells what to check.\n"
                    : "");
    }

    CommandContext& m_context;
    std::optional<Format> m_format;
    std::optional<std::string> m_file;
};

}  // namespace

void AddTopologyCommand(CLI::App& app, CommandContext& context) {
    const auto topology = std::make_shared<TopologyCommand>(context);
    CLI::App* command = context.AddCommand(app, "topology", "Shows how the cameras are connected.",
                                           [topology] { return topology->Run(); });
    topology->AddOptions(*command);
    command->footer(kFooter);
}

}  // namespace Nimbrel2::Tool
