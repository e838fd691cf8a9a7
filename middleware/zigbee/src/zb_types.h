// SPDX-License-Identifier: Apache-2.0
//
// The service's own records: queued messages, open transactions, discovery nodes, list items. Records exchanged with
// clients are in oru_zigbee_api.h.
#pragma once
#include "oru_log.h"
#include "oru_mp.h"
#include "oru_oipc.h"
#include "oru_status.h"
#include "oru_sync.h"
#include "oru_time.h"
#include "oru_zbhal.h"
#include "oru_zigbee_api.h"
#include <atomic>
#include <cstddef>
#include <cstdint>

// ------------------------------------------------------------------------------------------------------------ logging
// Module prefixes, the first argument of every log line.
inline constexpr char ZB_SVC[] = "zb_svc";
inline constexpr char ZB_DISCOVERY[] = "ZBDiscovery";
inline constexpr char ZB_DATABASE[] = "ZBDatabase";
inline constexpr char ZB_REGION[] = "OruZigbeeRegionInfo";
inline constexpr char ZB_METRICS[] = "OruZigbeeMetrics"; // metrics lines: a fixed metric name follows
inline constexpr char ZB_HAL_PEER[] = "zbHal";           // peer name of the "^T|" and "^F|" trace markers

#define ZB_LOG(level, ...) oruLog_log(ORU_LOG_ID_MAIN, (level), "oru_zigbee", __VA_ARGS__)
#define ZB_LOG_INFO(...) ZB_LOG(ORU_LOG_INFO, __VA_ARGS__)
#define ZB_LOG_WARN(...) ZB_LOG(ORU_LOG_WARN, __VA_ARGS__)
#define ZB_LOG_ERROR(...) ZB_LOG(ORU_LOG_ERROR, __VA_ARGS__)

// ------------------------------------------------------------------------------------------------------ queued message
enum oruZb_oipcParamDirection_t : int32_t {
    ORU_ZB_SVC_OIPC_PARAM_TYPE_UNKNOWN = 0,
    ORU_ZB_SVC_OIPC_PARAM_IN_POINTER = 1,
    ORU_ZB_SVC_OIPC_PARAM_OUT_POINTER = 2,
    ORU_ZB_SVC_OIPC_PARAM_INOUT_POINTER = 3,
    ORU_ZB_SVC_OIPC_PARAM_IN_VALUE = 4,
    ORU_ZB_SVC_PARAM_IN_POINTER_ALLOCED = 100, // the payload is a block of mp_zb_var_handle that the message owns
};

// An incoming ZDO frame on its way to the main thread: fixed part and frame bytes in one pool block.
struct oruZb_incomingMsg {
    uint8_t type;
    uint8_t reserved1;
    oruZbHal_apsFrame_t aps_frame;
    uint16_t source;
    uint8_t last_hop_lqi;
    int8_t last_hop_rssi; // dBm
    uint8_t binding_table_index;
    uint8_t address_table_index;
    uint8_t network_index;
    uint8_t reserved2;
    uint16_t msg_len;   // bytes of message
    uint8_t message[1]; // msg_len bytes; the block is offsetof(message) + msg_len long
};
typedef struct oruZb_incomingMsg oruZb_incomingStackMsg_t;
static_assert(offsetof(oruZb_incomingStackMsg_t, aps_frame) == 2 && offsetof(oruZb_incomingStackMsg_t, source) == 14 &&
              offsetof(oruZb_incomingStackMsg_t, last_hop_lqi) == 16 &&
              offsetof(oruZb_incomingStackMsg_t, network_index) == 20 &&
              offsetof(oruZb_incomingStackMsg_t, msg_len) == 22 && offsetof(oruZb_incomingStackMsg_t, message) == 24);

struct oruZb_msgData_t {
    oruZb_msgType_t msg_type;
    oruSemaphore_t *sem_sync_call; // not null: a synchronous call, posted once when it is complete
    oruZb_oipcParamDirection_t param_type;
    union {
        void *msg_data_ptr;
        uint32_t msg_value32;
        oruZb_channel_t *zigbee_channel;
        oruZb_clusterCmd_t *cluster_cmd;
        oruZb_pingResponse_t *echo;
        oruZb_getDevice_t *device;
        oruZb_deviceCount_t *device_count;
        oruZb_incomingStackMsg_t *incoming_msg;
        oruZb_powerLevel_t *power_level;
        oruZb_coexParams_t *coex_params;
        oruZb_networkInfo_t *net_info;
        oruZb_ptaOptions_t *pta_options;
        oruZb_interpan_t *inter_pan;
        oruZb_ztsDeviceInfoList_t *zts_device_info_list;
        oruZb_adapterInfo_t *adapter_info;
        oruZb_nodeInfo_t *node_info;
        oruZb_nodeInfoList_t *node_info_list;
        oruZb_scan_t *scan;
        char *country_code;
        uint32_t *burst_size;
        uint32_t *throttle_timeout;
        oruZb_counters_t *pta_counters;
        oruZb_childTableEntry_t *child_table;
        oruZb_routeTableEntry_t *route_table;
        oruZb_neighborTableEntry_t *neighbor_table;
        uint8_t *msg_array_value8;
    };
    uint32_t msg_data_len;       // payload bytes of client calls; internal messages are not described by it
    uint16_t callback_client_id; // 0xFFFF: none
    uint16_t callback_id;        // 0xFFFF: none
    oru_status_t *return_status; // result of a synchronous call
};

