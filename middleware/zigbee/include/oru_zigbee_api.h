// SPDX-License-Identifier: Apache-2.0
//
// The client interface of the Zigbee service: every number that flows through it and every record that crosses the
// process boundary. The records travel as raw bytes: little-endian, natural alignment, the sizes and offsets asserted
// below. Reserved bytes carry no information; senders write 0.
//
// EUI-64s are most significant byte first, except in the child and neighbour table entries, which keep the adapter's
// order. Function, callback and event ids travel as unsigned 16-bit values.
#pragma once
#include "oru_zbhal_types.h"
#include <bit>
#include <cstddef>
#include <cstdint>

static_assert(std::endian::native == std::endian::little, "the records are little-endian images");

// Names ending in _START, _END, _EVENT or _CALLBACK without a verb bound a range; they are never sent.
enum oruZb_msgType_t : int32_t {
    // Synchronous functions: the caller waits for the result, the payload is read and written in place.
    ORU_ZB_SVC_SYNCFUNC_START = 0,
    ORU_ZB_SVC_PING = 1,
    ORU_ZB_SVC_SPING = 2,
    ORU_ZB_SVC_GETNET_INFO = 3,
    ORU_ZB_SVC_PERMITJOIN_START = 4,
    ORU_ZB_SVC_PERMITJOIN_STOP = 5,
    ORU_ZB_SVC_ADAPTER_GET_STATE = 6,
    ORU_ZB_SVC_SEND_CLUSTER_CMD = 7,
    ORU_ZB_SVC_GETDEVICE = 8,
    ORU_ZB_SVC_GETDEVICE_COUNT = 9,
    ORU_ZB_SVC_ADAPTER_SET_RADIO_POWER = 10,
    ORU_ZB_SVC_ENABLE_PTA = 11,
    ORU_ZB_SVC_DISABLE_PTA = 12,
    ORU_ZB_SVC_GET_PTA_OPTIONS = 13,
    ORU_ZB_SVC_SET_PTA_OPTIONS = 14,
    ORU_ZB_SVC_ZTS_ADD_DEVICES = 15,
    ORU_ZB_SVC_ZTS_CLEAR_DEVICES = 16,
    ORU_ZB_SVC_GET_ADAPTER_INFO = 17,
    ORU_ZB_SVC_GET_LOCAL_NODE_INFO = 18,
    ORU_ZB_SVC_GET_CONN_NODES = 19,
    ORU_ZB_SVC_ADAPTER_SET_REGION = 20,
    ORU_ZB_SVC_ADAPTER_SET_BURST_SIZE = 21,
    ORU_ZB_SVC_ADAPTER_SET_THROTTLE_TIMEOUT = 22,
    ORU_ZB_SVC_GET_PTA_COUNTERS = 23,
    ORU_ZB_SVC_GET_AND_CLEAR_PTA_COUNTERS = 24,
    ORU_ZB_SVC_GET_CHILDREN = 25,
    ORU_ZB_SVC_GET_ROUTES = 26,
    ORU_ZB_SVC_GET_NEIGHBORS = 27,
    ORU_ZB_SVC_BINDING = 28,
    ORU_ZB_SVC_SYNCFUNC_END = 29,

    // Asynchronous functions: the call returns at once, the result follows as a callback.
    ORU_ZB_SVC_ASYNCFUNC_START = 256,
    ORU_ZB_SVC_APING = 257,
    ORU_ZB_SVC_FORMZ3NET_AUTO = 258,
    ORU_ZB_SVC_CLEAR_NETWORK = 259,
    ORU_ZB_SVC_ADAPTER_ENABLE_RADIO = 260,
    ORU_ZB_SVC_ADAPTER_DISABLE_RADIO = 261,
    ORU_ZB_SVC_ADAPTER_RESET = 262,
    ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC = 263,
    ORU_ZB_SVC_SEND_NODE_LEAVE_REQUEST = 264,
    ORU_ZB_SVC_SEND_INTERPAN = 265,
    ORU_ZB_SVC_ZTS_ENABLE = 266,
    ORU_ZB_SVC_ZTS_DISABLE = 267,
    ORU_ZB_SVC_START_SCAN = 268,
    ORU_ZB_SVC_STOP_SCAN = 269,
    ORU_ZB_SVC_FORMZ3NET_MANUAL = 270,
    ORU_ZB_SVC_ASYNCFUNC_END = 271,

