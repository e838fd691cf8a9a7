// SPDX-License-Identifier: Apache-2.0
#include "corvanectl_records.h"
#include "corvanectl_names.h"
#include "corvanectl_parse.h"
#include <algorithm>
#include <fmt/format.h>

namespace corvane::ctl {

std::span<const oruZb_endpointInfo_t> endpointsOf(const oruZb_deviceInfo_t &info) {
    return std::span(info.endpoints).first(std::min<std::size_t>(info.endpoint_count, ORU_ZB_HAL_MAX_ENDPOINTS));
}

std::span<const oruZb_clusterInfo_t> clustersOf(const oruZb_endpointInfo_t &endpoint) {
    return std::span(endpoint.clusters).first(std::min<std::size_t>(endpoint.cluster_count, ORU_ZB_HAL_MAX_CLUSTERS));
}

std::string deviceTypeOf(const oruZb_deviceInfo_t &info) {
    const auto endpoints = endpointsOf(info);
    if (endpoints.empty()) {
        return "unknown device";
    }
    const std::string_view name = deviceTypeName(endpoints[0].profile_id, endpoints[0].device_id);
    return name.empty() ? fmt::format("device type {}", hex16(endpoints[0].device_id)) : std::string(name);
}

std::string deviceTitle(const oruZb_device_t &device) {
    return fmt::format("{} {}", deviceTypeOf(device.device_info), hexUpper(device.node_id));
}

Json deviceJson(const oruZb_device_t &device, std::optional<uint32_t> index) {
    Json json;
    if (index) {
        json["index"] = *index;
    }
    json["node_id"] = hex16(device.node_id);
    json["eui64"] = formatEui64(device.device_info.eui64);
    json["manufacturer_code"] = hex16(device.manufacturer_code);
    json["capabilities"] = hex8(device.device_info.capabilities);
    Json &endpoints = json["endpoints"] = Json::array();
    for (const auto &endpoint : endpointsOf(device.device_info)) {
        Json entry;
        entry["endpoint"] = endpoint.endpoint;
        entry["profile"] = hex16(endpoint.profile_id);
        entry["device"] = hex16(endpoint.device_id);
        entry["device_name"] = deviceTypeName(endpoint.profile_id, endpoint.device_id);
        Json server = Json::array();
        Json client = Json::array();
        for (const auto &cluster : clustersOf(endpoint)) {
            (cluster.server != 0 ? server : client).push_back(hex16(cluster.cluster_id));
        }
        entry["server_clusters"] = std::move(server);
        entry["client_clusters"] = std::move(client);
        endpoints.push_back(std::move(entry));
    }
    return json;
}

} // namespace corvane::ctl
