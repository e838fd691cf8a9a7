// SPDX-License-Identifier: Apache-2.0
// Records and values shared by the Zigbee HAL, the service and its clients. No operations: see oru_zbhal.h.
// Numbers are in host order (little-endian). Status values 160 to 253 are the APS, NWK and MAC codes of the Zigbee and
// IEEE 802.15.4 specifications.
#pragma once
#include "oru_status.h"
#include <cstddef>
#include <cstdint>

// ---------------------------------------------------------------- basic types
typedef uint16_t oruZbHal_nodeId_t; // network address; 0 the coordinator, from 0xFFF8 on broadcast
typedef uint8_t oruZbHal_eui64_t[8];

// ---------------------------------------------------------------- enumerations
enum oruZbHal_stackStatus_t : int32_t {
    ORU_ZB_HAL_STACK_NOT_INITIALIZED = 0,
    ORU_ZB_HAL_STACK_ENABLING = 1, // ENABLED_NETWORK_UP or ENABLED_NO_NETWORK follows
    ORU_ZB_HAL_STACK_BUSY_UPGRADING = 2,
    ORU_ZB_HAL_STACK_BUSY_RESETTING = 3,
    ORU_ZB_HAL_STACK_ENABLED_NETWORK_UP = 4,
    ORU_ZB_HAL_STACK_ENABLED_NO_NETWORK = 5,
    ORU_ZB_HAL_STACK_DISABLED = 6,
    ORU_ZB_HAL_STACK_FATAL_ERROR = 7,
};

enum oruZbHal_deviceUpdate_t : int32_t {
    ORU_ZB_HAL_STANDARD_SECURITY_SECURED_REJOIN = 0,
    ORU_ZB_HAL_STANDARD_SECURITY_UNSECURED_JOIN = 1,
    ORU_ZB_HAL_DEVICE_LEFT = 2,
    ORU_ZB_HAL_STANDARD_SECURITY_UNSECURED_REJOIN = 3,
};

enum oruZbHal_joinDecision_t : int32_t {
    ORU_ZB_HAL_USE_PRECONFIGURED_KEY = 0,
    ORU_ZB_HAL_SEND_KEY_IN_THE_CLEAR = 1,
    ORU_ZB_HAL_DENY_JOIN = 2,
    ORU_ZB_HAL_NO_ACTION = 3,
};

enum oruZbHal_pjoinState_t : int32_t {
    ORU_ZB_HAL_STATE_PJOIN_CLOSED = 0,
    ORU_ZB_HAL_STATE_ZTS_PJOIN_OPEN = 1,
    ORU_ZB_HAL_STATE_PJOIN_OPEN = 2,
};

enum oruZbHal_keyType_t : int32_t {
    ORU_ZB_HAL_TRUST_CENTER_LINK_KEY = 1,
    ORU_ZB_HAL_CURRENT_NETWORK_KEY = 3,
    ORU_ZB_HAL_NEXT_NETWORK_KEY = 4,
    ORU_ZB_HAL_APPLICATION_LINK_KEY = 5,
};

enum oruZbHal_nodeType_t : int32_t { // names chosen, values stated
    ORU_ZB_HAL_NODE_UNKNOWN = 0,
    ORU_ZB_HAL_NODE_COORDINATOR = 1,
    ORU_ZB_HAL_NODE_ROUTER = 2,
    ORU_ZB_HAL_NODE_END_DEVICE = 3,
    ORU_ZB_HAL_NODE_SLEEPY_END_DEVICE = 4,
    ORU_ZB_HAL_NODE_MOBILE_END_DEVICE = 5,
    ORU_ZB_HAL_NODE_RF4CE_TARGET = 6,
    ORU_ZB_HAL_NODE_RF4CE_CONTROLLER = 7,
};

enum oruZbHal_region_t : int32_t {
    ORU_ZB_HAL_REGION_UNITED_STATES = 0,
    ORU_ZB_HAL_REGION_EUROPE = 1,
    ORU_ZB_HAL_REGION_JAPAN = 2,
    ORU_ZB_HAL_REGION_INDIA = 3,
    ORU_ZB_HAL_REGION_WORLD_WIDE = 4,
    ORU_ZB_HAL_REGION_UNIFIED = 5,
    ORU_ZB_HAL_REGION_CANADA = 6,
    ORU_ZB_HAL_REGION_AUSTRALIA = 7,
    ORU_ZB_HAL_REGION_BRAZIL = 8,
    ORU_ZB_HAL_REGION_MEXICO = 9,
    ORU_ZB_HAL_REGION_MAX = 10,
};

