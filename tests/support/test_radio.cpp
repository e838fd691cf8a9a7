// SPDX-License-Identifier: Apache-2.0
// The scripted radio of the test platform.
#include "test_platform.h"
#include <algorithm>
#include <array>
#include <cstdarg>
#include <cstdio>
#include <numeric>
#include <span>
#include <sstream>
#include <unistd.h>

namespace testplat::hal {
namespace {
std::mutex mutex;
std::vector<std::string> call_log;
std::map<std::string, oru_status_t> results;
std::vector<Sent> sends;
const oruZbHal_callbacks_t *table = nullptr;
bool descriptor_mode = false;
int pipe_ends[2] = {-1, -1};
uint8_t aps_counter = 0;

// The last send of quiet times.
struct QuietSend {
    uint16_t destination;
    oruZbHal_apsFrame_t aps;
    uint32_t request_id;
    oruZbHal_commandSentCallback_t confirm;
} quiet_send{};

oru_status_t sendQuietly(uint16_t destination, const oruZbHal_apsFrame_t &aps, uint32_t request_id,
                         oruZbHal_commandSentCallback_t confirm) {
    quiet_send = {destination, aps, request_id, confirm};
    return 0;
}

// Logs the call and says how it ends.
__attribute__((format(printf, 2, 3))) oru_status_t called(const char *operation, const char *format, ...) {
    if (quiet) {
        return 0;
    }
    char arguments[256];
    va_list list;
    va_start(list, format);
    vsnprintf(arguments, sizeof arguments, format, list);
    va_end(list);
    const std::lock_guard lock(mutex);
    call_log.push_back(std::string(operation) + "(" + arguments + ")");
    if (faults::hit(operation)) {
        return ORU_STATUS_GENERAL_ERROR;
    }
    const auto found = results.find(operation);
    return found == results.end() ? 0 : found->second;
}

template <typename T>
oru_status_t table_of(const char *name, const std::vector<T> &from, T *entries, uint8_t *count) {
    const oru_status_t status = called(name, "%d", *count);
    if (status == 0) {
        *count = static_cast<uint8_t>(std::min<size_t>(*count, from.size()));
        std::copy_n(from.begin(), *count, entries);
    }
    return status;
}
template <typename T>
oru_status_t given(const char *name, const T &from, T *to) {
    const oru_status_t status = called(name, " ");
    if (status == 0) {
        *to = from;
    }
    return status;
}
} // namespace

oruZbHal_networkParameters_t network{};
oruZbHal_adapterInfo_t adapter{};
oruZbHal_counters_t counters{};
std::vector<uint8_t> firmware;
std::vector<oruZbHal_childTableEntry_t> children;
std::vector<oruZbHal_keyStruct_t> keys;
std::function<void(Sent &)> on_send;
std::function<void()> on_process;

void reset() {
    const std::lock_guard lock(mutex);
    call_log.clear();
    results.clear();
    sends.clear();
    table = nullptr;
    descriptor_mode = false;
    aps_counter = 0;
    network = {};
    adapter = {};
    counters = {};
    firmware = {5, 1, 2, 0};
    children.clear();
    keys.clear();
    on_send = nullptr;
    on_process = nullptr;
}
std::vector<std::string> calls() {
    const std::lock_guard lock(mutex);
    return call_log;
}
size_t count(const std::string &prefix) {
    const std::lock_guard lock(mutex);
    return static_cast<size_t>(
        std::count_if(call_log.begin(), call_log.end(), [&](const std::string &c) { return c.rfind(prefix, 0) == 0; }));
}
void clearCalls() {
    const std::lock_guard lock(mutex);
    call_log.clear();
}
void setResult(const std::string &operation, oru_status_t status) {
    const std::lock_guard lock(mutex);
    results[operation] = status;
}
void useDescriptor(bool on) {
    descriptor_mode = on;
    if (on && pipe_ends[0] < 0 && pipe(pipe_ends) != 0) {
        abort();
    }
}
int descriptorReadEnd() {
    return pipe_ends[0];
}
std::vector<Sent> &sent() {
    return sends;
}

void confirm(size_t index, int32_t status) {
    Sent s;
    {
        const std::lock_guard lock(mutex);
        sends.at(index).confirmed = true;
        s = sends.at(index);
    }
    if (s.kind == Sent::interpan) {
        s.interpan_confirm(status);
        return;
    }
    s.confirm(s.destination == 0xFFFF ? ORU_ZB_HAL_OUTGOING_BROADCAST : ORU_ZB_HAL_OUTGOING_DIRECT, s.destination,
              &s.aps, static_cast<uint16_t>(s.frame.size()), s.frame.data(),
              static_cast<oruZbHal_clusterCommandStatus_t>(status), s.request_id);
}
void confirmAll(int32_t status) {
    for (size_t i = 0; i < sends.size(); ++i) {
        if (!sends[i].confirmed) {
            confirm(i, status);
        }
    }
}
bool incoming(uint16_t source, uint16_t profile, uint16_t cluster, std::vector<uint8_t> frame, uint8_t src_ep,
              uint8_t dst_ep) {
    oruZbHal_apsFrame_t aps{};
    aps.profile_id = profile;
    aps.cluster_id = cluster;
    aps.source_endpoint = src_ep;
    aps.destination_endpoint = dst_ep;
    aps.sequence = 77;
    oruZbHal_incomingMessage_t msg{};
    msg.aps_frame = &aps;
    msg.message = frame.data();
    msg.msg_len = static_cast<uint16_t>(frame.size());
    msg.source = source;
    return table->incoming_message_callback(&msg);
}
void stackStatus(int32_t status) {
    table->stack_status_callback(static_cast<oruZbHal_stackStatus_t>(status));
}
void trustCenter(uint16_t node_id, const uint8_t *eui64_msb, int32_t update) {
    std::array<uint8_t, 8> lsb{};
    std::reverse_copy(eui64_msb, eui64_msb + 8, lsb.begin());
    table->trust_center_callback(node_id, lsb.data(), 0, static_cast<oruZbHal_deviceUpdate_t>(update),
                                 ORU_ZB_HAL_NO_ACTION);
}
} // namespace testplat::hal

