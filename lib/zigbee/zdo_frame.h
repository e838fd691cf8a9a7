// SPDX-License-Identifier: Apache-2.0
//
// Bodies of ZDO frames (what follows the transaction sequence number) as plain records, and back. As with ZCL frames
// any bytes are legal input. In an answer with a failure everything behind the status may be missing and is then zero.
//
//   ByteReader in(frame);
//   const uint8_t sequence = in.u8();
//   DeviceAnnounce announce;
//   if (!readBody(in, announce)) ...           too short
#pragma once
#include "base/bytes.h"
#include <array>
#include <cstdint>
#include <span>

namespace corvane::zigbee {

// Cluster ids of requests; that of the answer has the highest bit set.
constexpr uint16_t ZDO_NWK_ADDR_REQ = 0x0000;
constexpr uint16_t ZDO_IEEE_ADDR_REQ = 0x0001;
constexpr uint16_t ZDO_NODE_DESC_REQ = 0x0002;
constexpr uint16_t ZDO_SIMPLE_DESC_REQ = 0x0004;
constexpr uint16_t ZDO_ACTIVE_EP_REQ = 0x0005;
constexpr uint16_t ZDO_MATCH_DESC_REQ = 0x0006;
constexpr uint16_t ZDO_DEVICE_ANNCE = 0x0013;
constexpr uint16_t ZDO_PARENT_ANNCE = 0x001F;
constexpr uint16_t ZDO_BIND_REQ = 0x0021;
constexpr uint16_t ZDO_UNBIND_REQ = 0x0022;
constexpr uint16_t ZDO_MGMT_LQI_REQ = 0x0031;
constexpr uint16_t ZDO_MGMT_RTG_REQ = 0x0032;
constexpr uint16_t ZDO_MGMT_LEAVE_REQ = 0x0034;
constexpr uint16_t ZDO_MGMT_PERMIT_JOINING_REQ = 0x0036;
constexpr uint16_t ZDO_RESPONSE = 0x8000;

constexpr uint8_t ZDO_SUCCESS = 0x00;
constexpr uint8_t ZDO_INV_REQUEST_TYPE = 0x80;
constexpr uint8_t ZDO_DEVICE_NOT_FOUND = 0x81;
constexpr uint8_t ZDO_INVALID_EP = 0x82;
constexpr uint8_t ZDO_NOT_ACTIVE = 0x83;
constexpr uint8_t ZDO_NOT_SUPPORTED = 0x84;
constexpr uint8_t ZDO_NO_MATCH = 0x86;
constexpr uint8_t ZDO_NO_ENTRY = 0x88;
constexpr uint8_t ZDO_TABLE_FULL = 0x8C;

// At most Capacity items; a frame that announces more is refused.
template <class Item, std::size_t Capacity>
struct FixedList {
    std::array<Item, Capacity> items{};
    uint8_t count = 0;

