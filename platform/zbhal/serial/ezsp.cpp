// SPDX-License-Identifier: Apache-2.0
#include "ezsp.h"
#include <algorithm>
#include <type_traits>

namespace corvane::zbhal::serial {

namespace {

constexpr uint8_t CONTROL_RESPONSE = 0x80;
constexpr uint8_t CONTROL_CALLBACK = 0x10; // with CONTROL_RESPONSE
constexpr uint8_t CONTROL_OVERFLOW = 0x01;
constexpr uint8_t CONTROL_TRUNCATED = 0x02;
constexpr uint8_t CONTROL_PENDING = 0x04;
constexpr uint8_t EXTENDED = 0x01;    // second control byte of an extended frame
constexpr uint8_t FORMAT_BITS = 0x03; // of that byte
constexpr size_t LEGACY_HEADER_SIZE = 3;

struct NarrowStatus {
    uint8_t narrow;
    EzspStatus status;
};

// The first row of a status is the one that is written.
constexpr auto NARROW = std::to_array<NarrowStatus>({
    {0x00, EzspStatus::ok},
    {0x02, EzspStatus::bad_argument},
    {0x18, EzspStatus::no_buffers},
    {0x66, EzspStatus::delivery_failed},
    {0x70, EzspStatus::invalid_state},
    {0x72, EzspStatus::too_many_messages},
    {0x74, EzspStatus::message_too_long},
    {0x90, EzspStatus::network_up},
    {0x91, EzspStatus::network_down},
    {0x93, EzspStatus::not_joined},
    {0x9B, EzspStatus::channel_changed},
    {0x9C, EzspStatus::network_opened},
    {0x9D, EzspStatus::network_closed},
    {0xA1, EzspStatus::busy},
    {0xA8, EzspStatus::security_state_not_set},
    {0xB1, EzspStatus::index_out_of_range},
    {0xB1, EzspStatus::not_found},
    {0x36, EzspStatus::bad_argument}, // of configuration values, which have a set of their own: bad value
    {0x37, EzspStatus::bad_argument}, // bad id
});
constexpr uint8_t NARROW_FAILED = 0x01;

} // namespace

EzspStatus statusFromNarrow(uint8_t status) {
    const auto row = std::ranges::find(NARROW, status, &NarrowStatus::narrow);
    return row == NARROW.end() ? EzspStatus::failed : row->status;
}

uint8_t statusToNarrow(EzspStatus status) {
    const auto row = std::ranges::find(NARROW, status, &NarrowStatus::status);
    return row == NARROW.end() ? NARROW_FAILED : row->narrow;
}

// ---- headers

bool decodeHeader(std::span<const uint8_t> frame, EzspHeader &header, std::span<const uint8_t> &rest) {
    if (frame.size() < LEGACY_HEADER_SIZE) {
        return false;
    }
    const uint8_t control = frame[1];
    header = {};
    header.sequence = frame[0];
    header.legacy = (frame[2] & FORMAT_BITS) != EXTENDED;
    if (!header.legacy && frame.size() < EZSP_HEADER_SIZE) {
        return false;
    }
    header.id = static_cast<EzspId>(header.legacy ? frame[2] : frame[3] | frame[4] << 8);
    if ((control & CONTROL_RESPONSE) != 0) {
        header.kind = (control & CONTROL_CALLBACK) != 0 ? EzspHeader::Kind::callback : EzspHeader::Kind::response;
        header.overflow = (control & CONTROL_OVERFLOW) != 0;
        header.truncated = (control & CONTROL_TRUNCATED) != 0;
        header.pending = (control & CONTROL_PENDING) != 0;
    }
    rest = frame.subspan(header.legacy ? LEGACY_HEADER_SIZE : EZSP_HEADER_SIZE);
    return true;
}

void encodeHeader(const EzspHeader &header, base::ByteWriter &writer) {
    uint8_t control = header.kind == EzspHeader::Kind::command ? 0 : CONTROL_RESPONSE;
    control |= header.kind == EzspHeader::Kind::callback ? CONTROL_CALLBACK : 0;
    control |= header.overflow ? CONTROL_OVERFLOW : 0;
    control |= header.truncated ? CONTROL_TRUNCATED : 0;
    control |= header.pending ? CONTROL_PENDING : 0;
    writer.u8(header.sequence);
    writer.u8(control);
    if (header.legacy) {
        writer.u8(static_cast<uint8_t>(header.id));
    } else {
        writer.u8(EXTENDED);
        writer.u16(static_cast<uint16_t>(header.id));
    }
}

// ---- fields

void FieldReader::operator()(std::span<uint8_t> bytes) {
    const auto taken = reader_.bytes(bytes.size());
    std::ranges::fill(bytes, uint8_t{0});
    std::ranges::copy(taken, bytes.begin());
}

void FieldReader::status(EzspStatus &status) {
    status = wide() ? static_cast<EzspStatus>(reader_.u32()) : statusFromNarrow(reader_.u8());
}

void FieldReader::wideStatus(EzspStatus &status) {
    status = static_cast<EzspStatus>(reader_.u32());
}

void FieldReader::tag(uint16_t &tag) {
    tag = wide() ? reader_.u16() : reader_.u8();
}

void FieldReader::counted(std::span<const uint8_t> &bytes) {
    bytes = reader_.bytes(reader_.u8());
}

void FieldWriter::status(EzspStatus status) {
    wide() ? wideStatus(status) : writer_.u8(statusToNarrow(status));
}

void FieldWriter::tag(uint16_t tag) {
    writer_.number(tag, wide() ? 2 : 1);
}

void FieldWriter::counted(std::span<const uint8_t> bytes) {
    writer_.u8(static_cast<uint8_t>(bytes.size()));
    writer_.bytes(bytes);
}

// ---- records

namespace {

template <class Io>
inline constexpr bool READS = std::is_same_v<Io, FieldReader>;

template <class Io, class Record>
using Of = std::conditional_t<READS<Io>, Record, const Record>;

// A field that the records above leave out: written as value, read over.
template <class Io, class T>
void constant(Io &io, T value) {
    io(value);
}

template <class Io>
void layout(Io &io, Of<Io, EzspAps> &aps) {
    io(aps.profile_id);
    io(aps.cluster_id);
    io(aps.source_endpoint);
    io(aps.destination_endpoint);
    io(aps.options);
    io(aps.group_id);
    io(aps.sequence);
}

template <class Io>
void layout(Io &io, Of<Io, EzspNetwork> &network) {
    io(network.extended_pan_id);
    io(network.pan_id);
    io(network.power_dbm);
    io(network.channel);
    io(network.join_method);
    io(network.manager_id);
    io(network.update_id);
    io(network.channels);
}

template <class Io>
void layout(Io &io, Of<Io, EzspSecurity> &security) {
    io(security.bitmask);
    io(security.preconfigured_key);
    io(security.network_key);
    io(security.key_sequence);
    io(security.trust_center);
}

template <class Io>
void layout(Io &io, Of<Io, EzspKeyContext> &context) {
    auto type = static_cast<uint8_t>(context.type);
    io(type);
    if constexpr (READS<Io>) {
        context.type = static_cast<EzspKeyType>(type);
    }
    io(context.index);
    io(context.derived_type);
    io(context.eui64);
    io(context.network_index);
    io(context.flags);
    io(context.algorithm);
}

template <class Io>
void layout(Io &io, Of<Io, EzspKeyMetadata> &metadata) {
    io(metadata.bitmask);
    io(metadata.outgoing_counter);
    io(metadata.incoming_counter);
    io(metadata.ttl_s);
}

template <class Io>
void layout(Io &io, Of<Io, EzspChild> &child) {
    io(child.eui64);
    io(child.type);
    io(child.node_id);
    io(child.phy);
    io(child.power);
    io(child.timeout);
    io(child.timeout_left);
}

template <class Io>
void layout(Io &io, Of<Io, EzspNeighbor> &neighbor) {
    io(neighbor.node_id);
    io(neighbor.lqi);
    io(neighbor.in_cost);
    io(neighbor.out_cost);
    io(neighbor.age);
    io(neighbor.eui64);
}

template <class Io>
void layout(Io &io, Of<Io, EzspRoute> &route) {
    io(route.destination);
    io(route.next_hop);
    io(route.status);
    io(route.age);
    io(route.concentrator);
    io(route.record_state);
}

template <class Io>
void layout(Io &io, Of<Io, EzspFoundNetwork> &network) {
    io(network.channel);
    io(network.pan_id);
    io(network.extended_pan_id);
    io(network.allowing_join);
    io(network.stack_profile);
    io(network.update_id);
}

constexpr uint8_t NO_INDEX = 0xFF; // of the binding and the address table, which we do not use

// What is known of a received frame, in the form of version 14 and later.
template <class Io, class Record>
void receivedWide(Io &io, Record &record, EzspEui64 &sender_eui64) {
    io(record.sender);
    io(sender_eui64);
    constant(io, NO_INDEX);
    constant(io, NO_INDEX);
    io(record.lqi);
    io(record.rssi_dbm);
    constant(io, uint32_t{0}); // timestamp
}

template <class Io>
void layout(Io &io, Of<Io, EzspIncomingMessage> &incoming) {
    io(incoming.type);
    layout(io, incoming.aps);
    if (io.wide()) {
        EzspEui64 eui64 = incoming.sender_eui64;
        receivedWide(io, incoming, eui64);
        if constexpr (READS<Io>) {
            incoming.sender_eui64 = eui64;
        }
    } else {
        io(incoming.lqi);
        io(incoming.rssi_dbm);
        io(incoming.sender);
        constant(io, NO_INDEX);
        constant(io, NO_INDEX);
    }
    io.counted(incoming.message);
}

template <class Io>
void layout(Io &io, Of<Io, EzspMessageSent> &sent) {
    if (io.wide()) {
        io.wideStatus(sent.status);
    }
    io(sent.type);
    io(sent.destination);
    layout(io, sent.aps);
    io.tag(sent.tag);
    if (!io.wide()) {
        io.status(sent.status);
    }
    io.counted(sent.message);
}

template <class Io>
void layout(Io &io, Of<Io, EzspTrustCenterJoin> &join) {
    io(join.node_id);
    io(join.eui64);
    io(join.update);
    io(join.decision);
    io(join.parent);
}

template <class Io>
void layout(Io &io, Of<Io, EzspChildJoin> &join) {
    io(join.index);
    io(join.joining);
    io(join.node_id);
    io(join.eui64);
    io(join.type);
}

template <class Io>
void layout(Io &io, Of<Io, EzspEnergyResult> &result) {
    io(result.channel);
    io(result.rssi_dbm);
}

template <class Io>
void layout(Io &io, Of<Io, EzspNetworkFound> &found) {
    layout(io, found.network);
    io(found.lqi);
    io(found.rssi_dbm);
}

template <class Io>
void layout(Io &io, Of<Io, EzspScanComplete> &complete) {
    io(complete.channel);
    io.status(complete.status);
}

template <class Io>
void layout(Io &io, Of<Io, EzspRawTransmitComplete> &complete) {
    if (io.wide()) {
        io.counted(complete.frame);
        io.wideStatus(complete.status);
    } else {
        io.status(complete.status);
    }
}

template <class Io>
void layout(Io &io, Of<Io, EzspMacFilterMatch> &match) {
    constexpr uint8_t first_with_value = 18;
    if (io.version() >= first_with_value) {
        io(match.filter);
    } else {
        auto index = static_cast<uint8_t>(match.filter);
        io(index);
        if constexpr (READS<Io>) {
            match.filter = index;
        }
    }
    io(match.type);
    if (io.wide()) {
        EzspEui64 unused{};
        receivedWide(io, match, unused);
    } else {
        io(match.lqi);
        io(match.rssi_dbm);
    }
    io.counted(match.frame);
}

template <class Io>
void layout(Io &io, Of<Io, EzspUnicast> &unicast) {
    io(unicast.type);
    io(unicast.destination);
    layout(io, unicast.aps);
    io.tag(unicast.tag);
    io.counted(unicast.message);
}

constexpr uint16_t NO_ALIAS = 0; // the co-processor's own address and sequence
constexpr uint8_t NO_SEQUENCE = 0;
constexpr uint16_t AWAKE_DEVICES = 0xFFFD;

template <class Io>
void layout(Io &io, Of<Io, EzspBroadcast> &broadcast) {
    if (io.wide()) {
        constant(io, NO_ALIAS);
    }
    io(broadcast.destination);
    if (io.wide()) {
        constant(io, NO_SEQUENCE);
    }
    layout(io, broadcast.aps);
    io(broadcast.radius);
    io.tag(broadcast.tag);
    io.counted(broadcast.message);
}

template <class Io>
void layout(Io &io, Of<Io, EzspMulticast> &multicast) {
    layout(io, multicast.aps);
    io(multicast.hops);
    if (io.wide()) {
        constant(io, AWAKE_DEVICES);
        constant(io, NO_ALIAS);
        constant(io, NO_SEQUENCE);
    } else {
        constant(io, multicast.hops); // also through devices that are not in the group
    }
    io.tag(multicast.tag);
    io.counted(multicast.message);
}

} // namespace

template <class Record>
bool get(FieldReader &reader, Record &record) {
    layout(reader, record);
    return reader.ok();
}

template <class Record>
void put(FieldWriter &writer, const Record &record) {
    layout(writer, record);
}

#define CORVANE_BOTH(Record)                                                                                           \
    template bool get(FieldReader &, Record &);                                                                        \
    template void put(FieldWriter &, const Record &);
CORVANE_BOTH(EzspAps)
CORVANE_BOTH(EzspNetwork)
CORVANE_BOTH(EzspSecurity)
CORVANE_BOTH(EzspKeyContext)
CORVANE_BOTH(EzspKeyMetadata)
CORVANE_BOTH(EzspChild)
CORVANE_BOTH(EzspNeighbor)
CORVANE_BOTH(EzspRoute)
CORVANE_BOTH(EzspFoundNetwork)
CORVANE_BOTH(EzspIncomingMessage)
CORVANE_BOTH(EzspMessageSent)
CORVANE_BOTH(EzspTrustCenterJoin)
CORVANE_BOTH(EzspChildJoin)
CORVANE_BOTH(EzspEnergyResult)
CORVANE_BOTH(EzspNetworkFound)
CORVANE_BOTH(EzspScanComplete)
CORVANE_BOTH(EzspRawTransmitComplete)
CORVANE_BOTH(EzspMacFilterMatch)
CORVANE_BOTH(EzspUnicast)
CORVANE_BOTH(EzspBroadcast)
CORVANE_BOTH(EzspMulticast)
#undef CORVANE_BOTH

} // namespace corvane::zbhal::serial
