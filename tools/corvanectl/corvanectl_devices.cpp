// SPDX-License-Identifier: Apache-2.0
//
// What the service knows: devices, nodes, info; and bind.
#include "corvanectl_names.h"
#include "corvanectl_session.h"
#include <CLI/CLI.hpp>
#include <algorithm>
#include <cstring>
#include <fmt/format.h>
#include <memory>

namespace corvane::ctl {

namespace {

constexpr uint8_t CAPABILITY_ROUTER = 0x02; // of the MAC capability flags: full function device
constexpr uint8_t CAPABILITY_MAINS = 0x04;
constexpr uint8_t CAPABILITY_RX_ON_WHEN_IDLE = 0x08;
constexpr std::size_t NODES_PER_REQUEST = 5; // as many as fit into one answer

std::string capabilityText(uint8_t capabilities) {
    const bool router = (capabilities & CAPABILITY_ROUTER) != 0;
    const bool awake = (capabilities & CAPABILITY_RX_ON_WHEN_IDLE) != 0;
    return fmt::format("{}, {}",
                       router  ? "router"
                       : awake ? "end device"
                               : "sleepy end device",
                       (capabilities & CAPABILITY_MAINS) != 0 ? "mains" : "battery");
}

oruZb_device_t asDevice(const oruZb_nodeInfo_t &node) {
    return {node.id, node.manufacturer_code, node.device_info};
}

std::string clusterNames(const oruZb_endpointInfo_t &endpoint, bool server) {
    std::string text;
    for (const auto &cluster : clustersOf(endpoint)) {
        if ((cluster.server != 0) == server) {
            text += (text.empty() ? "" : ", ") + clusterText(endpoint.profile_id, cluster.cluster_id);
        }
    }
    return text.empty() ? "-" : text;
}

std::string deviceDetails(const oruZb_device_t &device) {
    std::string text =
        fmt::format("{}  {}\n  {} ({}), manufacturer {}\n", paint(Colour::Bold, hexUpper(device.node_id)),
                    formatEui64(device.device_info.eui64), capabilityText(device.device_info.capabilities),
                    hex8(device.device_info.capabilities), hexUpper(device.manufacturer_code));
    for (const auto &endpoint : endpointsOf(device.device_info)) {
        const std::string_view profile = profileName(endpoint.profile_id);
        text += fmt::format("  endpoint {}: {}, profile {}{}{}\n    server: {}\n    client: {}\n", endpoint.endpoint,
                            paint(Colour::Cyan, deviceTypeText(endpoint.profile_id, endpoint.device_id)), profile,
                            profile.empty() ? "" : " ", hex16(endpoint.profile_id), clusterNames(endpoint, true),
                            clusterNames(endpoint, false));
    }
    return text;
}

std::vector<std::string> deviceRow(std::size_t index, const oruZb_device_t &device) {
    std::string endpoints;
    for (const auto &endpoint : endpointsOf(device.device_info)) {
        endpoints += fmt::format("{}{}", endpoints.empty() ? "" : ",", endpoint.endpoint);
    }
    return {fmt::format("#{}", index),
            hexUpper(device.node_id),
            formatEui64(device.device_info.eui64),
            deviceTypeOf(device.device_info),
            endpoints.empty() ? "-" : endpoints,
            capabilityText(device.device_info.capabilities),
            hexUpper(device.manufacturer_code)};
}

Table deviceTable() {
    return Table({"INDEX", "NODE", "EUI-64", "DEVICE", "ENDPOINTS", "KIND", "MANUFACTURER"});
}

std::vector<oruZb_device_t> pagesOfNodes(Session &session, std::size_t page, unsigned &requests) {
    std::vector<oruZb_device_t> nodes;
    NodePage last;
    do {
        const auto result = session.client().connectedNodes(last.next, page);
        last = session.value(result, "list of devices");
        std::ranges::transform(last.nodes, std::back_inserter(nodes), asDevice);
        ++requests;
    } while (last.more && !last.nodes.empty());
    return nodes;
}

void listDevices(Session &session, const std::vector<oruZb_device_t> &devices, const char *key, Json json = {}) {
    Json rows = Json::array();
    Table table = deviceTable();
    for (std::size_t i = 0; i < devices.size(); ++i) {
        rows.push_back(deviceJson(devices[i], static_cast<uint32_t>(i)));
        table.add(deviceRow(i, devices[i]));
    }
    json[key] = rows;
    session.answer(json, devices.empty() ? "no devices yet; \"corvanectl permit open\" lets them in" : table.text());
}

void nodes(Session &session, const std::string &page) {
    unsigned requests = 0;
    const auto size = static_cast<std::size_t>(parseNumber(page, "--page", 1, NODES_PER_REQUEST));
    const auto devices = pagesOfNodes(session, size, requests);
    listDevices(session, devices, "nodes", {{"requests", requests}});
}

struct DevicesOptions {
    std::string device;
    bool count = false;
};

void devices(Session &session, const DevicesOptions &options) {
    if (options.count) {
        const uint32_t count = session.value(session.client().deviceCount(), "number of devices");
        return session.answer({{"count", count}}, std::to_string(count));
    }
    if (options.device.empty()) {
        return listDevices(session, session.allDevices(), "devices");
    }
    const DeviceRef ref = parseDevice(options.device);
    const auto device = session.findDevice(ref);
    const auto *index = std::get_if<uint32_t>(&ref);
    Json rows = Json::array({deviceJson(device, index != nullptr ? std::optional(*index) : std::nullopt)});
    session.answer({{"devices", rows}}, deviceDetails(device));
}

// ---------------------------------------------------------------- info

Json networkJson(const oruZb_networkInfo_t &network, bool with_key) {
    Json json;
    const bool up = network.channel != 0xFF;
    json["formed"] = up;
    json["channel"] = up ? Json(network.channel) : Json(nullptr);
    json["pan_id"] = up ? Json(hex16(network.panid)) : Json(nullptr);
    json["extended_pan_id"] = up ? Json(fmt::format("{:016x}", network.extended_panid)) : Json(nullptr);
    json["radio_tx_power_dbm"] = up ? Json(network.radio_tx_power) : Json(nullptr);
    const bool has_key = std::ranges::any_of(network.network_key, [](uint8_t byte) { return byte != 0xFF; });
    json["network_key"] = !has_key ? Json(nullptr) : with_key ? Json(formatHex(network.network_key)) : Json("hidden");
    return json;
}

std::string infoText(const Json &info, const oruZb_networkInfo_t &parameters, const oruZb_nodeInfo_t &node) {
    const Json &network = info["network"];
    std::string text;
    const auto line = [&text](const char *name, const std::string &value) {
        text += fmt::format("{:<16}{}\n", name, value);
    };
    if (network["formed"].get<bool>()) {
        line("network",
             fmt::format("channel {}, PAN id {}", network["channel"].get<int>(), hexUpper(parameters.panid)));
        line("extended PAN id", network["extended_pan_id"].get<std::string>());
        line("transmit power", fmt::format("{} dBm", network["radio_tx_power_dbm"].get<int>()));
    } else {
        line("network", "none; \"corvanectl form\" forms one");
    }
    if (network["network_key"].is_string()) {
        const auto key = network["network_key"].get<std::string>();
        line("network key", key == "hidden" ? "hidden (--show-key)" : key);
    }
    line("adapter", info["adapter"]["mac_addr"].get<std::string>());
    line("firmware", info["adapter"]["firmware_version"].get<std::string>());
    return text + deviceDetails(asDevice(node));
}

void info(Session &session, bool with_key) {
    Client &client = session.client();
    const auto network = session.value(client.networkInfo(), "network information");
    const auto adapter = session.value(client.adapterInfo(), "adapter information");
    const auto node = session.value(client.localNode(), "local node");
    std::string version =
        printable({adapter.firmware_version, ::strnlen(adapter.firmware_version, sizeof adapter.firmware_version)});
    if (version.ends_with('.')) {
        version.pop_back();
    }
    Json json;
    json["network"] = networkJson(network, with_key);
    json["adapter"] = {{"firmware_version", version}, {"mac_addr", formatEui64(adapter.mac_addr)}};
    json["local_node"] = deviceJson(asDevice(node), std::nullopt);
    json["local_node"]["type"] = nodeTypeName(node.type);
    session.answer(json, infoText(json, network, node));
}

// ---------------------------------------------------------------- bind

struct BindOptions {
    std::vector<std::string> words;
    std::string raw;
};

constexpr std::size_t MAX_BIND_BODY = 80;
constexpr uint8_t ADDRESS_MODE_EUI64 = 0x03;

void appendReversed(std::vector<uint8_t> &out, const uint8_t *eui64) {
    out.insert(out.end(), std::make_reverse_iterator(eui64 + 8), std::make_reverse_iterator(eui64));
}

// DEVICE ENDPOINT CLUSTER TARGET-EUI64 TARGET-ENDPOINT as the body of Bind_req.
std::vector<uint8_t> bindBody(Session &session, const oruZb_device_t &device, const std::vector<std::string> &words) {
    const auto endpoint = static_cast<uint8_t>(parseNumber(words[1], "the endpoint", 1, 254));
    const uint16_t cluster = parseCluster(words[2]);
    Eui64 target{};
    if (words[3] == "coordinator") {
        const auto node = session.value(session.client().localNode(), "local node");
        std::ranges::copy(node.device_info.eui64, target.begin());
    } else {
        target = parseEui64(words[3]);
    }
    std::vector<uint8_t> body;
    appendReversed(body, device.device_info.eui64);
    body.insert(body.end(),
                {endpoint, static_cast<uint8_t>(cluster), static_cast<uint8_t>(cluster >> 8), ADDRESS_MODE_EUI64});
    appendReversed(body, target.data());
    body.push_back(static_cast<uint8_t>(parseNumber(words[4], "the endpoint of the target", 1, 254)));
    return body;
}

void bind(Session &session, const BindOptions &options) {
    const bool raw = !options.raw.empty();
    if (raw ? options.words.size() != 1 : options.words.size() != 5) {
        throw UsageError("bind takes DEVICE ENDPOINT CLUSTER TARGET-EUI64 TARGET-ENDPOINT, or DEVICE --raw HEX");
    }
    const DeviceRef ref = parseDevice(options.words[0]);
    uint16_t node_id = 0;
    std::vector<uint8_t> body;
    if (const auto *given = std::get_if<uint16_t>(&ref); raw && given != nullptr) {
        node_id = *given; // need not be known to the service
        body = parseHex(options.raw, "the request body", MAX_BIND_BODY);
    } else {
        const auto device = session.findDevice(ref);
        node_id = device.node_id;
        body =
            raw ? parseHex(options.raw, "the request body", MAX_BIND_BODY) : bindBody(session, device, options.words);
    }
    requireAddress(node_id);
    session.require(session.client().bind(node_id, body), "bind request");
    session.answer({{"status", 0}, {"node_id", hex16(node_id)}, {"body", formatHex(body)}},
                   fmt::format("bind request sent to {}", hexUpper(node_id)));
}

} // namespace

void addDeviceCommands(CLI::App &app, Session &session) {
    auto options = std::make_shared<DevicesOptions>();
    auto *devices_command = app.add_subcommand("devices", "Devices that the service knows");
    auto *device = devices_command->add_option("DEVICE", options->device, "Only this one, in detail")->type_name("");
    devices_command->add_flag("--count", options->count, "Only how many")->excludes(device);
    devices_command->callback(
        [&session, options] { session.run = [&session, options] { devices(session, *options); }; });

    auto page = std::make_shared<std::string>("5");
    auto *nodes_command = app.add_subcommand("nodes", "The same as pages of nodes");
    nodes_command->add_option("--page", *page, "Nodes per request, 1 to 5")->type_name("N")->capture_default_str();
    nodes_command->callback([&session, page] { session.run = [&session, page] { nodes(session, *page); }; });

    auto with_key = std::make_shared<bool>(false);
    auto *info_command = app.add_subcommand("info", "Network, adapter and local node");
    info_command->add_flag("--show-key", *with_key, "Show the network key");
    info_command->callback([&session, with_key] { session.run = [&session, with_key] { info(session, *with_key); }; });

    auto bind_options = std::make_shared<BindOptions>();
    auto *bind_command = app.add_subcommand("bind", "Let a device send to another (ZDO bind request)");
    bind_command
        ->add_option("ARGUMENTS", bind_options->words,
                     "DEVICE ENDPOINT CLUSTER TARGET-EUI64 TARGET-ENDPOINT; the target may be \"coordinator\"")
        ->required()
        ->type_name("")
        ->expected(1, 5);
    bind_command->add_option("--raw", bind_options->raw, "Body of the request after its sequence number")
        ->type_name("HEX");
    bind_command->callback(
        [&session, bind_options] { session.run = [&session, bind_options] { bind(session, *bind_options); }; });
}

} // namespace corvane::ctl