    // Callback ids for client libraries. The service answers with whatever id came with the call.
    ORU_ZB_SVC_ASYNCFUNC_CALLBACK = 512,
    ORU_ZB_SVC_APING_CALLBACK = 513,
    ORU_ZB_SVC_FORMZ3NET_AUTO_CALLBACK = 514,
    ORU_ZB_SVC_CLEAR_NETWORK_CALLBACK = 515,
    ORU_ZB_SVC_ADAPTER_ENABLE_RADIO_CALLBACK = 516,
    ORU_ZB_SVC_ADAPTER_DISABLE_RADIO_CALLBACK = 517,
    ORU_ZB_SVC_ADAPTER_RESET_CALLBACK = 518,
    ORU_ZB_SVC_SEND_NODE_LEAVE_REQUEST_CALLBACK = 519,
    ORU_ZB_SVC_SEND_INTERPAN_CALLBACK = 520,
    ORU_ZB_SVC_ZTS_ENABLE_CALLBACK = 521,
    ORU_ZB_SVC_ZTS_DISABLE_CALLBACK = 522,
    ORU_ZB_SVC_START_SCAN_CALLBACK = 523,
    ORU_ZB_SVC_STOP_SCAN_CALLBACK = 524,
    ORU_ZB_SVC_ASYNCFUNC_CALLBACK_END = 525,

    // Events, sent to every connected client.
    ORU_ZB_SVC_ADAPTER_EVENT = 1024,
    ORU_ZB_SVC_ADAPTER_SERVICE_READY = 1025,
    ORU_ZB_SVC_ADAPTER_ON = 1026,
    ORU_ZB_SVC_ADAPTER_OFF = 1027,
    ORU_ZB_SVC_ADAPTER_ENABLING = 1028,
    ORU_ZB_SVC_ADAPTER_DISABLING = 1029,
    ORU_ZB_SVC_ADAPTER_RESETTING = 1030,
    ORU_ZB_SVC_ADAPTER_CRITICAL_ERROR = 1031,
    ORU_ZB_SVC_ADAPTER_EVENT_END = 1032,
    ORU_ZB_SVC_NETWORK_EVENT = 1040,
    ORU_ZB_SVC_NETWORK_FORMED = 1041,
    ORU_ZB_SVC_NETWORK_DOWN = 1042,
    ORU_ZB_SVC_DEVICE_JOINED = 1043,
    ORU_ZB_SVC_DEVICE_SECURED_REJOIN = 1044,
    ORU_ZB_SVC_DEVICE_UNSECURED_REJOIN = 1045,
    ORU_ZB_SVC_DEVICE_LEFT = 1046,
    ORU_ZB_SVC_DEVICE_DISCOVERED = 1047,
    ORU_ZB_SVC_INTERPAN_COMPLETE = 1048,
    ORU_ZB_SVC_NETWORK_NOT_INITIALIZED = 1049,
    ORU_ZB_SVC_NETWORK_EVENT_END = 1056,
    ORU_ZB_SVC_CMD_EVENT = 1280,
    ORU_ZB_SVC_SENDCMD_SUCCESS = 1281,
    ORU_ZB_SVC_SENDCMD_FAILURE = 1282,
    ORU_ZB_SVC_SENDCMD_PENDING = 1283,
    ORU_ZB_SVC_INCOMING_MSG = 1284,
    ORU_ZB_SVC_DEVICE_UNRESPONSIVE = 1285,
    ORU_ZB_SVC_CHANNEL_BUSY = 1286,
    ORU_ZB_SVC_SECURITY_ERROR = 1287,
    ORU_ZB_SVC_EVENTS_END = 1288,

