// SPDX-License-Identifier: Apache-2.0
// Places the boxes of a picture. Pure.
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <map>

#include "tools/nimbrel/Picture.h"
#include "tools/nimbrel/Text.h"
#include "tools/nimbrel/TopologyLabels.h"
#include "tools/nimbrel/Words.h"

namespace Nimbrel2::Tool {
namespace {

using Kind = TopologyView::Kind;
using Line = std::u32string;

constexpr double NameSize = 12;
constexpr double TextSize = 11;
constexpr double CableSize = 10;
constexpr double LineHeight = 14;
constexpr double Padding = 9;
constexpr double CellGap = 16;
constexpr double RowGap = 12;
constexpr double Spine = 14;        // from a box to where its cables part
constexpr double CableEndGap = 14;  // from where they part to the nearest box
constexpr double BlockGap = 40;
constexpr double Margin = 16;
constexpr double Ratio = 1.6;  // of a picture that is good to look at

constexpr std::size_t Deepest = 8;  // levels of one block
constexpr double TallWithoutGathering = 1400;
constexpr std::size_t ManyEqual = 9;

// How much siblings without anything below them are gathered.
enum class Gathering { None, Many, Equal };

struct Shape {
    std::string kind;
    InterfaceType bus = INTERFACE_NONE;
    bool solid = false;  // filled with the colour of its bus
    bool light = false;
    bool dashed = false;
    double radius = 0;
    std::vector<Line> lines;
    std::vector<Line> cells;  // in columns below the lines
    std::size_t columns = 1;
    std::vector<Line> cable;
    std::vector<Shape> children;

    double width = 0;
    double height = 0;
    double cableWidth = 0;
    double treeHeight = 0;
    PicturePoint corner;
};

double NameWidth(const Line& line) { return WidthOf(line, NameSize, true); }
double TextWidth(const Line& line) { return WidthOf(line, TextSize, false); }

double CellWidth(const Shape& shape) {
    double widest = 0;
    for (const Line& cell : shape.cells) {
        widest = std::max(widest, TextWidth(cell));
    }
    return widest;
}

// ---- From the tree to shapes ---------------------------------------------------------------------------------------

void Paint(const TopologyView& view, Shape* shape) {
    shape->bus = view.interfaceType;
    shape->solid = view.Gathers();
    if (view.isCamera) {
        shape->kind = "node camera";
        shape->light = true;
        shape->radius = 8;
    } else if (view.kind == Kind::Computer) {
        shape->kind = "node computer";
    } else if (view.kind == Kind::Bus) {
        shape->kind = "node bus";
    } else if (view.kind == Kind::Interface) {
        shape->kind = "node interface";
    } else if (view.children.empty() && !view.isHub) {
        shape->kind = "node device";
        shape->dashed = true;
    } else {
        shape->kind = "node hub";
    }
}

std::vector<Line> ToLines(const std::vector<std::string>& texts) {
    std::vector<Line> lines;
    for (const std::string& text : texts) {
        lines.push_back(ForPicture(text));
    }
    return lines;
}

// One line for one of many: its port and what the others do not share.
Line CellOf(const TopologyView& view, bool withName) {
    std::vector<std::string> label = LabelOf(view);
    if (!withName) {
        label.erase(label.begin());
    }
    std::vector<std::string> words;
    if (view.portAbove) {
        words.push_back("port " + std::to_string(*view.portAbove));
    }
    words.insert(words.end(), label.begin(), label.end());
    Line cell;
    for (const std::string& word : words) {
        cell += (cell.empty() ? U"" : U"  ") + ForPicture(word);
    }
    return cell;
}

void ChooseColumns(Shape* shape) {
    const double cell = CellWidth(*shape) + CellGap;
    const double ideal = std::sqrt(Ratio * static_cast<double>(shape->cells.size()) * LineHeight / cell);
    shape->columns = std::clamp<std::size_t>(static_cast<std::size_t>(std::lround(ideal)), 1, shape->cells.size());
}

Shape GatheredShape(const std::vector<const TopologyView*>& views, bool equal) {
    const TopologyView& first = *views.front();
    Shape shape;
    Paint(first, &shape);
    shape.kind += "s";
    const std::string count = std::to_string(views.size());
    const Line times = U" \u00d7 ";
    if (equal) {
        shape.lines.push_back(ToCharacters(count) + times + ForPicture(first.GetName()));
        TopologyView onlySpeed = first;
        onlySpeed.portAbove.reset();
        shape.cable = ToLines(CableLabelOf(onlySpeed));
    } else {
        shape.lines.push_back(ToCharacters(CountOf(views.size(), first.isCamera ? "camera" : "device")));
    }
    for (const TopologyView* view : views) {
        shape.cells.push_back(CellOf(*view, !equal));
    }
    ChooseColumns(&shape);
    return shape;
}

Shape ShapeOf(const TopologyView& view) {
    Shape shape;
    Paint(view, &shape);
    shape.lines = ToLines(LabelOf(view));
    shape.cable = ToLines(CableLabelOf(view));
    return shape;
}

// A branch that is drawn apart from its tree.
struct Block {
    const TopologyView* view = nullptr;
    std::size_t number = 0;
};

class Builder {
public:
    // @param apart  Draws every branch right below a bus in a block of its own.
    Builder(Gathering gathering, bool apart) : m_gathering(gathering), m_apart(apart) {}

