// SPDX-License-Identifier: Apache-2.0
#include "network_map.h"
#include "base/eui64.h"
#include <algorithm>
#include <map>

namespace corvane::map {

namespace {

constexpr uint8_t ROUTE_ACTIVE = 0;
constexpr uint8_t GOOD_LINK = 170; // LQI
constexpr uint8_t FAIR_LINK = 100;

class Builder {
public:
    explicit Builder(const MapInput &input) {
        map_.title = input.title;
        MapNode &coordinator = map_.nodes.emplace_back();
        coordinator.kind = MapKind::Coordinator;
        coordinator.name = "coordinator";
        coordinator.eui64 = base::eui64Text(input.coordinator_eui64);
        positions_[0] = 0;
        for (const auto &device : input.devices) {
            addDevice(device);
        }
        for (const auto &child : input.children) {
            addChild(child);
        }
        for (const auto &neighbor : input.neighbors) {
            addNeighbor(neighbor);
        }
        for (const auto &route : input.routes) {
            addRoute(route);
        }
    }

    NetworkMap finish() {
        breakLoops();
        for (std::size_t i = 1; i < map_.nodes.size(); ++i) {
            if (placed_[i]) {
                map_.nodes[map_.nodes[i].parent].children.push_back(i);
            } else {
                map_.detached.push_back(i);
            }
        }
        for (MapNode &node : map_.nodes) { // routers first, then as the tables have them
            std::stable_partition(node.children.begin(), node.children.end(),
                                  [this](std::size_t child) { return map_.nodes[child].kind == MapKind::Router; });
        }
        return std::move(map_);
    }

private:
    // The tables may mention nodes that the service does not know, and anything else: they come from the radio.
    std::size_t nodeAt(uint16_t node_id) {
        const auto [entry, added] = positions_.try_emplace(node_id, map_.nodes.size());
        if (added) {
            MapNode &node = map_.nodes.emplace_back();
            node.node_id = node_id;
            node.name = "unknown device";
            placed_.resize(map_.nodes.size());
        }
        return entry->second;
    }

    void addDevice(const KnownDevice &device) {
        if (device.node_id == 0) {
            return;
        }
        MapNode &node = map_.nodes[nodeAt(device.node_id)];
        node.name = device.name;
        node.eui64 = base::eui64Text(device.eui64);
        node.kind = device.router ? MapKind::Router : MapKind::EndDevice;
        node.stored = true;
    }

    void place(std::size_t position, std::size_t parent) {
        if (position != 0 && position != parent) {
            placed_[position] = true;
            map_.nodes[position].parent = parent;
        }
    }

    void addChild(const oruZb_childTableEntry_t &child) {
        const std::size_t position = nodeAt(child.id);
        if (map_.nodes[position].eui64.empty()) {
            map_.nodes[position].eui64 = base::eui64Text(base::reversed(child.eui64));
        }
        place(position, 0);
    }

    void addNeighbor(const oruZb_neighborTableEntry_t &neighbor) {
        const std::size_t position = nodeAt(neighbor.id);
        MapNode &node = map_.nodes[position];
        if (position == 0) {
            return;
        }
        node.kind = MapKind::Router;
        node.link_quality = neighbor.average_lqi;
        node.link_active = neighbor.out_cost != 0; // 0: the neighbour is not heard any more
        if (node.eui64.empty()) {
            node.eui64 = base::eui64Text(base::reversed(neighbor.eui64));
        }
        place(position, 0);
    }

    // A route overrides what the neighbour table says: that is the way frames go.
    void addRoute(const oruZb_routeTableEntry_t &route) {
        if (route.destination == 0 || route.destination >= 0xFFF8) { // the coordinator, broadcasts
            return;
        }
        const std::size_t position = nodeAt(route.destination);
        const std::size_t hop = nodeAt(route.next_hop);
        if (hop == 0 || hop == position) {
            if (!placed_[position]) {
                place(position, 0);
            }
            return;
        }
        if (map_.nodes[hop].kind != MapKind::Coordinator) {
            map_.nodes[hop].kind = MapKind::Router;
        }
        if (!placed_[hop]) {
            place(hop, 0); // a next hop is a neighbour, in the neighbour table or not
        }
        place(position, hop);
        map_.nodes[position].link_quality.reset(); // the table tells the quality of the direct link only
        map_.nodes[position].link_active = route.status == ROUTE_ACTIVE;
    }

    // Contradictory tables can send nodes round in circles; those are taken out of the tree.
    void breakLoops() {
        for (std::size_t i = 1; i < map_.nodes.size(); ++i) {
            std::size_t at = i;
            std::size_t steps = 0;
            while (at != 0 && placed_[at] && steps <= map_.nodes.size()) {
                at = map_.nodes[at].parent;
                ++steps;
            }
            if (at != 0) {
                placed_[i] = false;
            }
        }
    }

    NetworkMap map_;
    std::map<uint16_t, std::size_t> positions_;
    std::vector<bool> placed_ = std::vector<bool>(1, true);
};

} // namespace

LinkGrade gradeOf(const MapNode &node) {
    if (!node.link_active) {
        return LinkGrade::Poor;
    }
    if (!node.link_quality) {
        return LinkGrade::Unknown;
    }
    return *node.link_quality >= GOOD_LINK   ? LinkGrade::Good
           : *node.link_quality >= FAIR_LINK ? LinkGrade::Fair
                                             : LinkGrade::Poor;
}

NetworkMap buildMap(const MapInput &input) {
    return Builder(input).finish();
}

} // namespace corvane::map
