// SPDX-License-Identifier: Apache-2.0
// Start and configuration: version, settings of the session, tokens.
#include "ncp.h"
#include <algorithm>

namespace corvane::coprocessor {

namespace {

constexpr uint8_t MESH_STACK = 2;
constexpr size_t MAX_ENDPOINTS = 16;
constexpr size_t MAX_VALUE = 64; // bytes
constexpr uint8_t TRUST_CENTER_POLICY = 0;
constexpr uint8_t HIGHEST_POLICY = 0x0F;
constexpr uint8_t MAX_MULTICAST_ENTRIES = 64;
constexpr uint8_t MULTICAST_TABLE = 0x06;
constexpr std::array<uint8_t, 16> UNSET_TOKEN = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF,
                                                 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

struct ConfigRow {
    uint8_t id;
    uint16_t usual;
    uint16_t highest;
    bool size; // of a table: fixed once memory has been laid out
};
constexpr auto CONFIG = std::to_array<ConfigRow>({
    {0x01, 64, 255, true}, {0x02, 16, 26, true},      {0x03, 10, 64, true},       {0x05, 8, 256, true},
    {0x06, 8, 64, true},   {0x07, 16, 254, true},     {0x0C, 2, 2, false},        {0x0D, 5, 5, false},
    {0x10, 30, 30, false}, {0x11, 32, 64, true},      {0x12, 3000, 30000, false}, {0x13, 8, 14, false},
    {0x19, 0, 4, true},    {0x1A, 32, 254, true},     {0x1C, 1, 8, false},        {0x1D, 0, 255, false},
    {0x1E, 12, 128, true}, {0x22, 2, 63, false},      {0x2A, 0, 15, false},       {0x2D, 1, 2, true},
    {0x34, 8, 16, true},   {0x36, 300, 65535, false}, {0x38, 90, 65535, false},
});
static_assert(std::ranges::is_sorted(CONFIG, {}, &ConfigRow::id));

const ConfigRow *configRow(uint8_t id) {
    const auto found = std::ranges::lower_bound(CONFIG, id, {}, &ConfigRow::id);
    return found != CONFIG.end() && found->id == id ? &*found : nullptr;
}

enum ValueId : uint8_t {
    VALUE_FREE_BUFFERS = 0x03,
    VALUE_MAX_INCOMING = 0x05,
    VALUE_MAX_OUTGOING = 0x06,
    VALUE_TOKEN_WRITING = 0x07,
    VALUE_EXTENDED_SECURITY = 0x0A,
    VALUE_NODE_ID = 0x0B,
    VALUE_VERSION_INFO = 0x11,
    VALUE_CCA_THRESHOLD = 0x15,
    VALUE_CLEAR_COUNTERS = 0x19,
    VALUE_FRAME_COUNTER = 0x23,
};
// The others are kept as they are set.
constexpr auto FREE_VALUES = std::to_array<uint8_t>({0x31, 0x32, 0x3A, 0x3F, 0x43, 0x48});

std::vector<uint8_t> number(uint32_t value, size_t width) {
    std::vector<uint8_t> bytes(width);
    base::ByteWriter(bytes).number(value, width);
    return bytes;
}

} // namespace

// Version 13 has a set of its own for these.
void Ncp::configStatus(FieldWriter &out, EzspStatus status) const {
    constexpr uint8_t NARROW_BAD_VALUE = 0x36;
    constexpr uint8_t NARROW_BAD_ID = 0x37;
    if (out.wide()) {
        out.status(status);
    } else {
        out(status == EzspStatus::ok ? uint8_t{0} : status == EzspStatus::not_found ? NARROW_BAD_ID : NARROW_BAD_VALUE);
    }
}

// The host says which version it would like and lives with the one that there is.
bool Ncp::version(FieldReader &in, FieldWriter &out) {
    uint8_t wanted = 0;
    if (!read(in, wanted)) {
        return false;
    }
    const std::vector<uint8_t> &firmware = radio_.scenario().coordinator.firmware_version;
    uint16_t stack = 0;
    for (size_t i = 0; i < 4; ++i) {
        stack = static_cast<uint16_t>(stack << 4 | (i < firmware.size() ? firmware[i] & 0x0F : 0));
    }
    out(settings_.version);
    out(MESH_STACK);
    out(stack);
    return true;
}

bool Ncp::nop(FieldReader & /*in*/, FieldWriter & /*out*/) {
    return true;
}

bool Ncp::echo(FieldReader &in, FieldWriter &out) {
    std::span<const uint8_t> bytes;
    in.counted(bytes);
    out.counted(bytes);
    return in.ok();
}

// ---- configuration values and policies

bool Ncp::setConfig(FieldReader &in, FieldWriter &out) {
    uint8_t id = 0;
    uint16_t value = 0;
    if (!read(in, id, value)) {
        return false;
    }
    const ConfigRow *const row = configRow(id);
    EzspStatus status = EzspStatus::ok;
    if (row == nullptr) {
        status = EzspStatus::not_found;
    } else if (row->size && session_.sized) {
        status = EzspStatus::invalid_state;
    } else if (value > row->highest || wire_.faults().refuse_config == id) {
        status = EzspStatus::bad_argument;
    } else {
        session_.config[id] = value;
    }
    configStatus(out, status);
    return true;
}

bool Ncp::getConfig(FieldReader &in, FieldWriter &out) {
    uint8_t id = 0;
    if (!read(in, id)) {
        return false;
    }
    const ConfigRow *const row = configRow(id);
    const auto set = session_.config.find(id);
    configStatus(out, row == nullptr ? EzspStatus::not_found : EzspStatus::ok);
    out(set != session_.config.end() ? set->second : row == nullptr ? uint16_t{0} : row->usual);
    return true;
}

bool Ncp::setPolicy(FieldReader &in, FieldWriter &out) {
    uint8_t id = 0;
    uint8_t decision = 0;
    if (!read(in, id, decision)) {
        return false;
    }
    configStatus(out, id <= HIGHEST_POLICY ? EzspStatus::ok : EzspStatus::not_found);
    if (id <= HIGHEST_POLICY) {
        session_.policy[id] = decision;
    }
    if (id == TRUST_CENTER_POLICY) {
        applyJoining();
    }
    return true;
}

bool Ncp::getPolicy(FieldReader &in, FieldWriter &out) {
    uint8_t id = 0;
    if (!read(in, id)) {
        return false;
    }
    configStatus(out, id <= HIGHEST_POLICY ? EzspStatus::ok : EzspStatus::not_found);
    const auto set = session_.policy.find(id);
    out(set == session_.policy.end() ? uint8_t{0} : set->second);
    return true;
}

// ---- values

// Empty: there is no such value.
std::vector<uint8_t> Ncp::valueOf(uint8_t id) const {
    if (const auto set = session_.values.find(id); set != session_.values.end()) {
        return set->second;
    }
    const std::vector<uint8_t> &firmware = radio_.scenario().coordinator.firmware_version;
    const auto part = [&](size_t i) { return i < firmware.size() ? firmware[i] : uint8_t{0}; };
    switch (id) {
    case VALUE_FREE_BUFFERS:
        return {0xC8};
    case VALUE_MAX_INCOMING:
    case VALUE_MAX_OUTGOING:
        return number(zbhal::serial::EZSP_MAX_MESSAGE, 2);
    case VALUE_TOKEN_WRITING:
        return {1};
    case VALUE_EXTENDED_SECURITY:
        return number(0, 2);
    case VALUE_NODE_ID:
        return number(stack_ == Stack::up ? mesh::kCoordinatorNode : mesh::kNoNode, 2);
    case VALUE_VERSION_INFO:
        return {1, 0, part(0), part(1), part(2), part(3), 0xAA};
    case VALUE_CCA_THRESHOLD:
        return {static_cast<uint8_t>(-75)};
    case VALUE_CLEAR_COUNTERS:
        return {0};
    case VALUE_FRAME_COUNTER:
        return number(memory_.frame_counter, 4);
    default:
        return std::ranges::find(FREE_VALUES, id) == FREE_VALUES.end() ? std::vector<uint8_t>{}
                                                                       : std::vector<uint8_t>{0};
    }
}

bool Ncp::getValue(FieldReader &in, FieldWriter &out) {
    uint8_t id = 0;
    if (!read(in, id)) {
        return false;
    }
    const std::vector<uint8_t> value = valueOf(id);
    configStatus(out, value.empty() ? EzspStatus::not_found : EzspStatus::ok);
    out.counted(value);
    return true;
}

bool Ncp::setValue(FieldReader &in, FieldWriter &out) {
    uint8_t id = 0;
    std::span<const uint8_t> value;
    in(id);
    in.counted(value);
    if (!in.ok()) {
        return false;
    }
    if (valueOf(id).empty()) {
        configStatus(out, EzspStatus::not_found);
        return true;
    }
    if (value.size() > MAX_VALUE || value.empty() || (id == VALUE_FRAME_COUNTER && value.size() != 4)) {
        configStatus(out, EzspStatus::bad_argument);
        return true;
    }
    if (id == VALUE_FRAME_COUNTER) {
        memory_.frame_counter = base::ByteReader(value).u32();
        remember();
    } else if (id == VALUE_CLEAR_COUNTERS) {
        counts_ = {};
        (void)radio_.counters(true);
    } else if (id != VALUE_VERSION_INFO && id != VALUE_NODE_ID) {
        session_.values[id].assign(value.begin(), value.end());
    }
    configStatus(out, EzspStatus::ok);
    return true;
}

// An unknown endpoint gets two bytes as well: there are hosts that count on them.
bool Ncp::getExtendedValue(FieldReader &in, FieldWriter &out) {
    constexpr uint8_t ENDPOINT_FLAGS = 0;
    constexpr uint16_t ENABLED = 1;
    uint8_t id = 0;
    uint32_t which = 0;
    if (!read(in, id, which)) {
        return false;
    }
    if (id != ENDPOINT_FLAGS) {
        configStatus(out, EzspStatus::not_found);
        out(uint8_t{0});
        return true;
    }
    const bool known = std::ranges::any_of(session_.endpoints, [=](const Endpoint &e) { return e.id == which; });
    configStatus(out, known ? EzspStatus::ok : EzspStatus::not_found);
    out.counted(number(known ? ENABLED : 0, 2));
    return true;
}

// ---- endpoints and tables of the session

bool Ncp::addEndpoint(FieldReader &in, FieldWriter &out) {
    Endpoint endpoint;
    uint8_t inputs = 0;
    uint8_t outputs = 0;
    if (!read(in, endpoint.id, endpoint.profile_id, endpoint.device_id, endpoint.version, inputs, outputs)) {
        return false;
    }
    endpoint.input_clusters.resize(inputs);
    endpoint.output_clusters.resize(outputs);
    std::ranges::for_each(endpoint.input_clusters, [&](uint16_t &cluster_id) { in(cluster_id); });
    std::ranges::for_each(endpoint.output_clusters, [&](uint16_t &cluster_id) { in(cluster_id); });
    if (!in.ok()) {
        return false;
    }
    const bool used = std::ranges::find(session_.endpoints, endpoint.id, &Endpoint::id) != session_.endpoints.end();
    if (endpoint.id == 0 || endpoint.id > 240 || used || stack_ != Stack::no_network ||
        session_.endpoints.size() == MAX_ENDPOINTS) {
        configStatus(out, EzspStatus::bad_argument);
        return true;
    }
    session_.endpoints.push_back(std::move(endpoint));
    session_.sized = true;
    configStatus(out, EzspStatus::ok);
    return true;
}

bool Ncp::setManufacturerCode(FieldReader &in, FieldWriter & /*out*/) {
    return read(in, session_.manufacturer_code);
}

bool Ncp::setConcentrator(FieldReader &in, FieldWriter &out) {
    bool on = false;
    uint16_t type = 0;
    uint16_t shortest_s = 0;
    uint16_t longest_s = 0;
    uint8_t route_errors = 0;
    uint8_t delivery_failures = 0;
    uint8_t hops = 0;
    if (!read(in, on, type, shortest_s, longest_s, route_errors, delivery_failures, hops)) {
        return false;
    }
    session_.concentrator = on;
    session_.route_records.clear();
    out.status(EzspStatus::ok);
    return true;
}

bool Ncp::setSourceRouteMode(FieldReader &in, FieldWriter &out) {
    uint8_t mode = 0;
    out(uint32_t{0}); // milliseconds until the next route request: it has just been sent
    return read(in, mode);
}

bool Ncp::setMulticastEntry(FieldReader &in, FieldWriter &out) {
    uint8_t index = 0;
    MulticastEntry entry;
    if (!read(in, index, entry.group_id, entry.endpoint, entry.network_index)) {
        return false;
    }
    const auto size = session_.config.find(MULTICAST_TABLE);
    const bool inside = index < (size == session_.config.end() ? 8 : size->second) && index < MAX_MULTICAST_ENTRIES;
    if (inside) {
        session_.multicast[index] = entry;
    }
    out.status(inside ? EzspStatus::ok : EzspStatus::index_out_of_range);
    return true;
}

bool Ncp::getMulticastEntry(FieldReader &in, FieldWriter &out) {
    uint8_t index = 0;
    if (!read(in, index)) {
        return false;
    }
    const auto found = session_.multicast.find(index);
    const MulticastEntry entry = found == session_.multicast.end() ? MulticastEntry{} : found->second;
    out.status(index < MAX_MULTICAST_ENTRIES ? EzspStatus::ok : EzspStatus::index_out_of_range);
    out(entry.group_id);
    out(entry.endpoint);
    out(entry.network_index);
    return true;
}

// ---- tokens, chance, reset

bool Ncp::randomNumber(FieldReader & /*in*/, FieldWriter &out) {
    out.status(EzspStatus::ok);
    out(static_cast<uint16_t>(random_.next()));
    return true;
}

bool Ncp::getMfgToken(FieldReader &in, FieldWriter &out) {
    uint8_t id = 0;
    out.counted(UNSET_TOKEN);
    return read(in, id);
}

bool Ncp::getTokenData(FieldReader &in, FieldWriter &out) {
    uint32_t token = 0;
    uint32_t index = 0;
    out.status(EzspStatus::not_found);
    out(uint32_t{0});
    return read(in, token, index);
}

bool Ncp::resetNode(FieldReader & /*in*/, FieldWriter & /*out*/) {
    reset_code_ = RESET_BY_SOFTWARE;
    return true;
}

bool Ncp::tokenFactoryReset(FieldReader &in, FieldWriter & /*out*/) {
    bool keep_counter = false;
    bool keep_boot_counter = false;
    if (!read(in, keep_counter, keep_boot_counter)) {
        return false;
    }
    leave();
    memory_.link_keys.clear();
    memory_.frame_counter = keep_counter ? memory_.frame_counter : 0;
    counter_limit_ = 0;
    remember();
    return true;
}

} // namespace corvane::coprocessor
