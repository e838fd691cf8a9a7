// SPDX-License-Identifier: Apache-2.0
//
// The network as a tree, built from the coordinator's tables. The tables tell who is a child or neighbour of the
// coordinator and over which next hop everybody else is reached; that is what the tree shows. Devices that no table
// mentions stand apart.
#pragma once
#include "corvane_client.h"
#include "corvanectl_output.h"
#include <map>
#include <optional>
#include <string>
#include <vector>

namespace corvane::ctl {

struct MapInput {
    std::string title; // "channel 15, PAN id 0x1234"
    std::string coordinator_eui64;
    std::vector<oruZb_nodeInfo_t> devices;
    std::vector<oruZb_childTableEntry_t> children;
    std::vector<oruZb_routeTableEntry_t> routes;
    std::vector<oruZb_neighborTableEntry_t> neighbors;
};

enum class MapKind : uint8_t { Coordinator, Router, EndDevice };

struct MapNode {
    uint16_t node_id = 0;
    MapKind kind = MapKind::EndDevice;
    std::string name;                    // device type
    std::string eui64;                   // may be empty
    std::optional<uint8_t> link_quality; // of the link to the parent, 0 to 255
    bool link_active = true;             // false: the route is not in use, or the neighbour is silent
    bool stored = false;                 // the service knows the device
    std::size_t parent = 0;              // position in the list
    std::vector<std::size_t> children;
};

struct NetworkMap {
    std::string title;
    std::vector<MapNode> nodes;        // the coordinator first
    std::vector<std::size_t> detached; // known devices without a place in the tree
};

NetworkMap buildMap(const MapInput &input);
std::string mapText(const NetworkMap &map);
Json mapJson(const NetworkMap &map);
std::string mapSvg(const NetworkMap &map);

enum class LinkGrade : uint8_t { Good, Fair, Poor, Unknown };
LinkGrade gradeOf(const MapNode &node);

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

} // namespace corvane::ctl
