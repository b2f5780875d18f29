// SPDX-License-Identifier: Apache-2.0
// Draws pictures as PNG with Cairo and a font of this computer. Main thread only; no lock.
#include <cairo.h>

#include <cmath>
#include <cstdlib>
#include <memory>

#include "tools/nimbrel/CommandError.h"
#include "tools/nimbrel/Picture.h"

namespace Nimbrel2::Tool {
namespace {

constexpr double Sharp = 2;        // pixels per pixel of a usual screen, for screens that have more
constexpr double Largest = 16000;  // pixels that every viewer takes

using Surface = std::unique_ptr<cairo_surface_t, void (*)(cairo_surface_t*)>;
using Context = std::unique_ptr<cairo_t, void (*)(cairo_t*)>;

void SetColour(cairo_t* context, const char* colour) {
    const unsigned long rgb = std::strtoul(colour + 1, nullptr, 16);
    const auto part = [rgb](unsigned int shift) { return static_cast<double>(rgb >> shift & 0xFF) / 255; };
    cairo_set_source_rgb(context, part(16), part(8), part(0));
}

std::string ToUtf8(const std::u32string& text) {
    std::string utf8;
    for (const char32_t c : text) {
        const auto add = [&utf8](char32_t byte) { utf8 += static_cast<char>(static_cast<unsigned char>(byte)); };
        if (c < 0x80) {
            add(c);
        } else if (c < 0x800) {
            add(0xC0 | c >> 6);
            add(0x80 | (c & 0x3F));
        } else if (c < 0x10000) {
            add(0xE0 | c >> 12);
            add(0x80 | (c >> 6 & 0x3F));
            add(0x80 | (c & 0x3F));
        } else {
            add(0xF0 | c >> 18);
            add(0x80 | (c >> 12 & 0x3F));
            add(0x80 | (c >> 6 & 0x3F));
            add(0x80 | (c & 0x3F));
        }
    }
    return utf8;
}

void TraceBox(cairo_t* context, const PictureBox& box) {
    const double r = box.radius;
    const double left = box.corner.x;
    const double top = box.corner.y;
    const double right = left + box.width;
    const double bottom = top + box.height;
    cairo_new_sub_path(context);
    cairo_arc(context, right - r, top + r, r, -M_PI / 2, 0);
    cairo_arc(context, right - r, bottom - r, r, 0, M_PI / 2);
    cairo_arc(context, left + r, bottom - r, r, M_PI / 2, M_PI);
    cairo_arc(context, left + r, top + r, r, M_PI, 3 * M_PI / 2);
    cairo_close_path(context);
}

void Draw(cairo_t* context, const PictureBox& box) {
    TraceBox(context, box);
    SetColour(context, box.fill);
    cairo_fill_preserve(context);
    const double dashes[] = {4, 3};
    cairo_set_dash(context, dashes, box.dashed ? 2 : 0, 0);
    cairo_set_line_width(context, box.border);
    SetColour(context, box.stroke);
    cairo_stroke(context);
    cairo_set_dash(context, dashes, 0, 0);
}

void Draw(cairo_t* context, const PictureText& text) {
    const std::string utf8 = ToUtf8(text.text);
    cairo_select_font_face(context, "sans-serif", CAIRO_FONT_SLANT_NORMAL,
                           text.bold ? CAIRO_FONT_WEIGHT_BOLD : CAIRO_FONT_WEIGHT_NORMAL);
    cairo_set_font_size(context, text.size);
    cairo_text_extents_t extents;
    cairo_text_extents(context, utf8.c_str(), &extents);
    // A font that is wider than any we know gets smaller, so that the text stays in its box.
    if (extents.x_advance > text.room) {
        cairo_set_font_size(context, text.size * text.room / extents.x_advance);
    }
    SetColour(context, text.colour);
    cairo_move_to(context, text.start.x, text.start.y);
    cairo_show_text(context, utf8.c_str());
}

void Draw(cairo_t* context, const PictureItem& item) {
    for (std::size_t i = 0; i < item.line.size(); ++i) {
        (i == 0 ? cairo_move_to : cairo_line_to)(context, item.line[i].x, item.line[i].y);
    }
    if (!item.line.empty()) {
        SetColour(context, item.lineColour);
        cairo_set_line_width(context, 1.5);
        cairo_stroke(context);
    }
    if (item.box) {
        Draw(context, *item.box);
    }
    for (const PictureText& text : item.texts) {
        Draw(context, text);
    }
}

cairo_status_t Append(void* png, const unsigned char* data, unsigned int size) {
    static_cast<std::string*>(png)->append(reinterpret_cast<const char*>(data), size);
    return CAIRO_STATUS_SUCCESS;
}

}  // namespace

std::string WritePng(const Picture& picture) {
    const double scale = std::min(Sharp, Largest / std::max(picture.width, picture.height));
    const Surface surface(
        cairo_image_surface_create(CAIRO_FORMAT_RGB24, static_cast<int>(std::ceil(picture.width * scale)),
                                   static_cast<int>(std::ceil(picture.height * scale))),
        cairo_surface_destroy);
    const Context context(cairo_create(surface.get()), cairo_destroy);
    cairo_scale(context.get(), scale, scale);
    SetColour(context.get(), "#ffffff");
    cairo_paint(context.get());
    for (const PictureItem& item : picture.items) {
        Draw(context.get(), item);
    }
    std::string png;
    cairo_status_t status = cairo_status(context.get());
    if (status == CAIRO_STATUS_SUCCESS) {
        status = cairo_surface_write_to_png_stream(surface.get(), Append, &png);
    }
    if (status != CAIRO_STATUS_SUCCESS) {
        throw CommandError(std::string("the picture cannot be drawn: ") + cairo_status_to_string(status));
    }
    return png;
}

}  // namespace Nimbrel2::Tool
