// SPDX-License-Identifier: Apache-2.0
#include "zb_reply.h"

oruOipc_Handler_t shmem_server_hdl;

oru_status_t oruZb_oipcCallback(uint16_t client_id, uint16_t callback_id, const void *data, uint32_t len) {
    if (callback_id == ORU_ZB_NO_CALLBACK) {
        ZB_LOG_WARN("%s: %s() Ignore Invalid callback func id %d, %d", ZB_SVC, __func__, client_id, callback_id);
        return ORU_STATUS_CANCELED;
    }
    oruOipc_callbackParams_t callback{};
    callback.callback_type = ORU_OIPC_CALLBACK_ID;
    callback.callback_id = callback_id;
    callback.parameters = data;
    callback.parameter_length = len;
    ZB_LOG_INFO("%s: call oipc server to client %d using callback 0x%x", ZB_SVC, client_id, callback_id);
    const oru_status_t status = oruOipc_callback(shmem_server_hdl, client_id, &callback);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: OIPC fail, status = %d", ZB_SVC, status);
    }
    return status;
}

oru_status_t oruZb_publishEvent(uint16_t event_id, const void *data, uint32_t len) {
    const oruOipc_eventParams_t event{event_id, data, len};
    ZB_LOG_INFO("%s: Publish oipc event 0x%x", ZB_SVC, event_id);
    const oru_status_t status = oruOipc_publishEvent(shmem_server_hdl, &event);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: OIPC fail, status = %d", ZB_SVC, status);
    }
    return status;
}

void oruZb_asyncCallResultCallback(oru_status_t ret, oruOipc_nodeId_t client_id, oruOipc_functionId_t callback_id) {
    oruZb_oipcCallback(client_id, callback_id, &ret, sizeof ret);
}