void testplat::quietConfirm() {
    uint8_t frame[3] = {};
    hal::quiet_send.confirm(ORU_ZB_HAL_OUTGOING_DIRECT, hal::quiet_send.destination, &hal::quiet_send.aps, 3, frame,
                            ORU_ZB_HAL_SUCCESS, hal::quiet_send.request_id);
}

using namespace testplat;
using namespace testplat::hal;

#define CALLED_ONLY(operation)                                                                                         \
    oru_status_t oruZbHal_##operation(void) {                                                                          \
        return called(#operation, " ");                                                                                \
    }

extern "C" {
CALLED_ONLY(enable)
CALLED_ONLY(disable)
CALLED_ONLY(reset)
CALLED_ONLY(factoryReset)
CALLED_ONLY(leaveNetwork)
CALLED_ONLY(clearTransientLinkKeys)
oru_status_t oruZbHal_init(oruZbHal_callbacks_t *callback_table, int32_t *event_descriptor) {
    table = callback_table;
    const oru_status_t status = called("init", " ");
    if (status == 0 && descriptor_mode) {
        *event_descriptor = pipe_ends[1];
    }
    return status;
}
oru_status_t oruZbHal_setAdapterName(char *device) {
    return called("setAdapterName", "%s", device);
}
oru_status_t oruZbHal_processAction(void) {
    if (on_process) {
        on_process();
    }
    return 0;
}
oru_status_t oruZbHal_runEvents(uint32_t) {
    return 0;
}
oru_status_t oruZbHal_echo(uint32_t count) {
    return called("echo", "%u", count);
}
oru_status_t oruZbHal_formNetworkAuto(uint8_t mode, uint32_t primary, uint32_t secondary, uint8_t final_channel,
                                      oruZbHal_region_t region) {
    return called("formNetworkAuto", "%u,0x%x,0x%x,%u,%d", mode, primary, secondary, final_channel, region);
}
oru_status_t oruZbHal_addEndpoint(uint8_t endpoint, uint16_t profile_id, uint16_t device_id, uint8_t version,
                                  uint8_t inputs, uint8_t outputs, const uint16_t *input_list,
                                  const uint16_t *output_list) {
    const auto text = [](const uint16_t *list, uint8_t count) {
        std::ostringstream out;
        for (const uint16_t id : std::span(list, count)) {
            out << ' ' << std::hex << id;
        }
        return out.str();
    };
    return called("addEndpoint", "%u,0x%x,%u,%u,%u:%s,%u:%s", endpoint, profile_id, device_id, version, inputs,
                  text(input_list, inputs).c_str(), outputs, text(output_list, outputs).c_str());
}
oru_status_t oruZbHal_getNetworkInfo(oruZbHal_networkParameters_t *params) {
    return given("getNetworkInfo", hal::network, params);
}
oru_status_t oruZbHal_setRadioPower(int8_t power) {
    return called("setRadioPower", "%d", power);
}
oru_status_t oruZbHal_setRegion(oruZbHal_region_t region) {
    return called("setRegion", "%d", region);
}
oru_status_t oruZbHal_permitJoinNetwork(bool allow) {
    return called("permitJoinNetwork", "%d", allow);
}
oru_status_t oruZbHal_permitJoinZts(bool enable) {
    return called("permitJoinZts", "%d", enable);
}
oru_status_t oruZbHal_addInstallCode(uint8_t *eui64, uint8_t *, uint8_t length) {
    return called("addInstallCode", "%02x..%02x,%u", eui64[0], eui64[7], length);
}
oru_status_t oruZbHal_getKeyTableEntry(uint8_t index, oruZbHal_keyStruct_t *entry) {
    const oru_status_t status = called("getKeyTableEntry", "%u", index);
    if (status == 0 && index < keys.size()) {
        *entry = keys[index];
    }
    return status != 0 || index < keys.size() ? status : ORU_STATUS_NOT_FOUND;
}
oru_status_t oruZbHal_getKey(oruZbHal_keyType_t type, oruZbHal_keyStruct_t *key) {
    const oru_status_t status = called("getKey", "%d", type);
    if (status == 0) {
        std::iota(key->key.contents, key->key.contents + 16, uint8_t{0x4B});
    }
    return status;
}
oru_status_t oruZbHal_sendZclUnicast(oruZbHal_nodeId_t node_id, oruZbHal_apsFrame_t *aps, uint8_t *payload,
                                     uint16_t len, oruZbHal_commandSentCallback_t callback, uint32_t *request_id) {
    if (quiet) {
        return sendQuietly(node_id, *aps, *request_id, callback);
    }
    const oru_status_t status = called("sendZclUnicast", "0x%04x,0x%04x,%u", node_id, aps->cluster_id, len);
    if (status == 0) {
        aps->sequence = ++aps_counter;
        Sent s{Sent::zcl, node_id, *aps, {payload, payload + len}, *request_id, callback, nullptr, false};
        sends.push_back(s);
        if (on_send) {
            on_send(sends.back());
        }
    }
    return status;
}
oru_status_t oruZbHal_sendZdoMessage(oruZbHal_nodeId_t node_id, oruZbHal_apsFrame_t *aps, uint8_t *frame, uint16_t len,
                                     oruZbHal_commandSentCallback_t callback, uint32_t request_id) {
    if (quiet) {
        return sendQuietly(node_id, *aps, request_id, callback);
    }
    const oru_status_t status = called("sendZdoMessage", "0x%04x,0x%04x,%u", node_id, aps->cluster_id, len);
    if (status == 0) {
        sends.push_back({Sent::zdo, node_id, *aps, {frame, frame + len}, request_id, callback, nullptr, false});
    }
    return status;
}
oru_status_t oruZbHal_sendRawInterpanMessageOnChannels(uint32_t mask, oruZbHal_interpanHeader_t *header, uint8_t *zcl,
                                                       uint8_t len, oruZbHal_interpanSentCallback_t callback) {
    const oru_status_t status = called("sendRawInterpan", "0x%x,0x%04x,%u", mask, header->pan_id, len);
    if (status == 0) {
        sends.push_back({Sent::interpan, header->short_address, {}, {zcl, zcl + len}, 0, nullptr, callback, false});
    }
    return status;
}
oru_status_t oruZbHal_getFwVersion(uint8_t *version, uint8_t *size) {
    const oru_status_t status = called("getFwVersion", "%u", *size);
    if (status == 0) {
        *size = static_cast<uint8_t>(std::min<size_t>(*size, firmware.size()));
        std::copy_n(firmware.begin(), *size, version);
    }
    return status;
}
oru_status_t oruZbHal_getAdapterInfo(oruZbHal_adapterInfo_t *info) {
    return given("getAdapterInfo", hal::adapter, info);
}
oru_status_t oruZbHal_startScan(uint8_t type, uint32_t mask, uint8_t duration) {
    return called("startScan", "%u,0x%x,%u", type, mask, duration);
}
oru_status_t oruZbHal_getChildren(oruZbHal_childTableEntry_t *entries, uint8_t *size) {
    return table_of("getChildren", hal::children, entries, size);
}
oru_status_t oruZbHal_getRouteTableEntries(oruZbHal_routeTableEntry_t *entries, uint8_t *size) {
    return table_of("getRouteTableEntries", {}, entries, size);
}
oru_status_t oruZbHal_getNeighbors(oruZbHal_neighborTableEntry_t *entries, uint8_t *size) {
    return table_of("getNeighbors", {}, entries, size);
}
oru_status_t oruZbHal_getDebugCounters(oruZbHal_counters_t *out) {
    *out = hal::counters;
    return called("getDebugCounters", " ");
}
oru_status_t oruZbHal_getAndClearDebugCounters(oruZbHal_counters_t *out) {
    *out = hal::counters;
    hal::counters = {};
    return called("getAndClearDebugCounters", " ");
}
} // extern "C"
