// SPDX-License-Identifier: Apache-2.0
//
// EZSP frames: commands to a co-processor, its responses and its callbacks. What the protocol versions lay out
// differently ends here: records and statuses look the same above. Both directions of every record come from one
// description, so host and simulated co-processor cannot drift apart. Pure; nothing is allocated.
//
// Versions 13 to 19 are spoken. 14 widened statuses and message tags and moved fields; 18 changed the MAC filter match.
//
//   extended frame   sequence | control | 0x01 | frame id u16 | parameters
//   legacy frame     sequence | control | frame id u8 | parameters      only `version`, first after a reset
//   legacy answer    sequence | 0x80 | 0x00 | parameters
//
// Integers are little-endian, EUI-64s travel least significant byte first and are kept so, as in the HAL's records.
#pragma once
#include "base/bytes.h"
#include "oru_zbhal_types.h"
#include <array>
#include <cstdint>
#include <span>

namespace corvane::zbhal::serial {

inline constexpr uint8_t EZSP_OLDEST_VERSION = 13;
inline constexpr uint8_t EZSP_NEWEST_VERSION = 19;
inline constexpr size_t EZSP_HEADER_SIZE = 5;
inline constexpr size_t EZSP_MAX_MESSAGE = 128; // an APS payload, fragmented or not

enum class EzspId : uint16_t {
    version = 0x00,
    add_endpoint = 0x02,
    get_extended_value = 0x03,
    nop = 0x05,
    get_mfg_token = 0x0B,
    set_concentrator = 0x10,
    set_manufacturer_code = 0x15,
    network_init = 0x17,
    network_state = 0x18,
    stack_status = 0x19, // callback
    start_scan = 0x1A,
    energy_result = 0x48, // callback
    network_found = 0x1B, // callback
    scan_complete = 0x1C, // callback
    stop_scan = 0x1D,
    form_network = 0x1E,
    leave_network = 0x20,
    permit_joining = 0x22,
    child_join = 0x23,        // callback
    trust_center_join = 0x24, // callback
    get_eui64 = 0x26,
    get_node_id = 0x27,
    get_network_parameters = 0x28,
    get_parent_child_parameters = 0x29,
    maximum_payload_length = 0x33,
    send_unicast = 0x34,
    send_broadcast = 0x36,
    send_multicast = 0x38,
    message_sent = 0x3F,     // callback
    incoming_message = 0x45, // callback
    mac_filter_match = 0x46, // callback
    get_random_number = 0x49,
    get_child_data = 0x4A,
    send_raw_message = 0x51,
    get_configuration_value = 0x52,
    set_configuration_value = 0x53,
    set_policy = 0x55,
    get_policy = 0x56,
    invalid_command = 0x58,
    route_record = 0x59, // callback
    set_source_route_mode = 0x5A,
    lookup_node_id = 0x60,
    lookup_eui64 = 0x61,
    get_multicast_entry = 0x63,
    set_multicast_entry = 0x64,
    read_and_clear_counters = 0x65,
    set_initial_security_state = 0x68,
    get_current_security_state = 0x69,
    clear_transient_link_keys = 0x6B,
    aes_mmo_hash = 0x6F,
    find_key_table_entry = 0x75,
    erase_key_table_entry = 0x76,
    token_factory_reset = 0x77,
    get_neighbor = 0x79,
    neighbor_count = 0x7A,
    get_route_table_entry = 0x7B,
    id_conflict = 0x7C, // callback
    set_extended_timeout = 0x7E,
    get_extended_timeout = 0x7F,
    route_error = 0x80, // callback
    echo = 0x81,
    raw_transmit_complete = 0x98, // callback
    set_radio_power = 0x99,
    set_radio_channel = 0x9A,
    key_established = 0x9B, // callback
    remove_device = 0xA8,
    get_value = 0xAA,
    set_value = 0xAB,
    clear_key_table = 0xB1,
    set_logical_and_radio_channel = 0xB9,
    network_status = 0xC4,      // callback
    unused_pan_id_found = 0xD2, // callback
    find_unused_pan_id = 0xD3,
    read_counters = 0xF1,
    counter_rollover = 0xF2, // callback
    get_radio_parameters = 0xFD,
    get_radio_channel = 0xFF,
    get_token_data = 0x102,
    reset_node = 0x104,
    aps_key_info = 0x10C,
    import_link_key = 0x10E,
    export_link_key_by_index = 0x10F,
    import_transient_key = 0x111,
    export_transient_key_by_index = 0x112,
    export_key = 0x114,
    import_key = 0x115,
    network_key_info = 0x116,
    send_zigbee_leave = 0x11A,
};

// The numbers of version 14 and later; version 13 has an 8-bit set of its own, which the codec translates.
enum class EzspStatus : uint32_t {
    ok = 0x00,
    invalid_state = 0x02,
    busy = 0x04,
    network_up = 0x15,
    network_down = 0x16,
    not_joined = 0x17,
    no_buffers = 0x19,
    bad_argument = 0x21,
    index_out_of_range = 0x27,
    not_found = 0x2D,
    message_too_long = 0x38,
    failed = 0x01, // anything that has no name here
    delivery_failed = 0xC02,
    too_many_messages = 0xC03,
    security_state_not_set = 0xC0B,
    channel_changed = 0xC17,
    network_opened = 0xC18,
    network_closed = 0xC19,
};

struct EzspHeader {
    enum class Kind : uint8_t { command, response, callback };
    Kind kind = Kind::command;
    uint8_t sequence = 0;
    EzspId id = EzspId::nop;
    bool legacy = false;
    bool overflow = false;  // the co-processor has lost callbacks
    bool truncated = false; // of this frame
    bool pending = false;   // callbacks are waiting
};

// False: not a frame. rest receives the parameters.
[[nodiscard]] bool decodeHeader(std::span<const uint8_t> frame, EzspHeader &header, std::span<const uint8_t> &rest);
void encodeHeader(const EzspHeader &header, base::ByteWriter &writer);

EzspStatus statusFromNarrow(uint8_t status); // of version 13
uint8_t statusToNarrow(EzspStatus status);

// ---- fields, by direction
//
// A description is a function template layout(io, record). io has a version and takes fields in their order.

class FieldReader {
public:
    FieldReader(std::span<const uint8_t> bytes, uint8_t version) : reader_(bytes), version_(version) {}