    std::span<const Item> view() const { return std::span(items).first(count); }
    bool push(const Item &item) {
        const bool room = count < Capacity;
        if (room) {
            items[count++] = item;
        }
        return room;
    }
};
using EndpointList = FixedList<uint8_t, 240>;
using ClusterList = FixedList<uint16_t, 60>;

struct NwkAddrRequest {
    base::Eui64 eui64{};
    uint8_t request_type = 0; // 1: with the associated devices
    uint8_t start_index = 0;
};

struct IeeeAddrRequest {
    uint16_t node_id = 0;
    uint8_t request_type = 0;
    uint8_t start_index = 0;
};

struct AddressResponse { // to both
    uint8_t status = ZDO_SUCCESS;
    base::Eui64 eui64{};
    uint16_t node_id = 0;
};

struct NodeRequest { // Node_Desc_req, Active_EP_req
    uint16_t node_id = 0;
};

struct NodeDescriptor {
    uint8_t logical_type = 0; // 0 coordinator, 1 router, 2 end device; higher bits: descriptors and user text
    uint8_t frequency_band = 0;
    uint8_t mac_capabilities = 0;
    uint16_t manufacturer_code = 0;
    uint8_t max_buffer = 0;
    uint16_t max_incoming_transfer = 0;
    uint16_t server_mask = 0; // revision of the stack in bits 9 to 15
    uint16_t max_outgoing_transfer = 0;
    uint8_t capabilities = 0;
};

struct NodeDescResponse {
    uint8_t status = ZDO_SUCCESS;
    uint16_t node_id = 0;
    NodeDescriptor descriptor{};
};

struct SimpleDescRequest {
    uint16_t node_id = 0;
    uint8_t endpoint = 0;
};

struct SimpleDescriptor {
    uint8_t endpoint = 0;
    uint16_t profile_id = 0;
    uint16_t device_id = 0;
    uint8_t device_version = 0;
    ClusterList input_clusters{};
    ClusterList output_clusters{};
};

struct SimpleDescResponse {
    uint8_t status = ZDO_SUCCESS;
    uint16_t node_id = 0;
    SimpleDescriptor descriptor{};
};

struct EndpointsResponse { // Active_EP_rsp, Match_Desc_rsp
    uint8_t status = ZDO_SUCCESS;
    uint16_t node_id = 0;
    EndpointList endpoints{};
};

struct MatchDescRequest {
    uint16_t node_id = 0;
    uint16_t profile_id = 0;
    ClusterList input_clusters{};
    ClusterList output_clusters{};
};

struct DeviceAnnounce {
    uint16_t node_id = 0;
    base::Eui64 eui64{};
    uint8_t mac_capabilities = 0;
};

constexpr uint8_t BIND_TO_GROUP = 0x01;
constexpr uint8_t BIND_TO_ENDPOINT = 0x03;

struct BindRequest { // Bind_req, Unbind_req
    base::Eui64 source{};
    uint8_t source_endpoint = 0;
    uint16_t cluster_id = 0;
    uint8_t mode = BIND_TO_ENDPOINT; // another one is read as one to a group
    uint16_t group_id = 0;           // to a group
    base::Eui64 target{};            // to an endpoint
    uint8_t target_endpoint = 0;
};

constexpr uint8_t LEAVE_REJOIN = 0x80;

struct LeaveRequest {
    base::Eui64 eui64{}; // zero: the receiver itself
    uint8_t flags = 0;
};

struct PermitJoiningRequest {
    uint8_t duration_s = 0; // 255: until further notice
    uint8_t trust_center_significance = 0;
};

struct StatusResponse { // to Bind, Unbind, Mgmt_Leave, Mgmt_Permit_Joining
    uint8_t status = ZDO_SUCCESS;
};

struct TableRequest { // Mgmt_Lqi_req, Mgmt_Rtg_req
    uint8_t start_index = 0;
};

struct NeighborEntry {
    base::Eui64 extended_pan_id{};
    base::Eui64 eui64{};
    uint16_t node_id = 0;
    uint8_t device_type = 0;    // bits 0-1 type, 2-3 receiver on when idle, 4-6 relationship
    uint8_t permit_joining = 0; // 2: unknown
    uint8_t depth = 0;
    uint8_t lqi = 0;
};

struct RouteEntry {
    uint16_t destination = 0;
    uint8_t status = 0; // bits 0-2 status, then memory constrained, many-to-one, route record required
    uint16_t next_hop = 0;
};

template <class Entry, std::size_t Capacity>
struct TableResponse {
    uint8_t status = ZDO_SUCCESS;
    uint8_t total = 0;
    uint8_t start_index = 0;
    FixedList<Entry, Capacity> entries{};
};
using LqiResponse = TableResponse<NeighborEntry, 8>;
using RoutingResponse = TableResponse<RouteEntry, 32>;

// Defined for every record above that is a body.
template <class Record>
[[nodiscard]] bool readBody(base::ByteReader &in, Record &record);
template <class Record>
void writeBody(base::ByteWriter &out, const Record &record);

} // namespace corvane::zigbee
