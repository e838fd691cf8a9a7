// SPDX-License-Identifier: Apache-2.0
//
// A synchronous caller holds an item from before it queues up for the call mutex, so that an exhausted pool answers at
// once instead of after everybody else's call. It is inside the intake gate only while it touches the item or the
// queue, never while it waits for its turn or its result: the gate could not empty otherwise.
#include "zb_server.h"
#include "zb_gate.h"
#include "zb_queue.h"
#include "zb_reply.h"
#include "zb_svc_functions.h"
#include "zb_svc_query.h"
#include <cstdlib>
#include <cstring>
#include <mutex>

oruSemaphore_t sync_call_sem;

// One synchronous call at a time between post and result. Outermost lock; the main thread never takes it.
static std::mutex sync_call_mutex;

// Names in the log of what their parts do.
static constexpr char SEND_SERVER_MSG[] = "oruZb_sendServerMsg";
static constexpr char ASYNC_HANDLER[] = "oruZb_asyncOipcHandler";

void oruZb_serverInit() {
    oruOipc_serverConfig_t config{};
    config.service_uuid = ORU_OIPC_UUID_ZIGBEE;
    config.service_handler = oruZb_oipcServiceHandler;
    config.max_payload_size = 4096;
    config.max_client_count = 10;
    config.thread_option = ORU_OIPC_THREAD_NONBLOCKING;
    oru_status_t status = oruOipc_start(&shmem_server_hdl, &config);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s: exit: failed to start OIPC service, status = %d", ZB_SVC, __func__, status);
        exit(EXIT_FAILURE);
    }
    status = oruSem_new(0, &sync_call_sem);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s: exit: failed to create sync call semaphore, status = %d", ZB_SVC, __func__, status);
        exit(EXIT_FAILURE);
    }
    ZB_LOG_INFO("%s: oruZb_start", ZB_SVC);
}

void oruZb_serverDeInit() {
    oru_status_t status = oruSem_delete(sync_call_sem);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s(): oruSem_delete failed, status:%d", ZB_SVC, __func__, status);
    }
    status = oruOipc_stop(&shmem_server_hdl);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: OIPC fail, status = %d", ZB_SVC, status);
    }
}

// ------------------------------------------------------------------------------------------------------------ entry

static oru_status_t handleConnectionEvent(const oruOipc_parameter_t *task, const char *operation) {
    switch (task->event_id) {
    case ORU_OIPC_EVENT_CLIENT_CONNECTED:
        ZB_LOG_INFO("%s: %s() Client connected id:%d", ZB_SVC, operation, task->client_id);
        return ORU_STATUS_OK;
    case ORU_OIPC_EVENT_CLIENT_DISCONNECTED:
        ZB_LOG_INFO("%s: %s() Client disconnected id:%d", ZB_SVC, operation, task->client_id);
        return ORU_STATUS_OK;
    default:
        ZB_LOG_WARN("%s: %s() unexpected event %d from client_id:%d", ZB_SVC, operation, task->event_id,
                    task->client_id);
        return ORU_STATUS_GENERAL_ERROR;
    }
}

oru_status_t oruZb_oipcServiceHandler(oruOipc_parameter_t *task) {
    if (task == nullptr) {
        ZB_LOG_ERROR("%s: Error: %s() task pointer is NULL!", ZB_SVC, __func__);
        return ORU_STATUS_NULL_POINTER;
    }
    ZB_LOG_INFO("%s: %s() type %d", ZB_SVC, __func__, task->type);
    switch (task->type) {
    case ORU_OIPC_FUNCTION_SYNC:
        return oruZb_syncOipcHandler(task);
    case ORU_OIPC_FUNCTION_ASYNC:
    case ORU_OIPC_FUNCTION_CALLBACK:
        return oruZb_asyncOipcHandler(task);
    case ORU_OIPC_EVENT_UNICAST:
        return handleConnectionEvent(task, __func__);
    case ORU_OIPC_EVENT_BROADCAST:
    case ORU_OIPC_EVENT_MULTICAST:
    case ORU_OIPC_INVALID_TYPE:
        break;
    }
    ZB_LOG_ERROR("%s: Error: %s() type %d", ZB_SVC, __func__, task->type);
    return ORU_STATUS_GENERAL_ERROR;
}

