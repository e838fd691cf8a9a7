// SPDX-License-Identifier: Apache-2.0
//
// Drawings. The map is a radial tree: the coordinator in the middle, its routers on a ring, everything else outside its
// parent. Every leaf owns an angle, so edges do not cross. Labels try the places around their node; when one finds none
// that is free, the whole drawing is stretched and laid out again.
#include "drawing.h"
#include "base/printable.h"
#include <algorithm>
#include <array>
#include <cmath>
#include <fmt/format.h>
#include <numbers>
#include <numeric>

namespace corvane::map {

namespace {

constexpr double FIRST_RING = 190;
constexpr double CHILD_DISTANCE = 125;   // from a router to what hangs on it
constexpr double OWN_END_DEVICES = 0.72; // of the first ring: where the coordinator's end devices are
constexpr double WIDTH_TO_HEIGHT = 1.25; // labels are wider than high
constexpr double WIDEST_FAN = 2.6;       // radians that the children of a router take at most ...
constexpr double WIDEST_STEP = 0.75;     // ... and each of its leaves
constexpr double STRETCH = 1.08;
constexpr int MAX_STRETCHES = 60;

constexpr double COORDINATOR_RADIUS = 24;
constexpr double LABEL_GAP = 6;
constexpr double LABEL_HEIGHT = 30;
constexpr double NAME_CHARACTER = 7.9; // widths of the fonts, for the wider ones among them
constexpr double ADDRESS_CHARACTER = 6.9;
constexpr std::size_t MAX_NAME = 26;

constexpr double MARGIN = 28;
constexpr double HEADER = 62;
constexpr double LEGEND = 64;
constexpr double LEGEND_WIDTH = 890;
constexpr double DETACHED_COLUMN = 210;
constexpr double DETACHED_ROW = 76;

struct Point {
    double x;
    double y;
};

double radiusOf(const MapNode &node) {
    return node.kind == MapKind::Coordinator ? COORDINATOR_RADIUS
           : node.kind == MapKind::Router    ? NODE_RADIUS
                                             : NODE_RADIUS - 4;
}

std::string nameOf(const MapNode &node) {
    return node.name.size() <= MAX_NAME ? node.name : node.name.substr(0, MAX_NAME - 3) + "...";
}

std::string addressOf(const MapNode &node) {
    const std::string tail = node.eui64.size() == 23 ? " ..." + node.eui64.substr(15) : "";
    return fmt::format("0x{:04X}{}", node.node_id, tail);
}

Box boxAround(Point middle, double half_width, double half_height) {
    return {middle.x - half_width, middle.y - half_height, middle.x + half_width, middle.y + half_height};
}

// Whether the line from `a` to `b` touches the box: it is cut off at each side in turn.
bool crosses(const Box &box, Point a, Point b) {
    double enter = 0;
    double leave = 1;
    const auto cut = [&](double from, double way, double low, double high) {
        if (std::abs(way) < 1e-9) {
            return from > low && from < high;
        }
        enter = std::max(enter, std::min((low - from) / way, (high - from) / way));
        leave = std::min(leave, std::max((low - from) / way, (high - from) / way));
        return true;
    };
    return cut(a.x, b.x - a.x, box.left, box.right) && cut(a.y, b.y - a.y, box.top, box.bottom) && enter < leave;
}

// ---------------------------------------------------------------- positions

class Placer {
public:
    Placer(const NetworkMap &map, double scale) : map_(map), scale_(scale), leaves_(map.nodes.size()) {
        layout_.nodes.resize(map.nodes.size());
    }

    void place() {
        countLeaves(0);
        const double slots = std::max(3.0, leaves_[0]);
        ring(-std::numbers::pi / 2 - std::numbers::pi / slots, 2 * std::numbers::pi / slots);
        placeDetached();
    }