enum oruZbHal_outgoingMessageType_t : int32_t { // only the two ends are stated; only logged
    ORU_ZB_HAL_OUTGOING_DIRECT = 0,
    ORU_ZB_HAL_OUTGOING_BROADCAST = 6,
};

enum oruZbHal_joinMethod_t : int32_t { ORU_ZB_HAL_JOIN_METHOD_DEFAULT = 0 }; // contents open, never read

enum oruZbHal_clusterCommandStatus_t : int32_t {
    ORU_ZB_HAL_SUCCESS = 0,
    ORU_ZB_HAL_APS_ASDU_TOO_LONG = 160,
    ORU_ZB_HAL_APS_DEFRAG_DEFERRED = 161,
    ORU_ZB_HAL_APS_DEFRAG_UNSUPPORTED = 162,
    ORU_ZB_HAL_APS_ILLEGAL_REQUEST = 163,
    ORU_ZB_HAL_APS_INVALID_BINDING = 164,
    ORU_ZB_HAL_APS_INVALID_GROUP = 165,
    ORU_ZB_HAL_APS_INVALID_PARAMETER = 166,
    ORU_ZB_HAL_APS_NO_ACK = 167,
    ORU_ZB_HAL_APS_NO_BOUND_DEVICE = 168,
    ORU_ZB_HAL_APS_NO_SHORT_ADDRESS = 169,
    ORU_ZB_HAL_APS_NOT_SUPPORTED = 170,
    ORU_ZB_HAL_APS_SECURED_LINK_KEY = 171,
    ORU_ZB_HAL_APS_SECURED_NWK_KEY = 172,
    ORU_ZB_HAL_APS_SECURITY_FAIL = 173,
    ORU_ZB_HAL_APS_TABLE_FULL = 174,
    ORU_ZB_HAL_APS_UNSECURED = 175,
    ORU_ZB_HAL_APS_UNSUPPORTED_ATTRIBUTE = 176,
    ORU_ZB_HAL_NWK_INVALID_PARAMETER = 193,
    ORU_ZB_HAL_NWK_INVALID_REQUEST = 194,
    ORU_ZB_HAL_NWK_NOT_PERMITTED = 195,
    ORU_ZB_HAL_NWK_STARTUP_FAILURE = 196,
    ORU_ZB_HAL_NWK_ALREADY_PRESENT = 197,
    ORU_ZB_HAL_NWK_SYNC_FAILURE = 198,
    ORU_ZB_HAL_NWK_NEIGHBOR_TABLE_FULL = 199,
    ORU_ZB_HAL_NWK_UNKNOWN_DEVICE = 200,
    ORU_ZB_HAL_NWK_UNSUPPORTED_ATTRIBUTE = 201,
    ORU_ZB_HAL_NWK_NO_NETWORKS = 202,
    ORU_ZB_HAL_NWK_MAX_FRM_COUNTER = 204,
    ORU_ZB_HAL_NWK_NO_KEY = 205,
    ORU_ZB_HAL_NWK_BAD_CCM_OUTPUT = 206,
    ORU_ZB_HAL_NWK_ROUTE_DISCOVERY_FAILED = 208,
    ORU_ZB_HAL_NWK_ROUTE_ERROR = 209,
    ORU_ZB_HAL_NWK_BT_TABLE_FULL = 210,
    ORU_ZB_HAL_NWK_FRAME_NOT_BUFFERED = 211,
    ORU_ZB_HAL_NWK_INVALID_INTERFACE = 213,
    ORU_ZB_HAL_MAC_COUNTER_ERROR = 219,
    ORU_ZB_HAL_MAC_IMPROPER_KEY_TYPE = 220,
    ORU_ZB_HAL_MAC_IMPROPER_SECURITY_LEVEL = 221,
    ORU_ZB_HAL_MAC_UNSUPPORTED_LEGACY = 222,
    ORU_ZB_HAL_MAC_UNSUPPORTED_SECURITY = 223,
    ORU_ZB_HAL_MAC_BEACON_LOSS = 224,
    ORU_ZB_HAL_MAC_CHANNEL_ACCESSS_FAILURE = 225, // three S: the name is stated that way
    ORU_ZB_HAL_MAC_RESULT_DENIED = 226,
    ORU_ZB_HAL_MAC_DISABLE_TRX_FAILURE = 227,
    ORU_ZB_HAL_MAC_SECURITY_ERROR = 228,
    ORU_ZB_HAL_MAC_FRAME_TOO_LONG = 229,
    ORU_ZB_HAL_MAC_INVALID_GTS = 230,
    ORU_ZB_HAL_MAC_INVALID_HANDLE = 231,
    ORU_ZB_HAL_MAC_INVALID_PARAMETER = 232,
    ORU_ZB_HAL_MAC_NO_ACK = 233,
    ORU_ZB_HAL_MAC_NO_BEACON = 234,
    ORU_ZB_HAL_MAC_NO_DATA = 235,
    ORU_ZB_HAL_MAC_NO_SHORT_ADDRESS = 236,
    ORU_ZB_HAL_MAC_OUT_OF_CAP = 237,
    ORU_ZB_HAL_MAC_PANID_CONFLICT = 238,
    ORU_ZB_HAL_MAC_REALIGNMENT = 239,
    ORU_ZB_HAL_MAC_TRANSACTION_EXPIRED = 240,
    ORU_ZB_HAL_MAC_TRANSACTION_OVERFLOW = 241,
    ORU_ZB_HAL_MAC_TX_ACTIVE = 242,
    ORU_ZB_HAL_MAC_UNAVAILABLE_KEY = 243,
    ORU_ZB_HAL_MAC_UNSUPPORTED_ATTRIBUTE = 244,
    ORU_ZB_HAL_MAC_INVALID_ADDRESS = 245,
    ORU_ZB_HAL_MAC_ON_TIME_TOO_LONG = 246,
    ORU_ZB_HAL_MAC_PAST_TIME = 247,
    ORU_ZB_HAL_MAC_TRACKING_OFF = 248,
    ORU_ZB_HAL_MAC_INVALID_INDEX = 249,
    ORU_ZB_HAL_MAC_LIMIT_REACHED = 250,
    ORU_ZB_HAL_MAC_READ_ONLY = 251,
    ORU_ZB_HAL_MAC_SCAN_IN_PROGRESS = 252,
    ORU_ZB_HAL_MAC_SUPERFRAME_OVERLAP = 253,
};