// True when the payload is known to be too short for the function's record.
static bool tooShort(const oruOipc_parameter_t *task) {
    return task->buffer != nullptr && task->data_length != nullptr &&
           *task->data_length < oruZb_minPayloadLen(task->function_id);
}

// The status of a call that the gate turned away, with its log line.
static oru_status_t refusedByGate(const char *operation) {
    if (oruZb_gateIsClosed()) {
        ZB_LOG_ERROR("%s: Error: %s() service is stopping", ZB_SVC, operation);
        return ORU_STATUS_CANCELED;
    }
    ZB_LOG_ERROR("%s: Error: %s() item oruMP_alloc/(mp_zb_msgl_handle/) failed.", ZB_SVC, operation);
    return ORU_STATUS_OUT_OF_MEMORY;
}

// ------------------------------------------------------------------------------------------------ synchronous calls

static oru_status_t answerOnIpcThread(oruOipc_parameter_t *task) {
    if (tooShort(task)) {
        return ORU_STATUS_DATA_LEN_INVALID;
    }
    if (task->function_id == ORU_ZB_SVC_PING) {
        return oruZb_doPing(static_cast<oruZb_pingResponse_t *>(task->buffer), "pong");
    }
    return oruZb_doGetAdapterState(static_cast<oruZb_adapterState_t *>(task->buffer));
}

oru_status_t oruZb_syncOipcHandler(oruOipc_parameter_t *task) {
    if (task == nullptr) {
        ZB_LOG_ERROR("%s: Error: %s() task pointer is NULL!", ZB_SVC, __func__);
        return ORU_STATUS_NULL_POINTER;
    }
    if (task->status == nullptr) {
        ZB_LOG_ERROR("%s: Error: %s() task status pointer is NULL!", ZB_SVC, __func__);
        return ORU_STATUS_NULL_POINTER;
    }
    const int function_id = task->function_id;
    if (!isValidSyncFunc(task->function_id)) {
        ZB_LOG_ERROR("%s: Error: %s() invalid sync function_id %d", ZB_SVC, __func__, function_id);
        *task->status = static_cast<uint32_t>(ORU_STATUS_BAD_PARAM);
        return ORU_STATUS_BAD_PARAM;
    }
    oru_status_t result = ORU_STATUS_OK;
    if (function_id == ORU_ZB_SVC_PING || function_id == ORU_ZB_SVC_ADAPTER_GET_STATE) {
        result = answerOnIpcThread(task);
    } else {
        result = oruZb_sendServerMsg(task);
        if (result != ORU_STATUS_OK) {
            ZB_LOG_ERROR("%s: Error: %s() sync function_id %d cannot be handled. status: %d", ZB_SVC, __func__,
                         function_id, result);
        }
    }
    *task->status = static_cast<uint32_t>(result);
    if (result != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Error: %s(): sync function_id %d returned with error.", ZB_SVC, __func__, function_id);
    }
    return result;
}

static oru_status_t checkSyncTask(const oruOipc_parameter_t *task) {
    if (task == nullptr) {
        ZB_LOG_ERROR("%s: Error: %s() task pointer is NULL!", ZB_SVC, SEND_SERVER_MSG);
    } else if (task->buffer == nullptr) {
        ZB_LOG_ERROR("%s: Error: %s() task buffer pointer is NULL!", ZB_SVC, SEND_SERVER_MSG);
    } else if (task->data_length == nullptr) {
        ZB_LOG_ERROR("%s: Error: %s() task data_length pointer is NULL!", ZB_SVC, SEND_SERVER_MSG);
    } else if (task->status == nullptr) {
        ZB_LOG_ERROR("%s: Error: %s() task status pointer is NULL!", ZB_SVC, SEND_SERVER_MSG);
    } else {
        return ORU_STATUS_OK;
    }
    return ORU_STATUS_NULL_POINTER;
}

