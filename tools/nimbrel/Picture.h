// SPDX-License-Identifier: Apache-2.0
// A picture before it has a format: boxes, cables and texts at their places. Plain values, any thread.
#ifndef NIMBREL2_TOOLS_NIMBREL_PICTURE_H
#define NIMBREL2_TOOLS_NIMBREL_PICTURE_H

#include <optional>
#include <string>
#include <vector>

#include "tools/nimbrel/TopologyView.h"

namespace Nimbrel2::Tool {

/// Lengths are in pixels of a screen at its usual scale. The origin is the upper left corner.
struct PicturePoint {
    double x = 0;
    double y = 0;
};

struct PictureText {
    PicturePoint start;  ///< Of the base line.
    double room = 0;     ///< What the text was given; wide fonts are no wider.
    double size = 0;     ///< Of the font.
    bool bold = false;
    const char* colour = "#000000";
    std::u32string text;
};

struct PictureBox {
    PicturePoint corner;
    double width = 0;
    double height = 0;
    double radius = 0;
    double border = 1;
    bool dashed = false;
    const char* fill = "#ffffff";
    const char* stroke = "#000000";
};

/// A node, or a cable with its label.
struct PictureItem {
    std::string kind;  ///< "node camera", "edge"
    std::optional<PictureBox> box;
    std::vector<PicturePoint> line;  ///< A cable, corner by corner.
    const char* lineColour = "#000000";
    std::vector<PictureText> texts;
};

struct Picture {
    double width = 0;
    double height = 0;
    std::vector<PictureItem> items;
};

/// Draws the tree from left to right. Large trees are made fit to be looked at: equal siblings are gathered in one box,
/// and long branches are continued in blocks of their own, beside and below each other.
Picture LayOut(const Topology& topology);

/// How wide a text can become in any common font without serifs.
double WidthOf(const std::u32string& text, double size, bool bold);

std::string WriteSvg(const Picture& picture);

/// @throws CommandError when the picture cannot be drawn.
std::string WritePng(const Picture& picture);

}  // namespace Nimbrel2::Tool

#endif
