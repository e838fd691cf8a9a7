// SPDX-License-Identifier: Apache-2.0
#include "mesh_radio.h"
#include <algorithm>

namespace corvane::coprocessor {

using mesh::MeshNode;
using zbhal::IndicationKind;
using zbhal::Ticket;

namespace {

constexpr uint8_t DEFAULT_RADIUS = 30; // hops

zbhal::VirtualSettings settingsFor(const std::string &state_directory) {
    zbhal::VirtualSettings settings;
    settings.state_directory = state_directory;
    return settings;
}

} // namespace

MeshRadio::MeshRadio(const mesh::Scenario &scenario, const std::string &state_directory, Clock clock,
                     std::function<void()> woken)
    : scenario_(scenario), clock_(std::move(clock)), woken_(std::move(woken)),
      coordinator_(scenario, settingsFor(state_directory), *this, faults_),
      simulation_(zbhal::makeSimulation(coordinator_, *this)) {}

void MeshRadio::start(RadioEvents &events) {
    events_ = &events;
    (void)coordinator_.advance(clock_());
    (void)coordinator_.enable(); // the first and only time
}

uint64_t MeshRadio::advance(uint64_t now_us) {
    uint64_t next_us = coordinator_.advance(now_us);
    while (unsettled_) {
        settle();
        next_us = coordinator_.advance(now_us);
    }
    return next_us;
}

// ---- the network

void MeshRadio::bringUp(const mesh::Network &network) {
    wanted_ = network;
    settle();
}

bool MeshRadio::isWanted() {
    oruZbHal_networkParameters_t now{};
    oruZbHal_keyStruct_t key{};
    return coordinator_.networkInfo(now) == ORU_STATUS_OK &&
           coordinator_.key(ORU_ZB_HAL_CURRENT_NETWORK_KEY, key) == ORU_STATUS_OK && now.pan_id == wanted_->pan_id &&
           std::ranges::equal(now.extended_pan_id, wanted_->extended_pan_id) &&
           std::ranges::equal(key.key.contents, wanted_->key);
}

// One step towards what is wanted; not from within a report of the coordinator, which is still busy then.
void MeshRadio::settle() {
    unsettled_ = false;
    if (stack_ != Stack::restarting && waiting_scan_) {
        const Scan scan = *std::exchange(waiting_scan_, std::nullopt);
        (void)coordinator_.startScan(scan.type, scan.channel_mask, scan.duration);
    }
    if (!wanted_ || stack_ == Stack::restarting) {
        return;
    }
    if (stack_ == Stack::no_network) {
        coordinator_.planNetwork(*wanted_);
        const uint32_t mask = 1U << wanted_->channel;
        (void)coordinator_.formNetwork(mask, 0, wanted_->channel, ORU_ZB_HAL_REGION_WORLD_WIDE);
        stack_ = Stack::restarting;
    } else if (isWanted()) {
        wanted_.reset();
        events_->networkUp();
    } else {
        (void)coordinator_.leaveNetwork();
        stack_ = Stack::restarting;
    }
}

bool MeshRadio::leave() {
    wanted_.reset();
    leaving_ = coordinator_.leaveNetwork() == ORU_STATUS_OK;
    stack_ = leaving_ ? Stack::restarting : stack_;
    joining_ = leaving_ ? Joining::closed : joining_;
    return leaving_;
}

void MeshRadio::abandon() {
    wanted_.reset();
    waiting_scan_.reset();
    leaving_ = false;
    setJoining(Joining::closed);
    clearLinkKeys();
    if (stack_ == Stack::restarting) {
        return; // has nothing under way
    }
    abandoning_ = true;
    (void)coordinator_.reset();
    abandoning_ = false;
}

void MeshRadio::stackStatus(int32_t status) {
    switch (static_cast<oruZbHal_stackStatus_t>(status)) {
    case ORU_ZB_HAL_STACK_ENABLED_NETWORK_UP:
        stack_ = Stack::up;
        unsettled_ = true;
        return;
    case ORU_ZB_HAL_STACK_ENABLED_NO_NETWORK:
        stack_ = Stack::no_network;
        unsettled_ = true;
        if (std::exchange(leaving_, false)) {
            events_->networkDown();
        }
        return;
    case ORU_ZB_HAL_STACK_BUSY_RESETTING:
        stack_ = Stack::restarting;
        if (!abandoning_) {
            events_->restarted();
        }
        return;
    case ORU_ZB_HAL_STACK_FATAL_ERROR:
        stack_ = Stack::restarting;
        events_->crashed();
        return;
    case ORU_ZB_HAL_STACK_ENABLING:
    case ORU_ZB_HAL_STACK_NOT_INITIALIZED:
    case ORU_ZB_HAL_STACK_BUSY_UPGRADING:
    case ORU_ZB_HAL_STACK_DISABLED:
        return;
    }
}

// ---- joining and keys

// Opening anew lets the devices of the scenario try again from the beginning, so it is done on a change only.
void MeshRadio::setJoining(Joining joining) {
    if (joining == std::exchange(joining_, joining)) {
        return;
    }
    (void)coordinator_.permitJoin(false);
    if (joining == Joining::open) {
        (void)coordinator_.permitJoin(true);
    } else if (joining == Joining::install_codes_only) {
        (void)coordinator_.permitJoinZts(true);
    }
}

bool MeshRadio::addLinkKey(const Eui64 &eui64, const mesh::Key &key) {
    const mesh::DeviceSpec *const device = deviceOf(eui64);
    const bool right =
        device != nullptr && device->install_code && zigbee::installCodeKey(*device->install_code) == key;
    mesh::InstallCode code{}; // a wrong key is the key of a code that the device does not have
    std::ranges::copy(key, code.begin());
    zigbee::setInstallCodeCrc(code);
    const Eui64 lsb_first = base::reversed(eui64);
    return coordinator_.addInstallCode(lsb_first, right ? *device->install_code : code) == ORU_STATUS_OK;
}

mesh::Key MeshRadio::linkKey(const Eui64 &eui64) {
    constexpr uint16_t AUTHORIZED = 0x0010; // not only handed over for joining
    oruZbHal_keyStruct_t entry{};
    mesh::Key key{};
    for (uint8_t index = 0; coordinator_.keyTableEntry(index, entry) == ORU_STATUS_OK; ++index) {
        if ((entry.bitmask & AUTHORIZED) != 0 && base::reversed(entry.partner_eui64) == eui64) {
            std::ranges::copy(entry.key.contents, key.begin());
        }
    }
    oruSecret_wipe(&entry, sizeof entry);
    return key;
}

// ---- traffic

oru_status_t MeshRadio::startScan(uint8_t type, uint32_t channel_mask, uint8_t duration) {
    if (stack_ == Stack::restarting) {
        waiting_scan_ = {type, channel_mask, duration};
        return ORU_STATUS_OK;
    }
    return coordinator_.startScan(type, channel_mask, duration);
}

// The contract wants tickets that can be the tag of a frame; this coordinator sends none, so they just count.
Ticket MeshRadio::open(const Indication &confirmation) {
    open_.emplace(++last_ticket_, confirmation);
    return last_ticket_;
}

// A send that was refused gets no confirmation.
oru_status_t MeshRadio::opened(Ticket ticket, oru_status_t status) {
    if (status != ORU_STATUS_OK) {
        open_.erase(ticket);
    }
    return status;
}

oru_status_t MeshRadio::send(zbhal::SendRequest &request) {
    request.aps_frame.sequence = ++aps_sequence_;
    const bool broadcast = request.destination >= mesh::kFirstBroadcast;
    Indication confirmation{};
    confirmation.kind = IndicationKind::send_confirmed;
    confirmation.outgoing_type = broadcast ? ORU_ZB_HAL_OUTGOING_BROADCAST : ORU_ZB_HAL_OUTGOING_DIRECT;
    confirmation.node_id = request.destination;
    confirmation.aps_frame = request.aps_frame;
    if (confirmation.aps_frame.radius == 0) {
        confirmation.aps_frame.radius = DEFAULT_RADIUS;
    }
    confirmation.request_id = request.request_id;
    confirmation.length = static_cast<uint16_t>(request.payload.size());
    std::ranges::copy(request.payload, confirmation.payload.begin());
    request.ticket = open(confirmation);
    return opened(request.ticket, coordinator_.send(request));
}

oru_status_t MeshRadio::sendGroup(oruZbHal_apsFrame_t &aps_frame, std::span<const uint8_t> payload) {
    aps_frame.sequence = ++aps_sequence_;
    return coordinator_.sendGroup(aps_frame, payload);
}

oru_status_t MeshRadio::sendInterpan(uint8_t channel, std::span<const uint8_t> frame) {
    Indication completion{};
    completion.kind = IndicationKind::interpan_sent;
    const Ticket ticket = open(completion);
    return opened(ticket, coordinator_.sendInterpan({1U << channel, {}, frame, ticket}));
}

bool MeshRadio::indicate(const Indication &indication) {
    if (indication.kind == IndicationKind::stack_status) {
        stackStatus(indication.status);
    } else if (!abandoning_) {
        events_->indicated(indication);
    }
    return true;
}

void MeshRadio::conclude(Ticket ticket, int32_t status) {
    auto closed = open_.extract(ticket);
    if (closed.empty() || abandoning_) {
        return;
    }
    closed.mapped().status = status;
    events_->indicated(closed.mapped());
}

void MeshRadio::concludeAll(int32_t send_status, oru_status_t interpan_status) {
    while (!open_.empty()) {
        const auto &[ticket, confirmation] = *open_.begin();
        conclude(ticket, confirmation.kind == IndicationKind::interpan_sent ? int32_t{interpan_status} : send_status);
    }
}

// ---- tables

oruZbHal_counters_t MeshRadio::counters(bool clear) {
    oruZbHal_counters_t counters{};
    (void)coordinator_.debugCounters(counters, clear);
    return counters;
}

size_t MeshRadio::children(std::span<oruZbHal_childTableEntry_t> entries) {
    return stack_ == Stack::up ? coordinator_.mesh().children(entries) : 0;
}

size_t MeshRadio::neighbors(std::span<oruZbHal_neighborTableEntry_t> entries) {
    return stack_ == Stack::up ? coordinator_.mesh().neighbors(entries) : 0;
}

size_t MeshRadio::routes(std::span<oruZbHal_routeTableEntry_t> entries) {
    return stack_ == Stack::up ? coordinator_.mesh().routes(entries) : 0;
}

const mesh::DeviceSpec *MeshRadio::deviceOf(const Eui64 &eui64) {
    const auto found = std::ranges::find(scenario_.devices, eui64, &mesh::DeviceSpec::eui64);
    return found == scenario_.devices.end() ? nullptr : &*found;
}

uint16_t MeshRadio::nodeIdOf(const Eui64 &eui64) {
    const std::vector<MeshNode> &nodes = coordinator_.mesh().nodes();
    const auto found = std::ranges::find_if(
        nodes, [&](const MeshNode &node) { return node.joined && node.device.spec().eui64 == eui64; });
    return found == nodes.end() ? mesh::kNoNode : found->node_id;
}

const Eui64 *MeshRadio::eui64Of(uint16_t node_id) {
    const std::vector<MeshNode> &nodes = coordinator_.mesh().nodes();
    const auto found =
        std::ranges::find_if(nodes, [&](const MeshNode &node) { return node.joined && node.node_id == node_id; });
    return found == nodes.end() ? nullptr : &found->device.spec().eui64;
}

size_t MeshRadio::relays(uint16_t node_id, std::span<uint16_t> node_ids) {
    const std::vector<MeshNode> &nodes = coordinator_.mesh().nodes();
    const auto found =
        std::ranges::find_if(nodes, [&](const MeshNode &node) { return node.joined && node.node_id == node_id; });
    size_t count = 0;
    for (int parent = found == nodes.end() ? mesh::Mesh::kCoordinator : found->parent;
         parent >= 0 && count < node_ids.size(); parent = nodes[static_cast<size_t>(parent)].parent) {
        node_ids[count++] = nodes[static_cast<size_t>(parent)].node_id;
    }
    return count;
}

// ---- from the control socket

void MeshRadio::locked(const std::function<void()> &work) {
    {
        const std::lock_guard lock(mutex_);
        (void)advance(clock_());
        work();
        (void)advance(clock_());
    }
    changed();
}

std::string MeshRadio::refuseNext(const std::string &operation, uint32_t count, int32_t status) {
    if (operation != "confirmation" && operation != "interpanCompletion") {
        return "this radio refuses \"confirmation\" and \"interpanCompletion\"; its line has \"refuse_command\"";
    }
    return faults_.refuseNext(operation, count, status);
}

void MeshRadio::hang(uint32_t milliseconds) {
    {
        const std::lock_guard lock(mutex_);
        events_->hung(milliseconds);
    }
    changed();
}

} // namespace corvane::coprocessor