    // Reserved for per-command callbacks.
    ORU_ZB_SVC_ZCLCMD_CALLBACK_0 = 4096,
    ORU_ZB_SVC_ZCLCMD_CALLBACK_ROUNDUP = 32767,
    ORU_ZB_SVC_ZCLCMD_CALLBACK_END = 36863,

    // The service's own messages, never seen by clients.
    ORU_ZB_SVC_INTERNAL_EVENT = 524288,
    ORU_ZB_SVC_INTERNAL_DEVICE_ANNOUNCE = 524289,
    ORU_ZB_SVC_INTERNAL_SERVICE_DISCOVERY = 524290,
    ORU_ZB_SVC_INTERNAL_REQUEST_ACTIVE_ENDPOINTS = 524291,
    ORU_ZB_SVC_INTERNAL_REQUEST_SIMPLE_DESCRIPTOR = 524292,
    ORU_ZB_SVC_INTERNAL_REQUEST_NODE_DESCRIPTOR = 524293,
    ORU_ZB_SVC_INTERNAL_INCOMING_ZDO_MESSAGE = 524294,
    ORU_ZB_SVC_INTERNAL_STACK_STATUS_CHANGE = 524295,
    ORU_ZB_SVC_INTERNAL_DEVICE_LEFT = 524296,
    ORU_ZB_SVC_INTERNAL_SEND_INTERPAN_CALLBACK = 524297,
    ORU_ZB_SVC_INTERNAL_DEVICE_RECOVERY = 524298,
    ORU_ZB_SVC_INTERNAL_NETWORK_LEAVE = 524299,
    ORU_ZB_SVC_INVALID_MSG = 589824,
};

constexpr uint16_t ORU_ZB_NO_CALLBACK = 0xFFFF; // callback id that stands for "do not call back"

// Valid ids of synchronous calls: 1 to 28.
constexpr bool isValidSyncFunc(uint16_t function_id) {
    return function_id > ORU_ZB_SVC_SYNCFUNC_START && function_id < ORU_ZB_SVC_SYNCFUNC_END;
}

// Valid ids of asynchronous calls: 257 to 270.
constexpr bool isValidAsyncFunc(uint16_t function_id) {
    return function_id > ORU_ZB_SVC_ASYNCFUNC_START && function_id < ORU_ZB_SVC_ASYNCFUNC_END;
}

// State of the radio adapter. Only 0, 1, 2, 3, 5 and 6 are ever held.
enum _adapter_state : int32_t {
    ORU_ZB_ADAPTER_OFF = 0,
    ORU_ZB_ADAPTER_ON = 1, // stack up, no network
    ORU_ZB_ADAPTER_TURNING_ON = 2,
    ORU_ZB_ADAPTER_TURNING_OFF = 3,
    ORU_ZB_ADAPTER_UPGRADING = 4,
    ORU_ZB_ADAPTER_INTERPAN_IN_PROGRESS = 5,
    ORU_ZB_ADAPTER_SERVICE_READY = 6, // stack up, network formed
    ORU_ZB_ADAPTER_ENABLE_CALLBACK = 7,
    ORU_ZB_ADAPTER_DISABLE_CALLBACK = 8,
    ORU_ZB_ADAPTER_RESET_CALLBACK = 9,
    ORU_ZB_ADAPTER_STATE_ERROR = 100,
};
typedef enum _adapter_state oruZb_adapterState_t;