// An item that points at the caller's own buffer and status; on failure null, with the reason in *status.
static oruZb_msgListItem_t *takeSyncItem(oruOipc_parameter_t *task, oru_status_t *status) {
    const oruZb_gatePass pass(oruZb_gatePass::For::client_call);
    if (!pass) {
        *status = refusedByGate(SEND_SERVER_MSG);
        return nullptr;
    }
    oruZb_msgListItem_t *const item = oruZb_takeMsgItem(static_cast<oruZb_msgType_t>(task->function_id));
    if (item == nullptr) {
        ZB_LOG_ERROR("%s: Error: %s() item oruMP_alloc/(mp_zb_msgl_handle/) failed.", ZB_SVC, SEND_SERVER_MSG);
        *status = ORU_STATUS_OUT_OF_MEMORY;
        return nullptr;
    }
    item->data.msg_data_ptr = task->buffer;
    item->data.msg_data_len = *task->data_length;
    item->data.sem_sync_call = &sync_call_sem;
    item->data.return_status = reinterpret_cast<oru_status_t *>(task->status);
    return item;
}

oru_status_t oruZb_sendServerMsg(oruOipc_parameter_t *task) {
    oru_status_t status = checkSyncTask(task);
    if (status != ORU_STATUS_OK) {
        return status;
    }
    oruZb_msgListItem_t *const item = takeSyncItem(task, &status);
    if (item == nullptr) {
        return status;
    }
    const std::lock_guard<std::mutex> one_call(sync_call_mutex);
    oruZb_gatePass pass(oruZb_gatePass::For::client_call);
    if (!pass) {
        oruMp_free(mp_zb_msgl_handle.load(), item); // refused by the pool when that is gone; the item is not touched
        return refusedByGate(__func__);
    }
    status = oruZb_postThreadMsg(item);
    if (status != ORU_STATUS_OK) {
        oruZb_returnMsgItem(item);
        ZB_LOG_ERROR("%s: Error: %s() cannot post msg to mainthread %d ", ZB_SVC, __func__, status);
        return status;
    }
    pass.leave();
    status = oruSem_wait(sync_call_sem);
    if (status != ORU_STATUS_OK) {
        if (oruZb_gateIsClosed()) {
            status = ORU_STATUS_CANCELED; // shut-down has deleted the semaphore, before the wait or during it
        }
        ZB_LOG_ERROR("%s: %s: oruSem_wait() failed, status: %d ", ZB_SVC, __func__, status);
        return status;
    }
    return static_cast<oru_status_t>(*task->status);
}

// ----------------------------------------------------------------------------------------------- asynchronous calls

oru_status_t oruZb_copyAsncMsgDataBuffer(oruZb_msgData_t *msg, const void *data, uint32_t size) {
    if (msg == nullptr) {
        ZB_LOG_ERROR("%s: %s(): msg data pointer is NULL!", ZB_SVC, __func__);
        return ORU_STATUS_NULL_POINTER;
    }
    if (data == nullptr || size == 0) {
        ZB_LOG_ERROR("%s: %s(): payload data ptr is NULL or size is: %d", ZB_SVC, __func__, size);
        return ORU_STATUS_NULL_POINTER;
    }
    void *const block = oruMp_allocSize(mp_zb_var_handle.load(), size);
    if (block == nullptr) {
        ZB_LOG_ERROR("%s: %s(): oruMP_allocSize failed for msg_data", ZB_SVC, __func__);
        return ORU_STATUS_NULL_POINTER;
    }
    memcpy(block, data, size);
    msg->msg_data_ptr = block;
    msg->msg_data_len = size;
    msg->param_type = ORU_ZB_SVC_PARAM_IN_POINTER_ALLOCED;
    ZB_LOG_INFO("%s: %s(): Alloc msg data pointer %p and copy data!", ZB_SVC, __func__, block);
    return ORU_STATUS_OK;
}

static bool hasPayload(const oruOipc_parameter_t *task) {
    return task->buffer != nullptr && task->data_length != nullptr && *task->data_length > 0;
}

