// SPDX-License-Identifier: Apache-2.0
//
// Drawings as SVG. The same input gives the same bytes. Texts of devices are escaped and freed of control characters.
#pragma once
#include "network_map.h"
#include <string>
#include <string_view>
#include <vector>

namespace corvane::map {

std::string mapSvg(const NetworkMap &map);

// Where the SVG puts things; exposed for its tests. Positions are those of the middle of a node.
struct Box {
    double left, top, right, bottom;
    bool overlaps(const Box &other) const {
        return left < other.right && other.left < right && top < other.bottom && other.top < bottom;
    }
};
struct PlacedNode {
    double x = 0;
    double y = 0;
    Box label{};
    std::optional<Box> link_label;
};
struct Layout {
    double width = 0;
    double height = 0;
    std::vector<PlacedNode> nodes; // one for each of NetworkMap::nodes
};
Layout layOut(const NetworkMap &map);
constexpr double NODE_RADIUS = 17;

// Round trips in milliseconds as dots on a scale, one row per device, the median marked by a bar.
struct LatencySeries {
    std::string name;
    std::vector<double> round_trips_ms;
};
std::string latencySvg(const std::vector<LatencySeries> &series);
std::string escapeXml(std::string_view text);

} // namespace corvane::map
