// SPDX-License-Identifier: Apache-2.0
//
// The client functions, one row each: what the server may take over, what dispatch refuses, who handles it.
#pragma once
#include "zb_types.h"
#include <span>

enum class Payload {
    none,    // not looked at
    record,  // one record in place, or more bytes
    records, // a head of the least length, then as many entries as fit
    text,    // ends with a zero byte within its length
    binding, // a node id, then a body of at most 255 bytes: its length travels on as 8 bits
    value,   // a number that travels in the message itself, or nothing
    answer   // nothing; the callback brings a record
};

struct ClientFunction {
    oruZb_msgType_t id;
    const char *name; // of the id, without its prefix
    Payload payload;
    uint32_t least_payload;                       // bytes; binds an asynchronous function only when there are any
    bool needs_network;                           // refused while an inter-PAN exchange owns the radio
    oru_status_t (*handle)(oruZb_msgData_t &msg); // main thread; null: answered on the IPC thread, or not supported
};

std::span<const ClientFunction> clientFunctions();    // ascending by id; any thread
const ClientFunction *findClientFunction(int32_t id); // null when there is none; any thread

// Smallest legal payload of a client function in bytes; 0 when its handler works from the length or needs none. Of
// asynchronous functions it binds only a payload that is given. Any thread.
uint32_t oruZb_minPayloadLen(uint16_t function_id);
// Client messages that need the network and are refused while an inter-PAN exchange owns the radio.
bool oruZb_isNetworkMsg(oruZb_msgType_t msg_type);
