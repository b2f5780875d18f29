#!/usr/bin/env python3
# SPDX-License-Identifier: Apache-2.0
"""Judges an SVG of the topology as somebody who looks at it: check_picture.py FILE. Prints a line for each fault.

Texts must stay within their boxes in any common font, measured with Cairo; boxes and labels must not touch each other;
no cable may cross a label or pass through a box; and rsvg-convert must take the picture.
"""

import subprocess
import sys
import xml.etree.ElementTree as tree

import cairo

SVG = "{http://www.w3.org/2000/svg}"
FONTS = ["DejaVu Sans", "Liberation Sans", "sans-serif"]
LARGEST = 16000  # pixels, wide or high; rsvg-convert refuses 32768


def measure(context, text):
    """The widest that a text becomes."""
    widest = 0
    for font in FONTS:
        weight = cairo.FONT_WEIGHT_BOLD if text.get("font-weight") == "bold" else cairo.FONT_WEIGHT_NORMAL
        context.select_font_face(font, cairo.FONT_SLANT_NORMAL, weight)
        context.set_font_size(float(text.get("font-size")))
        widest = max(widest, context.text_extents(text.text or "").x_advance)
    return widest


def text_area(context, text):
    x, y, size = float(text.get("x")), float(text.get("y")), float(text.get("font-size"))
    return (x, y - 0.8 * size, x + measure(context, text), y + 0.1 * size)


def overlap(a, b):
    return a[0] < b[2] and b[0] < a[2] and a[1] < b[3] and b[1] < a[3]


def segments(group):
    for line in group.iter(SVG + "polyline"):
        points = [tuple(map(float, point.split(","))) for point in line.get("points").split()]
        for (x1, y1), (x2, y2) in zip(points, points[1:]):
            if (x1, y1) != (x2, y2):
                yield (min(x1, x2), min(y1, y2), max(x1, x2), max(y1, y2))


def main():
    root = tree.parse(sys.argv[1]).getroot()
    context = cairo.Context(cairo.ImageSurface(cairo.FORMAT_A8, 1, 1))
    width, height = float(root.get("width")), float(root.get("height"))
    if max(width, height) > LARGEST:
        print(f"the picture has {width} x {height} pixels")
    boxes, labels, cables = [], [], []
    for group in root.iter(SVG + "g"):
        if group.get("class") == "graph":
            continue
        rects = group.findall(SVG + "rect")
        areas = [(text_area(context, text), text.text) for text in group.findall(SVG + "text")]
        for rect in rects:
            x, y = float(rect.get("x")), float(rect.get("y"))
            box = (x, y, x + float(rect.get("width")), y + float(rect.get("height")))
            boxes.append(box)
            for area, text in areas:
                if area[0] < box[0] or area[1] < box[1] or area[2] > box[2] or area[3] > box[3]:
                    print(f"{text!r} leaves its box: {area} in {box}")
        for i, (area, text) in enumerate(areas):
            if area[0] < 0 or area[1] < 0 or area[2] > width or area[3] > height:
                print(f"{text!r} leaves the picture")
            for other, what in areas[i + 1:]:
                if overlap(area, other):
                    print(f"{text!r} covers {what!r}")
        if not rects:
            labels.extend(areas)
        cables.extend(segments(group))
    for i, box in enumerate(boxes):
        for other in boxes[i + 1:]:
            if overlap(box, other):
                print(f"two boxes overlap: {box}, {other}")
        for area, text in labels:
            if overlap(box, area):
                print(f"the label {text!r} covers a box")
        inside = (box[0] + 0.5, box[1] + 0.5, box[2] - 0.5, box[3] - 0.5)  # coordinates are rounded
        for cable in cables:
            if overlap(inside, (cable[0], cable[1], cable[2] + 0.01, cable[3] + 0.01)):
                print(f"a cable passes through a box: {cable}, {box}")
    for area, text in labels:
        for cable in cables:
            if overlap(area, (cable[0], cable[1], cable[2] + 0.01, cable[3] + 0.01)):
                print(f"a cable crosses the label {text!r}")
    subprocess.run(["rsvg-convert", sys.argv[1]], stdout=subprocess.DEVNULL, check=True)


main()