// Outcome of a send: Zigbee APS (160 on), NWK (193 on) and IEEE 802.15.4 MAC (219 on) status codes.
enum oruZb_clusterCommandStatus_t : int32_t {
    ORU_ZB_SUCCESS = 0,
    ORU_ZB_APS_ASDU_TOO_LONG = 160,
    ORU_ZB_APS_DEFRAG_DEFERRED = 161,
    ORU_ZB_APS_DEFRAG_UNSUPPORTED = 162,
    ORU_ZB_APS_ILLEGAL_REQUEST = 163,
    ORU_ZB_APS_INVALID_BINDING = 164,
    ORU_ZB_APS_INVALID_GROUP = 165,
    ORU_ZB_APS_INVALID_PARAMETER = 166,
    ORU_ZB_APS_NO_ACK = 167,
    ORU_ZB_APS_NO_BOUND_DEVICE = 168,
    ORU_ZB_APS_NO_SHORT_ADDRESS = 169,
    ORU_ZB_APS_NOT_SUPPORTED = 170,
    ORU_ZB_APS_SECURED_LINK_KEY = 171,
    ORU_ZB_APS_SECURED_NWK_KEY = 172,
    ORU_ZB_APS_SECURITY_FAIL = 173,
    ORU_ZB_APS_TABLE_FULL = 174,
    ORU_ZB_APS_UNSECURED = 175,
    ORU_ZB_APS_UNSUPPORTED_ATTRIBUTE = 176,
    ORU_ZB_NWK_INVALID_PARAMETER = 193,
    ORU_ZB_NWK_INVALID_REQUEST = 194,
    ORU_ZB_NWK_NOT_PERMITTED = 195,
    ORU_ZB_NWK_STARTUP_FAILURE = 196,
    ORU_ZB_NWK_ALREADY_PRESENT = 197,
    ORU_ZB_NWK_SYNC_FAILURE = 198,
    ORU_ZB_NWK_NEIGHBOR_TABLE_FULL = 199,
    ORU_ZB_NWK_UNKNOWN_DEVICE = 200,
    ORU_ZB_NWK_UNSUPPORTED_ATTRIBUTE = 201,
    ORU_ZB_NWK_NO_NETWORKS = 202,
    ORU_ZB_NWK_MAX_FRM_COUNTER = 204,
    ORU_ZB_NWK_NO_KEY = 205,
    ORU_ZB_NWK_BAD_CCM_OUTPUT = 206,
    ORU_ZB_NWK_ROUTE_DISCOVERY_FAILED = 208,
    ORU_ZB_NWK_ROUTE_ERROR = 209,
    ORU_ZB_NWK_BT_TABLE_FULL = 210,
    ORU_ZB_NWK_FRAME_NOT_BUFFERED = 211,
    ORU_ZB_NWK_INVALID_INTERFACE = 213,
    ORU_ZB_MAC_COUNTER_ERROR = 219,
    ORU_ZB_MAC_IMPROPER_KEY_TYPE = 220,
    ORU_ZB_MAC_IMPROPER_SECURITY_LEVEL = 221,
    ORU_ZB_MAC_UNSUPPORTED_LEGACY = 222,
    ORU_ZB_MAC_UNSUPPORTED_SECURITY = 223,
    ORU_ZB_MAC_BEACON_LOSS = 224,
    ORU_ZB_MAC_CHANNEL_ACCESSS_FAILURE = 225,
    ORU_ZB_MAC_RESULT_DENIED = 226,
    ORU_ZB_MAC_DISABLE_TRX_FAILURE = 227,
    ORU_ZB_MAC_SECURITY_ERROR = 228,
    ORU_ZB_MAC_FRAME_TOO_LONG = 229,
    ORU_ZB_MAC_INVALID_GTS = 230,
    ORU_ZB_MAC_INVALID_HANDLE = 231,
    ORU_ZB_MAC_INVALID_PARAMETER = 232,
    ORU_ZB_MAC_NO_ACK = 233,
    ORU_ZB_MAC_NO_BEACON = 234,
    ORU_ZB_MAC_NO_DATA = 235,
    ORU_ZB_MAC_NO_SHORT_ADDRESS = 236,
    ORU_ZB_MAC_OUT_OF_CAP = 237,
    ORU_ZB_MAC_PANID_CONFLICT = 238,
    ORU_ZB_MAC_REALIGNMENT = 239,
    ORU_ZB_MAC_TRANSACTION_EXPIRED = 240,
    ORU_ZB_MAC_TRANSACTION_OVERFLOW = 241,
    ORU_ZB_MAC_TX_ACTIVE = 242,
    ORU_ZB_MAC_UNAVAILABLE_KEY = 243,
    ORU_ZB_MAC_UNSUPPORTED_ATTRIBUTE = 244,
    ORU_ZB_MAC_INVALID_ADDRESS = 245,
    ORU_ZB_MAC_ON_TIME_TOO_LONG = 246,
    ORU_ZB_MAC_PAST_TIME = 247,
    ORU_ZB_MAC_TRACKING_OFF = 248,
    ORU_ZB_MAC_INVALID_INDEX = 249,
    ORU_ZB_MAC_LIMIT_REACHED = 250,
    ORU_ZB_MAC_READ_ONLY = 251,
    ORU_ZB_MAC_SCAN_IN_PROGRESS = 252,
    ORU_ZB_MAC_SUPERFRAME_OVERLAP = 253,
};

