// SPDX-License-Identifier: Apache-2.0
// Writes pictures as SVG 1.1, in ASCII. Pure.
#include <array>
#include <charconv>
#include <cmath>

#include "tools/nimbrel/Picture.h"

namespace Nimbrel2::Tool {
namespace {

// To a tenth, without zeros at the end.
std::string Number(double value) {
    std::array<char, 32> text;
    const double rounded = std::round(value * 10) / 10;
    const auto [end, error] = std::to_chars(text.data(), text.data() + text.size(), rounded);
    return error == std::errc() ? std::string(text.data(), end) : "0";
}

std::string Attribute(const char* name, const std::string& value) {
    return std::string(" ") + name + "=\"" + value + "\"";
}

std::string Escape(const std::u32string& text) {
    std::string escaped;
    for (const char32_t c : text) {
        const bool isPlain = c >= 0x20 && c < 0x7F && c != U'<' && c != U'>' && c != U'&' && c != U'"';
        escaped +=
            isPlain ? std::string(1, static_cast<char>(c)) : "&#" + std::to_string(static_cast<std::uint32_t>(c)) + ";";
    }
    return escaped;
}

std::string Write(const PictureBox& box) {
    return "<rect" + Attribute("x", Number(box.corner.x)) + Attribute("y", Number(box.corner.y)) +
           Attribute("width", Number(box.width)) + Attribute("height", Number(box.height)) +
           (box.radius == 0 ? "" : Attribute("rx", Number(box.radius))) + Attribute("fill", box.fill) +
           Attribute("stroke", box.stroke) + Attribute("stroke-width", Number(box.border)) +
           (box.dashed ? Attribute("stroke-dasharray", "4 3") : "") + "/>\n";
}

std::string Write(const PictureText& text) {
    return "<text" + Attribute("x", Number(text.start.x)) + Attribute("y", Number(text.start.y)) +
           Attribute("font-size", Number(text.size)) + (text.bold ? Attribute("font-weight", "bold") : "") +
           Attribute("fill", text.colour) + " xml:space=\"preserve\">" + Escape(text.text) + "</text>\n";
}

std::string WriteLine(const std::vector<PicturePoint>& points, const char* colour) {
    std::string list;
    for (const PicturePoint& point : points) {
        list += (list.empty() ? "" : " ") + Number(point.x) + "," + Number(point.y);
    }
    return "<polyline" + Attribute("points", list) + " fill=\"none\" stroke-width=\"1.5\"" +
           Attribute("stroke", colour) + "/>\n";
}

}  // namespace

std::string WriteSvg(const Picture& picture) {
    const std::string width = Number(std::ceil(picture.width));
    const std::string height = Number(std::ceil(picture.height));
    std::string svg = "<?xml version=\"1.0\" encoding=\"US-ASCII\"?>\n<svg xmlns=\"http://www.w3.org/2000/svg\"" +
                      Attribute("width", width) + Attribute("height", height) +
                      Attribute("viewBox", "0 0 " + width + " " + height) +
                      " font-family=\"Helvetica, Arial, sans-serif\">\n<g class=\"graph\">\n<rect" +
                      Attribute("width", width) + Attribute("height", height) + " fill=\"#ffffff\"/>\n";
    for (const PictureItem& item : picture.items) {
        svg += "<g" + Attribute("class", item.kind) + ">\n";
        if (!item.line.empty()) {
            svg += WriteLine(item.line, item.lineColour);
        }
        if (item.box) {
            svg += Write(*item.box);
        }
        for (const PictureText& text : item.texts) {
            svg += Write(text);
        }
        svg += "</g>\n";
    }
    return svg + "</g>\n</svg>\n";
}

}  // namespace Nimbrel2::Tool