enum : uint16_t { // APS option bits of oruZbHal_apsFrame_t::options
    ORU_ZB_HAL_APS_OPTION_NONE = 0x0000,
    ORU_ZB_HAL_APS_OPTION_ENABLE_SECURITY = 0x0001,
    ORU_ZB_HAL_APS_OPTION_USE_NWK_KEY = 0x0002,
    ORU_ZB_HAL_APS_OPTION_ACKNOWLEDGED = 0x0004,
    ORU_ZB_HAL_APS_OPTION_ALLOW_FRAGMENTATION = 0x0008,
    ORU_ZB_HAL_APS_OPTION_EXTENDED_NONCE = 0x0010,
    ORU_ZB_HAL_APS_OPTION_ENCRYPTION = 0x0020,
    ORU_ZB_HAL_APS_OPTION_RETRY = 0x0040,
    ORU_ZB_HAL_APS_OPTION_ENABLE_ROUTE_DISCOVERY = 0x0100,
    ORU_ZB_HAL_APS_OPTION_FORCE_ROUTE_DISCOVERY = 0x0200,
    ORU_ZB_HAL_APS_OPTION_SOURCE_EUI64 = 0x0400,
    ORU_ZB_HAL_APS_OPTION_DESTINATION_EUI64 = 0x0800,
    ORU_ZB_HAL_APS_OPTION_ENABLE_ADDRESS_DISCOVERY = 0x1000,
};
static_assert((ORU_ZB_HAL_APS_OPTION_ENABLE_ADDRESS_DISCOVERY | ORU_ZB_HAL_APS_OPTION_ENABLE_ROUTE_DISCOVERY |
               ORU_ZB_HAL_APS_OPTION_RETRY) == 0x1140,
              "options of every ZDO send");