struct oruZb_pingResponse_t {
    char response[8]; // at most 7 characters and a zero byte
};
static_assert(sizeof(oruZb_pingResponse_t) == 8);

struct oruZb_networkInfo_t {
    uint64_t extended_panid; // the adapter's byte order; all bits set without a network
    uint32_t panid;          // 0xFFFFFFFF without a network
    uint8_t channel;         // 11 to 26; 0xFF without a network
    uint8_t network_key[16]; // all 0xFF when the adapter refuses it
    int8_t radio_tx_power;   // dBm
    uint8_t reserved[2];
};
static_assert(sizeof(oruZb_networkInfo_t) == 32 && offsetof(oruZb_networkInfo_t, panid) == 8 &&
              offsetof(oruZb_networkInfo_t, channel) == 12 && offsetof(oruZb_networkInfo_t, network_key) == 13 &&
              offsetof(oruZb_networkInfo_t, radio_tx_power) == 29);

constexpr uint16_t ORU_ZB_MAX_PAYLOAD = 100; // bytes of a ZCL frame in a command or inter-PAN record

struct oruZb_clusterCmd_t {
    union {
        uint16_t dest_node; // of a send
        uint16_t src_node;  // of an incoming message
    };
    uint16_t cluster_id;
    uint16_t profile_id;
    uint8_t dest_ep;
    uint8_t src_ep;
    uint8_t payload[ORU_ZB_MAX_PAYLOAD]; // ZCL frame
    uint16_t payload_len;                // bytes used in payload
    uint16_t aps_options;                // ORU_ZB_HAL_APS_OPTION_ bits
    uint16_t confirmation_id;            // written by the service
    uint16_t reserved;
    oruZb_clusterCommandStatus_t status; // written by the service
};
static_assert(sizeof(oruZb_clusterCmd_t) == 120 && offsetof(oruZb_clusterCmd_t, cluster_id) == 2 &&
              offsetof(oruZb_clusterCmd_t, profile_id) == 4 && offsetof(oruZb_clusterCmd_t, dest_ep) == 6 &&
              offsetof(oruZb_clusterCmd_t, src_ep) == 7 && offsetof(oruZb_clusterCmd_t, payload) == 8 &&
              offsetof(oruZb_clusterCmd_t, payload_len) == 108 && offsetof(oruZb_clusterCmd_t, aps_options) == 110 &&
              offsetof(oruZb_clusterCmd_t, confirmation_id) == 112 && offsetof(oruZb_clusterCmd_t, status) == 116);

// A device as clients and the store see it. Entries beyond the two counts carry no meaning.
typedef oruZbHal_clusterInfo_t oruZb_clusterInfo_t;
typedef oruZbHal_endpointInfo_t oruZb_endpointInfo_t;
typedef oruZbHal_deviceInfoCore_t oruZb_deviceInfo_t;
typedef oruZbHal_deviceInfoCore_t oruZb_svcDeviceInfo_t;

struct oruZb_device_t {
    oruZbHal_nodeId_t node_id;
    uint16_t manufacturer_code;
    oruZb_svcDeviceInfo_t device_info;
};
static_assert(sizeof(oruZb_device_t) == 744 && offsetof(oruZb_device_t, manufacturer_code) == 2 &&
              offsetof(oruZb_device_t, device_info) == 4);