    std::vector<Shape> Build(const TopologyView& computer) {
        std::vector<Shape> blocks{Build(computer, 0)};
        for (std::size_t i = 0; i < m_blocks.size(); ++i) {
            const TopologyView& view = *m_blocks[i].view;
            Shape root;
            Paint(view, &root);
            root.kind = "node continued";
            root.radius = 14;
            root.lines = {ForPicture(std::to_string(m_blocks[i].number)), ForPicture(view.GetName())};
            root.children = Children(view, 0);
            blocks.push_back(std::move(root));
        }
        return blocks;
    }

private:
    Shape Build(const TopologyView& view, std::size_t depth) {
        Shape shape = ShapeOf(view);
        const bool isBranchOfBus = view.isBusRoot || view.kind == Kind::Interface;
        const bool goesOn = !view.children.empty() && (depth >= Deepest || (m_apart && isBranchOfBus));
        if (goesOn) {
            m_blocks.push_back({&view, m_blocks.size() + 1});
            shape.lines.push_back(ForPicture("continued at " + std::to_string(m_blocks.size())));
        } else {
            shape.children = Children(view, depth);
        }
        return shape;
    }

    std::vector<Shape> Children(const TopologyView& view, std::size_t depth) {
        const std::map<const TopologyView*, std::vector<const TopologyView*>> groups = Gather(view);
        std::vector<Shape> shapes;
        for (const TopologyView& child : view.children) {
            const auto group = groups.find(&child);
            if (group == groups.end()) {
                shapes.push_back(Build(child, depth + 1));
            } else if (!group->second.empty()) {
                shapes.push_back(GatheredShape(group->second, AllEqual(group->second)));
            }
        }
        return shapes;
    }

    static bool AreEqual(const TopologyView& a, const TopologyView& b) {
        return a.isCamera == b.isCamera && a.speed == b.speed && a.kind == b.kind && a.GetName() == b.GetName();
    }

    static bool AllEqual(const std::vector<const TopologyView*>& views) {
        return std::all_of(views.begin(), views.end(),
                           [&](const TopologyView* view) { return AreEqual(*view, *views[0]); });
    }

