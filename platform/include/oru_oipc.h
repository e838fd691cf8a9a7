// SPDX-License-Identifier: Apache-2.0
//
// The IPC framework: one server per process that other processes of the same machine call. Function, callback and event
// ids and the payloads are the service's; the framework carries them. The protocol that clients speak is described in
// docs/ipc.md.
//
// A call runs on the thread of its client, so calls of different clients run at the same time and those of one client
// one after the other. The framework blocks all signals in its threads and holds none of its locks while a handler
// runs. Nothing here waits for a client to read: what the socket does not take is queued (257 KiB for each client), and
// a client whose queue is full is disconnected. What is sent to one client arrives in the order of the calls; all
// clients see events in the same order.
#pragma once
#include "oru_status.h"
#include <cstdint>

typedef int32_t oruOipc_Handler_t;     // the framework's handle of a service, never used twice; 0 or negative = none
typedef uint16_t oruOipc_nodeId_t;     // client id, 1 to 0xFFFE, not used again while its client is connected
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

// One client call or connection event. The record, `*data_length`, `*status` and `*buffer` belong to the framework and
// are valid until the handler returns, also when the client disconnects meanwhile. None of the three pointers is null.
struct oruOipc_parameter_t {
    oruOipc_nodeId_t client_id;
    oruOipc_dataType_t type;          // ORU_OIPC_FUNCTION_SYNC, ORU_OIPC_FUNCTION_ASYNC or ORU_OIPC_EVENT_UNICAST
    oruOipc_functionId_t function_id; // of a call; not checked by the framework
    oruOipc_eventId_t event_id;       // of a connection event
    // Payload length in bytes, 0 to the server's max_payload_size. As many bytes of the buffer go back to the caller of
    // a synchronous call; a handler may lower it.
    oruOipc_size_t *data_length;
    // Result for the caller, 0 before the call. Used when the handler returns 0; a result other than 0 wins.
    uint32_t *status;
    // Payload, read and written in place: max_payload_size bytes, 8-byte aligned, zero behind the client's bytes.
    void *buffer;
    oruOipc_functionId_t callback_id; // of an asynchronous call: where its result is to go, see oruOipc_callback
};

// Called for every call of a client and, with type ORU_OIPC_EVENT_UNICAST, when a client has connected (before its
// first call) and disconnected (after its last call has returned); the result of such an event is ignored. Runs on the
// client's thread, several at the same time. May call oruOipc_callback and oruOipc_publishEvent, not oruOipc_stop.
typedef oru_status_t (*oruOipc_serviceHandler_t)(oruOipc_parameter_t *task);

struct oruOipc_serverConfig_t {
    uint32_t service_uuid; // told to clients in the greeting, at most 0xFFFF
    oruOipc_serviceHandler_t service_handler;
    oruOipc_size_t max_payload_size; // bytes, at most 4096 (the protocol's limit); 0: 4096
    // At most 64; 0: 10. Further clients are refused, the handler is not asked. Unless it is 1, the last place is for
    // root and the process's own user.
    uint32_t max_client_count;
    oruOipc_threadOption_t thread_option; // ORU_OIPC_THREAD_NONBLOCKING
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
// Creates the socket `corvane.sock` in the configured runtime directory and serves it; returns when the threads run.
// Calls may arrive before it returns. A socket file left by a process that has ended is replaced, and one that is
// deleted while the server runs is made again within a second or two. Clients are admitted when their user, as the
// kernel reports it, is root, the process's own or a configured one, or when their process is a member of a configured
// group. The socket has the configured mode, or 0666 when users or groups other than the process's own are configured.
//
//   handle   receives the server's handle, only on success
//   config   copied
//
// ORU_STATUS_OK
// ORU_STATUS_NULL_POINTER         an argument or the handler is null
// ORU_STATUS_NOT_SUPPORTED        a thread option other than ORU_OIPC_THREAD_NONBLOCKING
// ORU_STATUS_PARAM_OUT_OF_RANGE   a limit or the uuid is too large, or the socket's path too long for an address
// ORU_STATUS_ALREADY_INITIALIZED  a server of this process runs
// ORU_STATUS_ALREADY_EXISTS       another process serves the socket, or its path is something other than a socket
// ORU_STATUS_NOT_FOUND            the runtime directory does not exist
// ORU_STATUS_BUSY                 another process is starting in the same directory at this moment
// ORU_STATUS_OUT_OF_MEMORY
// ORU_STATUS_GENERAL_ERROR        the system refused; the log says what
oru_status_t oruOipc_start(oruOipc_Handler_t *handle, const oruOipc_serverConfig_t *config);

// Takes no new client and no new call, waits until every handler call has come back and all threads have ended, removes
// the socket unless another process has replaced it, and sets the handle to 0. Results of the calls that were under way
// are still sent. The caller sees to it that no handler waits for ever. Not from a handler.
//
// ORU_STATUS_OK
// ORU_STATUS_NULL_POINTER   handle is null
// ORU_STATUS_UNINITIALIZED  not a handle of a running server
oru_status_t oruOipc_stop(oruOipc_Handler_t *handle);

// Sends the result of an asynchronous call. The payload is copied before it returns. Any thread, never waits; also
// while a call of the same client is under way.
//
//   callback  callback_type ORU_OIPC_CALLBACK_ID, the id that came with the call, and 0 to max_payload_size bytes
//             (parameters may be null when there are none)
//
// ORU_STATUS_OK               handed to the socket or queued; the client may still go away without reading it
// ORU_STATUS_NULL_POINTER     callback is null, or parameters with a length
// ORU_STATUS_BAD_PARAM        another callback type
// ORU_STATUS_DATA_LEN_INVALID parameters longer than max_payload_size
// ORU_STATUS_NOT_FOUND        no such client is connected
// ORU_STATUS_BUSY             the client does not read and was disconnected by this call
// ORU_STATUS_UNINITIALIZED    not a handle of a running server
oru_status_t oruOipc_callback(oruOipc_Handler_t handle, oruOipc_nodeId_t client,
                              const oruOipc_callbackParams_t *callback);

// Sends an event to every connected client, none included. The payload is copied before it returns. Any thread, never
// waits. A client that does not read loses its connection; the others are not affected and the result stays 0.
//
// ORU_STATUS_OK
// ORU_STATUS_NULL_POINTER     event is null, or payload with a length
// ORU_STATUS_DATA_LEN_INVALID payload longer than max_payload_size
// ORU_STATUS_UNINITIALIZED    not a handle of a running server
oru_status_t oruOipc_publishEvent(oruOipc_Handler_t handle, const oruOipc_eventParams_t *event);
}