enum oruZb_getDeviceBy_t : int32_t {
    ORU_ZB_BY_EUI64 = -2,
    ORU_ZB_BY_NODEID = -1,
    ORU_ZB_BY_INDEX = 0, // and every value above: a list position
};

struct oruZb_getDevice_t {
    oruZb_getDeviceBy_t by;
    oruZb_device_t device; // holds the key on the way in
};
static_assert(sizeof(oruZb_getDevice_t) == 748 && offsetof(oruZb_getDevice_t, device) == 4);

struct oruZb_deviceCount_t {
    uint32_t count;
};
static_assert(sizeof(oruZb_deviceCount_t) == 4);

struct oruZb_powerLevel_t {
    int8_t power; // dBm
};
static_assert(sizeof(oruZb_powerLevel_t) == 1);

struct oruZb_channel_t {
    uint8_t channel; // 11 to 26
};
static_assert(sizeof(oruZb_channel_t) == 1);

struct oruZb_ptaOptions_t {
    uint32_t pta_options; // of functions 11 to 14, which are not supported
};
static_assert(sizeof(oruZb_ptaOptions_t) == 4);

struct oruZb_ztsDeviceInfo_t {
    uint8_t mac_address[8];   // EUI-64
    uint8_t install_code[18]; // 16-byte code and its CRC, low byte first
};
static_assert(sizeof(oruZb_ztsDeviceInfo_t) == 26 && offsetof(oruZb_ztsDeviceInfo_t, install_code) == 8);

struct oruZb_ztsDeviceInfoList_t {
    oruZb_ztsDeviceInfo_t dev_array[1]; // as many as the payload holds, at 26-byte steps
};

struct oruZb_adapterInfo_t {
    char firmware_version[256]; // decimal bytes, each followed by a dot; zero-terminated
    uint8_t mac_addr[8];
};
static_assert(sizeof(oruZb_adapterInfo_t) == 264 && offsetof(oruZb_adapterInfo_t, mac_addr) == 256);

enum oruZb_nodeType_t : int32_t {
    ORU_ZB_NODE_TYPE_COORDINATOR = 0,
    ORU_ZB_NODE_TYPE_ROUTER = 1,
    ORU_ZB_NODE_TYPE_END_DEVICE = 2,
    ORU_ZB_NODE_TYPE_SLEEPY_END_DEVICE = 3,
    ORU_ZB_NODE_TYPE_UNDEFINED = 4,
};

struct oruZb_nodeInfo_t {
    uint16_t id;
    uint16_t manufacturer_code;
    oruZb_nodeType_t type;
    oruZb_deviceInfo_t device_info;
};
static_assert(sizeof(oruZb_nodeInfo_t) == 748 && offsetof(oruZb_nodeInfo_t, type) == 4 &&
              offsetof(oruZb_nodeInfo_t, device_info) == 8);

struct oruZb_nodeInfoList_t {
    uint32_t node_index;                 // list position to start from; advanced past every entry written
    oruZb_nodeInfo_t node_info_array[1]; // as many as fit in the payload, at 748-byte steps
};
static_assert(offsetof(oruZb_nodeInfoList_t, node_info_array) == 4);

enum oruZb_scanType_t : int32_t {
    ORU_ZB_SCAN_TYPE_ENERGY = 0,
    ORU_ZB_SCAN_TYPE_ACTIVE = 1,
};

struct oruZb_scan_t {
    oruZb_scanType_t type;
    uint32_t channel_mask; // bit n is channel n
    uint8_t duration;      // IEEE 802.15.4 scan duration exponent
    uint8_t reserved[3];
};
static_assert(sizeof(oruZb_scan_t) == 12 && offsetof(oruZb_scan_t, channel_mask) == 4 &&
              offsetof(oruZb_scan_t, duration) == 8);