    // False when something overlaps.
    bool label() {
        for (std::size_t i = 0; i < map_.nodes.size(); ++i) {
            taken_.push_back(boxAround(at(i), radiusOf(map_.nodes[i]) + 3, radiusOf(map_.nodes[i]) + 3));
        }
        bool fits = noneOverlap(taken_);
        for (std::size_t i = 0; i < map_.nodes.size(); ++i) {
            fits = labelLink(i) && fits;
        }
        for (std::size_t i = 0; i < map_.nodes.size(); ++i) {
            fits = labelNode(i) && fits;
        }
        return fits;
    }

    Layout finish() {
        Box all{0, 0, 0, 0};
        for (const Box &box : taken_) {
            all = {std::min(all.left, box.left), std::min(all.top, box.top), std::max(all.right, box.right),
                   std::max(all.bottom, box.bottom)};
        }
        layout_.width = std::max(all.right - all.left, LEGEND_WIDTH) + 2 * MARGIN;
        layout_.height = all.bottom - all.top + 2 * MARGIN + HEADER + LEGEND;
        const double dx = (layout_.width - (all.right - all.left)) / 2 - all.left;
        const double dy = HEADER + MARGIN - all.top;
        const auto shift = [&](Box &box) { box = {box.left + dx, box.top + dy, box.right + dx, box.bottom + dy}; };
        for (PlacedNode &node : layout_.nodes) {
            node.x += dx;
            node.y += dy;
            shift(node.label);
            if (node.link_label) {
                shift(*node.link_label);
            }
        }
        return std::move(layout_);
    }

private:
    Point at(std::size_t index) const { return {layout_.nodes[index].x, layout_.nodes[index].y}; }

    double countLeaves(std::size_t index) {
        const auto &children = map_.nodes[index].children;
        leaves_[index] =
            children.empty()
                ? 1
                : std::accumulate(children.begin(), children.end(), 0.0,
                                  [this](double sum, std::size_t child) { return sum + countLeaves(child); });
        return leaves_[index];
    }

    // The coordinator's children all around it; each leaf takes `slot` radians.
    void ring(double first, double slot) {
        double angle = first;
        for (const std::size_t child : map_.nodes[0].children) {
            const double span = slot * leaves_[child];
            const bool end_device = map_.nodes[child].kind == MapKind::EndDevice;
            moveTo(child, {0, 0}, angle + span / 2, end_device ? FIRST_RING * OWN_END_DEVICES : FIRST_RING);
            fan(child, angle + span / 2);
            angle += span;
        }
    }

    // The children of a router side by side, away from where it hangs itself.
    void fan(std::size_t index, double direction) {
        const double step = std::min(WIDEST_STEP, WIDEST_FAN / leaves_[index]);
        double angle = direction - step * leaves_[index] / 2;
        for (const std::size_t child : map_.nodes[index].children) {
            const double span = step * leaves_[child];
            moveTo(child, at(index), angle + span / 2, CHILD_DISTANCE);
            fan(child, angle + span / 2);
            angle += span;
        }
    }

    void moveTo(std::size_t index, Point from, double angle, double distance) {
        layout_.nodes[index].x = from.x + scale_ * distance * std::cos(angle) * WIDTH_TO_HEIGHT;
        layout_.nodes[index].y = from.y + scale_ * distance * std::sin(angle);
    }

    // In rows below everything else.
    void placeDetached() {
        double bottom = 0;
        for (const PlacedNode &node : layout_.nodes) {
            bottom = std::max(bottom, node.y);
        }
        const std::size_t columns = 4;
        for (std::size_t i = 0; i < map_.detached.size(); ++i) {
            PlacedNode &node = layout_.nodes[map_.detached[i]];
            const std::size_t row = 2 + i / columns;
            node.x = (static_cast<double>(i % columns) - (columns - 1) / 2.0) * DETACHED_COLUMN;
            node.y = bottom + static_cast<double>(row) * DETACHED_ROW;
        }
    }

    bool isFree(const Box &box) const {
        return std::ranges::none_of(taken_, [&](const Box &other) { return box.overlaps(other); });
    }

