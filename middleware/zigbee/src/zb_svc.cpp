// SPDX-License-Identifier: Apache-2.0
//
// Dispatch: the one place where queued work is carried out, one message per turn of the main loop. zb_svc_functions.cpp
// says who handles which client function, the table below which internal message.
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
#include "zb_svc_dispatch.h"
#include "zb_svc_functions.h"
#include "zb_svc_interpan.h"
#include "zb_svc_radio.h"
#include "zb_zdo.h"
#include <algorithm>
#include <array>
#include <cstring>

// Operation printed by the parts of the dispatcher.
static constexpr char HANDLE_EVENT[] = "oruZb_handleEvent";

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

namespace {

oru_status_t checkCountryCode(const oruZb_msgData_t &msg) {
    return memchr(msg.country_code, 0, msg.msg_data_len) != nullptr ? ORU_STATUS_OK : ORU_STATUS_DATA_LEN_INVALID;
}

oru_status_t checkBinding(const oruZb_msgData_t &msg, uint32_t node_id_size) {
    constexpr uint32_t max_body = UINT8_MAX;
    const bool fits = msg.msg_data_len >= node_id_size && msg.msg_data_len - node_id_size <= max_body;
    return fits ? ORU_STATUS_OK : ORU_STATUS_BAD_PARAM;
}

// Refuses payloads that their handler could not read or write in full. A missing payload is the handler's to refuse.
oru_status_t checkSyncPayload(const ClientFunction &function, const oruZb_msgData_t &msg) {
    if (msg.msg_data_ptr == nullptr) {
        return ORU_STATUS_OK;
    }
    switch (function.payload) {
    case Payload::binding:
        return checkBinding(msg, function.least_payload);
    case Payload::text:
        return checkCountryCode(msg);
    case Payload::none:
    case Payload::record:
    case Payload::records:
    case Payload::value:
    case Payload::answer:
        break;
    }
    return msg.msg_data_len >= function.least_payload ? ORU_STATUS_OK : ORU_STATUS_DATA_LEN_INVALID;
}

// --------------------------------------------------------------------------------------------------------- routing
typedef oru_status_t (*Handler)(oruZb_msgData_t &msg);

struct Route {
    oruZb_msgType_t type;
    Handler handle;
};

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

constexpr bool isComplete() {
    int32_t expected = ORU_ZB_SVC_INTERNAL_DEVICE_ANNOUNCE;
    return std::ranges::all_of(internal_routes, [&](const Route &route) { return route.type == expected++; }) &&
           expected == ORU_ZB_SVC_INTERNAL_NETWORK_LEAVE + 1;
}
static_assert(isComplete(), "ascending, without a gap");

// Null when the message has none.
Handler findInternalHandler(oruZb_msgType_t type) {
    const auto route = std::ranges::find(internal_routes, type, &Route::type);
    return route != internal_routes.end() ? route->handle : nullptr;
}

// A function with a handler, if it is of the kind that was called.
const ClientFunction *findHandled(oruZb_msgType_t type, bool (*is_kind)(uint16_t)) {
    const ClientFunction *const function = findClientFunction(type);
    const bool handled = function != nullptr && function->handle != nullptr;
    return handled && is_kind(static_cast<uint16_t>(type)) ? function : nullptr;
}

bool isRefusedByInterpan(const oruZb_msgData_t &msg) {
    return adapter_state.load() == ORU_ZB_ADAPTER_INTERPAN_IN_PROGRESS && oruZb_isNetworkMsg(msg.msg_type);
}

oru_status_t runSyncHandler(oruZb_msgData_t &msg) {
    const ClientFunction *const function = findHandled(msg.msg_type, isValidSyncFunc);
    if (function == nullptr) {
        return ORU_STATUS_NOT_SUPPORTED;
    }
    const oru_status_t status = checkSyncPayload(*function, msg);
    return status == ORU_STATUS_OK ? function->handle(msg) : status;
}

// An asynchronous client call or an internal message.
oru_status_t runHandler(oruZb_msgData_t &msg) {
    if (isRefusedByInterpan(msg)) {
        oruZb_asyncCallResultCallback(ORU_STATUS_BUSY, msg.callback_client_id, msg.callback_id);
        ZB_LOG_WARN("%s: Unable to handle async message:Interpan currently in progress", ZB_SVC);
        return ORU_STATUS_OK;
    }
    ZB_LOG_INFO("%s: %s(): process message type 0x%x.", ZB_SVC, HANDLE_EVENT, msg.msg_type);
    const ClientFunction *const function = findHandled(msg.msg_type, isValidAsyncFunc);
    const Handler handle = function != nullptr ? function->handle : findInternalHandler(msg.msg_type);
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