    bool wide() const { return version_ >= 14; }
    uint8_t version() const { return version_; }
    bool ok() const { return reader_.ok(); }
    std::span<const uint8_t> rest() const { return reader_.rest(); }

    void operator()(uint8_t &value) { value = reader_.u8(); }
    void operator()(int8_t &value) { value = static_cast<int8_t>(reader_.u8()); }
    void operator()(uint16_t &value) { value = reader_.u16(); }
    void operator()(uint32_t &value) { value = reader_.u32(); }
    void operator()(bool &value) { value = reader_.u8() != 0; }
    void operator()(std::span<uint8_t> bytes);     // of that length
    void status(EzspStatus &status);               // by version
    void wideStatus(EzspStatus &status);           // 32 bits in every version
    void tag(uint16_t &tag);                       // 8 bits before version 14
    void counted(std::span<const uint8_t> &bytes); // a length byte and as many bytes, which stay where they are

private:
    base::ByteReader reader_;
    uint8_t version_;
};

class FieldWriter {
public:
    FieldWriter(std::span<uint8_t> room, uint8_t version) : writer_(room), version_(version) {}

    bool wide() const { return version_ >= 14; }
    uint8_t version() const { return version_; }
    bool ok() const { return writer_.ok(); }
    size_t size() const { return writer_.size(); }
    base::ByteWriter &writer() { return writer_; }

