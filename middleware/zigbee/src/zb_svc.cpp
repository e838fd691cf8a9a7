// SPDX-License-Identifier: Apache-2.0
//
// Dispatch: the one place where queued work is carried out, one message per turn of the main loop. The tables below
// say which handler owns which message; each is complete and ascending, which the compiler checks.
//
// A message stays the head of the queue while it is handled, so it still occupies its place there, and handlers that
// post meanwhile see the queue as full as it is.
#include "zb_database_list.h"
#include "zb_discovery_interview.h"
#include "zb_discovery_join.h"
#include "zb_discovery_recovery.h"
#include "zb_queue.h"
#include "zb_reply.h"
#include "zb_state.h"
#include "zb_svc_adapter.h"
#include "zb_svc_command.h"
#include "zb_svc_dispatch.h"
#include "zb_svc_interpan.h"
#include "zb_svc_network.h"
#include "zb_svc_query.h"
#include "zb_svc_radio.h"
#include "zb_zdo.h"
#include <algorithm>
#include <array>
#include <cstring>

// Operation printed by the parts of the dispatcher.
static constexpr char HANDLE_EVENT[] = "oruZb_handleEvent";

oru_status_t oruZb_doPing(oruZb_pingResponse_t *echo, const char *resp) {
    if (echo == nullptr || resp == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    constexpr size_t text_size = sizeof echo->response - 1; // the last byte is the caller's
    const size_t len = strnlen(resp, text_size);
    memset(echo->response, 0, text_size);
    memcpy(echo->response, resp, len);
    return ORU_STATUS_OK;
}

oru_status_t oruZb_doGetAdapterState(oruZb_adapterState_t *state) {
    if (state == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    *state = adapter_state.load();
    return ORU_STATUS_OK;
}

oru_status_t oruZb_handleIncomingZdoMsg(uint16_t cluster_id, uint8_t *message, uint16_t msg_len) {
    if (message == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    switch (cluster_id) {
    case ZDO_ACTIVE_EP_RSP:
        return oruZb_handleActiveEndpointsResponse(message, msg_len);
    case ZDO_SIMPLE_DESC_RSP:
        return oruZb_handleSimpleDescriptorResponse(message, msg_len);
    case ZDO_NODE_DESC_RSP:
        return oruZb_handleNodeDescriptorResponse(message, msg_len);
    case ZDO_DEVICE_ANNCE:
        oruZb_handleDeviceAnnounce(message, msg_len);
        return ORU_STATUS_OK;
    case ZDO_MGMT_LEAVE_RSP:
        return ORU_STATUS_NOT_SUPPORTED;
    default:
        ZB_LOG_WARN("%s: Unhandled ZDO message %d", ZB_DISCOVERY, cluster_id);
        return ORU_STATUS_NOT_SUPPORTED;
    }
}

// Manual formation is not among them.
static constexpr std::array network_messages = {
    ORU_ZB_SVC_GETNET_INFO,
    ORU_ZB_SVC_PERMITJOIN_START,
    ORU_ZB_SVC_PERMITJOIN_STOP,
    ORU_ZB_SVC_SEND_CLUSTER_CMD,
    ORU_ZB_SVC_FORMZ3NET_AUTO,
    ORU_ZB_SVC_CLEAR_NETWORK,
    ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC,
    ORU_ZB_SVC_SEND_INTERPAN,
    ORU_ZB_SVC_START_SCAN,
};
static_assert(std::is_sorted(network_messages.begin(), network_messages.end()));

bool oruZb_isNetworkMsg(oruZb_msgType_t msg_type) {
    return std::binary_search(network_messages.begin(), network_messages.end(), msg_type);
}

namespace {

// ------------------------------------------------------------------------------------------------- payload lengths
struct MinPayload {
    uint16_t function_id;
    uint16_t length; // bytes
};

// Functions whose handler reads or writes a whole record. The others take no payload or work from its length.
constexpr std::array min_payloads = {
    MinPayload{ORU_ZB_SVC_PING, sizeof(oruZb_pingResponse_t)},
    MinPayload{ORU_ZB_SVC_SPING, sizeof(oruZb_pingResponse_t)},
    MinPayload{ORU_ZB_SVC_GETNET_INFO, sizeof(oruZb_networkInfo_t)},
    MinPayload{ORU_ZB_SVC_ADAPTER_GET_STATE, sizeof(oruZb_adapterState_t)},
    MinPayload{ORU_ZB_SVC_SEND_CLUSTER_CMD, sizeof(oruZb_clusterCmd_t)},
    MinPayload{ORU_ZB_SVC_GETDEVICE, sizeof(oruZb_getDevice_t)},
    MinPayload{ORU_ZB_SVC_GETDEVICE_COUNT, sizeof(oruZb_deviceCount_t)},
    MinPayload{ORU_ZB_SVC_ADAPTER_SET_RADIO_POWER, sizeof(oruZb_powerLevel_t)},
    MinPayload{ORU_ZB_SVC_GET_ADAPTER_INFO, sizeof(oruZb_adapterInfo_t)},
    MinPayload{ORU_ZB_SVC_GET_LOCAL_NODE_INFO, sizeof(oruZb_nodeInfo_t)},
    MinPayload{ORU_ZB_SVC_GET_CONN_NODES, offsetof(oruZb_nodeInfoList_t, node_info_array)},
    MinPayload{ORU_ZB_SVC_ADAPTER_SET_REGION, 1}, // the terminating zero byte
    MinPayload{ORU_ZB_SVC_ADAPTER_SET_BURST_SIZE, sizeof(uint32_t)},
    MinPayload{ORU_ZB_SVC_ADAPTER_SET_THROTTLE_TIMEOUT, sizeof(uint32_t)},
    MinPayload{ORU_ZB_SVC_GET_PTA_COUNTERS, sizeof(oruZb_counters_t)},
    MinPayload{ORU_ZB_SVC_GET_AND_CLEAR_PTA_COUNTERS, sizeof(oruZb_counters_t)},
    MinPayload{ORU_ZB_SVC_BINDING, sizeof(oruZbHal_nodeId_t)},
    MinPayload{ORU_ZB_SVC_FORMZ3NET_AUTO, sizeof(oruZb_coexParams_t)},
    MinPayload{ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, sizeof(oruZb_clusterCmd_t)},
    MinPayload{ORU_ZB_SVC_SEND_NODE_LEAVE_REQUEST, sizeof(oruZb_nodeInfo_t)},
    MinPayload{ORU_ZB_SVC_SEND_INTERPAN, sizeof(oruZb_interpan_t)},
    MinPayload{ORU_ZB_SVC_START_SCAN, sizeof(oruZb_scan_t)},
    MinPayload{ORU_ZB_SVC_FORMZ3NET_MANUAL, sizeof(oruZb_channel_t)},
};
static_assert(std::is_sorted(min_payloads.begin(), min_payloads.end(),
                             [](const MinPayload &a, const MinPayload &b) { return a.function_id < b.function_id; }));

oru_status_t checkCountryCode(const oruZb_msgData_t &msg) {
    return memchr(msg.country_code, 0, msg.msg_data_len) != nullptr ? ORU_STATUS_OK : ORU_STATUS_DATA_LEN_INVALID;
}

// The body's length travels on as 8 bits.
oru_status_t checkBinding(const oruZb_msgData_t &msg) {
    constexpr uint32_t max_body = UINT8_MAX;
    const uint32_t node_id_size = oruZb_minPayloadLen(ORU_ZB_SVC_BINDING);
    const bool fits = msg.msg_data_len >= node_id_size && msg.msg_data_len - node_id_size <= max_body;
    return fits ? ORU_STATUS_OK : ORU_STATUS_BAD_PARAM;
}

// Refuses payloads that their handler could not read or write in full. A missing payload is the handler's to refuse.
oru_status_t checkSyncPayload(const oruZb_msgData_t &msg) {
    if (msg.msg_data_ptr == nullptr) {
        return ORU_STATUS_OK;
    }
    if (msg.msg_type == ORU_ZB_SVC_BINDING) {
        return checkBinding(msg);
    }
    if (msg.msg_type == ORU_ZB_SVC_ADAPTER_SET_REGION) {
        return checkCountryCode(msg);
    }
    const uint32_t min_len = oruZb_minPayloadLen(static_cast<uint16_t>(msg.msg_type));
    return msg.msg_data_len >= min_len ? ORU_STATUS_OK : ORU_STATUS_DATA_LEN_INVALID;
}

// --------------------------------------------------------------------------------------------------------- routing
typedef oru_status_t (*Handler)(oruZb_msgData_t &msg);

struct Route {
    oruZb_msgType_t type;
    Handler handle;
};

// Ascending without a gap from first to last, but for one type that has no handler.
template <size_t N>
constexpr bool isComplete(const std::array<Route, N> &routes, oruZb_msgType_t first, oruZb_msgType_t last,
                          int without) {
    int expected = first;
    for (const Route &route : routes) {
        expected += expected == without ? 1 : 0;
        if (route.type != expected++ || route.handle == nullptr) {
            return false;
        }
    }
    return expected == last + 1;
}

template <size_t N>
Handler findHandler(const std::array<Route, N> &routes, oruZb_msgType_t type) {
    const auto route = std::lower_bound(routes.begin(), routes.end(), type,
                                        [](const Route &r, oruZb_msgType_t wanted) { return r.type < wanted; });
    return route != routes.end() && route->type == type ? route->handle : nullptr;
}

oru_status_t handleSping(oruZb_msgData_t &msg) {
    constexpr uint32_t echo_exchanges = 10;
    const bool answered = oruZbHal_echo(echo_exchanges) == ORU_STATUS_OK;
    return oruZb_doPing(msg.echo, answered ? "spong" : "serror");
}

oru_status_t handleBinding(oruZb_msgData_t &msg) {
    const uint8_t *const bytes = msg.msg_array_value8;
    if (bytes == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    const auto node = static_cast<oruZbHal_nodeId_t>(bytes[0] + 256U * bytes[1]);
    return oruZb_sendBindingRequest(node, msg.msg_array_value8 + 2, static_cast<uint8_t>(msg.msg_data_len - 2));
}

oru_status_t refusePtaOptions(oruZb_msgData_t &) {
    return ORU_STATUS_GENERAL_ERROR;
}

// Ping is not here: the IPC thread answers it and the adapter-state query.
constexpr std::array<Route, 26> sync_routes = {{
    {ORU_ZB_SVC_SPING, handleSping},
    {ORU_ZB_SVC_GETNET_INFO, [](oruZb_msgData_t &m) { return oruZb_doGetNetworkInfo(m.net_info); }},
    {ORU_ZB_SVC_PERMITJOIN_START, [](oruZb_msgData_t &) { return oruZb_doPermitJoin(1); }},
    {ORU_ZB_SVC_PERMITJOIN_STOP, [](oruZb_msgData_t &) { return oruZb_doPermitJoin(0); }},
    {ORU_ZB_SVC_SEND_CLUSTER_CMD, [](oruZb_msgData_t &m) { return oruZb_doSendClusterCmd(m.cluster_cmd, 0); }},
    {ORU_ZB_SVC_GETDEVICE, [](oruZb_msgData_t &m) { return oruZb_doGetDevice(m.device); }},
    {ORU_ZB_SVC_GETDEVICE_COUNT, [](oruZb_msgData_t &m) { return oruZb_doGetDeviceCount(m.device_count); }},
    {ORU_ZB_SVC_ADAPTER_SET_RADIO_POWER, [](oruZb_msgData_t &m) { return oruZb_doSetTxPower(m.power_level); }},
    {ORU_ZB_SVC_ENABLE_PTA, refusePtaOptions},
    {ORU_ZB_SVC_DISABLE_PTA, refusePtaOptions},
    {ORU_ZB_SVC_GET_PTA_OPTIONS, refusePtaOptions},
    {ORU_ZB_SVC_SET_PTA_OPTIONS, refusePtaOptions},
    {ORU_ZB_SVC_ZTS_ADD_DEVICES,
     [](oruZb_msgData_t &m) { return oruZb_doZtsAddDevices(m.msg_data_len, m.zts_device_info_list); }},
    {ORU_ZB_SVC_ZTS_CLEAR_DEVICES, [](oruZb_msgData_t &) { return oruZb_doZtsClearDevices(); }},
    {ORU_ZB_SVC_GET_ADAPTER_INFO, [](oruZb_msgData_t &m) { return oruZb_doGetAdapterInfo(m.adapter_info); }},
    {ORU_ZB_SVC_GET_LOCAL_NODE_INFO, [](oruZb_msgData_t &m) { return oruZb_doGetLocalNodeInfo(m.node_info); }},
    {ORU_ZB_SVC_GET_CONN_NODES,
     [](oruZb_msgData_t &m) { return oruZb_doGetConnectedNodes(m.msg_data_len, m.node_info_list); }},
    {ORU_ZB_SVC_ADAPTER_SET_REGION, [](oruZb_msgData_t &m) { return oruZb_doSetRegion(m.country_code); }},
    {ORU_ZB_SVC_ADAPTER_SET_BURST_SIZE, [](oruZb_msgData_t &m) { return oruZb_setBurstSize(m.burst_size); }},
    {ORU_ZB_SVC_ADAPTER_SET_THROTTLE_TIMEOUT,
     [](oruZb_msgData_t &m) { return oruZb_setThrottleTimeout(m.throttle_timeout); }},
    {ORU_ZB_SVC_GET_PTA_COUNTERS, [](oruZb_msgData_t &m) { return oruZb_doGetPtaCounters(m.pta_counters, 0); }},
    {ORU_ZB_SVC_GET_AND_CLEAR_PTA_COUNTERS,
     [](oruZb_msgData_t &m) { return oruZb_doGetPtaCounters(m.pta_counters, 1); }},
    {ORU_ZB_SVC_GET_CHILDREN, [](oruZb_msgData_t &m) { return oruZb_doGetChildren(m.msg_data_len, m.child_table); }},
    {ORU_ZB_SVC_GET_ROUTES, [](oruZb_msgData_t &m) { return oruZb_doGetRoutes(m.msg_data_len, m.route_table); }},
    {ORU_ZB_SVC_GET_NEIGHBORS,
     [](oruZb_msgData_t &m) { return oruZb_doGetNeighbors(m.msg_data_len, m.neighbor_table); }},
    {ORU_ZB_SVC_BINDING, handleBinding},
}};
static_assert(isComplete(sync_routes, ORU_ZB_SVC_SPING, ORU_ZB_SVC_BINDING, ORU_ZB_SVC_ADAPTER_GET_STATE));

// Every handler answers its client itself. Stopping a scan is not supported and gets no answer.
constexpr std::array<Route, 13> async_routes = {{
    {ORU_ZB_SVC_APING, [](oruZb_msgData_t &m) { return oruZb_doAsyncPing(m.callback_client_id, m.callback_id); }},
    {ORU_ZB_SVC_FORMZ3NET_AUTO,
     [](oruZb_msgData_t &m) { return oruZb_doFormZ3Network(m.coex_params, m.callback_client_id, m.callback_id); }},
    {ORU_ZB_SVC_CLEAR_NETWORK,
     [](oruZb_msgData_t &m) { return oruZb_doClearNetwork(m.callback_client_id, m.callback_id); }},
    {ORU_ZB_SVC_ADAPTER_ENABLE_RADIO,
     [](oruZb_msgData_t &m) { return oruZb_doEnableRadio(m.callback_client_id, m.callback_id); }},
    {ORU_ZB_SVC_ADAPTER_DISABLE_RADIO,
     [](oruZb_msgData_t &m) { return oruZb_doDisableRadio(m.callback_client_id, m.callback_id); }},
    {ORU_ZB_SVC_ADAPTER_RESET, [](oruZb_msgData_t &m) { return oruZb_doReset(m.callback_client_id, m.callback_id); }},
    {ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC,
     [](oruZb_msgData_t &m) {
         return oruZb_doSendClusterCmd(m.cluster_cmd, m.callback_client_id * 65536U + m.callback_id);
     }},
    {ORU_ZB_SVC_SEND_NODE_LEAVE_REQUEST,
     [](oruZb_msgData_t &m) { return oruZb_doSendNodeLeaveRequest(m.node_info, m.callback_client_id, m.callback_id); }},
    {ORU_ZB_SVC_SEND_INTERPAN,
     [](oruZb_msgData_t &m) { return oruZb_doSendInterpan(m.inter_pan, m.callback_client_id, m.callback_id); }},
    {ORU_ZB_SVC_ZTS_ENABLE, [](oruZb_msgData_t &m) { return oruZb_doZtsEnable(m.callback_client_id, m.callback_id); }},
    {ORU_ZB_SVC_ZTS_DISABLE,
     [](oruZb_msgData_t &m) { return oruZb_doZtsDisable(m.callback_client_id, m.callback_id); }},
    {ORU_ZB_SVC_START_SCAN,
     [](oruZb_msgData_t &m) { return oruZb_doScan(m.scan, m.callback_client_id, m.callback_id); }},
    {ORU_ZB_SVC_FORMZ3NET_MANUAL,
     [](oruZb_msgData_t &m) {
         return oruZb_doFormZ3NetworkManual(m.zigbee_channel, m.callback_client_id, m.callback_id);
     }},
}};
static_assert(isComplete(async_routes, ORU_ZB_SVC_APING, ORU_ZB_SVC_FORMZ3NET_MANUAL, ORU_ZB_SVC_STOP_SCAN));

oru_status_t beginDiscovery(oruZb_msgData_t &) {
    oruZb_handleBeginDiscovery();
    return ORU_STATUS_OK;
}

oru_status_t continueServiceDiscovery(oruZb_msgData_t &) {
    oruZb_handleServiceDiscovery();
    return ORU_STATUS_OK;
}

oru_status_t handleZdoMessage(oruZb_msgData_t &msg) {
    oruZb_incomingStackMsg_t *const incoming = msg.incoming_msg;
    if (incoming == nullptr) {
        return ORU_STATUS_OK;
    }
    return oruZb_handleIncomingZdoMsg(incoming->aps_frame.cluster_id, incoming->message, incoming->msg_len);
}

// The look-up only tells whether the device was known; it has left either way.
oru_status_t handleDeviceLeftMessage(oruZb_msgData_t &msg) {
    oruZb_nodeInfo_t *const node = msg.node_info;
    if (node == nullptr) {
        ZB_LOG_ERROR("%s: %s: NULL pointer passed", ZB_SVC, HANDLE_EVENT);
        return ORU_STATUS_NULL_POINTER;
    }
    ZB_LOG_INFO("%s: %s: ORU_ZB_SVC_INTERNAL_DEVICE_LEFT %4.4x\n", ZB_SVC, HANDLE_EVENT, node->id);
    oruZb_device_t device{};
    const oru_status_t status = oruZb_databaseGetDevice(node->id, &device);
    oruZb_handleDeviceLeft(node->device_info.eui64);
    return status;
}

oru_status_t endInterpanSend(oruZb_msgData_t &msg) {
    oruZb_doSendInterpanCallback(static_cast<oru_status_t>(msg.msg_value32));
    return ORU_STATUS_OK;
}

oru_status_t recoverDevices(oruZb_msgData_t &) {
    oruZb_handleDeviceRecovery();
    return ORU_STATUS_OK;
}

constexpr std::array<Route, 11> internal_routes = {{
    {ORU_ZB_SVC_INTERNAL_DEVICE_ANNOUNCE, beginDiscovery},
    {ORU_ZB_SVC_INTERNAL_SERVICE_DISCOVERY, continueServiceDiscovery},
    {ORU_ZB_SVC_INTERNAL_REQUEST_ACTIVE_ENDPOINTS,
     [](oruZb_msgData_t &) { return oruZb_handleRequestActiveEndpoints(); }},
    {ORU_ZB_SVC_INTERNAL_REQUEST_SIMPLE_DESCRIPTOR,
     [](oruZb_msgData_t &) { return oruZb_handleRequestSimpleDescriptor(); }},
    {ORU_ZB_SVC_INTERNAL_REQUEST_NODE_DESCRIPTOR,
     [](oruZb_msgData_t &) { return oruZb_handleRequestNodeDescriptor(); }},
    {ORU_ZB_SVC_INTERNAL_INCOMING_ZDO_MESSAGE, handleZdoMessage},
    {ORU_ZB_SVC_INTERNAL_STACK_STATUS_CHANGE,
     [](oruZb_msgData_t &m) {
         return oruZb_handleStackStatusChange(static_cast<oruZbHal_stackStatus_t>(m.msg_value32));
     }},
    {ORU_ZB_SVC_INTERNAL_DEVICE_LEFT, handleDeviceLeftMessage},
    {ORU_ZB_SVC_INTERNAL_SEND_INTERPAN_CALLBACK, endInterpanSend},
    {ORU_ZB_SVC_INTERNAL_DEVICE_RECOVERY, recoverDevices},
    {ORU_ZB_SVC_INTERNAL_NETWORK_LEAVE, [](oruZb_msgData_t &) { return oruZb_leaveHelper(); }},
}};
static_assert(isComplete(internal_routes, ORU_ZB_SVC_INTERNAL_DEVICE_ANNOUNCE, ORU_ZB_SVC_INTERNAL_NETWORK_LEAVE, 0));

bool isRefusedByInterpan(const oruZb_msgData_t &msg) {
    return adapter_state.load() == ORU_ZB_ADAPTER_INTERPAN_IN_PROGRESS && oruZb_isNetworkMsg(msg.msg_type);
}

oru_status_t runSyncHandler(oruZb_msgData_t &msg) {
    const Handler handle = findHandler(sync_routes, msg.msg_type);
    if (handle == nullptr) {
        return ORU_STATUS_NOT_SUPPORTED;
    }
    const oru_status_t status = checkSyncPayload(msg);
    return status == ORU_STATUS_OK ? handle(msg) : status;
}

// An asynchronous client call or an internal message.
oru_status_t runHandler(oruZb_msgData_t &msg) {
    if (isRefusedByInterpan(msg)) {
        oruZb_asyncCallResultCallback(ORU_STATUS_BUSY, msg.callback_client_id, msg.callback_id);
        ZB_LOG_WARN("%s: Unable to handle async message:Interpan currently in progress", ZB_SVC);
        return ORU_STATUS_OK;
    }
    ZB_LOG_INFO("%s: %s(): process message type 0x%x.", ZB_SVC, HANDLE_EVENT, msg.msg_type);
    Handler handle = findHandler(async_routes, msg.msg_type);
    if (handle == nullptr) {
        handle = findHandler(internal_routes, msg.msg_type);
    }
    if (handle == nullptr) {
        ZB_LOG_WARN("%s: %s(): Unsupported message type!", ZB_SVC, HANDLE_EVENT);
        return ORU_STATUS_NOT_SUPPORTED;
    }
    return handle(msg);
}

void releasePayload(oruZb_msgData_t &msg) {
    if (msg.param_type == ORU_ZB_SVC_PARAM_IN_POINTER_ALLOCED && msg.msg_data_ptr != nullptr) {
        oruMp_free(mp_zb_var_handle.load(), msg.msg_data_ptr);
        msg.msg_data_ptr = nullptr;
        msg.param_type = ORU_ZB_SVC_OIPC_PARAM_TYPE_UNKNOWN;
    }
}

oru_status_t handleMessage(oruZb_msgData_t &msg) {
    if (oruZb_isIpcSyncCall(&msg) != nullptr) {
        oruZb_processSyncCall(&msg);
        return ORU_STATUS_OK; // the result went to the caller
    }
    const oru_status_t status = runHandler(msg);
    releasePayload(msg);
    return status;
}

// The head, when it is handled but could not be unlinked: only its removal is tried again. Main thread.
const oruZb_msgListItem_t *handled_head;

// An item that is still linked must not go back to its pool: the next turn comes back for it.
void removeHandled(oruZb_msgListItem_t *item) {
    if (oruZb_msgRemoveHead(oruZb_msgListHead) == ORU_STATUS_OK) {
        handled_head = nullptr;
        oruMp_free(mp_zb_msgl_handle.load(), item);
        return;
    }
    handled_head = item;
    item->data = oruZb_msgData_t{};
    item->data.msg_type = ORU_ZB_SVC_INVALID_MSG;
    oruZb_signalHalEvent();
}

// Its type tells a message that came later, after a restart, in the same place.
bool isHandled(const oruZb_msgListItem_t *item) {
    return item == handled_head && item->data.msg_type == ORU_ZB_SVC_INVALID_MSG;
}

// The head of the queue, still linked; null when there is none or a lock failed. Only the main thread unlinks items,
// so it may use the head after releasing the mutex. A turn that ends early has used up a wake-up byte of the HAL's
// event loop and gives it back.
oruZb_msgListItem_t *peekHead() {
    if (oruZb_acquireListMutex(HANDLE_EVENT) != ORU_STATUS_OK) {
        oruZb_signalHalEvent();
        return nullptr;
    }
    oruZb_msgListItem_t *const item = oruZb_msgListHead->stqh_first;
    if (oruZb_releaseListMutex(HANDLE_EVENT) != ORU_STATUS_OK) {
        oruZb_signalHalEvent();
        return nullptr;
    }
    return item;
}

} // namespace

uint32_t oruZb_minPayloadLen(uint16_t function_id) {
    for (const MinPayload &row : min_payloads) {
        if (row.function_id == function_id) {
            return row.length;
        }
    }
    return 0;
}

oruSemaphore_t *oruZb_isIpcSyncCall(oruZb_msgData_t *msg) {
    return msg != nullptr ? msg->sem_sync_call : nullptr;
}

void oruZb_processSyncCall(oruZb_msgData_t *msg) {
    if (msg == nullptr) {
        ZB_LOG_ERROR("%s: %s: NULL pointer passed", ZB_SVC, __func__);
        return;
    }
    oru_status_t result = ORU_STATUS_GENERAL_ERROR;
    if (isRefusedByInterpan(*msg)) {
        result = ORU_STATUS_BUSY;
        ZB_LOG_WARN("%s: Unable to handle sync message:Interpan currently in progress", ZB_SVC);
    } else {
        result = runSyncHandler(*msg);
    }
    if (msg->return_status != nullptr) {
        *msg->return_status = result;
    } else {
        ZB_LOG_ERROR("%s: %s: msg %x return status is NULL ", ZB_SVC, __func__, msg->msg_type);
    }
    if (msg->sem_sync_call == nullptr) {
        return;
    }
    const oru_status_t posted = oruSem_post(*msg->sem_sync_call);
    if (posted != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s(): Internal error post synccall semaphore %d !!!", ZB_SVC, __func__, posted);
    }
}

void oruZb_handleEvent() {
    oruZb_msgListItem_t *const item = peekHead();
    if (item == nullptr) {
        return;
    }
    const oruZb_msgType_t msg_type = item->data.msg_type;
    const oru_status_t status = isHandled(item) ? ORU_STATUS_OK : handleMessage(item->data);
    removeHandled(item);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s(): Event 0x%x returned %d", ZB_SVC, __func__, msg_type, status);
    }
}