// Queue items are blocks of mp_zb_msgl_handle.
struct oruZb_msgListItem_t {
    oruZb_msgData_t data;
    struct {
        oruZb_msgListItem_t *stqe_next;
    } entries;
};

struct oruZb_msgList {
    oruZb_msgListItem_t *stqh_first; // null when empty
    oruZb_msgListItem_t **stqh_last; // link of the last item, or of stqh_first when empty
};

// --------------------------------------------------------------------------------------------------- open transaction
struct oruZb_txnData_t {
    uint32_t cfmId;                // request id under which the adapter confirms; 0 for synchronous sends
    oruTime_timespec_t start_time; // monotonic clock
    uint16_t node_id;              // destination
};

// Transaction items are blocks of mp_zb_txnl_handle.
struct oruZb_txnListItem_t {
    oruZb_txnData_t data;
    struct {
        oruZb_txnListItem_t *tqe_next;
        oruZb_txnListItem_t **tqe_prev;
    } entries;
};

struct oruZb_txnList {
    oruZb_txnListItem_t *tqh_first;
    oruZb_txnListItem_t **tqh_last;
};

// ---------------------------------------------------------------------------------------------------- device database
struct oruZb_latencyInfo_t { // milliseconds, since the item was created or the last daily upload
    uint32_t max_latency;
    uint32_t min_latency; // 0: no sample yet
    uint32_t total_latency;
    uint32_t transaction_count;
};

struct oruZb_deviceListItem_t {
    oruZb_device_t device;
    oruZb_latencyInfo_t latency_info;
    struct {
        oruZb_deviceListItem_t *sle_next;
    } entries;
};

struct deviceList {
    oruZb_deviceListItem_t *slh_first;
};

// ----------------------------------------------------------------------------------------------------------- discovery
enum oruZb_device_discovery_state : int32_t {
    ORU_ZB_DEVICE_DISCOVERY_NONE = 0,
    ORU_ZB_DEVICE_DISCOVERY_NEW = 1,
    ORU_ZB_DEVICE_DISCOVERY_READY = 2,
    ORU_ZB_DEVICE_DISCOVERY_REQUEST_ACTIVE_ENDPOINTS = 3,
    ORU_ZB_DEVICE_DISCOVERY_REQUEST_SIMPLE_DESC = 4,
    ORU_ZB_DEVICE_DISCOVERY_REQUEST_NODE_DESC = 5,
    ORU_ZB_DEVICE_DISCOVERY_FINISHED = 6,
    ORU_ZB_DEVICE_DISCOVERY_FAILED = 7,
};

struct oruZb_discoveryAction_t {
    oruZb_device_discovery_state discovery_state;
    uint8_t endpoint_query_index; // slot whose simple descriptor is wanted next; the count when none is
    uint32_t expiry_time;         // seconds of the platform clock after which a NEW node is READY
    uint8_t num_retries;          // failures in the current state; recovery attempts in the failed list
};

struct node {
    oruZbHal_deviceInfo_t device;
    oruZb_discoveryAction_t action;
    struct {
        node *sle_next;
    } entries;
};
typedef struct node oruZb_node_t;

struct oruZb_nodeList {
    oruZb_node_t *slh_first;
};

// ----------------------------------------------------------------------------------------------------------- allowlist
struct oruZb_ztsListItem_t {
    oruZb_ztsDeviceInfo_t device_info; // mac_address least significant byte first here
    struct {
        oruZb_ztsListItem_t *sle_next;
    } entries;
};

struct ztsDeviceList {
    oruZb_ztsListItem_t *slh_first;
};

// ------------------------------------------------------------------------------------------------------------- service
struct oruZb_privateData_t {
    char *adapterName; // device path given to oruZb_init; not owned
};

enum : uint16_t {
    ZDO_PROFILE_ID = 0x0000,
    WILDCARD_PROFILE_ID = 0xFFFF,
};