struct oruZb_coexParams_t {
    uint8_t radio802154_inuse; // 0, or the channel to force the network onto
    uint8_t primary_start;     // inclusive range removed from the primary channels
    uint8_t primary_end;
    uint8_t secondary_start; // inclusive range removed from the secondary channels
    uint8_t secondary_end;
    uint8_t furthest_zb_chnl; // final channel handed to the adapter
};
static_assert(sizeof(oruZb_coexParams_t) == 6);

struct oruZb_interpanHeader_t {
    uint8_t message_type;
    uint8_t long_address[8];
    uint8_t reserved;
    uint16_t short_address;
    uint16_t pan_id;
    uint16_t profile_id;
    uint16_t cluster_id;
    uint16_t group_id;
    uint16_t options;
};
static_assert(sizeof(oruZb_interpanHeader_t) == 22 && offsetof(oruZb_interpanHeader_t, short_address) == 10 &&
              sizeof(oruZb_interpanHeader_t) == sizeof(oruZbHal_interpanHeader_t));

struct oruZb_interpan_t {
    uint8_t sequence; // chosen by the client, echoed in the completion
    uint8_t reserved[3];
    uint32_t channel_mask;
    uint8_t zcl_buf[ORU_ZB_MAX_PAYLOAD];
    uint16_t zcl_buf_len;
    oruZb_interpanHeader_t header;
};
static_assert(sizeof(oruZb_interpan_t) == 132 && offsetof(oruZb_interpan_t, channel_mask) == 4 &&
              offsetof(oruZb_interpan_t, zcl_buf) == 8 && offsetof(oruZb_interpan_t, zcl_buf_len) == 108 &&
              offsetof(oruZb_interpan_t, header) == 110);

struct oruZb_interpanResponse_t {
    uint8_t sequence;
    uint8_t reserved[3];
    uint32_t status; // 0 = the frame went out
};
static_assert(sizeof(oruZb_interpanResponse_t) == 8 && offsetof(oruZb_interpanResponse_t, status) == 4);

struct oruZb_counters_t {
    uint16_t pta_lo_pri_req;
    uint16_t pta_hi_pri_req;
    uint16_t pta_lo_pri_denied;
    uint16_t pta_hi_pri_denied;
    uint16_t cca_retries;
    uint16_t cca_failures;
    uint16_t mac_tx_ucast_retry;
    uint16_t mac_tx_ucast_fail;
    uint16_t aps_tx_ucast_retry;
    uint16_t aps_tx_ucast_fail;
    uint16_t pta_denied_rate; // percent
};
static_assert(sizeof(oruZb_counters_t) == 22 && offsetof(oruZb_counters_t, pta_denied_rate) == 20);

struct oruZb_childTableEntry_t {
    uint16_t id;
    uint8_t eui64[8]; // the adapter's byte order
    uint8_t reserved1[2];
    oruZbHal_nodeType_t type;
    uint8_t idx; // from 1
    uint8_t reserved2[3];
};
static_assert(sizeof(oruZb_childTableEntry_t) == 20 && offsetof(oruZb_childTableEntry_t, type) == 12 &&
              offsetof(oruZb_childTableEntry_t, idx) == sizeof(oruZbHal_childTableEntry_t));

struct oruZb_routeTableEntry_t {
    uint16_t destination;
    uint16_t next_hop;
    uint8_t status;
    uint8_t age;
    uint8_t concentrator_type;
    uint8_t route_record_state;
    uint8_t idx; // from 1
    uint8_t reserved;
};
static_assert(sizeof(oruZb_routeTableEntry_t) == 10 &&
              offsetof(oruZb_routeTableEntry_t, idx) == sizeof(oruZbHal_routeTableEntry_t));

struct oruZb_neighborTableEntry_t {
    uint16_t id;
    uint8_t average_lqi;
    uint8_t in_cost;
    uint8_t out_cost;
    uint8_t age;
    uint8_t eui64[8]; // the adapter's byte order
    uint8_t idx;      // from 1
    uint8_t reserved;
};
static_assert(sizeof(oruZb_neighborTableEntry_t) == 16 &&
              offsetof(oruZb_neighborTableEntry_t, idx) == sizeof(oruZbHal_neighborTableEntry_t));
