// SPDX-License-Identifier: Apache-2.0
//
// The platform that service tests link instead of the real one: virtual clock, scripted radio, captured log, IPC
// without sockets, a key-value store in memory. Pools, mutexes and semaphores are the real ones. Every operation, real
// or not, counts in testplat::faults, so that a test can make the Nth call fail.
#pragma once
#include "oru_kvs.h"
#include "oru_log.h"
#include "oru_oipc.h"
#include "oru_time.h"
#include "oru_zbhal.h"
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <vector>

namespace testplat {

// ---- faults: "fail call number N", once or from there on
namespace faults {
void off();
void arm(uint64_t nth, bool persistent); // counting starts now
bool fired();                            // since arm()
std::string firedAt();                   // name of the operation that failed first
bool hit(const char *operation);         // true: this call has to fail
} // namespace faults

// ---- time
namespace time {
uint64_t nowMs();
void advance(uint64_t ms); // fires due timers in order, on this thread, the clock standing at their due time
uint64_t untilNext();      // ms to the next expiry; UINT64_MAX when none is armed
size_t live();             // timers that exist
} // namespace time

// ---- log
namespace log {
std::vector<std::string> lines();
void clear();
size_t count(const std::string &part); // lines that contain part
bool has(const std::string &part);
extern bool echo;                                            // also to standard error
extern std::function<void(const std::string &line)> on_line; // runs in the thread that logs, without a lock
} // namespace log

// ---- IPC
struct Event {
    uint16_t id;
    std::vector<uint8_t> payload;
};
struct Callback {
    uint16_t client;
    uint16_t id;
    std::vector<uint8_t> payload;
    int32_t status() const; // of a 4-byte callback; INT32_MIN otherwise
};
namespace ipc {
std::vector<Event> events();
std::vector<uint16_t> eventIds();
std::vector<Callback> callbacks();
void clear();
// Call the service's handler on this thread, as the framework does.
struct Result {
    oru_status_t returned;
    uint32_t status;
    std::vector<uint8_t> payload;
};
Result sync(uint16_t function, std::vector<uint8_t> payload, uint16_t client = 1);
Result async(uint16_t function, std::vector<uint8_t> payload, uint16_t client = 1, uint16_t callback = 0x201);
// The client goes away: the service's handler is told, and from then on no callback reaches it.
void disconnect(uint16_t client);
} // namespace ipc

// ---- key-value store
namespace kvs {
std::map<std::string, std::vector<uint8_t>> &content();
void fail(bool on);         // every operation fails, until told otherwise
void failReading(int from); // that get, counted from 1, and later ones (0: the listing too) say "try again"; -1: off
std::set<std::string> outdated(); // keys whose last change failed, whatever the reason
} // namespace kvs

// ---- radio (a library of its own, so that the virtual mesh can take its place)
struct Sent { // one accepted send, in order
    enum Kind { zcl, zdo, interpan } kind;
    uint16_t destination;
    oruZbHal_apsFrame_t aps;
    std::vector<uint8_t> frame;
    uint32_t request_id;
    oruZbHal_commandSentCallback_t confirm;
    oruZbHal_interpanSentCallback_t interpan_confirm;
    bool confirmed;
};
namespace hal {
void reset();
std::vector<std::string> calls(); // "operation(arguments)" in order
size_t count(const std::string &prefix);
void clearCalls();
void setResult(const std::string &operation, oru_status_t status); // from now on
void useDescriptor(bool on);                                       // blocking mode: init stores a pipe end
int descriptorReadEnd();
std::vector<Sent> &sent();
void confirm(size_t index, int32_t status = 0); // sent()[index]
void confirmAll(int32_t status = 0);
// Incoming frames and reports, delivered at once in this thread.
bool incoming(uint16_t source, uint16_t profile, uint16_t cluster, std::vector<uint8_t> frame, uint8_t src_ep = 0,
              uint8_t dst_ep = 0);
void stackStatus(int32_t status);
void trustCenter(uint16_t node_id, const uint8_t *eui64_msb, int32_t update);
extern oruZbHal_networkParameters_t network;
extern oruZbHal_adapterInfo_t adapter;
extern oruZbHal_counters_t counters;
extern std::vector<uint8_t> firmware;
extern std::vector<oruZbHal_childTableEntry_t> children;
extern std::vector<oruZbHal_keyStruct_t> keys;
extern std::function<void(Sent &)> on_send; // runs inside the send, before it returns
extern std::function<void()> on_process;    // runs inside every processAction
} // namespace hal

// Nothing is recorded and nothing allocated: for measuring what the service itself does.
extern std::atomic<bool> quiet;
extern std::atomic<uint64_t> quiet_events; // events and callbacks that went out meanwhile
void quietConfirm();                       // confirms the last ZCL or ZDO send with success

void resetAll();

} // namespace testplat
