// SPDX-License-Identifier: Apache-2.0
// The graph as a picture, laid out by Graphviz's library. Main thread only: that library has state of its own.
#include <gvc.h>
#include <gvplugin.h>

#include <array>
#include <memory>
#include <sstream>

#include "tools/nimbrel/CommandError.h"
#include "tools/nimbrel/Text.h"
#include "tools/nimbrel/TopologyRenderings.h"

// The library's plugins for the layout and for SVG. Linked, where the library would look for all that is installed:
// so nothing depends on its configuration, and, with no plugin that measures texts by the fonts of this computer, the
// picture is the same on each.
extern "C" {
extern gvplugin_library_t gvplugin_core_LTX_library;
extern gvplugin_library_t gvplugin_dot_layout_LTX_library;
}

namespace Nimbrel2::Tool {
namespace {

const char kStyle[] =
    "<style>.node text:first-of-type{font-weight:bold} "
    ".node text:not(:first-of-type){font-size:11px;font-weight:normal;opacity:.85}</style>\n";

std::string Render(const std::string& dot) {
    // The library takes them as they are here, and keeps the pointer.
    static const std::array<lt_symlist_t, 3> plugins{
        {{"gvplugin_core_LTX_library", &gvplugin_core_LTX_library},
         {"gvplugin_dot_layout_LTX_library", &gvplugin_dot_layout_LTX_library},
         {nullptr, nullptr}}};
    const std::unique_ptr<GVC_t, int (*)(GVC_t*)> context(gvContextPlugins(plugins.data(), 0), gvFreeContext);
    const std::unique_ptr<Agraph_t, int (*)(Agraph_t*)> graph(agmemread(dot.c_str()), agclose);
    if (context == nullptr || graph == nullptr || gvLayout(context.get(), graph.get(), "dot") != 0) {
        throw CommandError("the picture cannot be laid out");
    }
    char* data = nullptr;
    unsigned int size = 0;
    const int result = gvRenderData(context.get(), graph.get(), "svg", &data, &size);
    const std::string svg = result == 0 ? std::string(data, size) : std::string();
    gvFreeRenderData(data);
    gvFreeLayout(context.get(), graph.get());
    if (svg.empty()) throw CommandError("the picture cannot be drawn");
    return svg;
}

std::string InAscii(const std::string& line) {
    std::string ascii;
    for (const char32_t c : ToCharacters(line)) {
        const auto number = static_cast<std::uint32_t>(c);
        ascii += number < 0x80 ? std::string(1, static_cast<char>(number)) : "&#" + std::to_string(number) + ";";
    }
    return ascii;
}

// Without what shows only to who points at a node or reads the source: names of nodes, and the library's version.
std::string Tidy(const std::string& svg) {
    std::string tidy;
    std::istringstream lines(svg);
    for (std::string line; std::getline(lines, line);) {
        if (line.rfind("<title>", 0) == 0 || line.rfind("<!-- ", 0) == 0 || line == " -->") continue;
        if (line.rfind("<g id=\"graph", 0) == 0) tidy += kStyle;
        tidy += InAscii(line) + "\n";
    }
    return tidy;
}

}  // namespace

std::string TopologyAsSvg(const TopologyView& computer) { return Tidy(Render(TopologyAsDot(computer))); }

}  // namespace Nimbrel2::Tool