// ---------------------------------------------------------------- device records
enum { ORU_ZB_HAL_MAX_ENDPOINTS = 5, ORU_ZB_HAL_MAX_CLUSTERS = 35, ORU_ZB_HAL_MAX_ADAPTER_ENDPOINTS = 2 };

struct oruZbHal_clusterInfo_t {
    uint16_t cluster_id;
    uint8_t server;   // 1 server (input) cluster, 0 client (output) cluster
    uint8_t reserved; // filler, travels and is persisted
};
static_assert(sizeof(oruZbHal_clusterInfo_t) == 4, "");

struct oruZbHal_endpointInfo_t {
    uint16_t profile_id;
    uint16_t device_id;
    uint8_t endpoint;
    uint8_t cluster_count;
    oruZbHal_clusterInfo_t clusters[ORU_ZB_HAL_MAX_CLUSTERS];
};
static_assert(sizeof(oruZbHal_endpointInfo_t) == 146 && offsetof(oruZbHal_endpointInfo_t, clusters) == 6, "");
typedef oruZbHal_endpointInfo_t oruZbHal_adapterEndpointInfo_t; // same layout

struct oruZbHal_deviceInfoCore_t {
    oruZbHal_eui64_t eui64; // held most significant byte first by the service
    uint8_t capabilities;   // MAC capability flags of the node descriptor
    uint8_t endpoint_count; // 0 to ORU_ZB_HAL_MAX_ENDPOINTS
    oruZbHal_endpointInfo_t endpoints[ORU_ZB_HAL_MAX_ENDPOINTS];
};
static_assert(sizeof(oruZbHal_deviceInfoCore_t) == 740 && offsetof(oruZbHal_deviceInfoCore_t, endpoints) == 10, "");
static_assert(alignof(oruZbHal_deviceInfoCore_t) == 2, "no padding inside the 744- and 748-byte records");

struct oruZbHal_deviceInfo_t { // part of a discovery node (discovery lists), fields in this order
    oruZbHal_deviceInfoCore_t device_info;
    oruZbHal_nodeId_t node_id;
    uint16_t manufacturer_code;
    uint8_t device_zigbee_spec_version; // never set
};

struct oruZbHal_adapterInfo_t {
    oruZbHal_eui64_t eui64; // least significant byte first
    uint8_t capabilities;
    uint8_t endpoint_count; // 0..2
    oruZbHal_adapterEndpointInfo_t endpoints[ORU_ZB_HAL_MAX_ADAPTER_ENDPOINTS];
    oruZbHal_nodeId_t node_id; // not used by the service; position chosen
};

struct oruZbHal_clusterList_t { // parsed simple descriptor (filled by the service, service discovery)
    uint8_t in_cluster_count;
    uint16_t *in_cluster_list;
    uint8_t out_cluster_count;
    uint16_t *out_cluster_list;
    uint16_t profile_id;
    uint16_t device_id;
    uint8_t endpoint;
};

// ---------------------------------------------------------------- frames
struct oruZbHal_apsFrame_t {
    uint16_t profile_id;
    uint16_t cluster_id;
    uint8_t source_endpoint;
    uint8_t destination_endpoint;
    uint16_t options;  // ORU_ZB_HAL_APS_OPTION_ bits
    uint16_t group_id; // 0: none
    uint8_t sequence;  // APS counter; filled in by the HAL on a send
    uint8_t radius;    // hops, 0: default of the stack
};
static_assert(sizeof(oruZbHal_apsFrame_t) == 12 && offsetof(oruZbHal_apsFrame_t, sequence) == 10, "");

struct oruZbHal_incomingMessage_t {
    uint8_t type;                   // 0 unicast, 4 broadcast; only logged
    oruZbHal_apsFrame_t *aps_frame; // sequence: the sender's APS counter
    uint8_t *message;               // ZDO or ZCL frame
    uint16_t msg_len;               // bytes in message
    oruZbHal_nodeId_t source;
    uint8_t last_hop_lqi;        // 0 to 255
    int8_t last_hop_rssi;        // dBm
    uint8_t binding_table_index; // 0xFF: none
    uint8_t address_table_index; // 0xFF: none
    uint8_t network_index;
};

