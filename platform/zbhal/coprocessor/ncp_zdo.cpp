// SPDX-License-Identifier: Apache-2.0
// The ZDO server of node 0, with the endpoints that the host has registered.
#include "ncp.h"
#include "zigbee/mac_capabilities.h"
#include <algorithm>

namespace corvane::coprocessor {

namespace {

enum ZdoStatus : uint8_t {
    ZDO_SUCCESS = 0x00,
    ZDO_DEVICE_NOT_FOUND = 0x81,
    ZDO_INVALID_ENDPOINT = 0x82,
    ZDO_NOT_ACTIVE = 0x83,
    ZDO_NOT_SUPPORTED = 0x84,
};

enum ZdoRequest : uint16_t {
    ZDO_NWK_ADDRESS = 0x0000,
    ZDO_IEEE_ADDRESS = 0x0001,
    ZDO_NODE_DESCRIPTOR = 0x0002,
    ZDO_POWER_DESCRIPTOR = 0x0003,
    ZDO_SIMPLE_DESCRIPTOR = 0x0004,
    ZDO_ACTIVE_ENDPOINTS = 0x0005,
    ZDO_MATCH_DESCRIPTOR = 0x0006,
    ZDO_PERMIT_JOINING = 0x0036,
};

constexpr uint16_t LAST_REQUEST = 0x7FFF;
constexpr uint16_t POWER_DESCRIPTOR = 0xC110; // receiver always on, mains, full

bool anyOf(const std::vector<uint16_t> &clusters, const std::vector<uint16_t> &wanted) {
    return std::ranges::find_first_of(clusters, wanted) != clusters.end();
}

std::vector<uint16_t> clusterList(base::ByteReader &in) {
    std::vector<uint16_t> clusters(in.u8());
    std::ranges::generate(clusters, [&] { return in.u16(); });
    return clusters;
}

} // namespace

// Sequence number and status come first in every answer.
bool Ncp::answerZdo(uint16_t cluster_id, std::span<const uint8_t> request, base::ByteWriter &answer) const {
    base::ByteReader in(request);
    if (cluster_id > LAST_REQUEST) {
        return false;
    }
    answer.u8(in.u8());
    if (cluster_id == ZDO_NWK_ADDRESS || cluster_id == ZDO_IEEE_ADDRESS) {
        const bool ours = cluster_id == ZDO_NWK_ADDRESS ? in.eui64() == eui64_ : in.u16() == mesh::kCoordinatorNode;
        answer.u8(ours ? ZDO_SUCCESS : ZDO_DEVICE_NOT_FOUND);
        answer.eui64(eui64_);
        answer.u16(mesh::kCoordinatorNode);
    } else if (cluster_id <= ZDO_MATCH_DESCRIPTOR) {
        describeNode(cluster_id, in, answer);
    } else {
        answer.u8(cluster_id == ZDO_PERMIT_JOINING ? ZDO_SUCCESS : ZDO_NOT_SUPPORTED);
    }
    return in.ok() && answer.ok();
}

// Answers about a node go on with its address. Nothing is known of other nodes.
void Ncp::describeNode(uint16_t cluster_id, base::ByteReader &in, base::ByteWriter &answer) const {
    const bool ours = in.u16() == mesh::kCoordinatorNode;
    const size_t status_at = answer.size();
    answer.u8(ours ? ZDO_SUCCESS : ZDO_DEVICE_NOT_FOUND);
    answer.u16(mesh::kCoordinatorNode);
    switch (ours ? cluster_id : LAST_REQUEST) {
    case ZDO_NODE_DESCRIPTOR:
        return nodeDescriptor(answer);
    case ZDO_POWER_DESCRIPTOR:
        return answer.u16(POWER_DESCRIPTOR);
    case ZDO_SIMPLE_DESCRIPTOR: {
        const uint8_t id = in.u8();
        const bool known = std::ranges::find(session_.endpoints, id, &Endpoint::id) != session_.endpoints.end();
        answer.patch(status_at, known ? ZDO_SUCCESS : id == 0 || id > 240 ? ZDO_INVALID_ENDPOINT : ZDO_NOT_ACTIVE);
        return simpleDescriptor(id, answer);
    }
    case ZDO_ACTIVE_ENDPOINTS:
        answer.u8(static_cast<uint8_t>(session_.endpoints.size()));
        std::ranges::for_each(session_.endpoints, [&](const Endpoint &endpoint) { answer.u8(endpoint.id); });
        return;
    case ZDO_MATCH_DESCRIPTOR:
        return matchDescriptor(in, answer);
    default:
        return answer.u8(0);
    }
}

void Ncp::nodeDescriptor(base::ByteWriter &answer) const {
    constexpr uint8_t COORDINATOR = 0;
    constexpr uint8_t BAND_2400_MHZ = 0x40;
    constexpr uint8_t MAX_BUFFER = 82;
    constexpr uint16_t SERVER_MASK = 0x2C01; // primary trust centre, stack revision 22
    answer.u8(COORDINATOR);
    answer.u8(BAND_2400_MHZ);
    answer.u8(zigbee::MAC_COORDINATOR);
    answer.u16(session_.manufacturer_code);
    answer.u8(MAX_BUFFER);
    answer.u16(zbhal::serial::EZSP_MAX_MESSAGE);
    answer.u16(SERVER_MASK);
    answer.u16(zbhal::serial::EZSP_MAX_MESSAGE);
    answer.u8(0); // descriptor capability
}

void Ncp::simpleDescriptor(uint8_t endpoint_id, base::ByteWriter &answer) const {
    const auto endpoint = std::ranges::find(session_.endpoints, endpoint_id, &Endpoint::id);
    if (endpoint == session_.endpoints.end()) {
        answer.u8(0);
        return;
    }
    const size_t inputs = endpoint->input_clusters.size();
    const size_t outputs = endpoint->output_clusters.size();
    answer.u8(static_cast<uint8_t>(8 + 2 * (inputs + outputs)));
    answer.u8(endpoint->id);
    answer.u16(endpoint->profile_id);
    answer.u16(endpoint->device_id);
    answer.u8(endpoint->version & 0x0F);
    answer.u8(static_cast<uint8_t>(inputs));
    std::ranges::for_each(endpoint->input_clusters, [&](uint16_t cluster_id) { answer.u16(cluster_id); });
    answer.u8(static_cast<uint8_t>(outputs));
    std::ranges::for_each(endpoint->output_clusters, [&](uint16_t cluster_id) { answer.u16(cluster_id); });
}

void Ncp::matchDescriptor(base::ByteReader &in, base::ByteWriter &answer) const {
    const uint16_t profile_id = in.u16();
    const std::vector<uint16_t> inputs = clusterList(in);
    const std::vector<uint16_t> outputs = clusterList(in);
    std::vector<uint8_t> matching;
    for (const Endpoint &endpoint : session_.endpoints) {
        if (endpoint.profile_id == profile_id &&
            (anyOf(endpoint.input_clusters, inputs) || anyOf(endpoint.output_clusters, outputs))) {
            matching.push_back(endpoint.id);
        }
    }
    answer.u8(static_cast<uint8_t>(matching.size()));
    answer.bytes(matching);
}

} // namespace corvane::coprocessor
