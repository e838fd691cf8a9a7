// SPDX-License-Identifier: Apache-2.0
#include "corvanectl_map.h"
#include <gtest/gtest.h>
#include <map>

namespace corvane::ctl {
namespace {

constexpr uint8_t ROUTER = 0x8E;
constexpr uint8_t SLEEPY = 0x80;

struct Network {
    MapInput input{"channel 15", "02:00:c0:ff:fe:00:00:01", {}, {}, {}, {}};

    void device(uint16_t id, uint8_t capabilities) {
        auto &node = input.devices.emplace_back();
        node.id = id;
        node.device_info.capabilities = capabilities;
        node.device_info.eui64[7] = static_cast<uint8_t>(id);
        node.device_info.endpoint_count = 1;
        node.device_info.endpoints[0].profile_id = 0x0104;
        node.device_info.endpoints[0].device_id = capabilities == ROUTER ? 0x010C : 0x0302;
    }
    void child(uint16_t id) { input.children.emplace_back().id = id; }
    void neighbor(uint16_t id, uint8_t lqi, uint8_t out_cost = 1) {
        auto &entry = input.neighbors.emplace_back();
        entry.id = id;
        entry.average_lqi = lqi;
        entry.out_cost = out_cost;
    }
    void route(uint16_t destination, uint16_t next_hop, uint8_t status = 0) {
        auto &entry = input.routes.emplace_back();
        entry.destination = destination;
        entry.next_hop = next_hop;
        entry.status = status;
    }
    std::map<uint16_t, MapNode> nodes(NetworkMap &map) const {
        map = buildMap(input);
        std::map<uint16_t, MapNode> byId;
        for (const MapNode &node : map.nodes) {
            byId[node.node_id] = node;
        }
        return byId;
    }
};

TEST(CtlMap, TreeFollowsTheTables) {
    Network network;
    network.device(1, ROUTER);
    network.device(2, SLEEPY);
    network.device(3, ROUTER);
    network.device(4, SLEEPY);
    network.device(5, SLEEPY); // in no table
    network.child(2);
    network.neighbor(1, 200);
    network.neighbor(3, 90, 0); // heard no more, and reached over 1
    network.route(3, 1);
    network.route(4, 3, 3);
    network.route(6, 1); // stranger
    NetworkMap map;
    auto nodes = network.nodes(map);
    EXPECT_EQ(map.nodes[nodes[1].parent].node_id, 0);
    EXPECT_EQ(nodes[1].link_quality, 200);
    EXPECT_EQ(map.nodes[nodes[2].parent].node_id, 0);
    EXPECT_FALSE(nodes[2].link_quality);
    EXPECT_EQ(map.nodes[nodes[3].parent].node_id, 1);
    EXPECT_TRUE(nodes[3].link_active);
    EXPECT_FALSE(nodes[3].link_quality) << "the quality is that of a link that is not used";
    EXPECT_EQ(map.nodes[nodes[4].parent].node_id, 3);
    EXPECT_FALSE(nodes[4].link_active);
    EXPECT_FALSE(nodes[6].stored);
    ASSERT_EQ(map.detached.size(), 1U);
    EXPECT_EQ(map.nodes[map.detached[0]].node_id, 5);
    const std::string text = mapText(map);
    EXPECT_NE(text.find("│   ├── 0x0003"), std::string::npos) << text;
    EXPECT_NE(text.find("in no table"), std::string::npos);
}

TEST(CtlMap, ContradictoryTablesEndInATree) {
    Network network;
    network.device(1, ROUTER);
    network.device(2, ROUTER);
    network.device(3, SLEEPY);
    network.route(1, 2);
    network.route(2, 1);
    network.route(3, 1);
    network.route(3, 3);
    network.route(0, 1);
    network.route(0xFFFC, 1);
    network.child(0);
    network.neighbor(0, 10);
    NetworkMap map;
    network.nodes(map);
    EXPECT_EQ(map.detached.size(), 3U); // the circle and what hangs on it
    EXPECT_EQ(layOut(map).nodes.size(), map.nodes.size());
    EXPECT_NE(mapSvg(map).find("</svg>"), std::string::npos);
}

void expectNoOverlap(const NetworkMap &map, const Layout &layout, const std::string &what) {
    std::vector<Box> boxes;
    for (std::size_t i = 0; i < map.nodes.size(); ++i) {
        const PlacedNode &node = layout.nodes[i];
        boxes.push_back(
            {node.x - NODE_RADIUS + 4, node.y - NODE_RADIUS + 4, node.x + NODE_RADIUS - 4, node.y + NODE_RADIUS - 4});
        boxes.push_back(node.label);
        if (node.link_label) {
            boxes.push_back(*node.link_label);
        }
    }
    for (std::size_t i = 0; i < boxes.size(); ++i) {
        EXPECT_TRUE(boxes[i].left >= 0 && boxes[i].top >= 0 && boxes[i].right <= layout.width &&
                    boxes[i].bottom <= layout.height)
            << what;
        for (std::size_t j = i + 1; j < boxes.size(); ++j) {
            EXPECT_FALSE(boxes[i].overlaps(boxes[j])) << what << ": " << i << " and " << j;
        }
    }
}

TEST(CtlMap, NothingOverlapsInTheDrawing) {
    struct Shape {
        const char *name;
        unsigned devices, routers, own_children;
    };
    for (const Shape &shape :
         {Shape{"empty", 0, 0, 0}, Shape{"one", 1, 1, 0}, Shape{"home", 20, 5, 4}, Shape{"star", 20, 0, 20},
          Shape{"one router with all", 20, 1, 0}, Shape{"large", 60, 12, 8}}) {
        Network network;
        for (uint16_t id = 1; id <= shape.devices; ++id) {
            const bool router = id <= shape.routers;
            network.device(id, router ? ROUTER : SLEEPY);
            if (router) {
                network.neighbor(id, static_cast<uint8_t>(40 + 10 * id));
            } else if (id <= shape.routers + shape.own_children) {
                network.child(id);
            } else {
                network.route(id, static_cast<uint16_t>(1 + id % shape.routers));
            }
        }
        const NetworkMap map = buildMap(network.input);
        expectNoOverlap(map, layOut(map), shape.name);
    }
}

TEST(CtlMap, TextsInDrawingsAreEscaped) {
    EXPECT_EQ(escapeXml("<a & \"b\">\x01"), "&lt;a &amp; &quot;b&quot;&gt;?");
    const std::string svg = latencySvg({{"<lamp>", {1, 2, 300}}, {"silent", {}}});
    EXPECT_NE(svg.find("&lt;lamp&gt;"), std::string::npos);
    EXPECT_EQ(svg.find("<lamp>"), std::string::npos);
}

} // namespace
} // namespace corvane::ctl
