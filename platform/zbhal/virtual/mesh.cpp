// SPDX-License-Identifier: Apache-2.0
// Membership: joining, leaving, rejoining, reports.
#include "mesh.h"
#include <algorithm>

namespace corvane::mesh {

namespace {

constexpr uint64_t kMs = 1000;
constexpr uint64_t kAnnounceUs = 40 * kMs; // from the key to the announce
constexpr uint64_t kLeaveUs = 60 * kMs;    // from the leave request to silence
constexpr uint64_t kRejoinUs = 1500 * kMs; // from leaving to coming back; doubled for each further attempt
constexpr uint64_t kLongestRejoinUs = 60000 * kMs;
constexpr uint64_t kPowerUpUs = 800 * kMs; // from power to the first frame
constexpr uint64_t kFirstRetryMs = 3000;   // of a refused join; doubled up to the longest
constexpr uint64_t kLongestRetryMs = 60000;
constexpr uint64_t kFastPollUs = 30000 * kMs; // after coming into the network or announcing itself
constexpr size_t kUsualEvents = 1024;         // of the traffic under way
constexpr size_t kEventsPerDevice = 8;        // beside its reports
constexpr double kNewAddressChance = 0.25;    // after leaving with a rejoin

} // namespace

Mesh::Mesh(const Scenario &scenario, Timeline &timeline, Random &random, Air &air, Coordinator &coordinator)
    : timeline_(timeline), random_(random), air_(air), coordinator_(coordinator),
      child_capacity_(scenario.coordinator.child_capacity), speed_(scenario.speed) {
    size_t events = kUsualEvents;
    nodes_.reserve(scenario.devices.size());
    for (const DeviceSpec &spec : scenario.devices) {
        nodes_.emplace_back(spec);
        events += kEventsPerDevice + spec.reports.size();
    }
    timeline_.reserve(events);
    for (const MeshNode &node : nodes_) {
        const int parent = indexOf(node.device.spec().parent);
        spec_parents_.push_back(parent < 0 ? kCoordinator : parent);
    }
}

int Mesh::indexOf(const std::string &name) const {
    const auto found = std::find_if(nodes_.begin(), nodes_.end(),
                                    [&](const MeshNode &node) { return node.device.spec().name == name; });
    return found == nodes_.end() ? -1 : static_cast<int>(found - nodes_.begin());
}

std::string Mesh::parentName(const MeshNode &node) const {
    if (!node.joined || node.parent == kUnreachable) {
        return {};
    }
    return node.parent == kCoordinator ? "coordinator" : nodes_[static_cast<size_t>(node.parent)].device.spec().name;
}

uint64_t Mesh::scaled(uint64_t milliseconds) const {
    return static_cast<uint64_t>(static_cast<double>(milliseconds) * 1000.0 / speed_);
}

uint16_t Mesh::freeNodeId() {
    for (;;) {
        const auto candidate = static_cast<uint16_t>(1 + random_.below(kFirstBroadcast - 1));
        const bool used = std::any_of(nodes_.begin(), nodes_.end(), [candidate](const MeshNode &node) {
            return node.node_id == candidate || node.last_node_id == candidate;
        });
        if (!used && std::ranges::find(strangers_, candidate, &Member::node_id) == strangers_.end()) {
            return candidate;
        }
    }
}

std::vector<Member> Mesh::members() const {
    std::vector<Member> result;
    for (const MeshNode &node : nodes_) {
        if (node.joined || node.returning) {
            result.push_back(
                {node.device.spec().eui64, node.joined ? node.node_id : node.last_node_id, node.returning});
        }
    }
    result.insert(result.end(), strangers_.begin(), strangers_.end());
    return result;
}

const Eui64 *Mesh::member(size_t number) const {
    for (const MeshNode &node : nodes_) {
        if ((node.joined || node.returning) && number-- == 0) {
            return &node.device.spec().eui64;
        }
    }
    return number < strangers_.size() ? &strangers_[number].eui64 : nullptr;
}

// ---------------------------------------------------------------- the network comes and goes

size_t Mesh::networkStarted(const std::vector<Member> &members) {
    for (const Member &member : members) {
        const auto node =
            std::ranges::find(nodes_, member.eui64, [](const MeshNode &known) { return known.device.spec().eui64; });
        if (node == nodes_.end()) {
            if (std::ranges::find(strangers_, member.eui64, &Member::eui64) == strangers_.end()) {
                strangers_.push_back(member);
            }
            continue;
        }
        const auto index = static_cast<size_t>(node - nodes_.begin());
        if (member.returning && !node->joined && !node->returning) {
            node->returning = true;
            node->last_node_id = member.node_id;
            comeBack(index, kRejoinUs, 0);
        } else if (!node->joined && !node->returning) {
            enter(*node, member.node_id);
            startReports(index);
        }
    }
    settle(members.empty());
    return strangers_.size();
}

void Mesh::networkGone() {
    join_round_open_ = false;
    strangers_.clear();
    for (MeshNode &node : nodes_) {
        ++node.epoch;
        node.joined = node.returning = false;
        node.node_id = node.last_node_id = kNoNode;
        node.parent = kUnreachable;
        node.join_round = 0;
    }
}

void Mesh::enter(MeshNode &node, uint16_t node_id) {
    ++node.epoch;
    node.joined = true;
    node.returning = false;
    node.node_id = node_id;
    node.device.setNodeId(node_id);
    node.poll_from_us = node.fast_poll_until_us = timeline_.now();
    const Link link = freeLink(static_cast<size_t>(&node - nodes_.data()));
    node.parent = link.parent;
    node.link_quality = link.link_quality;
    coordinator_.membershipChanged();
    settleLater();
}

// ---------------------------------------------------------------- joining

void Mesh::joiningOpened() {
    ++join_round_;
    join_round_open_ = true;
    for (size_t index = 0; index < nodes_.size(); ++index) {
        MeshNode &node = nodes_[index];
        const std::optional<uint32_t> &due = node.device.spec().join_at_ms;
        if (node.joined || !due) {
            continue;
        }
        node.join_round = join_round_;
        node.join_attempts = 0;
        timeline_.surely(scaled(*due), [this, index, round = join_round_] { scheduledJoin(index, round); });
    }
}

void Mesh::scheduledJoin(size_t index, uint32_t round) {
    MeshNode &node = nodes_[index];
    if (node.joined || node.join_round != round || round != join_round_ || !join_round_open_) {
        return;
    }
    if (node.powered && attemptJoin(index).verdict == Verdict::accepted) {
        return;
    }
    const uint64_t wait_ms = std::min(kFirstRetryMs << std::min(node.join_attempts, 5U), kLongestRetryMs);
    ++node.join_attempts;
    timeline_.surely(scaled(wait_ms), [this, index, round] { scheduledJoin(index, round); });
}

Admission Mesh::attemptJoin(size_t index) {
    MeshNode &node = nodes_[index];
    if (!node.powered) {
        return {Verdict::not_listening, ORU_ZB_HAL_DENY_JOIN, "the device is switched off"};
    }
    const Link link = bestLink(index);
    if (link.parent == kUnreachable) {
        return {Verdict::not_listening, ORU_ZB_HAL_DENY_JOIN, "no router of the network is in reach of the device"};
    }
    const uint16_t parent =
        link.parent == kCoordinator ? kCoordinatorNode : nodes_[static_cast<size_t>(link.parent)].node_id;
    const bool child = link.parent == kCoordinator && node.device.spec().role != Role::router;
    Admission admission = coordinator_.admit({node.device.spec(), parent, child});
    const Eui64 &eui64 = node.device.spec().eui64;
    if (admission.verdict == Verdict::refused) {
        coordinator_.deviceReport(
            {freeNodeId(), eui64, parent, ORU_ZB_HAL_STANDARD_SECURITY_UNSECURED_JOIN, ORU_ZB_HAL_DENY_JOIN});
    }
    if (admission.verdict != Verdict::accepted) {
        return admission;
    }
    node.join_round = 0;
    enter(node, freeNodeId());
    coordinator_.deviceReport(
        {node.node_id, eui64, parent, ORU_ZB_HAL_STANDARD_SECURITY_UNSECURED_JOIN, admission.decision});
    announceSoon(index, kAnnounceUs);
    startReports(index);
    return admission;
}

std::string Mesh::join(size_t index) {
    if (nodes_[index].joined) {
        return "the device is in the network already";
    }
    return attemptJoin(index).reason;
}

// Takes no memory, so that a device on its way back is not lost half-way.
const char *Mesh::rejoin(size_t index, bool secured, bool new_address) {
    MeshNode &node = nodes_[index];
    if (!coordinator_.networkUp()) {
        return "there is no network";
    }
    if (!node.powered) {
        return "the device is switched off";
    }
    if (node.node_id == kNoNode && node.last_node_id == kNoNode) {
        return "the device has never been in this network; let it join";
    }
    if (freeLink(index).parent == kUnreachable) {
        return bestLink(index).parent == kUnreachable ? "no router of the network is in reach of the device"
                                                      : "the coordinator has no room for another child";
    }
    const uint16_t known_id = node.node_id != kNoNode ? node.node_id : node.last_node_id;
    const uint16_t node_id = new_address ? freeNodeId() : known_id;
    if (new_address) {
        node.last_node_id = known_id;
    }
    enter(node, node_id);
    const uint16_t parent =
        node.parent == kCoordinator ? kCoordinatorNode : nodes_[static_cast<size_t>(node.parent)].node_id;
    coordinator_.deviceReport(
        {node.node_id, node.device.spec().eui64, parent,
         secured ? ORU_ZB_HAL_STANDARD_SECURITY_SECURED_REJOIN : ORU_ZB_HAL_STANDARD_SECURITY_UNSECURED_REJOIN,
         secured ? ORU_ZB_HAL_NO_ACTION : ORU_ZB_HAL_USE_PRECONFIGURED_KEY});
    announceSoon(index, kAnnounceUs);
    startReports(index);
    return "";
}

// With a secured rejoin, under the same address or, when it has left, perhaps another one.
void Mesh::comeBack(size_t index, uint64_t delay_us, uint32_t attempt) {
    timeline_.surely(delay_us, [this, index, attempt, epoch = nodes_[index].epoch] {
        const MeshNode &node = nodes_[index];
        if (node.epoch != epoch || !node.powered) {
            return;
        }
        if (*rejoin(index, true, node.returning && random_.chance(kNewAddressChance)) != '\0') {
            comeBack(index, std::min(kRejoinUs << std::min(attempt + 1, 6U), kLongestRejoinUs), attempt + 1);
        }
    });
}

void Mesh::announceSoon(size_t index, uint64_t delay_us) {
    pollFast(index, kFastPollUs);
    timeline_.after(delay_us, [this, index, epoch = nodes_[index].epoch] {
        if (nodes_[index].epoch == epoch) {
            uplink(index, nodes_[index].device.announce(), true);
        }
    });
}

// ---------------------------------------------------------------- leaving and moving

std::string Mesh::leave(size_t index, bool rejoin) {
    if (!nodes_[index].joined) {
        return "the device is not in the network";
    }
    depart(index, rejoin);
    return {};
}

void Mesh::depart(size_t index, bool rejoin) {
    MeshNode &node = nodes_[index];
    const bool noticed = reachable(node);
    const uint16_t parent = node.parent < 0 ? kCoordinatorNode : nodes_[static_cast<size_t>(node.parent)].node_id;
    const uint16_t node_id = node.node_id;
    ++node.epoch;
    node.joined = false;
    node.last_node_id = node_id;
    node.node_id = kNoNode;
    node.parent = kUnreachable;
    node.returning = rejoin;
    coordinator_.membershipChanged();
    settleLater();
    // A leave that announces a rejoin does not reach the trust centre: the parent keeps the place free.
    if (noticed && !rejoin) {
        coordinator_.deviceReport(
            {node_id, node.device.spec().eui64, parent, ORU_ZB_HAL_DEVICE_LEFT, ORU_ZB_HAL_NO_ACTION});
    }
    if (rejoin) {
        comeBack(index, kRejoinUs, 0);
    }
}

std::string Mesh::announce(size_t index) {
    if (!reachable(nodes_[index])) {
        return "the device does not reach the coordinator";
    }
    pollFast(index, kFastPollUs);
    uplink(index, nodes_[index].device.announce(), true);
    return {};
}

std::string Mesh::changeAddress(size_t index) {
    MeshNode &node = nodes_[index];
    if (!reachable(node)) {
        return "the device does not reach the coordinator";
    }
    node.last_node_id = node.node_id;
    enter(node, freeNodeId());
    startReports(index);
    announceSoon(index, kAnnounceUs);
    return {};
}

std::string Mesh::setPower(size_t index, bool on) {
    MeshNode &node = nodes_[index];
    if (node.powered == on) {
        return on ? "the device is switched on already" : "the device is switched off already";
    }
    node.powered = on;
    ++node.epoch;
    node.silent_since_us = timeline_.now();
    settleLater();
    if (!on || !(node.joined || node.returning)) {
        return {};
    }
    startReports(index);
    if (node.joined && node.device.spec().role == Role::router) {
        announceSoon(index, kPowerUpUs);
    } else { // end devices look for a parent again
        comeBack(index, kPowerUpUs, 0);
    }
    return {};
}

// ---------------------------------------------------------------- reports

void Mesh::startReports(size_t index) {
    MeshNode &node = nodes_[index];
    const uint32_t round = ++node.report_round;
    for (size_t number = 0; number < node.device.spec().reports.size(); ++number) {
        if (node.device.spec().reports[number].interval_ms == kNoPeriodicReport) {
            continue;
        }
        const uint64_t interval_us = scaled(node.device.spec().reports[number].interval_ms);
        timeline_.surely(interval_us / 2 + random_.below(interval_us / 2 + 1),
                         [this, index, number, round] { runReport(index, number, round); });
    }
}

void Mesh::runReport(size_t index, size_t number, uint32_t round) {
    MeshNode &node = nodes_[index];
    const ReportSpec &spec = node.device.spec().reports[number];
    if (node.report_round != round || !node.joined || !node.powered || spec.interval_ms == kNoPeriodicReport) {
        return;
    }
    uplink(index, node.device.report(spec, random_.next()), false);
    timeline_.surely(scaled(spec.interval_ms), [this, index, number, round] { runReport(index, number, round); });
}

std::string Mesh::report(size_t index) {
    MeshNode &node = nodes_[index];
    if (!reachable(node)) {
        return "the device does not reach the coordinator";
    }
    if (node.device.spec().reports.empty()) {
        return "the device has no reports";
    }
    for (const ReportSpec &spec : node.device.spec().reports) {
        uplink(index, node.device.report(spec, random_.next()), false);
    }
    return {};
}

void Mesh::sendPending(size_t index) {
    for (const ApsMessage &message : nodes_[index].device.takePending()) {
        uplink(index, message, false);
    }
}

// A device that was told to leave goes after its answers are out. An answer that takes its time holds up nothing else.
void Mesh::handle(size_t index, const ApsMessage &message, bool broadcast) {
    const uint32_t epoch = nodes_[index].epoch;
    DeviceActions actions = nodes_[index].device.receive(message, broadcast);
    const uint64_t delay_us = uint64_t{nodes_[index].device.faults().answer_delay_ms} * kMs;
    if (actions.leave) {
        timeline_.surely(delay_us + kLeaveUs, [this, index, epoch, rejoin = actions.rejoin] {
            if (nodes_[index].epoch == epoch && nodes_[index].joined) {
                depart(index, rejoin);
            }
        });
    }
    if (actions.reports_changed) {
        startReports(index);
    }
    for (ApsMessage &answer : actions.answers) {
        if (delay_us == 0) {
            uplink(index, answer, false);
            continue;
        }
        timeline_.after(delay_us, [this, index, epoch, answer = std::move(answer)] {
            if (nodes_[index].epoch == epoch) {
                uplink(index, answer, false);
            }
        });
    }
}

} // namespace corvane::mesh