    bool crossesLink(const Box &box) const {
        for (std::size_t i = 1; i < map_.nodes.size(); ++i) {
            if (!isDetached(i) && crosses(box, at(map_.nodes[i].parent), at(i))) {
                return true;
            }
        }
        return false;
    }

    bool isDetached(std::size_t index) const { return std::ranges::find(map_.detached, index) != map_.detached.end(); }

    static bool noneOverlap(const std::vector<Box> &boxes) {
        for (std::size_t i = 0; i < boxes.size(); ++i) {
            for (std::size_t j = i + 1; j < boxes.size(); ++j) {
                if (boxes[i].overlaps(boxes[j])) {
                    return false;
                }
            }
        }
        return true;
    }

    bool labelLink(std::size_t index) {
        const MapNode &node = map_.nodes[index];
        if (!node.link_quality || index == 0 || isDetached(index)) {
            return true;
        }
        const Point to = at(index);
        const Point from = at(node.parent);
        for (const double way : {0.5, 0.42, 0.58, 0.35, 0.65}) {
            const Box box = boxAround({from.x + (to.x - from.x) * way, from.y + (to.y - from.y) * way}, 15, 9);
            layout_.nodes[index].link_label = box;
            if (isFree(box)) {
                taken_.push_back(box);
                return true;
            }
        }
        taken_.push_back(*layout_.nodes[index].link_label);
        return false;
    }

    // Beside the node where it lies beside the middle, else below or above.
    bool labelNode(std::size_t index) {
        const MapNode &node = map_.nodes[index];
        const Point middle = at(index);
        const double half = std::max(static_cast<double>(nameOf(node).size()) * NAME_CHARACTER,
                                     static_cast<double>(addressOf(node).size()) * ADDRESS_CHARACTER) /
                                2 +
                            2;
        const double away = radiusOf(node) + LABEL_GAP;
        const Box below = boxAround({middle.x, middle.y + away + LABEL_HEIGHT / 2}, half, LABEL_HEIGHT / 2);
        const Box above = boxAround({middle.x, middle.y - away - LABEL_HEIGHT / 2}, half, LABEL_HEIGHT / 2);
        const Box right = boxAround({middle.x + away + half, middle.y}, half, LABEL_HEIGHT / 2);
        const Box left = boxAround({middle.x - away - half, middle.y}, half, LABEL_HEIGHT / 2);
        const auto corner = [&](int across, int down) {
            return boxAround({middle.x + across * (half + LABEL_GAP), middle.y + down * (away + LABEL_HEIGHT / 2 - 4)},
                             half, LABEL_HEIGHT / 2);
        };
        const int down = middle.y < -1 ? -1 : 1;
        const int across = middle.x < 0 ? -1 : 1;
        std::array<Box, 8> places{down < 0 ? above : below, across < 0 ? left : right, across < 0 ? right : left,
                                  down < 0 ? below : above, corner(across, down),      corner(-across, down),
                                  corner(across, -down),    corner(-across, -down)};
        if (std::abs(middle.x) > std::abs(middle.y) * WIDTH_TO_HEIGHT) {
            std::swap(places[0], places[1]);
        }
        const auto *found =
            std::ranges::find_if(places, [this](const Box &box) { return isFree(box) && !crossesLink(box); });
        if (found == places.end()) {
            found = std::ranges::find_if(places, [this](const Box &box) { return isFree(box); });
        }
        layout_.nodes[index].label = found != places.end() ? *found : places[0];
        taken_.push_back(layout_.nodes[index].label);
        return found != places.end();
    }

