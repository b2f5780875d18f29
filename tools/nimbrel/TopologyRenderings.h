// SPDX-License-Identifier: Apache-2.0
// The forms in which `nimbrel topology` shows the tree. Main thread only, as Text.h.
#ifndef NIMBREL2_TOOLS_NIMBREL_TOPOLOGYRENDERINGS_H
#define NIMBREL2_TOOLS_NIMBREL_TOPOLOGYRENDERINGS_H

#include <cstddef>
#include <string>

#include "tools/nimbrel/TopologyView.h"

namespace Nimbrel2::Tool {

/// A tree for people in the characters that this locale has. Where the tree is too deep for the width, the rest of a
/// branch is drawn below the tree under a number.
std::string TopologyAsText(const Topology& topology, std::size_t width, bool coloured);

/// One JSON document, as Dump makes them.
std::string TopologyAsJson(const Topology& topology);

/// A graph in Graphviz's DOT language. Pure ASCII, whatever the texts hold.
std::string TopologyAsDot(const Topology& topology);

/// A picture, laid out. Pure ASCII, whatever the texts hold.
std::string TopologyAsSvg(const Topology& topology);

/// The same picture in pixels, drawn with a font of this computer. @throws CommandError when it cannot be drawn.
std::string TopologyAsPng(const Topology& topology);

}  // namespace Nimbrel2::Tool

#endif
