// SPDX-License-Identifier: Apache-2.0
// Tables and counters.
#include "ncp.h"
#include <algorithm>

namespace corvane::coprocessor {

using zbhal::serial::EzspChild;
using zbhal::serial::EzspNeighbor;
using zbhal::serial::EzspRoute;

namespace {

constexpr size_t MAX_ENTRIES = 256;

uint8_t childType(oruZbHal_nodeType_t type) {
    return static_cast<uint8_t>(type); // both count as the standard does
}

EzspEui64 eui64Of(const oruZbHal_eui64_t &eui64) {
    EzspEui64 copy{};
    std::ranges::copy(eui64, copy.begin());
    return copy;
}

} // namespace

bool Ncp::getChildData(FieldReader &in, FieldWriter &out) {
    uint8_t index = 0;
    if (!read(in, index)) {
        return false;
    }
    std::array<oruZbHal_childTableEntry_t, MAX_ENTRIES> children{};
    const size_t count = stack_ == Stack::up ? radio_.children(children) : 0;
    EzspChild child;
    if (index < count) {
        child.eui64 = eui64Of(children[index].long_id);
        child.type = childType(children[index].type);
        child.node_id = children[index].short_id;
    }
    out.status(index < count ? EzspStatus::ok : EzspStatus::not_joined);
    put(out, child);
    return true;
}

bool Ncp::parentChildParameters(FieldReader & /*in*/, FieldWriter &out) {
    std::array<oruZbHal_childTableEntry_t, MAX_ENTRIES> children{};
    const size_t count = stack_ == Stack::up ? radio_.children(children) : 0;
    out(static_cast<uint8_t>(std::min<size_t>(count, UINT8_MAX)));
    out(Eui64{}); // a coordinator has no parent
    out(mesh::kNoNode);
    return true;
}

bool Ncp::neighborCount(FieldReader & /*in*/, FieldWriter &out) {
    std::array<oruZbHal_neighborTableEntry_t, MAX_ENTRIES> neighbors{};
    const size_t count = stack_ == Stack::up ? radio_.neighbors(neighbors) : 0;
    out(static_cast<uint8_t>(std::min<size_t>(count, UINT8_MAX)));
    return true;
}

bool Ncp::getNeighbor(FieldReader &in, FieldWriter &out) {
    uint8_t index = 0;
    if (!read(in, index)) {
        return false;
    }
    std::array<oruZbHal_neighborTableEntry_t, MAX_ENTRIES> neighbors{};
    const size_t count = stack_ == Stack::up ? radio_.neighbors(neighbors) : 0;
    EzspNeighbor neighbor;
    if (index < count) {
        const oruZbHal_neighborTableEntry_t &entry = neighbors[index];
        neighbor = {entry.short_id, entry.average_lqi, entry.in_cost,
                    entry.out_cost, entry.age,         eui64Of(entry.long_id)};
    }
    out.status(index < count ? EzspStatus::ok : EzspStatus::index_out_of_range);
    put(out, neighbor);
    return true;
}

bool Ncp::getRoute(FieldReader &in, FieldWriter &out) {
    uint8_t index = 0;
    if (!read(in, index)) {
        return false;
    }
    std::array<oruZbHal_routeTableEntry_t, MAX_ENTRIES> routes{};
    const size_t count = stack_ == Stack::up ? radio_.routes(routes) : 0;
    EzspRoute route;
    if (index < count) {
        const oruZbHal_routeTableEntry_t &entry = routes[index];
        route = {entry.destination, entry.next_hop,          entry.status,
                 entry.age,         entry.concentrator_type, entry.route_record_state};
    }
    out.status(index < count ? EzspStatus::ok : EzspStatus::bad_argument);
    put(out, route);
    return true;
}

// ---- counters

void Ncp::counters(FieldWriter &out, bool clear) {
    const oruZbHal_counters_t radio = radio_.counters(clear);
    std::array<uint16_t, 42> all{};
    all[2] = all[8] = counts_.received;
    all[3] = all[9] = counts_.sent;
    all[4] = radio.mac_tx_ucast_retry;
    all[5] = radio.mac_tx_ucast_fail;
    all[10] = radio.aps_tx_ucast_retry;
    all[11] = radio.aps_tx_ucast_fail;
    all[16] = counts_.joined;
    all[17] = counts_.left;
    all[32] = radio.cca_failures;
    all[34] = radio.pta_lo_pri_req;
    all[35] = radio.pta_hi_pri_req;
    all[36] = radio.pta_lo_pri_denied;
    all[37] = radio.pta_hi_pri_denied;
    std::ranges::for_each(all, [&](uint16_t counter) { out(counter); });
    if (clear) {
        counts_ = {};
    }
}

bool Ncp::readCounters(FieldReader & /*in*/, FieldWriter &out) {
    counters(out, false);
    return true;
}

bool Ncp::readAndClearCounters(FieldReader & /*in*/, FieldWriter &out) {
    counters(out, true);
    return true;
}

// ---- extended time-outs: devices of the mesh age by the air's own

bool Ncp::setExtendedTimeout(FieldReader &in, FieldWriter &out) {
    EzspEui64 eui64{};
    bool extended = false;
    if (!read(in, eui64, extended)) {
        return false;
    }
    if (out.wide()) {
        out.wideStatus(EzspStatus::ok);
    }
    return true;
}

bool Ncp::getExtendedTimeout(FieldReader &in, FieldWriter &out) {
    EzspEui64 eui64{};
    if (!read(in, eui64)) {
        return false;
    }
    if (out.wide()) {
        out.wideStatus(EzspStatus::not_found); // it is not extended
    } else {
        out(uint8_t{0});
    }
    return true;
}

} // namespace corvane::coprocessor