    const NetworkMap &map_;
    const double scale_;
    std::vector<double> leaves_;
    std::vector<Box> taken_;
    Layout layout_;
};

// ---------------------------------------------------------------- drawing

const char *colourOf(LinkGrade grade) {
    switch (grade) {
    case LinkGrade::Good:
        return "#2e9e5b";
    case LinkGrade::Fair:
        return "#e0a100";
    case LinkGrade::Poor:
        return "#d64545";
    case LinkGrade::Unknown:
        return "#9aa5b1";
    }
    return "";
}

constexpr const char *STYLE = R"(<style>
text { font-family: "Inter", "Segoe UI", "Helvetica Neue", Arial, sans-serif; fill: #1f2933; }
.title { font-size: 19px; font-weight: 600; } .sub { font-size: 13px; fill: #616e7c; }
.name { font-size: 12.5px; font-weight: 600; } .addr { font-size: 11px; fill: #52606d; }
.lqi { font-size: 11px; font-weight: 600; text-anchor: middle; } .mid { text-anchor: middle; }
.halo { paint-order: stroke; stroke: #ffffff; stroke-width: 3px; stroke-linejoin: round; }
</style>
)";

void drawShape(std::string &svg, MapKind kind, Point at, double radius) {
    switch (kind) {
    case MapKind::Coordinator:
        svg += fmt::format(
            R"(<circle cx="{0:.1f}" cy="{1:.1f}" r="{2}" fill="#dbe7f6"/><circle cx="{0:.1f}" cy="{1:.1f}" r="{3}" fill="#1b4f8f"/>)",
            at.x, at.y, radius, radius * 0.7);
        return;
    case MapKind::Router:
        svg +=
            fmt::format(R"(<circle cx="{:.1f}" cy="{:.1f}" r="{}" fill="#3d7cc9" stroke="#ffffff" stroke-width="2"/>)",
                        at.x, at.y, radius);
        return;
    case MapKind::EndDevice:
        svg +=
            fmt::format(R"(<circle cx="{:.1f}" cy="{:.1f}" r="{}" fill="#ffffff" stroke="#3d7cc9" stroke-width="3"/>)",
                        at.x, at.y, radius);
        return;
    }
}

void drawLink(std::string &svg, const MapNode &node, const PlacedNode &from, const PlacedNode &to) {
    const bool known = node.link_quality.has_value();
    svg += fmt::format(R"(<line x1="{:.1f}" y1="{:.1f}" x2="{:.1f}" y2="{:.1f}" stroke="{}" stroke-width="{}"{}/>)",
                       from.x, from.y, to.x, to.y, colourOf(gradeOf(node)), known ? 3 : 2,
                       node.link_active ? "" : R"( stroke-dasharray="6 5")");
    svg += '\n';
}

void drawLinkLabel(std::string &svg, const MapNode &node, const PlacedNode &placed) {
    if (!placed.link_label) {
        return;
    }
    const Box &box = *placed.link_label;
    svg +=
        fmt::format(R"(<rect x="{:.1f}" y="{:.1f}" width="{:.1f}" height="{:.1f}" rx="9" fill="#ffffff" stroke="{}"/>)",
                    box.left, box.top, box.right - box.left, box.bottom - box.top, colourOf(gradeOf(node)));
    svg += fmt::format("<text class=\"lqi\" x=\"{:.1f}\" y=\"{:.1f}\">{}</text>\n", (box.left + box.right) / 2,
                       box.bottom - 5, *node.link_quality);
}

void drawNode(std::string &svg, const MapNode &node, const PlacedNode &placed) {
    svg += fmt::format("<g><title>{}</title>",
                       escapeXml(fmt::format("{} 0x{:04X} {}", node.name, node.node_id, node.eui64)));
    drawShape(svg, node.kind, {placed.x, placed.y}, radiusOf(node));
    const double middle = (placed.label.left + placed.label.right) / 2;
    svg += fmt::format(
        R"(<text class="name mid halo" x="{0:.1f}" y="{1:.1f}">{3}</text><text class="addr mid halo" x="{0:.1f}" y="{2:.1f}">{4}</text></g>)",
        middle, placed.label.top + 12, placed.label.top + 26, escapeXml(nameOf(node)), escapeXml(addressOf(node)));
    svg += '\n';
}

void drawLegend(std::string &svg, const Layout &layout) {
    const double y = layout.height - LEGEND / 2 - 4;
    double x = MARGIN;
    svg += fmt::format("<line x1=\"{0}\" y1=\"{2:.1f}\" x2=\"{1:.1f}\" y2=\"{2:.1f}\" stroke=\"#e4e7eb\"/>\n", MARGIN,
                       layout.width - MARGIN, layout.height - LEGEND);
    const auto word = [&](double at, const char *text) {
        svg += fmt::format("<text class=\"sub\" x=\"{:.1f}\" y=\"{:.1f}\">{}</text>\n", at, y + 4, text);
    };
    const struct {
        MapKind kind;
        const char *text;
        double width;
    } kinds[] = {{MapKind::Coordinator, "coordinator", 124},
                 {MapKind::Router, "router", 84},
                 {MapKind::EndDevice, "end device", 130}};
    for (const auto &item : kinds) {
        drawShape(svg, item.kind, {x + 10, y}, item.kind == MapKind::EndDevice ? 8 : 10);
        word(x + 26, item.text);
        x += item.width;
    }
    const struct {
        LinkGrade grade;
        const char *text;
        double width;
    } grades[] = {{LinkGrade::Good, "LQI 170 and more", 160},
                  {LinkGrade::Fair, "100 and more", 132},
                  {LinkGrade::Poor, "less, or silent", 140},
                  {LinkGrade::Unknown, "not measured", 0}};
    for (const auto &item : grades) {
        svg +=
            fmt::format(R"(<line x1="{0:.1f}" y1="{1:.1f}" x2="{2:.1f}" y2="{1:.1f}" stroke="{3}" stroke-width="3"/>)",
                        x, y, x + 26, colourOf(item.grade));
        word(x + 33, item.text);
        x += item.width;
    }
}

std::string openSvg(double width, double height, std::string_view title, std::string_view description) {
    return fmt::format("<svg xmlns=\"http://www.w3.org/2000/svg\" width=\"{0:.0f}\" height=\"{1:.0f}\" viewBox=\"0 0 "
                       "{0:.0f} {1:.0f}\" "
                       "role=\"img\" aria-labelledby=\"title desc\">\n<title id=\"title\">{2}</title>\n<desc "
                       "id=\"desc\">{3}</desc>\n{4}"
                       "<rect width=\"100%\" height=\"100%\" rx=\"12\" fill=\"#ffffff\"/>\n",
                       width, height, escapeXml(title), escapeXml(description), STYLE);
}

} // namespace

std::string escapeXml(std::string_view text) {
    std::string escaped;
    for (const char c : base::printable(text)) {
        switch (c) {
        case '&':
            escaped += "&amp;";
            break;
        case '<':
            escaped += "&lt;";
            break;
        case '>':
            escaped += "&gt;";
            break;
        case '"':
            escaped += "&quot;";
            break;
        default:
            escaped += c;
        }
    }
    return escaped;
}

Layout layOut(const NetworkMap &map) {
    double scale = 1;
    for (int attempt = 0;; ++attempt, scale *= STRETCH) {
        Placer placer(map, scale);
        placer.place();
        if (placer.label() || attempt == MAX_STRETCHES) {
            return placer.finish();
        }
    }
}

std::string mapSvg(const NetworkMap &map) {
    const Layout layout = layOut(map);
    const auto routers = std::ranges::count(map.nodes, MapKind::Router, &MapNode::kind);
    const auto end_devices = std::ranges::count(map.nodes, MapKind::EndDevice, &MapNode::kind);
    const std::string summary = fmt::format("{}: {} router{}, {} end device{}", map.title, routers,
                                            routers == 1 ? "" : "s", end_devices, end_devices == 1 ? "" : "s");
    std::string svg =
        openSvg(layout.width, layout.height, "Zigbee network",
                summary + ". The coordinator is in the middle; lines are links, coloured by their link quality (LQI).");
    svg += fmt::format("<text class=\"title\" x=\"{0}\" y=\"36\">Zigbee network</text>\n<text class=\"sub\" x=\"{0}\" "
                       "y=\"56\">{1}</text>\n",
                       MARGIN, escapeXml(summary));
    const auto detached = [&](std::size_t i) { return std::ranges::find(map.detached, i) != map.detached.end(); };
    for (std::size_t i = 1; i < map.nodes.size(); ++i) {
        if (!detached(i)) {
            drawLink(svg, map.nodes[i], layout.nodes[map.nodes[i].parent], layout.nodes[i]);
        }
    }
    for (std::size_t i = 1; i < map.nodes.size(); ++i) {
        drawLinkLabel(svg, map.nodes[i], layout.nodes[i]);
    }
    for (std::size_t i = 0; i < map.nodes.size(); ++i) {
        drawNode(svg, map.nodes[i], layout.nodes[i]);
    }
    if (!map.detached.empty()) {
        const PlacedNode &first = layout.nodes[map.detached[0]];
        svg +=
            fmt::format("<text class=\"sub\" x=\"{:.1f}\" y=\"{:.1f}\">known, but in no table of the radio:</text>\n",
                        MARGIN, first.y - DETACHED_ROW / 2);
    }
    drawLegend(svg, layout);
    return svg + "</svg>\n";
}

std::string latencySvg(const std::vector<LatencySeries> &series) {
    constexpr double LEFT = 250;
    constexpr double PLOT = 620;
    constexpr double ROW = 34;
    double longest = 1;
    for (const LatencySeries &row : series) {
        longest =
            row.round_trips_ms.empty() ? longest : std::max(longest, *std::ranges::max_element(row.round_trips_ms));
    }
    const double step = std::pow(10, std::floor(std::log10(longest))) / 2; // 2 to 20 lines
    const double limit = std::ceil(longest / step) * step;
    const double bottom = HEADER + MARGIN + ROW * static_cast<double>(series.size());
    const auto xOf = [&](double ms) { return LEFT + PLOT * ms / limit; };
    std::string svg = openSvg(LEFT + PLOT + 2 * MARGIN, bottom + 48, "Round trips",
                              fmt::format("Time from command to answer of {} devices, in milliseconds", series.size()));
    svg += fmt::format("<text class=\"title\" x=\"{0}\" y=\"36\">Round trips</text>\n<text class=\"sub\" x=\"{0}\" "
                       "y=\"56\">from command to answer, ms; the bar marks the median</text>\n",
                       MARGIN);
    for (int line = 0; line * step <= limit + step / 2; ++line) {
        const double tick = line * step;
        svg += fmt::format("<line x1=\"{0:.1f}\" y1=\"{1:.1f}\" x2=\"{0:.1f}\" y2=\"{2:.1f}\" "
                           "stroke=\"#e4e7eb\"/><text class=\"addr mid\" x=\"{0:.1f}\" y=\"{3:.1f}\">{4:g}</text>\n",
                           xOf(tick), HEADER + MARGIN - 8, bottom, bottom + 18, tick);
    }
    for (std::size_t i = 0; i < series.size(); ++i) {
        const double y = HEADER + MARGIN + ROW * (static_cast<double>(i) + 0.5);
        svg += fmt::format("<text class=\"name\" x=\"{}\" y=\"{:.1f}\">{}</text>\n", MARGIN, y + 4,
                           escapeXml(series[i].name));
        std::vector<double> sorted = series[i].round_trips_ms;
        std::ranges::sort(sorted);
        for (const double ms : sorted) {
            svg += fmt::format("<circle cx=\"{:.1f}\" cy=\"{:.1f}\" r=\"5\" fill=\"#3d7cc9\" fill-opacity=\"0.45\"/>",
                               xOf(ms), y);
        }
        if (!sorted.empty()) {
            svg += fmt::format("<line x1=\"{0:.1f}\" y1=\"{1:.1f}\" x2=\"{0:.1f}\" y2=\"{2:.1f}\" stroke=\"#1b4f8f\" "
                               "stroke-width=\"3\"/>\n",
                               xOf(sorted[sorted.size() / 2]), y - 11, y + 11);
        }
    }
    return svg + "</svg>\n";
}

} // namespace corvane::map
