// SPDX-License-Identifier: Apache-2.0
#include "corvanectl_map.h"
#include <algorithm>
#include <fmt/format.h>
#include <functional>

namespace corvane::ctl {

namespace {

using map::LinkGrade;
using map::MapKind;
using map::MapNode;
using map::NetworkMap;

constexpr int BAR_WIDTH = 5;

Colour colourOf(LinkGrade grade) {
    switch (grade) {
    case LinkGrade::Good:
        return Colour::Green;
    case LinkGrade::Fair:
        return Colour::Yellow;
    case LinkGrade::Poor:
        return Colour::Red;
    case LinkGrade::Unknown:
        return Colour::Dim;
    }
    return Colour::Plain;
}

std::string linkText(const MapNode &node) {
    if (node.kind == MapKind::Coordinator) {
        return "";
    }
    std::string text;
    if (node.link_quality) {
        const int filled = (*node.link_quality * BAR_WIDTH + 254) / 255;
        std::string bar;
        for (int i = 0; i < BAR_WIDTH; ++i) {
            bar += i < filled ? "▮" : "▯";
        }
        text = paint(colourOf(gradeOf(node)), fmt::format("{} LQI {}", bar, *node.link_quality));
    }
    return text + (node.link_active ? "" : paint(Colour::Red, text.empty() ? "not reached" : ", silent"));
}

const char *kindText(MapKind kind) {
    switch (kind) {
    case MapKind::Coordinator:
        return "coordinator";
    case MapKind::Router:
        return "router";
    case MapKind::EndDevice:
        return "end device";
    }
    return "";
}

} // namespace

std::string mapText(const NetworkMap &map) {
    struct Line {
        std::string left;
        const MapNode *node;
    };
    std::vector<Line> lines;
    const auto title = [&](std::size_t index) {
        const MapNode &node = map.nodes[index];
        return fmt::format("{} {}", paint(Colour::Bold, hexUpper(node.node_id)), node.name);
    };
    const std::function<void(std::size_t, const std::string &)> branch = [&](std::size_t index,
                                                                             const std::string &indent) {
        const auto &children = map.nodes[index].children;
        for (std::size_t i = 0; i < children.size(); ++i) {
            const bool last = i + 1 == children.size();
            lines.push_back({indent + (last ? "└── " : "├── ") + title(children[i]), &map.nodes[children[i]]});
            branch(children[i], indent + (last ? "    " : "│   "));
        }
    };
    lines.push_back({title(0), map.nodes.data()});
    branch(0, "");
    if (!map.detached.empty()) {
        lines.push_back({"in no table:", nullptr});
        for (const std::size_t index : map.detached) {
            lines.push_back({"    " + title(index), &map.nodes[index]});
        }
    }
    std::size_t width = 0;
    for (const Line &line : lines) {
        width = std::max(width, displayWidth(line.left));
    }
    std::string text = map.title + "\n";
    for (const Line &line : lines) {
        std::string row = padded(line.left, width + 2);
        if (line.node != nullptr) {
            row += fmt::format("{:<23}  {:<11}  {}", line.node->eui64, kindText(line.node->kind), linkText(*line.node));
        }
        row.erase(row.find_last_not_of(' ') + 1);
        text += row + "\n";
    }
    return text;
}

Json mapJson(const NetworkMap &map) {
    Json nodes = Json::array();
    for (std::size_t i = 0; i < map.nodes.size(); ++i) {
        const MapNode &node = map.nodes[i];
        Json entry{{"node_id", hex16(node.node_id)},
                   {"eui64", node.eui64},
                   {"kind", kindText(node.kind)},
                   {"name", node.name}};
        const bool detached = std::ranges::find(map.detached, i) != map.detached.end();
        entry["parent"] = i == 0 || detached ? Json(nullptr) : Json(hex16(map.nodes[node.parent].node_id));
        entry["link_quality"] = node.link_quality ? Json(*node.link_quality) : Json(nullptr);
        entry["link_active"] = node.link_active && !detached;
        entry["stored"] = node.stored;
        nodes.push_back(std::move(entry));
    }
    return {{"title", map.title}, {"nodes", nodes}};
}

} // namespace corvane::ctl
