// SPDX-License-Identifier: Apache-2.0
//
// IPC server: client calls become queued messages; results, callbacks and events go back.
//
//   client --sync call---> IPC thread: item -> queue -> wait ------------------------> result in place
//                                                main thread: handler, *status, post --^
//   client --async call--> IPC thread: item with a copy of the payload -> queue -> 0 (taken over)
//                                                main thread: handler -> oruZb_oipcCallback -> client
//
// Ping and the adapter-state query are answered on the IPC thread; they work from the first moment to the last.
// Calls that come before the queue exists get ORU_STATUS_OUT_OF_MEMORY, calls during shut-down ORU_STATUS_CANCELED.
#pragma once
#include "zb_reply.h"
#include "zb_types.h"

extern oruSemaphore_t sync_call_sem; // posted by the main thread once per completed synchronous call

// Registers the service with the framework (service id ORU_OIPC_UUID_ZIGBEE, 10 clients, 4096-byte payloads). Calls may
// arrive before it returns. Main thread. Ends the process with status 1 on failure.
void oruZb_serverInit();
// Releases synchronous callers that still wait, then stops the framework, which waits for its threads. Main thread.
void oruZb_serverDeInit();

// Entry of the framework, on its threads, several at a time. task and what it points to belong to the framework and
// stay valid until the return. The result is the call's, which synchronous calls also find in *task->status:
//   ORU_STATUS_NULL_POINTER         missing record, status, or (synchronous) buffer or length
//   ORU_STATUS_BAD_PARAM            function id out of range
//   ORU_STATUS_DATA_LEN_INVALID     payload shorter than the function's record
//   ORU_STATUS_OUT_OF_MEMORY        no message item free
//   ORU_STATUS_CANCELED             the service stops
//   ORU_STATUS_BUSY                 synchronous: an inter-PAN exchange owns the radio
//   anything else                   the handler's
oru_status_t oruZb_oipcServiceHandler(oruOipc_parameter_t *task);
oru_status_t oruZb_syncOipcHandler(oruOipc_parameter_t *task);
oru_status_t oruZb_asyncOipcHandler(oruOipc_parameter_t *task); // 0: taken over, the result follows as a callback
// Runs a synchronous call on the main thread and waits for it, without a time limit. One at a time: callers queue up
// in front of the one semaphore, so that a post can only release the caller it was made for.
oru_status_t oruZb_sendServerMsg(oruOipc_parameter_t *task);
// Gives msg its own copy of size bytes in a block of mp_zb_var_handle. ORU_STATUS_NULL_POINTER for a null argument,
// size 0 or an exhausted pool.
oru_status_t oruZb_copyAsncMsgDataBuffer(oruZb_msgData_t *msg, const void *data, uint32_t size);