    void operator()(uint8_t value) { writer_.u8(value); }
    void operator()(int8_t value) { writer_.u8(static_cast<uint8_t>(value)); }
    void operator()(uint16_t value) { writer_.u16(value); }
    void operator()(uint32_t value) { writer_.u32(value); }
    void operator()(bool value) { writer_.u8(value ? 1 : 0); }
    void operator()(std::span<const uint8_t> bytes) { writer_.bytes(bytes); }
    void status(EzspStatus status);
    void wideStatus(EzspStatus status) { writer_.u32(static_cast<uint32_t>(status)); }
    void tag(uint16_t tag);
    void counted(std::span<const uint8_t> bytes); // at most 255

private:
    base::ByteWriter writer_;
    uint8_t version_;
};

using EzspKey = std::array<uint8_t, 16>;
using EzspEui64 = std::array<uint8_t, 8>; // least significant byte first

// ---- records

struct EzspAps { // 11 bytes
    uint16_t profile_id = 0;
    uint16_t cluster_id = 0;
    uint8_t source_endpoint = 0;
    uint8_t destination_endpoint = 0;
    uint16_t options = 0;
    uint16_t group_id = 0;
    uint8_t sequence = 0;
};

struct EzspNetwork { // 20 bytes: network parameters
    EzspEui64 extended_pan_id = {};
    uint16_t pan_id = 0;
    int8_t power_dbm = 0;
    uint8_t channel = 0;
    uint8_t join_method = 0;
    uint16_t manager_id = 0;
    uint8_t update_id = 0;
    uint32_t channels = 0;
};

struct EzspSecurity { // 43 bytes: initial security state
    uint16_t bitmask = 0;
    EzspKey preconfigured_key = {};
    EzspKey network_key = {};
    uint8_t key_sequence = 0;
    EzspEui64 trust_center = {};
};

enum class EzspKeyType : uint8_t {
    network = 1,
    trust_center_link = 2,
    trust_center_transient = 3,
    application_link = 4
};

struct EzspKeyContext { // 18 bytes
    EzspKeyType type = EzspKeyType::network;
    uint8_t index = 0;
    uint16_t derived_type = 0;
    EzspEui64 eui64 = {};
    uint8_t network_index = 0;
    uint8_t flags = 0;
    uint32_t algorithm = 0;
};

struct EzspKeyMetadata { // 12 bytes
    uint16_t bitmask = 0;
    uint32_t outgoing_counter = 0;
    uint32_t incoming_counter = 0;
    uint16_t ttl_s = 0;
};

struct EzspChild { // 18 bytes
    EzspEui64 eui64 = {};
    uint8_t type = 0; // 2 router, 3 end device, 4 sleepy end device
    uint16_t node_id = 0;
    uint8_t phy = 0;
    uint8_t power = 0;
    uint8_t timeout = 0;
    uint32_t timeout_left = 0;
};

struct EzspNeighbor { // 14 bytes
    uint16_t node_id = 0;
    uint8_t lqi = 0;
    uint8_t in_cost = 0;
    uint8_t out_cost = 0;
    uint8_t age = 0;
    EzspEui64 eui64 = {};
};

struct EzspRoute { // 8 bytes
    uint16_t destination = 0;
    uint16_t next_hop = 0;
    uint8_t status = 0; // 0 active, 1 discovering, 3 unused
    uint8_t age = 0;
    uint8_t concentrator = 0;
    uint8_t record_state = 0;
};

struct EzspFoundNetwork { // 14 bytes
    uint8_t channel = 0;
    uint16_t pan_id = 0;
    EzspEui64 extended_pan_id = {};
    bool allowing_join = false;
    uint8_t stack_profile = 0;
    uint8_t update_id = 0;
};

// ---- callbacks whose layout depends on the version

struct EzspIncomingMessage {
    uint8_t type = 0; // 0 unicast, 2 multicast, 4 broadcast
    EzspAps aps;
    uint16_t sender = 0;
    EzspEui64 sender_eui64 = {}; // zeros before version 14
    uint8_t lqi = 0;
    int8_t rssi_dbm = 0;
    std::span<const uint8_t> message = {};
};

struct EzspMessageSent {
    EzspStatus status = EzspStatus::ok;
    uint8_t type = 0; // 0 direct, 3 multicast, 5 broadcast
    uint16_t destination = 0;
    EzspAps aps;
    uint16_t tag = 0;
    std::span<const uint8_t> message = {};
};

struct EzspTrustCenterJoin {
    uint16_t node_id = 0;
    EzspEui64 eui64 = {};
    uint8_t update = 0;   // 0 secured rejoin, 1 join, 2 left, 3 unsecured rejoin
    uint8_t decision = 0; // 0 preconfigured key, 1 key in the clear, 2 denied, 3 no action
    uint16_t parent = 0;
};

struct EzspChildJoin {
    uint8_t index = 0;
    bool joining = false;
    uint16_t node_id = 0;
    EzspEui64 eui64 = {};
    uint8_t type = 0;
};

struct EzspEnergyResult {
    uint8_t channel = 0;
    int8_t rssi_dbm = 0;
};

struct EzspNetworkFound {
    EzspFoundNetwork network;
    uint8_t lqi = 0;
    int8_t rssi_dbm = 0;
};

struct EzspScanComplete {
    uint8_t channel = 0;
    EzspStatus status = EzspStatus::ok;
};

struct EzspRawTransmitComplete {
    EzspStatus status = EzspStatus::ok;
    std::span<const uint8_t> frame = {}; // from version 14 on
};

struct EzspMacFilterMatch {
    uint16_t filter = 0; // index, from version 18 on the value
    uint8_t type = 0;
    uint16_t sender = 0; // from version 14 on
    uint8_t lqi = 0;
    int8_t rssi_dbm = 0;
    std::span<const uint8_t> frame = {};
};

// ---- requests whose layout depends on the version

struct EzspUnicast {
    uint8_t type = 0; // 0 direct
    uint16_t destination = 0;
    EzspAps aps;
    uint16_t tag = 0;
    std::span<const uint8_t> message = {};
};

struct EzspBroadcast {
    uint16_t destination = 0;
    EzspAps aps;
    uint8_t radius = 0;
    uint16_t tag = 0;
    std::span<const uint8_t> message = {};
};

struct EzspMulticast {
    EzspAps aps; // the group is in it
    uint8_t hops = 0;
    uint16_t tag = 0;
    std::span<const uint8_t> message = {};
};

// ---- both directions, for every record above

// The record's fields follow in the frame. False: they were not all there; spans point into the frame.
template <class Record>
[[nodiscard]] bool get(FieldReader &reader, Record &record);
template <class Record>
void put(FieldWriter &writer, const Record &record);

} // namespace corvane::zbhal::serial