// Gives the message what its function takes along: a copy, a value or nothing.
static oru_status_t fillAsyncPayload(oruZb_msgData_t *msg, const oruOipc_parameter_t *task) {
    switch (findClientFunction(task->function_id)->payload) {
    case Payload::record:
    case Payload::records:
    case Payload::text:
    case Payload::binding:
        return hasPayload(task) ? oruZb_copyAsncMsgDataBuffer(msg, task->buffer, *task->data_length) : ORU_STATUS_OK;
    case Payload::value:
        msg->param_type = ORU_ZB_SVC_OIPC_PARAM_IN_VALUE;
        if (hasPayload(task) && *task->data_length >= sizeof msg->msg_value32) {
            memcpy(&msg->msg_value32, task->buffer, sizeof msg->msg_value32);
        }
        return ORU_STATUS_OK;
    case Payload::answer:
        msg->param_type = ORU_ZB_SVC_OIPC_PARAM_OUT_POINTER;
        return ORU_STATUS_OK;
    case Payload::none:
        break;
    }
    ZB_LOG_WARN("%s: %s(): Unknown parameter type!", ZB_SVC, ASYNC_HANDLER);
    return ORU_STATUS_OK;
}

static oru_status_t checkAsyncTask(const oruOipc_parameter_t *task) {
    if (task == nullptr) {
        ZB_LOG_ERROR("%s: Error: %s() task pointer is NULL!", ZB_SVC, ASYNC_HANDLER);
        return ORU_STATUS_NULL_POINTER;
    }
    if (task->status == nullptr) {
        ZB_LOG_ERROR("%s: Error: %s() task status pointer is NULL!", ZB_SVC, ASYNC_HANDLER);
        return ORU_STATUS_NULL_POINTER;
    }
    if (!isValidAsyncFunc(task->function_id)) {
        ZB_LOG_ERROR("%s: Error: %s() invalid async function_id %d", ZB_SVC, ASYNC_HANDLER, task->function_id);
        *task->status = static_cast<uint32_t>(ORU_STATUS_BAD_PARAM);
        return ORU_STATUS_BAD_PARAM;
    }
    if (hasPayload(task) && tooShort(task)) {
        ZB_LOG_ERROR("%s: Error: %s() async function_id %d: payload of %u bytes is too short", ZB_SVC, ASYNC_HANDLER,
                     task->function_id, *task->data_length);
        return ORU_STATUS_DATA_LEN_INVALID;
    }
    return ORU_STATUS_OK;
}

oru_status_t oruZb_asyncOipcHandler(oruOipc_parameter_t *task) {
    oru_status_t status = checkAsyncTask(task);
    if (status != ORU_STATUS_OK) {
        return status;
    }
    const int function_id = task->function_id;
    const oruZb_gatePass pass(oruZb_gatePass::For::client_call);
    if (!pass) {
        return refusedByGate(__func__);
    }
    const PostResult result = postMessage(static_cast<oruZb_msgType_t>(function_id), [task](oruZb_msgData_t &msg) {
        msg.callback_client_id = task->client_id;
        msg.callback_id = task->callback_id;
        const oru_status_t filled = fillAsyncPayload(&msg, task);
        if (filled == ORU_STATUS_OK) {
            ZB_LOG_INFO("%s: Debug: %s() async function_id 0x%x to be posted to main loop", ZB_SVC, ASYNC_HANDLER,
                        task->function_id);
        }
        return filled;
    });
    if (result.step == PostStep::no_item) {
        ZB_LOG_ERROR("%s: item oruMP_alloc/(mp_zb_msgl_handle/) failed.", ZB_SVC);
    } else if (result.step == PostStep::not_filled) {
        ZB_LOG_ERROR("%s: Debug: %s() async function_id 0x%x Failed to be copied", ZB_SVC, __func__, function_id);
    } else if (result.step == PostStep::refused) {
        ZB_LOG_ERROR("%s: Error: %s() cannot post msg to mainthread %d ", ZB_SVC, __func__, result.status);
    }
    return result.status;
}
