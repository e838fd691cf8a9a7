// SPDX-License-Identifier: Apache-2.0
//
// The tables of the adapter and the map drawn from them.
#include "corvanectl_map.h"
#include "corvanectl_session.h"
#include "corvanectl_svgfile.h"
#include "drawing.h"
#include "zigbee/mac_capabilities.h"
#include <CLI/CLI.hpp>
#include <array>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <fstream>
#include <memory>

namespace corvane::ctl {

namespace {

const char *halNodeTypeName(oruZbHal_nodeType_t type) {
    switch (type) {
    case ORU_ZB_HAL_NODE_UNKNOWN:
        return "unknown";
    case ORU_ZB_HAL_NODE_COORDINATOR:
        return "coordinator";
    case ORU_ZB_HAL_NODE_ROUTER:
        return "router";
    case ORU_ZB_HAL_NODE_END_DEVICE:
        return "end device";
    case ORU_ZB_HAL_NODE_SLEEPY_END_DEVICE:
        return "sleepy end device";
    case ORU_ZB_HAL_NODE_MOBILE_END_DEVICE:
        return "mobile end device";
    case ORU_ZB_HAL_NODE_RF4CE_TARGET:
        return "RF4CE target";
    case ORU_ZB_HAL_NODE_RF4CE_CONTROLLER:
        return "RF4CE controller";
    }
    return "unknown";
}

const char *routeStatusName(uint8_t status) {
    static constexpr const char *NAMES[] = {"active", "discovery underway", "discovery failed", "inactive",
                                            "validation underway"};
    return status < std::size(NAMES) ? NAMES[status] : "unknown";
}

const char *concentratorName(uint8_t type) {
    static constexpr const char *NAMES[] = {"none", "low RAM", "high RAM"};
    return type < std::size(NAMES) ? NAMES[type] : "unknown";
}

void children(Session &session) {
    Table table({"#", "NODE", "EUI-64", "TYPE"});
    Json rows = Json::array();
    for (const auto &entry : session.value(session.client().children(), "children")) {
        const std::string eui64 = formatEui64Reversed(entry.eui64);
        rows.push_back({{"index", entry.idx},
                        {"node_id", hex16(entry.id)},
                        {"eui64", eui64},
                        {"type", static_cast<int>(entry.type)},
                        {"type_name", halNodeTypeName(entry.type)}});
        table.add({std::to_string(entry.idx), hexUpper(entry.id), eui64,
                   fmt::format("{} ({})", halNodeTypeName(entry.type), static_cast<int>(entry.type))});
    }
    session.answer({{"children", rows}}, rows.empty() ? "no end device is a child of the coordinator" : table.text());
}

void routes(Session &session) {
    Table table({"#", "DESTINATION", "NEXT HOP", "STATUS", "AGE", "CONCENTRATOR", "ROUTE RECORD"});
    Json rows = Json::array();
    for (const auto &entry : session.value(session.client().routes(), "routes")) {
        rows.push_back({{"index", entry.idx},
                        {"destination", hex16(entry.destination)},
                        {"next_hop", hex16(entry.next_hop)},
                        {"status", entry.status},
                        {"status_name", routeStatusName(entry.status)},
                        {"age", entry.age},
                        {"concentrator_type", entry.concentrator_type},
                        {"route_record_state", entry.route_record_state}});
        table.add({std::to_string(entry.idx), hexUpper(entry.destination), hexUpper(entry.next_hop),
                   fmt::format("{} ({})", routeStatusName(entry.status), entry.status), std::to_string(entry.age),
                   concentratorName(entry.concentrator_type), std::to_string(entry.route_record_state)});
    }
    session.answer({{"routes", rows}}, rows.empty() ? "the route table is empty" : table.text());
}

void neighbors(Session &session) {
    Table table({"#", "NODE", "EUI-64", "LQI", "COST IN", "COST OUT", "AGE"});
    Json rows = Json::array();
    for (const auto &entry : session.value(session.client().neighbors(), "neighbours")) {
        const std::string eui64 = formatEui64Reversed(entry.eui64);
        rows.push_back({{"index", entry.idx},
                        {"node_id", hex16(entry.id)},
                        {"eui64", eui64},
                        {"average_lqi", entry.average_lqi},
                        {"in_cost", entry.in_cost},
                        {"out_cost", entry.out_cost},
                        {"age", entry.age}});
        table.add({std::to_string(entry.idx), hexUpper(entry.id), eui64, std::to_string(entry.average_lqi),
                   std::to_string(entry.in_cost),
                   entry.out_cost == 0 ? "0 (not heard)" : std::to_string(entry.out_cost), std::to_string(entry.age)});
    }
    session.answer({{"neighbors", rows}}, rows.empty() ? "no router is a neighbour of the coordinator" : table.text());
}

map::MapInput readTables(Session &session) {
    Client &client = session.client();
    map::MapInput input;
    const auto network = session.value(client.networkInfo(), "network information");
    if (network.channel == 0xFF) {
        throw Failure(Exit::Refused, "there is no network to draw; \"corvanectl form\" forms one");
    }
    input.title = fmt::format("channel {}, PAN id {}", network.channel, hexUpper(network.panid));
    input.coordinator_eui64 = std::to_array(session.value(client.localNode(), "local node").device_info.eui64);
    for (const auto &device : session.allDevices()) {
        const oruZb_deviceInfo_t &info = device.device_info;
        input.devices.push_back(
            {device.node_id, std::to_array(info.eui64), zigbee::isRouter(info.capabilities), deviceTypeOf(info)});
    }
    input.children = session.value(client.children(), "children");
    input.routes = session.value(client.routes(), "routes");
    input.neighbors = session.value(client.neighbors(), "neighbours");
    return input;
}

void showMap(Session &session, const std::string &svg_path) {
    const map::NetworkMap drawn = map::buildMap(readTables(session));
    Json json = mapJson(drawn);
    std::string text = mapText(drawn);
    if (!svg_path.empty()) {
        writeSvgFile(svg_path, map::mapSvg(drawn));
        json["svg"] = svg_path;
        text += fmt::format("drawn into {}\n", svg_path);
    }
    session.answer(json, text);
}

} // namespace

void writeSvgFile(const std::string &path, const std::string &svg) {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << svg;
    file.close();
    if (!file) {
        throw Failure(Exit::Usage, fmt::format("cannot write {}: {}", path, std::strerror(errno)));
    }
}

void addTableCommands(CLI::App &app, Session &session) {
    app.add_subcommand("children", "End devices that the coordinator is the parent of")->callback([&session] {
        session.run = [&session] { children(session); };
    });
    app.add_subcommand("routes", "Route table of the coordinator")->callback([&session] {
        session.run = [&session] { routes(session); };
    });
    app.add_subcommand("neighbors", "Routers that the coordinator hears")->callback([&session] {
        session.run = [&session] { neighbors(session); };
    });
    auto svg = std::make_shared<std::string>();
    auto *command = app.add_subcommand("map", "The network as a tree, with link quality");
    command->add_option("--svg", *svg, "Also draw it into this file")->type_name("FILE");
    command->callback([&session, svg] { session.run = [&session, svg] { showMap(session, *svg); }; });
}

} // namespace corvane::ctl
