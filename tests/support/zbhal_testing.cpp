// SPDX-License-Identifier: Apache-2.0
#include "oru_config.h"
#include "oru_zbhal_testing.h"
#include "virtual/virtual_adapter.h"
#include "zbhal_core.h"
#include <algorithm>
#include <iterator>
#include <utility>

namespace corvane::zbhal {

namespace {

Hal *instance = nullptr;
std::shared_ptr<AdapterFaults> faults = std::make_shared<AdapterFaults>();
std::atomic<Simulator *> simulator{nullptr};

Made makeMesh(const testing::Options &options, const std::string &scenario_path, AdapterHost &host) {
    Made made = makeVirtualAdapter(
        scenario_path, {options.state_directory, options.runtime_directory, options.seed, options.scenario, faults},
        host);
    simulator = simulatorOf(made.adapter.get());
    return made;
}

HalSetup setupOf(const testing::Options &options) {
    const bool descriptor = options.mode == testing::Mode::configured ? oruConfig_get().radio_event_descriptor
                                                                      : options.mode == testing::Mode::descriptor;
    HalSetup setup{descriptor, options.watchdog_seconds, false, options.backends};
    setup.backends.push_back(
        {"virtual:", [options](const std::string &rest, AdapterHost &host) { return makeMesh(options, rest, host); }});
    std::ranges::copy(productBackends(), std::back_inserter(setup.backends));
    return setup;
}

} // namespace

Hal &hal() { // instead of the product's
    if (instance == nullptr) {
        testing::reset({});
    }
    return *instance;
}

} // namespace corvane::zbhal

// These two come before there is an adapter that could refuse them. Linked with -Wl,--wrap for each name.
extern "C" {
oru_status_t __real_oruZbHal_init(oruZbHal_callbacks_t *callbacks, int32_t *event_descriptor);
oru_status_t __real_oruZbHal_setAdapterName(char *device);

oru_status_t __wrap_oruZbHal_init(oruZbHal_callbacks_t *callbacks, int32_t *event_descriptor) {
    const auto refusal = corvane::zbhal::faults->take(corvane::zbhal::Operation::init);
    return refusal ? oru_status_t{*refusal} : __real_oruZbHal_init(callbacks, event_descriptor);
}

oru_status_t __wrap_oruZbHal_setAdapterName(char *device) {
    corvane::zbhal::faults->waitWhileHung();
    const auto refusal = corvane::zbhal::faults->take(corvane::zbhal::Operation::set_adapter_name);
    return refusal ? oru_status_t{*refusal} : __real_oruZbHal_setAdapterName(device);
}
}

namespace corvane::zbhal::testing {

void reset(const Options &options) {
    delete std::exchange(instance, nullptr);
    faults = std::make_shared<AdapterFaults>();
    simulator = nullptr;
    instance = new Hal([options] { return setupOf(options); });
}

bool injectStackStatus(oruZbHal_stackStatus_t status) {
    Indication indication;
    indication.kind = IndicationKind::stack_status;
    indication.status = status;
    return hal().indicate(indication);
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
    (void)hal().indicate(indication);
}

void injectAnnounce(oruZbHal_nodeId_t node_id, const oruZbHal_eui64_t &eui64, uint8_t capabilities) {
    uint8_t body[12] = {0, static_cast<uint8_t>(node_id), static_cast<uint8_t>(node_id >> 8)};
    std::copy(std::begin(eui64), std::end(eui64), body + 3);
    body[11] = capabilities;
    oruZbHal_apsFrame_t aps_frame{};
    aps_frame.cluster_id = 0x0013; // Device_annce
    (void)injectFrame(node_id, aps_frame, body);
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
    return hal().indicate(indication);
}

std::string refuseNext(const std::string &operation, uint32_t count, int32_t status) {
    return faults->refuseNext(operation, count, status);
}

void refuseCall(uint64_t nth, int32_t status) {
    faults->refuseCall(nth, status);
}

uint64_t operationCalls() {
    return faults->calls();
}

void holdConfirmations(bool hold) {
    if (simulator != nullptr) {
        simulator.load()->holdConfirmations(hold);
    }
}

uint64_t nextEventUs() {
    return hal().pump();
}

void poke() {
    hal().changed();
}

mesh::SimTarget *simTarget() {
    return simulator == nullptr ? nullptr : &simulator.load()->target();
}

size_t pendingIndications() {
    return hal().undelivered();
}

} // namespace corvane::zbhal::testing
