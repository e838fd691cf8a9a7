// SPDX-License-Identifier: Apache-2.0
//
// Each record names its fields once, in their order in the frame; the same list reads and writes.
#include "zigbee/zdo_frame.h"
#include <concepts>
#include <type_traits>

namespace corvane::zigbee {

namespace {

// A record that is read, or the same one const to be written.
template <class Record, class Plain>
concept Is = std::same_as<std::remove_const_t<Record>, Plain>;

void fields(auto &io, Is<NwkAddrRequest> auto &r) {
    io(r.eui64, r.request_type, r.start_index);
}
void fields(auto &io, Is<IeeeAddrRequest> auto &r) {
    io(r.node_id, r.request_type, r.start_index);
}
void fields(auto &io, Is<AddressResponse> auto &r) {
    io.answer(r.status, r.eui64, r.node_id);
}
void fields(auto &io, Is<NodeRequest> auto &r) {
    io(r.node_id);
}
void fields(auto &io, Is<NodeDescriptor> auto &r) {
    io(r.logical_type, r.frequency_band, r.mac_capabilities, r.manufacturer_code, r.max_buffer);
    io(r.max_incoming_transfer, r.server_mask, r.max_outgoing_transfer, r.capabilities);
}
void fields(auto &io, Is<NodeDescResponse> auto &r) {
    io.answer(r.status, r.node_id);
    io.onSuccess(r.status, r.descriptor);
}
void fields(auto &io, Is<SimpleDescRequest> auto &r) {
    io(r.node_id, r.endpoint);
}
void fields(auto &io, Is<SimpleDescriptor> auto &r) {
    io(r.endpoint, r.profile_id, r.device_id, r.device_version, r.input_clusters, r.output_clusters);
}
void fields(auto &io, Is<SimpleDescResponse> auto &r) {
    io.answer(r.status, r.node_id);
    io.sized(r.status, r.descriptor);
}
void fields(auto &io, Is<EndpointsResponse> auto &r) {
    io.answer(r.status, r.node_id);
    io.onSuccess(r.status, r.endpoints);
}
void fields(auto &io, Is<MatchDescRequest> auto &r) {
    io(r.node_id, r.profile_id, r.input_clusters, r.output_clusters);
}
void fields(auto &io, Is<DeviceAnnounce> auto &r) {
    io(r.node_id, r.eui64, r.mac_capabilities);
}
void fields(auto &io, Is<BindRequest> auto &r) {
    io(r.source, r.source_endpoint, r.cluster_id, r.mode);
    if (r.mode == BIND_TO_ENDPOINT) {
        io(r.target, r.target_endpoint);
    } else {
        io(r.group_id);
    }
}
void fields(auto &io, Is<LeaveRequest> auto &r) {
    io(r.eui64, r.flags);
}
void fields(auto &io, Is<PermitJoiningRequest> auto &r) {
    io(r.duration_s, r.trust_center_significance);
}
void fields(auto &io, Is<StatusResponse> auto &r) {
    io(r.status);
}
void fields(auto &io, Is<TableRequest> auto &r) {
    io(r.start_index);
}
void fields(auto &io, Is<NeighborEntry> auto &r) {
    io(r.extended_pan_id, r.eui64, r.node_id, r.device_type, r.permit_joining, r.depth, r.lqi);
}
void fields(auto &io, Is<RouteEntry> auto &r) {
    io(r.destination, r.status, r.next_hop);
}
template <class Record>
requires Is<Record, LqiResponse> || Is<Record, RoutingResponse>
void fields(auto &io, Record &r) {
    io.answer(r.status, r.total, r.start_index);
    io.onSuccess(r.status, r.entries);
}

class Read {
public:
    explicit Read(base::ByteReader &in) : in_(in) {}

