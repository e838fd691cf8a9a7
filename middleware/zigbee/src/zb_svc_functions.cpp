// SPDX-License-Identifier: Apache-2.0
//
// A handler of one record brings the record's size into its row, so that none can be read beyond its payload. That no
// id lacks a row is proven below.
#include "zb_svc_functions.h"
#include "zb_svc_command.h"
#include "zb_svc_interpan.h"
#include "zb_svc_network.h"
#include "zb_svc_query.h"
#include "zb_svc_radio.h"
#include "zb_zdo.h"
#include <algorithm>
#include <array>

namespace {

constexpr bool ANYTIME = false;
constexpr bool NETWORK = true;

template <typename Record, typename... Rest>
constexpr uint32_t recordSize(oru_status_t (*)(Record *, Rest...)) {
    return sizeof(Record);
}

template <typename Record, typename... Rest>
Record *recordIn(const oruZb_msgData_t &msg, oru_status_t (*)(Record *, Rest...)) {
    return static_cast<Record *>(msg.msg_data_ptr);
}

template <typename Length, typename Entries>
Entries *entriesIn(const oruZb_msgData_t &msg, oru_status_t (*)(Length, Entries *)) {
    return static_cast<Entries *>(msg.msg_data_ptr);
}

// Rows by the way their handlers are called. VALUES are passed on as they are.

template <auto HANDLE, auto... VALUES>
constexpr ClientFunction plain(oruZb_msgType_t id, const char *name, bool needs_network) {
    constexpr auto call = [](oruZb_msgData_t &) { return HANDLE(VALUES...); };
    return {id, name, Payload::none, 0, needs_network, call};
}

template <auto HANDLE, auto... VALUES>
constexpr ClientFunction onRecord(oruZb_msgType_t id, const char *name, bool needs_network) {
    constexpr auto call = [](oruZb_msgData_t &msg) { return HANDLE(recordIn(msg, HANDLE), VALUES...); };
    return {id, name, Payload::record, recordSize(HANDLE), needs_network, call};
}

template <auto HANDLE>
constexpr ClientFunction onRecords(oruZb_msgType_t id, const char *name, uint32_t head_size) {
    constexpr auto call = [](oruZb_msgData_t &msg) { return HANDLE(msg.msg_data_len, entriesIn(msg, HANDLE)); };
    return {id, name, Payload::records, head_size, ANYTIME, call};
}

// Every asynchronous handler answers its client itself.
template <auto HANDLE>
constexpr ClientFunction async(oruZb_msgType_t id, const char *name, bool needs_network,
                               Payload payload = Payload::none) {
    constexpr auto call = [](oruZb_msgData_t &msg) { return HANDLE(msg.callback_client_id, msg.callback_id); };
    return {id, name, payload, 0, needs_network, call};
}

template <auto HANDLE>
constexpr ClientFunction asyncOnRecord(oruZb_msgType_t id, const char *name, bool needs_network) {
    constexpr auto call = [](oruZb_msgData_t &msg) {
        return HANDLE(recordIn(msg, HANDLE), msg.callback_client_id, msg.callback_id);
    };
    return {id, name, Payload::record, recordSize(HANDLE), needs_network, call};
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

oru_status_t refusePtaOptions() {
    return ORU_STATUS_GENERAL_ERROR;
}

oru_status_t handleRegion(oruZb_msgData_t &msg) {
    return oruZb_doSetRegion(msg.country_code);
}

oru_status_t sendWithCallback(oruZb_msgData_t &msg) {
    return oruZb_doSendClusterCmd(msg.cluster_cmd, msg.callback_client_id * 65536U + msg.callback_id);
}

constexpr std::array ROWS = {
    ClientFunction{ORU_ZB_SVC_PING, "PING", Payload::record, sizeof(oruZb_pingResponse_t), ANYTIME, nullptr},
    ClientFunction{ORU_ZB_SVC_SPING, "SPING", Payload::record, sizeof(oruZb_pingResponse_t), ANYTIME, handleSping},
    onRecord<oruZb_doGetNetworkInfo>(ORU_ZB_SVC_GETNET_INFO, "GETNET_INFO", NETWORK),
    plain<oruZb_doPermitJoin, 1>(ORU_ZB_SVC_PERMITJOIN_START, "PERMITJOIN_START", NETWORK),
    plain<oruZb_doPermitJoin, 0>(ORU_ZB_SVC_PERMITJOIN_STOP, "PERMITJOIN_STOP", NETWORK),
    ClientFunction{ORU_ZB_SVC_ADAPTER_GET_STATE, "ADAPTER_GET_STATE", Payload::record, sizeof(oruZb_adapterState_t),
                   ANYTIME, nullptr},
    onRecord<oruZb_doSendClusterCmd, 0U>(ORU_ZB_SVC_SEND_CLUSTER_CMD, "SEND_CLUSTER_CMD", NETWORK),
    onRecord<oruZb_doGetDevice>(ORU_ZB_SVC_GETDEVICE, "GETDEVICE", ANYTIME),
    onRecord<oruZb_doGetDeviceCount>(ORU_ZB_SVC_GETDEVICE_COUNT, "GETDEVICE_COUNT", ANYTIME),
    onRecord<oruZb_doSetTxPower>(ORU_ZB_SVC_ADAPTER_SET_RADIO_POWER, "ADAPTER_SET_RADIO_POWER", ANYTIME),
    plain<refusePtaOptions>(ORU_ZB_SVC_ENABLE_PTA, "ENABLE_PTA", ANYTIME),
    plain<refusePtaOptions>(ORU_ZB_SVC_DISABLE_PTA, "DISABLE_PTA", ANYTIME),
    plain<refusePtaOptions>(ORU_ZB_SVC_GET_PTA_OPTIONS, "GET_PTA_OPTIONS", ANYTIME),
    plain<refusePtaOptions>(ORU_ZB_SVC_SET_PTA_OPTIONS, "SET_PTA_OPTIONS", ANYTIME),
    onRecords<oruZb_doZtsAddDevices>(ORU_ZB_SVC_ZTS_ADD_DEVICES, "ZTS_ADD_DEVICES", 0),
    plain<oruZb_doZtsClearDevices>(ORU_ZB_SVC_ZTS_CLEAR_DEVICES, "ZTS_CLEAR_DEVICES", ANYTIME),
    onRecord<oruZb_doGetAdapterInfo>(ORU_ZB_SVC_GET_ADAPTER_INFO, "GET_ADAPTER_INFO", ANYTIME),
    onRecord<oruZb_doGetLocalNodeInfo>(ORU_ZB_SVC_GET_LOCAL_NODE_INFO, "GET_LOCAL_NODE_INFO", ANYTIME),
    onRecords<oruZb_doGetConnectedNodes>(ORU_ZB_SVC_GET_CONN_NODES, "GET_CONN_NODES",
                                         offsetof(oruZb_nodeInfoList_t, node_info_array)),
    ClientFunction{ORU_ZB_SVC_ADAPTER_SET_REGION, "ADAPTER_SET_REGION", Payload::text, 1, ANYTIME, handleRegion},
    onRecord<oruZb_setBurstSize>(ORU_ZB_SVC_ADAPTER_SET_BURST_SIZE, "ADAPTER_SET_BURST_SIZE", ANYTIME),
    onRecord<oruZb_setThrottleTimeout>(ORU_ZB_SVC_ADAPTER_SET_THROTTLE_TIMEOUT, "ADAPTER_SET_THROTTLE_TIMEOUT",
                                       ANYTIME),
    onRecord<oruZb_doGetPtaCounters, uint8_t{0}>(ORU_ZB_SVC_GET_PTA_COUNTERS, "GET_PTA_COUNTERS", ANYTIME),
    onRecord<oruZb_doGetPtaCounters, uint8_t{1}>(ORU_ZB_SVC_GET_AND_CLEAR_PTA_COUNTERS, "GET_AND_CLEAR_PTA_COUNTERS",
                                                 ANYTIME),
    onRecords<oruZb_doGetChildren>(ORU_ZB_SVC_GET_CHILDREN, "GET_CHILDREN", 0),
    onRecords<oruZb_doGetRoutes>(ORU_ZB_SVC_GET_ROUTES, "GET_ROUTES", 0),
    onRecords<oruZb_doGetNeighbors>(ORU_ZB_SVC_GET_NEIGHBORS, "GET_NEIGHBORS", 0),
    ClientFunction{ORU_ZB_SVC_BINDING, "BINDING", Payload::binding, sizeof(oruZbHal_nodeId_t), ANYTIME, handleBinding},

    async<oruZb_doAsyncPing>(ORU_ZB_SVC_APING, "APING", ANYTIME, Payload::answer),
    asyncOnRecord<oruZb_doFormZ3Network>(ORU_ZB_SVC_FORMZ3NET_AUTO, "FORMZ3NET_AUTO", NETWORK),
    async<oruZb_doClearNetwork>(ORU_ZB_SVC_CLEAR_NETWORK, "CLEAR_NETWORK", NETWORK),
    async<oruZb_doEnableRadio>(ORU_ZB_SVC_ADAPTER_ENABLE_RADIO, "ADAPTER_ENABLE_RADIO", ANYTIME),
    async<oruZb_doDisableRadio>(ORU_ZB_SVC_ADAPTER_DISABLE_RADIO, "ADAPTER_DISABLE_RADIO", ANYTIME),
    async<oruZb_doReset>(ORU_ZB_SVC_ADAPTER_RESET, "ADAPTER_RESET", ANYTIME),
    ClientFunction{ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, "SEND_CLUSTER_CMD_ASYNC", Payload::record,
                   sizeof(oruZb_clusterCmd_t), NETWORK, sendWithCallback},
    asyncOnRecord<oruZb_doSendNodeLeaveRequest>(ORU_ZB_SVC_SEND_NODE_LEAVE_REQUEST, "SEND_NODE_LEAVE_REQUEST", ANYTIME),
    asyncOnRecord<oruZb_doSendInterpan>(ORU_ZB_SVC_SEND_INTERPAN, "SEND_INTERPAN", NETWORK),
    async<oruZb_doZtsEnable>(ORU_ZB_SVC_ZTS_ENABLE, "ZTS_ENABLE", ANYTIME, Payload::value),
    async<oruZb_doZtsDisable>(ORU_ZB_SVC_ZTS_DISABLE, "ZTS_DISABLE", ANYTIME),
    asyncOnRecord<oruZb_doScan>(ORU_ZB_SVC_START_SCAN, "START_SCAN", NETWORK),
    ClientFunction{ORU_ZB_SVC_STOP_SCAN, "STOP_SCAN", Payload::none, 0, ANYTIME, nullptr},
    // Manual formation is the adapter's to refuse.
    asyncOnRecord<oruZb_doFormZ3NetworkManual>(ORU_ZB_SVC_FORMZ3NET_MANUAL, "FORMZ3NET_MANUAL", ANYTIME),
};

constexpr size_t SYNC_COUNT = ORU_ZB_SVC_SYNCFUNC_END - ORU_ZB_SVC_SYNCFUNC_START - 1;
constexpr size_t ASYNC_COUNT = ORU_ZB_SVC_ASYNCFUNC_END - ORU_ZB_SVC_ASYNCFUNC_START - 1;

// Where the row of an id stands; behind the last one when there is none.
constexpr size_t indexOf(int32_t id) {
    if (id > ORU_ZB_SVC_SYNCFUNC_START && id < ORU_ZB_SVC_SYNCFUNC_END) {
        return static_cast<size_t>(id - ORU_ZB_SVC_SYNCFUNC_START - 1);
    }
    if (id > ORU_ZB_SVC_ASYNCFUNC_START && id < ORU_ZB_SVC_ASYNCFUNC_END) {
        return SYNC_COUNT + static_cast<size_t>(id - ORU_ZB_SVC_ASYNCFUNC_START - 1);
    }
    return SYNC_COUNT + ASYNC_COUNT;
}

constexpr bool needsLength(Payload payload) {
    return payload == Payload::record || payload == Payload::text || payload == Payload::binding;
}

static_assert(ROWS.size() == SYNC_COUNT + ASYNC_COUNT, "every client function has a row");
static_assert(std::ranges::all_of(ROWS, [](const ClientFunction &f) { return &f == &ROWS[indexOf(f.id)]; }));
static_assert(std::ranges::all_of(ROWS, [](const ClientFunction &f) {
    return needsLength(f.payload) ? f.least_payload > 0 : f.payload == Payload::records || f.least_payload == 0;
}));

} // namespace

std::span<const ClientFunction> clientFunctions() {
    return ROWS;
}

const ClientFunction *findClientFunction(int32_t id) {
    const size_t index = indexOf(id);
    return index < ROWS.size() ? &ROWS[index] : nullptr;
}

uint32_t oruZb_minPayloadLen(uint16_t function_id) {
    const ClientFunction *const function = findClientFunction(function_id);
    return function != nullptr ? function->least_payload : 0;
}

bool oruZb_isNetworkMsg(oruZb_msgType_t msg_type) {
    const ClientFunction *const function = findClientFunction(msg_type);
    return function != nullptr && function->needs_network;
}
