// SPDX-License-Identifier: Apache-2.0
// The forms in which `nimbrel topology` shows the tree. Main thread only, as Text.h.
#ifndef NIMBREL2_TOOLS_NIMBREL_TOPOLOGYRENDERINGS_H
#define NIMBREL2_TOOLS_NIMBREL_TOPOLOGYRENDERINGS_H

#include <cstddef>
#include <string>

#include "tools/nimbrel/TopologyView.h"

namespace Nimbrel2::Tool {

/// A tree for people in the characters that this locale has, within so many columns as far as the tree's depth allows.
std::string TopologyAsText(const Topology& topology, std::size_t width);

/// One JSON document, as Dump makes them.
std::string TopologyAsJson(const TopologyView& computer);

/// A graph in Graphviz's DOT language. Pure ASCII, whatever the texts hold.
std::string TopologyAsDot(const TopologyView& computer);

/// The same graph as a picture, laid out. Pure ASCII, whatever the texts hold.
/// @throws CommandError when the layout fails.
std::string TopologyAsSvg(const TopologyView& computer);

}  // namespace Nimbrel2::Tool

#endif