    // The groups below a node, by their first member; the other members have an empty group.
    std::map<const TopologyView*, std::vector<const TopologyView*>> Gather(const TopologyView& view) const {
        std::map<const TopologyView*, std::vector<const TopologyView*>> groups;
        if (m_gathering == Gathering::None) {
            return groups;
        }
        const std::size_t least = m_gathering == Gathering::Equal ? 2 : ManyEqual;
        std::vector<const TopologyView*> left;
        for (const TopologyView& child : view.children) {
            if (child.children.empty() && !child.Gathers()) {
                left.push_back(&child);
            }
        }
        std::vector<const TopologyView*> odd;
        while (!left.empty()) {
            std::vector<const TopologyView*> equal;
            std::vector<const TopologyView*> others;
            for (const TopologyView* child : left) {
                (AreEqual(*child, *left[0]) ? equal : others).push_back(child);
            }
            if (equal.size() >= least) {
                for (const TopologyView* child : equal) {
                    groups[child];
                }
                groups[equal.front()] = equal;
            } else {
                odd.insert(odd.end(), equal.begin(), equal.end());
            }
            left = std::move(others);
        }
        // Cameras and others are not mixed.
        for (const bool cameras : {true, false}) {
            std::vector<const TopologyView*> mixed;
            for (const TopologyView* child : odd) {
                if (child->isCamera == cameras) {
                    mixed.push_back(child);
                }
            }
            if (mixed.size() < ManyEqual) {
                continue;
            }
            for (const TopologyView* child : mixed) {
                groups[child];
            }
            groups[mixed.front()] = mixed;
        }
        return groups;
    }