struct oruZbHal_interpanHeader_t {
    uint8_t message_type;    // unicast, broadcast or multicast, as the radio numbers them
    uint8_t long_address[8]; // least significant byte first
    uint8_t reserved;
    uint16_t short_address;
    uint16_t pan_id;
    uint16_t profile_id;
    uint16_t cluster_id;
    uint16_t group_id;
    uint16_t options;
};
static_assert(sizeof(oruZbHal_interpanHeader_t) == 22 && offsetof(oruZbHal_interpanHeader_t, short_address) == 10, "");

// ---------------------------------------------------------------- network, keys, tables
struct oruZbHal_network_t {
    uint16_t pan_id;
    uint8_t channel;
    bool allowing_join;
    uint8_t extended_pan_id[8]; // as the adapter holds it
    uint8_t stack_profile;
    uint8_t nwk_update_id;
};

struct oruZbHal_networkParameters_t {
    uint8_t extended_pan_id[8];
    uint16_t pan_id;
    int8_t radio_tx_power; // dBm
    uint8_t radio_channel;
    oruZbHal_joinMethod_t join_method;
    uint16_t nwk_manager_id;
    uint8_t nwk_update_id;
    uint32_t channel_mask;
};

struct oruZbHal_keyData_t {
    uint8_t contents[16];
};

struct oruZbHal_keyStruct_t {
    uint16_t bitmask; // which of the fields below are given, as the radio numbers them
    oruZbHal_keyType_t type;
    oruZbHal_keyData_t key;
    uint32_t outgoing_frame_counter;
    uint32_t incoming_frame_counter;
    uint8_t sequence_number;
    oruZbHal_eui64_t partner_eui64; // least significant byte first
};

struct oruZbHal_childTableEntry_t {
    oruZbHal_nodeId_t short_id;
    oruZbHal_eui64_t long_id; // least significant byte first
    uint16_t reserved;        // 0
    oruZbHal_nodeType_t type;
};
static_assert(sizeof(oruZbHal_childTableEntry_t) == 16 && offsetof(oruZbHal_childTableEntry_t, type) == 12, "");

struct oruZbHal_routeTableEntry_t {
    uint16_t destination;
    uint16_t next_hop;
    uint8_t status; // 0 active, 1 discovery under way, 2 discovery failed, 3 inactive, 4 validation under way
    uint8_t age;
    uint8_t concentrator_type;  // 0: the destination is none
    uint8_t route_record_state; // 0: no longer needed
};
static_assert(sizeof(oruZbHal_routeTableEntry_t) == 8, "");

struct oruZbHal_neighborTableEntry_t {
    oruZbHal_nodeId_t short_id;
    uint8_t average_lqi;      // 0 to 255
    uint8_t in_cost;          // 1 best to 7 worst
    uint8_t out_cost;         // the same from the neighbour's side, 0: not known
    uint8_t age;              // link status periods since it was heard, 3 for a fresh one
    oruZbHal_eui64_t long_id; // least significant byte first
};
static_assert(sizeof(oruZbHal_neighborTableEntry_t) == 14 && offsetof(oruZbHal_neighborTableEntry_t, long_id) == 6, "");

struct oruZbHal_counters_t {    // of the coordinator's radio; each stops at 65535
    uint16_t pta_lo_pri_req;    // requests to the packet traffic arbiter: first attempts
    uint16_t pta_hi_pri_req;    // and repetitions
    uint16_t pta_lo_pri_denied; // of them denied
    uint16_t pta_hi_pri_denied;
    uint16_t cca_retries;        // channel found busy, tried again
    uint16_t cca_failures;       // channel never found clear
    uint16_t mac_tx_ucast_retry; // repetitions on the first hop
    uint16_t mac_tx_ucast_fail;  // first hop given up
    uint16_t aps_tx_ucast_retry; // repetitions end to end
    uint16_t aps_tx_ucast_fail;  // sends given up
    uint16_t pta_denied_rate;    // percent of all requests
};
static_assert(sizeof(oruZbHal_counters_t) == 22, "");