    template <class... Field>
    void operator()(Field &...field) {
        (one(field), ...);
    }
    template <class... Field>
    void answer(uint8_t &status, Field &...field) {
        status = in_.u8();
        if (status == ZDO_SUCCESS || !in_.atEnd()) {
            (one(field), ...);
        }
    }
    template <class Field>
    void onSuccess(uint8_t status, Field &field) {
        if (status == ZDO_SUCCESS) {
            one(field);
        }
    }
    // A record with its length in front, which may be longer than what is known of it.
    template <class Record>
    void sized(uint8_t status, Record &record) {
        if (status != ZDO_SUCCESS) {
            in_.skip(in_.atEnd() ? 0 : 1); // the length stays
            return;
        }
        base::ByteReader inner(in_.bytes(in_.u8()));
        Read read(inner);
        fields(read, record);
        if (!inner.ok()) {
            in_.fail();
        }
    }

private:
    void one(uint8_t &value) { value = in_.u8(); }
    void one(uint16_t &value) { value = in_.u16(); }
    void one(base::Eui64 &value) { value = in_.eui64(); }
    template <class Item, std::size_t Capacity>
    void one(FixedList<Item, Capacity> &list) {
        const unsigned count = in_.u8();
        if (count > Capacity) {
            in_.fail();
        }
        list.count = 0;
        for (unsigned i = 0; i < count && in_.ok(); ++i) {
            Item item{};
            one(item);
            list.push(item);
        }
    }
    void one(auto &record) { fields(*this, record); }

    base::ByteReader &in_;
};

class Write {
public:
    explicit Write(base::ByteWriter &out) : out_(out) {}

    template <class... Field>
    void operator()(const Field &...field) {
        (one(field), ...);
    }
    template <class... Field>
    void answer(const uint8_t &status, const Field &...field) {
        one(status);
        (one(field), ...);
    }
    template <class Field>
    void onSuccess(uint8_t status, const Field &field) {
        if (status == ZDO_SUCCESS) {
            one(field);
        }
    }
    template <class Record>
    void sized(uint8_t status, const Record &record) {
        const std::size_t length_at = out_.size();
        out_.u8(0);
        onSuccess(status, record);
        out_.patch(length_at, static_cast<uint8_t>(out_.size() - length_at - 1));
    }

private:
    void one(const uint8_t &value) { out_.u8(value); }
    void one(const uint16_t &value) { out_.u16(value); }
    void one(const base::Eui64 &value) { out_.eui64(value); }
    template <class Item, std::size_t Capacity>
    void one(const FixedList<Item, Capacity> &list) {
        out_.u8(list.count);
        for (const Item &item : list.view()) {
            one(item);
        }
    }
    void one(const auto &record) { fields(*this, record); }

    base::ByteWriter &out_;
};

} // namespace

template <class Record>
bool readBody(base::ByteReader &in, Record &record) {
    record = Record{};
    Read read(in);
    fields(read, record);
    return in.ok();
}

template <class Record>
void writeBody(base::ByteWriter &out, const Record &record) {
    Write write(out);
    fields(write, record);
}

// NOLINTBEGIN(bugprone-macro-parentheses): a type, where parentheses cannot stand
#define BODY(Record)                                                                                                   \
    template bool readBody<Record>(base::ByteReader &, Record &);                                                      \
    template void writeBody<Record>(base::ByteWriter &, const Record &);
// NOLINTEND(bugprone-macro-parentheses)
BODY(NwkAddrRequest)
BODY(IeeeAddrRequest)
BODY(AddressResponse)
BODY(NodeRequest)
BODY(NodeDescResponse)
BODY(SimpleDescRequest)
BODY(SimpleDescResponse)
BODY(EndpointsResponse)
BODY(MatchDescRequest)
BODY(DeviceAnnounce)
BODY(BindRequest)
BODY(LeaveRequest)
BODY(PermitJoiningRequest)
BODY(StatusResponse)
BODY(TableRequest)
BODY(LqiResponse)
BODY(RoutingResponse)
#undef BODY

} // namespace corvane::zigbee