    const Gathering m_gathering;
    const bool m_apart;
    std::vector<Block> m_blocks;
};

std::vector<Shape> UnplacedShapes(const std::vector<UnplacedCamera>& unplaced) {
    std::map<std::string, std::vector<const UnplacedCamera*>> byReason;
    for (const UnplacedCamera& camera : unplaced) {
        byReason[camera.reason].push_back(&camera);
    }
    std::vector<Shape> shapes;
    for (const auto& [reason, cameras] : byReason) {
        Shape base;
        base.kind = "node unplaced";
        base.bus = cameras.front()->camera.interfaceType;
        base.dashed = true;
        base.radius = 8;
        if (cameras.size() >= ManyEqual) {
            Shape shape = base;
            shape.lines = ToLines({CountOf(cameras.size(), "camera"), "not in the tree:", reason});
            for (const UnplacedCamera* camera : cameras) {
                shape.cells.push_back(ForPicture("serial " + std::to_string(camera->camera.serialNumber)));
            }
            ChooseColumns(&shape);
            shapes.push_back(std::move(shape));
            continue;
        }
        for (const UnplacedCamera* camera : cameras) {
            Shape shape = base;
            shape.bus = camera->camera.interfaceType;
            shape.lines = ToLines(LabelOf(*camera));
            shapes.push_back(std::move(shape));
        }
    }
    return shapes;
}

// ---- Sizes and places ----------------------------------------------------------------------------------------------

void Measure(Shape* shape) {
    double widest = shape->lines.empty() ? 0 : NameWidth(shape->lines.front());
    for (std::size_t i = 1; i < shape->lines.size(); ++i) {
        widest = std::max(widest, TextWidth(shape->lines[i]));
    }
    std::size_t rows = shape->lines.size();
    if (!shape->cells.empty()) {
        const auto columns = static_cast<double>(shape->columns);
        widest = std::max(widest, columns * CellWidth(*shape) + (columns - 1) * CellGap);
        rows += (shape->cells.size() + shape->columns - 1) / shape->columns;
    }
    shape->width = widest + 2 * Padding;
    shape->height = static_cast<double>(rows) * LineHeight + 2 * Padding - 2;
    shape->cableWidth = 0;
    for (const Line& line : shape->cable) {
        shape->cableWidth = std::max(shape->cableWidth, WidthOf(line, CableSize, false));
    }
    double below = 0;
    double cable = 0;
    for (Shape& child : shape->children) {
        Measure(&child);
        below += child.treeHeight + (below == 0 ? 0 : RowGap);
        cable = std::max(cable, child.cableWidth);
    }
    // Cables of one node part at one place.
    for (Shape& child : shape->children) {
        child.cableWidth = cable;
    }
    shape->treeHeight = std::max(shape->height, below);
}

// How far a level of the tree reaches: boxes of one level start at the same place.
void MeasureLevels(const Shape& shape, std::size_t level, std::vector<double>* boxes, std::vector<double>* cables) {
    boxes->resize(std::max(boxes->size(), level + 1), 0);
    cables->resize(std::max(cables->size(), level + 1), 0);
    (*boxes)[level] = std::max((*boxes)[level], shape.width);
    (*cables)[level] = std::max((*cables)[level], shape.cableWidth);
    for (const Shape& child : shape.children) {
        MeasureLevels(child, level + 1, boxes, cables);
    }
}

void Place(Shape* shape, const std::vector<double>& starts, std::size_t level, double top) {
    double childTop = top;
    double first = 0;
    double last = 0;
    double below = 0;
    for (const Shape& child : shape->children) {
        below += child.treeHeight + (below == 0 ? 0 : RowGap);
    }
    childTop += (shape->treeHeight - below) / 2;
    for (Shape& child : shape->children) {
        Place(&child, starts, level + 1, childTop);
        const double middle = child.corner.y + child.height / 2;
        if (&child == &shape->children.front()) {
            first = middle;
        }
        last = middle;
        childTop += child.treeHeight + RowGap;
    }
    const double middle = shape->children.empty() ? top + shape->treeHeight / 2 : (first + last) / 2;
    const double lowest = top + shape->treeHeight - shape->height;
    shape->corner = {starts[level], std::clamp(middle - shape->height / 2, top, std::max(top, lowest))};
}

struct Size {
    double width = 0;
    double height = 0;
};

// Places a block at the origin.
Size LayOutBlock(Shape* root) {
    Measure(root);
    std::vector<double> boxes;
    std::vector<double> cables;
    MeasureLevels(*root, 0, &boxes, &cables);
    std::vector<double> starts{0};
    for (std::size_t level = 1; level < boxes.size(); ++level) {
        starts.push_back(starts.back() + boxes[level - 1] + Spine + cables[level] + CableEndGap);
    }
    Place(root, starts, 0, 0);
    return {starts.back() + boxes.back(), root->treeHeight};
}

void Move(Shape* shape, double x, double y) {
    shape->corner.x += x;
    shape->corner.y += y;
    for (Shape& child : shape->children) {
        Move(&child, x, y);
    }
}

// In columns of about the height that gives the picture its ratio.
Size Pack(std::vector<Shape>* blocks) {
    std::vector<Size> sizes;
    double area = 0;
    double tallest = 0;
    for (Shape& block : *blocks) {
        sizes.push_back(LayOutBlock(&block));
        area += (sizes.back().width + BlockGap) * (sizes.back().height + BlockGap);
        tallest = std::max(tallest, sizes.back().height);
    }
    const double limit = std::max(tallest, std::sqrt(area / Ratio));
    Size used;
    double x = Margin;
    double y = Margin;
    double columnWidth = 0;
    for (std::size_t i = 0; i < blocks->size(); ++i) {
        if (y > Margin && y + sizes[i].height > limit + Margin) {
            x += columnWidth + BlockGap;
            y = Margin;
            columnWidth = 0;
        }
        Move(&(*blocks)[i], x, y);
        columnWidth = std::max(columnWidth, sizes[i].width);
        used = {std::max(used.width, x + columnWidth), std::max(used.height, y + sizes[i].height)};
        y += sizes[i].height + BlockGap;
    }
    return used;
}

// ---- From shapes to items ------------------------------------------------------------------------------------------

const char* InkOf(const Shape& shape) { return shape.solid ? "#ffffff" : PaintOf(shape.bus).dark; }

PictureItem ItemOf(const Shape& shape) {
    const BusPaint paint = PaintOf(shape.bus);
    PictureItem item;
    item.kind = shape.kind;
    PictureBox box;
    box.corner = shape.corner;
    box.width = shape.width;
    box.height = shape.height;
    box.radius = shape.radius;
    box.border = shape.light ? 2 : 1.2;
    box.dashed = shape.dashed;
    box.stroke = paint.dark;
    box.fill = shape.solid ? paint.dark : shape.light ? paint.light : "#ffffff";
    item.box = box;
    double y = shape.corner.y + Padding + LineHeight - 4;
    const double x = shape.corner.x + Padding;
    const double room = shape.width - 2 * Padding;
    for (std::size_t i = 0; i < shape.lines.size(); ++i, y += LineHeight) {
        item.texts.push_back({{x, y}, room, i == 0 ? NameSize : TextSize, i == 0, InkOf(shape), shape.lines[i]});
    }
    const double cell = CellWidth(shape);
    const std::size_t rows = (shape.cells.size() + shape.columns - 1) / shape.columns;
    for (std::size_t i = 0; i < shape.cells.size(); ++i) {
        const auto column = static_cast<double>(i / rows);
        const auto row = static_cast<double>(i % rows);
        item.texts.push_back({{x + column * (cell + CellGap), y + row * LineHeight},
                              cell,
                              TextSize,
                              false,
                              InkOf(shape),
                              shape.cells[i]});
    }
    return item;
}

// The label stands on and below the last stretch of its cable, where no other cable passes.
PictureItem CableTo(const Shape& child, const Shape& parent) {
    PictureItem item;
    item.kind = "edge";
    item.lineColour = PaintOf(child.bus).dark;
    const double from = parent.corner.y + parent.height / 2;
    const double to = child.corner.y + child.height / 2;
    const double start = parent.corner.x + parent.width;
    const double end = child.corner.x;
    const double spine = end - CableEndGap - child.cableWidth;
    item.line = {{start, from}, {spine, from}, {spine, to}, {end, to}};
    double y = to - 4;
    for (const Line& line : child.cable) {
        item.texts.push_back({{spine + CableEndGap / 2, y}, child.cableWidth, CableSize, false, "#475569", line});
        y = to + CableSize + 1;
    }
    return item;
}

void Emit(const Shape& shape, Picture* picture) {
    for (const Shape& child : shape.children) {
        picture->items.push_back(CableTo(child, shape));
        Emit(child, picture);
    }
    picture->items.push_back(ItemOf(shape));
}

}  // namespace

double WidthOf(const std::u32string& text, double size, bool bold) {
    const std::u32string_view narrow = U" .,:;'!|ijl";
    const std::u32string_view small = U"()[]{}ft-rIJ`\"/\\*";
    const std::u32string_view wide = U"mwMW@%";
    double ems = 0;
    for (const char32_t c : text) {
        if (c >= 0x80) {
            ems += c >= 0x1100 ? 1.1 : 0.95;
        } else if (narrow.find(c) != narrow.npos) {
            ems += 0.46;
        } else if (small.find(c) != small.npos) {
            ems += 0.58;
        } else if (wide.find(c) != wide.npos) {
            ems += 1.13;
        } else if ((c >= U'0' && c <= U'9') || (c >= U'a' && c <= U'z')) {
            ems += 0.73;
        } else {
            ems += 0.88;
        }
    }
    return ems * size * (bold ? 1 : 0.92);
}

Picture LayOut(const Topology& topology) {
    const TopologyView drawn = WithInterfaces(topology.computer);
    std::vector<Shape> blocks;
    for (const auto& [gathering, apart] : {std::pair(Gathering::None, false), std::pair(Gathering::Many, false),
                                           std::pair(Gathering::Equal, false), std::pair(Gathering::Equal, true)}) {
        blocks = Builder(gathering, apart).Build(drawn);
        Measure(&blocks.front());
        if (blocks.front().treeHeight <= TallWithoutGathering) {
            break;
        }
    }
    for (Shape& shape : UnplacedShapes(topology.unplaced)) {
        blocks.push_back(std::move(shape));
    }
    const Size size = Pack(&blocks);
    Picture picture;
    picture.width = size.width + Margin;
    picture.height = size.height + Margin;
    for (const Shape& block : blocks) {
        Emit(block, &picture);
    }
    for (const std::string& sentence : topology.cut) {
        PictureItem remark;
        remark.kind = "remark";
        const Line line = ToCharacters(sentence);
        remark.texts.push_back({{Margin, picture.height}, TextWidth(line), TextSize, false, "#b91c1c", line});
        picture.width = std::max(picture.width, TextWidth(line) + 2 * Margin);
        picture.height += LineHeight + Margin;
        picture.items.push_back(std::move(remark));
    }
    return picture;
}

std::string TopologyAsSvg(const Topology& topology) { return WriteSvg(LayOut(topology)); }

std::string TopologyAsPng(const Topology& topology) { return WritePng(LayOut(topology)); }

}  // namespace Nimbrel2::Tool
