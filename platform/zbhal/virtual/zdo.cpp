// SPDX-License-Identifier: Apache-2.0
#include "zdo.h"
#include <algorithm>
#include <utility>

namespace corvane::mesh {
namespace {

constexpr uint8_t kLeaveRejoin = 0x80;
constexpr uint8_t kBindToGroup = 0x01;
constexpr uint8_t kBindToEndpoint = 0x03;
constexpr size_t kMaxBindings = 16;
constexpr uint16_t kBroadcastAddresses = 0xFFFC; // from here on
constexpr uint16_t kUnbindReq = 0x0022;
constexpr uint8_t kFrequency2400Mhz = 0x40; // node descriptor: bit 3 of the frequency band in bits 3 to 7
constexpr uint8_t kMaxBuffer = 82;
constexpr uint16_t kMaxTransfer = 82;
constexpr unsigned kStackRevisionShift = 9; // server mask

void appendEui64(std::vector<uint8_t> &out, const Eui64 &eui64) {
    out.insert(out.end(), eui64.rbegin(), eui64.rend());
}

void appendList(std::vector<uint8_t> &out, const std::vector<uint16_t> &clusters) {
    append(out, clusters.size(), 1);
    for (const uint16_t cluster : clusters) {
        append(out, cluster, 2);
    }
}

bool contains(const std::vector<uint16_t> &clusters, const std::vector<uint16_t> &wanted) {
    return std::ranges::find_first_of(clusters, wanted) != clusters.end();
}

std::vector<uint16_t> readList(ByteReader &in) {
    std::vector<uint16_t> clusters(in.u8());
    for (uint16_t &cluster : clusters) {
        cluster = in.u16();
    }
    return clusters;
}

} // namespace

const ZdoServer::Request ZdoServer::kRequests[] = {
    {0x0000, 10, &ZdoServer::nwkAddress},
    {0x0001, 4, &ZdoServer::ieeeAddress},
    {0x0002, 2, &ZdoServer::nodeDescriptor},
    {0x0004, 3, &ZdoServer::simpleDescriptor},
    {0x0005, 2, &ZdoServer::activeEndpoints},
    {0x0006, 6, &ZdoServer::matchDescriptor},
    {kZdoDeviceAnnce, 0, &ZdoServer::indication},
    {0x001F, 0, &ZdoServer::indication}, // Parent_annce
    {0x0021, 14, &ZdoServer::bind},
    {kUnbindReq, 14, &ZdoServer::bind},
    {0x0034, 9, &ZdoServer::leave},
    {0x0036, 2, &ZdoServer::permitJoining},
};

void ZdoServer::serve() {
    ByteReader in(frame_.payload);
    sequence_ = in.u8();
    if (!in.ok() || (frame_.cluster_id & kZdoResponse) != 0) {
        return;
    }
    const auto *const found = std::ranges::find(kRequests, frame_.cluster_id, &Request::cluster_id);
    if (found == std::end(kRequests)) {
        if (!broadcast_) {
            respond(ZdoStatus::not_supported);
        }
    } else if (in.left() >= found->minimum_length) {
        (this->*found->handler)(in);
    }
}

void ZdoServer::indication(ByteReader &) {}

void ZdoServer::addressResponse(ZdoStatus status, const Eui64 &eui64, uint16_t node_id, uint8_t request_type) {
    std::vector<uint8_t> body;
    appendEui64(body, eui64);
    append(body, node_id, 2);
    if (status == ZdoStatus::success && request_type == 1) {
        body.push_back(0); // extended response: no associated devices, and so no start index
    }
    respond(status, body);
}

void ZdoServer::nwkAddress(ByteReader &in) {
    const Eui64 wanted = in.eui64();
    const uint8_t type = in.u8();
    if (wanted == device_.spec_.eui64) {
        addressResponse(type > 1 ? ZdoStatus::inv_request_type : ZdoStatus::success, wanted, device_.node_id_, type);
    } else if (!broadcast_) {
        addressResponse(ZdoStatus::device_not_found, wanted, 0xFFFF, type);
    }
}

void ZdoServer::ieeeAddress(ByteReader &in) {
    const uint16_t wanted = in.u16();
    const uint8_t type = in.u8();
    if (wanted == device_.node_id_) {
        const ZdoStatus status = type > 1 ? ZdoStatus::inv_request_type : ZdoStatus::success;
        addressResponse(status, device_.spec_.eui64, wanted, type);
    } else if (!broadcast_) {
        addressResponse(ZdoStatus::device_not_found, {}, wanted, type);
    }
}

// End devices know of nobody else and say so differently from routers.
ZdoStatus ZdoServer::addressed(uint16_t node_id) const {
    if (node_id == device_.node_id_) {
        return ZdoStatus::success;
    }
    return device_.spec_.role == Role::router ? ZdoStatus::device_not_found : ZdoStatus::inv_request_type;
}

void ZdoServer::nodeDescriptor(ByteReader &in) {
    const uint16_t node_id = in.u16();
    const DeviceSpec &spec = device_.spec_;
    std::vector<uint8_t> descriptor;
    descriptor.push_back(spec.role == Role::router ? 1 : 2); // logical type
    descriptor.push_back(kFrequency2400Mhz);
    descriptor.push_back(spec.mac_capabilities);
    append(descriptor, spec.manufacturer_code, 2);
    descriptor.push_back(kMaxBuffer);
    append(descriptor, kMaxTransfer, 2);
    append(descriptor, static_cast<uint64_t>(spec.stack_revision) << kStackRevisionShift, 2);
    append(descriptor, kMaxTransfer, 2);
    descriptor.push_back(0); // descriptor capability
    respondAbout(addressed(node_id), node_id, descriptor);
}

void ZdoServer::simpleDescriptor(ByteReader &in) {
    const uint16_t node_id = in.u16();
    const uint8_t id = in.u8();
    const EndpointSpec *const endpoint = device_.endpoint(id);
    ZdoStatus status = addressed(node_id);
    if (status == ZdoStatus::success && endpoint == nullptr) {
        status = id == 0 || id > 240 ? ZdoStatus::invalid_ep : ZdoStatus::not_active;
    }
    std::vector<uint8_t> descriptor{0}; // the length octet stays in an error response
    if (status == ZdoStatus::success) {
        descriptor.push_back(endpoint->id);
        append(descriptor, endpoint->profile_id, 2);
        append(descriptor, endpoint->device_id, 2);
        descriptor.push_back(endpoint->device_version & 0x0F);
        appendList(descriptor, endpoint->input_clusters);
        appendList(descriptor, endpoint->output_clusters);
        descriptor[0] = static_cast<uint8_t>(descriptor.size() - 1);
    }
    std::vector<uint8_t> body;
    append(body, node_id, 2);
    body.insert(body.end(), descriptor.begin(), descriptor.end());
    respond(status, body);
}

void ZdoServer::activeEndpoints(ByteReader &in) {
    const uint16_t node_id = in.u16();
    std::vector<uint8_t> list;
    append(list, device_.spec_.endpoints.size(), 1);
    for (const EndpointSpec &endpoint : device_.spec_.endpoints) {
        list.push_back(endpoint.id);
    }
    respondAbout(addressed(node_id), node_id, list);
}

void ZdoServer::matchDescriptor(ByteReader &in) {
    const uint16_t node_id = in.u16();
    const uint16_t profile_id = in.u16();
    const auto input = readList(in);
    const auto output = readList(in);
    if (!in.ok()) {
        return;
    }
    std::vector<uint8_t> matches{0};
    for (const EndpointSpec &endpoint : device_.spec_.endpoints) {
        const bool profile = endpoint.profile_id == profile_id || profile_id == 0xFFFF;
        if (profile && (contains(endpoint.input_clusters, input) || contains(endpoint.output_clusters, output))) {
            matches.push_back(endpoint.id);
        }
    }
    matches[0] = static_cast<uint8_t>(matches.size() - 1);
    const bool for_us = node_id == device_.node_id_ || node_id >= kBroadcastAddresses;
    if (broadcast_ && (!for_us || matches.size() == 1)) {
        return;
    }
    respondAbout(for_us ? ZdoStatus::success : addressed(node_id), for_us ? device_.node_id_ : node_id, matches);
}

ZdoStatus ZdoServer::storeBinding(const std::vector<uint8_t> &binding) {
    auto &bindings = device_.bindings_;
    if (frame_.cluster_id == kUnbindReq) {
        return bindings.erase(binding) != 0 ? ZdoStatus::success : ZdoStatus::no_entry;
    }
    if (bindings.size() >= kMaxBindings && !bindings.contains(binding)) {
        return ZdoStatus::table_full;
    }
    bindings.insert(binding);
    return ZdoStatus::success;
}

void ZdoServer::bind(ByteReader &in) {
    const Eui64 source = in.eui64();
    const uint8_t source_endpoint = in.u8();
    const uint16_t cluster_id = in.u16();
    const uint8_t mode = in.u8();
    const auto target = in.bytes(mode == kBindToEndpoint ? 9 : 2);
    if (!in.ok() || broadcast_) {
        return;
    }
    if (mode != kBindToEndpoint && mode != kBindToGroup) {
        return respond(ZdoStatus::inv_request_type);
    }
    if (source != device_.spec_.eui64) {
        return respond(ZdoStatus::not_supported); // keeps no bindings for others
    }
    if (device_.endpoint(source_endpoint) == nullptr) {
        return respond(ZdoStatus::invalid_ep);
    }
    std::vector<uint8_t> binding{source_endpoint};
    append(binding, cluster_id, 2);
    binding.insert(binding.end(), target.begin(), target.end());
    respond(storeBinding(binding));
}

void ZdoServer::leave(ByteReader &in) {
    const Eui64 who = in.eui64();
    const uint8_t flags = in.u8();
    const bool this_device = who == Eui64{} || who == device_.spec_.eui64;
    if (!broadcast_) {
        respond(this_device ? ZdoStatus::success : ZdoStatus::device_not_found);
    }
    if (this_device) {
        actions_.leave = true;
        actions_.rejoin = (flags & kLeaveRejoin) != 0;
    }
}

void ZdoServer::permitJoining(ByteReader &) {
    if (!broadcast_) {
        respond(device_.spec_.role == Role::router ? ZdoStatus::success : ZdoStatus::not_supported);
    }
}

void ZdoServer::respond(ZdoStatus status, const std::vector<uint8_t> &body) {
    std::vector<uint8_t> payload{sequence_, static_cast<uint8_t>(status)};
    payload.insert(payload.end(), body.begin(), body.end());
    const auto response = static_cast<uint16_t>(frame_.cluster_id | kZdoResponse);
    actions_.answers.push_back({0, response, 0, frame_.source_endpoint, std::move(payload)});
}

void ZdoServer::respondAbout(ZdoStatus status, uint16_t node_id, const std::vector<uint8_t> &descriptor) {
    std::vector<uint8_t> body;
    append(body, node_id, 2);
    if (status == ZdoStatus::success) {
        body.insert(body.end(), descriptor.begin(), descriptor.end());
    }
    respond(status, body);
}

} // namespace corvane::mesh
