// SPDX-License-Identifier: Apache-2.0
// Topology: who reaches whom, and the tables of the coordinator that show it.
//
// The scenario names one parent and one link quality per device. A device whose parent is gone tries the parent's
// parent, over a link half as good as the weaker of the two, and so on; below kWeakestLink there is no link.
#include "mesh.h"
#include <algorithm>

namespace corvane::mesh {

namespace {

constexpr uint64_t kSettleUs = 3000000; // until neighbours act on a change
constexpr uint64_t kAgeingUs = 8000000; // until the tables forget a silent neighbour
constexpr uint8_t kWeakestLink = 40;    // LQI
constexpr uint8_t kFreshAge = 3;        // age of a neighbour that is heard regularly
constexpr uint8_t kRouteActive = 0;
constexpr uint8_t kRouteInactive = 3;

void lsbFirst(const Eui64 &eui64, oruZbHal_eui64_t &out) {
    std::reverse_copy(eui64.begin(), eui64.end(), out);
}

// Link cost of the Zigbee network layer from the LQI, 1 (best) to 7.
uint8_t linkCost(uint8_t link_quality) {
    if (link_quality >= 180) {
        return 1;
    }
    if (link_quality >= 120) {
        return 3;
    }
    return link_quality >= 60 ? 5 : 7;
}

} // namespace

bool Mesh::onPath(int router) const {
    // No chain of parents is longer than the number of devices; a longer one is a loop.
    for (size_t hops = 0; hops <= nodes_.size(); ++hops) {
        if (router == kCoordinator) {
            return true;
        }
        if (router == kUnreachable) {
            return false;
        }
        const MeshNode &node = nodes_[static_cast<size_t>(router)];
        if (!node.joined || !node.powered || node.device.spec().role != Role::router) {
            return false;
        }
        router = node.parent;
    }
    return false;
}

bool Mesh::reachable(const MeshNode &node) const {
    return node.joined && node.powered && coordinator_.networkUp() && onPath(node.parent);
}

Mesh::Link Mesh::bestLink(size_t index) const {
    Link link{spec_parents_[index], nodes_[index].device.spec().link_quality};
    for (size_t steps = 0; steps <= nodes_.size(); ++steps) {
        if (link.parent != static_cast<int>(index) && onPath(link.parent)) {
            return link;
        }
        const auto missing = static_cast<size_t>(link.parent);
        const uint8_t weaker = std::min(link.link_quality, nodes_[missing].device.spec().link_quality);
        link = {spec_parents_[missing], static_cast<uint8_t>(weaker / 2)};
        if (link.link_quality < kWeakestLink) {
            break;
        }
    }
    return {};
}

Mesh::Link Mesh::freeLink(size_t index) const {
    const Link link = bestLink(index);
    const bool child = link.parent == kCoordinator && nodes_[index].device.spec().role != Role::router;
    return child && coordinatorChildren(static_cast<int>(index)) >= child_capacity_ ? Link{} : link;
}

std::vector<int> Mesh::pathTo(int index) const {
    std::vector<int> path;
    for (int hop = index; hop >= 0 && path.size() <= nodes_.size(); hop = nodes_[static_cast<size_t>(hop)].parent) {
        path.push_back(hop);
        if (nodes_[static_cast<size_t>(hop)].parent == kUnreachable) {
            return {};
        }
    }
    std::reverse(path.begin(), path.end());
    return path;
}

void Mesh::settleLater() {
    if (!settling_) {
        settling_ = true;
        timeline_.surely(kSettleUs, [this] {
            settling_ = false;
            settle(true);
        });
    }
}

// Gives every device the best parent there is now. End devices that move say so with a secured rejoin when announced.
void Mesh::settle(bool announced) {
    if (!coordinator_.networkUp()) {
        return;
    }
    bool changed = true;
    for (size_t round = 0; changed && round <= nodes_.size(); ++round) { // a router that moves moves its children
        changed = false;
        for (size_t index = 0; index < nodes_.size(); ++index) {
            MeshNode &node = nodes_[index];
            const Link link = node.joined ? freeLink(index) : Link{};
            if (!node.joined || (link.parent == node.parent && link.link_quality == node.link_quality)) {
                continue;
            }
            const bool moved = node.parent != link.parent && link.parent != kUnreachable;
            node.parent = link.parent;
            node.link_quality = link.link_quality;
            changed = true;
            if (announced && moved && node.powered && node.device.spec().role != Role::router) {
                rejoin(index, true);
            }
        }
    }
}

bool Mesh::heard(const MeshNode &node) const {
    return node.joined && (node.powered || timeline_.now() < node.silent_since_us + kAgeingUs);
}

uint8_t Mesh::linkToCoordinator(size_t index) const {
    uint8_t link_quality = nodes_[index].device.spec().link_quality;
    int parent = spec_parents_[index];
    for (size_t steps = 0; parent >= 0 && steps <= nodes_.size(); ++steps) {
        const auto above = static_cast<size_t>(parent);
        link_quality = static_cast<uint8_t>(std::min(link_quality, nodes_[above].device.spec().link_quality) / 2);
        parent = spec_parents_[above];
    }
    return link_quality >= kWeakestLink ? link_quality : 0;
}

size_t Mesh::coordinatorChildren(int except) const {
    return static_cast<size_t>(std::count_if(nodes_.begin(), nodes_.end(), [&](const MeshNode &node) {
        return node.joined && node.parent == kCoordinator && node.device.spec().role != Role::router &&
               &node - nodes_.data() != except;
    }));
}

size_t Mesh::children(std::span<oruZbHal_childTableEntry_t> entries) const {
    size_t count = 0;
    for (const MeshNode &node : nodes_) {
        const Role role = node.device.spec().role;
        if (count == entries.size() || role == Role::router || node.parent != kCoordinator || !heard(node)) {
            continue;
        }
        oruZbHal_childTableEntry_t &entry = entries[count++];
        entry = {};
        entry.short_id = node.node_id;
        lsbFirst(node.device.spec().eui64, entry.long_id);
        entry.type = role == Role::sleepy_end_device ? ORU_ZB_HAL_NODE_SLEEPY_END_DEVICE : ORU_ZB_HAL_NODE_END_DEVICE;
    }
    return count;
}

size_t Mesh::neighbors(std::span<oruZbHal_neighborTableEntry_t> entries) const {
    size_t count = 0;
    for (size_t index = 0; index < nodes_.size() && count < entries.size(); ++index) {
        const MeshNode &node = nodes_[index];
        const uint8_t link_quality = linkToCoordinator(index);
        if (node.device.spec().role != Role::router || link_quality == 0 || !heard(node)) {
            continue;
        }
        const uint64_t silent_us = node.powered ? 0 : timeline_.now() - node.silent_since_us;
        oruZbHal_neighborTableEntry_t &entry = entries[count++];
        entry = {};
        entry.short_id = node.node_id;
        entry.average_lqi = link_quality;
        entry.in_cost = linkCost(link_quality);
        entry.out_cost = node.powered ? linkCost(link_quality) : 0; // 0: no longer told by the neighbour
        entry.age = static_cast<uint8_t>(kFreshAge + silent_us / (kAgeingUs / 4));
        lsbFirst(node.device.spec().eui64, entry.long_id);
    }
    return count;
}

size_t Mesh::routes(std::span<oruZbHal_routeTableEntry_t> entries) const {
    size_t count = 0;
    for (size_t index = 0; index < nodes_.size() && count < entries.size(); ++index) {
        const MeshNode &node = nodes_[index];
        const int next_hop = node.joined && heard(node) ? nextHop(index) : kUnreachable;
        if (next_hop < 0) {
            continue; // neighbours and children need no route
        }
        oruZbHal_routeTableEntry_t &entry = entries[count++];
        entry = {};
        entry.destination = node.node_id;
        entry.next_hop = nodes_[static_cast<size_t>(next_hop)].node_id;
        entry.status = reachable(node) ? kRouteActive : kRouteInactive;
    }
    return count;
}

// The coordinator's neighbour on the way; kCoordinator when that is the device itself, kUnreachable without a way.
int Mesh::nextHop(size_t index) const {
    int hop = static_cast<int>(index);
    int parent = nodes_[index].parent;
    for (size_t hops = 0; parent >= 0 && hops <= nodes_.size(); ++hops) {
        hop = parent;
        parent = nodes_[static_cast<size_t>(hop)].parent;
    }
    if (parent != kCoordinator) {
        return kUnreachable;
    }
    return hop == static_cast<int>(index) ? kCoordinator : hop;
}

} // namespace corvane::mesh
