// SPDX-License-Identifier: Apache-2.0
#pragma once
#include "oru_status.h"
#include <cstdint>

typedef int32_t oruOipc_Handler_t;     // the framework's handle of a service; 0 or negative = none
typedef uint16_t oruOipc_nodeId_t;     // client id
typedef uint16_t oruOipc_functionId_t; // function and callback ids
typedef uint16_t oruOipc_eventId_t;
typedef uint32_t oruOipc_size_t;

enum : uint32_t { ORU_OIPC_UUID_ZIGBEE = 2 };

enum oruOipc_dataType_t : int32_t {
    ORU_OIPC_FUNCTION_SYNC = 0,
    ORU_OIPC_FUNCTION_ASYNC = 1,
    ORU_OIPC_FUNCTION_CALLBACK = 2,
    ORU_OIPC_EVENT_UNICAST = 3,
    ORU_OIPC_EVENT_BROADCAST = 4,
    ORU_OIPC_EVENT_MULTICAST = 5,
    ORU_OIPC_INVALID_TYPE = 6,
};
enum oruOipc_media_t : int32_t { ORU_OIPC_SHARED_MEMORY = 0 };
enum oruOipc_threadOption_t : int32_t { ORU_OIPC_THREAD_BLOCKING = 0, ORU_OIPC_THREAD_NONBLOCKING = 1 };
enum oruOipc_callbackType_t : int32_t { ORU_OIPC_CALLBACK_ID = 0 };

enum : oruOipc_eventId_t { // event_id of an ORU_OIPC_EVENT_UNICAST call record
    ORU_OIPC_EVENT_CLIENT_CONNECTED = 0xFFFB,
    ORU_OIPC_EVENT_CLIENT_DISCONNECTED = 0xFFFC,
};

struct oruOipc_parameter_t { // one client call or connection event
    oruOipc_nodeId_t client_id;
    oruOipc_dataType_t type;
    oruOipc_functionId_t function_id;
    oruOipc_eventId_t event_id;
    oruOipc_size_t *data_length; // payload length in bytes
    uint32_t *status;            // result returned to the caller of a synchronous call
    void *buffer;                // payload, read and written in place
    oruOipc_functionId_t callback_id;
};

typedef oru_status_t (*oruOipc_serviceHandler_t)(oruOipc_parameter_t *task);

struct oruOipc_serverConfig_t {
    uint32_t service_uuid;
    oruOipc_serviceHandler_t service_handler;
    oruOipc_size_t max_payload_size;
    uint32_t max_client_count;
    oruOipc_threadOption_t thread_option;
    // everything below stays zero = framework default
    int32_t role;
    oruOipc_media_t ipc_media;
    int32_t priority;
    uint32_t api_version_min;
    uint32_t api_version_max;
    void *callback_context;
    uint32_t flags;
    const char *service_name;
    void *reg_info;
    uint8_t through_proxy;
    uint8_t single_thread;
    uint8_t thread_pool;
    uint8_t reserved;
    uint32_t thread_pool_size;
    uint32_t sharefd_max;
};

struct oruOipc_callbackParams_t {
    oruOipc_callbackType_t callback_type;
    oruOipc_functionId_t callback_id;
    const void *parameters;
    oruOipc_size_t parameter_length;
};

struct oruOipc_eventParams_t {
    oruOipc_eventId_t event_id;
    const void *payload;
    oruOipc_size_t length;
};

extern "C" {
oru_status_t oruOipc_start(oruOipc_Handler_t *handle, const oruOipc_serverConfig_t *config);
oru_status_t oruOipc_stop(oruOipc_Handler_t *handle);
oru_status_t oruOipc_callback(oruOipc_Handler_t handle, oruOipc_nodeId_t client,
                              const oruOipc_callbackParams_t *callback);
oru_status_t oruOipc_publishEvent(oruOipc_Handler_t handle, const oruOipc_eventParams_t *event);
}
