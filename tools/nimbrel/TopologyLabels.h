// SPDX-License-Identifier: Apache-2.0
// The texts of nodes and cables in drawings of the topology. Pure.
#ifndef NIMBREL2_TOOLS_NIMBREL_TOPOLOGYLABELS_H
#define NIMBREL2_TOOLS_NIMBREL_TOPOLOGYLABELS_H

#include <string>
#include <vector>

#include "tools/nimbrel/TopologyView.h"

namespace Nimbrel2::Tool {

/// The lines in the box of a node; the first is its name.
std::vector<std::string> LabelOf(const TopologyView& view);

/// The lines at the cable from the node above: the port, then the speed. Either may be missing.
std::vector<std::string> CableLabelOf(const TopologyView& view);

/// "shown at 2 places", "really at port 1.2.1"; empty for a device that stands at one place.
std::vector<std::string> DescribePlaces(const TopologyView& view);

/// "link up" or "no link".
std::string DescribeLink(const NetworkLink& link);

/// The lines of a camera that is not in the tree.
std::vector<std::string> LabelOf(const UnplacedCamera& unplaced);

/// The colours of a bus in pictures, "#b45309".
struct BusPaint {
    const char* dark;
    const char* light;
};
BusPaint PaintOf(InterfaceType type);

/// The characters of a text for a picture: at most 40, `...` at the end of longer ones.
std::u32string ForPicture(const std::string& text);

}  // namespace Nimbrel2::Tool

#endif
