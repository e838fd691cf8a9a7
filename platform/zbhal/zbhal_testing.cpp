// SPDX-License-Identifier: Apache-2.0
#include "oru_zbhal_testing.h"
#include "virtual/virtual_adapter.h"
#include "zbhal_core.h"
#include <algorithm>

namespace corvane::zbhal::testing {

void reset(const Options &options) {
    hal().restart(options);
}

void injectStackStatus(oruZbHal_stackStatus_t status) {
    Indication indication;
    indication.kind = IndicationKind::stack_status;
    indication.status = status;
    hal().inject(indication);
}

void injectTrustCenter(oruZbHal_nodeId_t node_id, const oruZbHal_eui64_t &eui64, oruZbHal_nodeId_t parent,
                       oruZbHal_deviceUpdate_t update, oruZbHal_joinDecision_t decision) {
    Indication indication;
    indication.kind = IndicationKind::trust_center;
    indication.node_id = node_id;
    indication.parent = parent;
    indication.status = update;
    indication.decision = decision;
    std::copy(std::begin(eui64), std::end(eui64), indication.eui64);
    hal().inject(indication);
}

void injectAnnounce(oruZbHal_nodeId_t node_id, const oruZbHal_eui64_t &eui64, uint8_t capabilities) {
    uint8_t body[12] = {0, static_cast<uint8_t>(node_id), static_cast<uint8_t>(node_id >> 8)};
    std::copy(std::begin(eui64), std::end(eui64), body + 3);
    body[11] = capabilities;
    oruZbHal_apsFrame_t aps_frame{};
    aps_frame.cluster_id = 0x0013; // Device_annce
    injectFrame(node_id, aps_frame, body);
}

bool injectFrame(oruZbHal_nodeId_t source, const oruZbHal_apsFrame_t &aps_frame, std::span<const uint8_t> payload) {
    if (payload.size() > kMaxFrame) {
        return false;
    }
    Indication indication;
    indication.kind = IndicationKind::incoming_message;
    indication.node_id = source;
    indication.aps_frame = aps_frame;
    indication.lqi = 200;
    indication.rssi = -53;
    indication.length = static_cast<uint16_t>(payload.size());
    std::copy(payload.begin(), payload.end(), indication.payload.begin());
    return hal().inject(indication);
}

std::string refuseNext(const std::string &operation, uint32_t count, int32_t status) {
    return hal().refuseNext(operation, count, status);
}

void refuseCall(uint64_t nth, int32_t status) {
    hal().refuseCall(nth, status);
}

uint64_t operationCalls() {
    return hal().operationCalls();
}

void holdConfirmations(bool hold) {
    hal().withAdapter([hold](Adapter &adapter) { adapter.holdConfirmations(hold); });
}

uint64_t nextEventUs() {
    return hal().nextEventUs();
}

void poke() {
    hal().poke();
}

mesh::SimTarget *simTarget() {
    mesh::SimTarget *target = nullptr;
    hal().withAdapter([&target](Adapter &adapter) { target = simulationOf(&adapter); });
    return target;
}

size_t pendingIndications() {
    return hal().pendingIndications();
}

uint32_t droppedIndications() {
    return hal().droppedIndications();
}

} // namespace corvane::zbhal::testing
