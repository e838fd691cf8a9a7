// SPDX-License-Identifier: Apache-2.0
// Traffic: the journey of a frame to a device and of a device's frames to the coordinator.
#include "mesh.h"
#include <algorithm>

namespace corvane::mesh {

namespace {

constexpr uint64_t kMs = 1000;
constexpr uint64_t kApsAckWaitUs = 500 * kMs;     // before an unacknowledged frame is sent again
constexpr uint64_t kRouteDiscoveryUs = 300 * kMs; // before a destination counts as unknown
constexpr uint64_t kIndirectLimitUs = 7680 * kMs; // a parent keeps a frame for a sleeping child that long
constexpr uint64_t kBroadcastSpreadUs = 60 * kMs; // passive acknowledgements of the neighbours
constexpr int kUplinkAttempts = 3;                // a device repeats an unacknowledged frame

} // namespace

int Mesh::indexOfNode(uint16_t node_id) const {
    const auto found = std::find_if(nodes_.begin(), nodes_.end(),
                                    [node_id](const MeshNode &node) { return node.joined && node.node_id == node_id; });
    return found == nodes_.end() ? -1 : static_cast<int>(found - nodes_.begin());
}

uint64_t Mesh::nextPoll(const MeshNode &node, uint64_t from_us) const {
    if (node.device.spec().role != Role::sleepy_end_device) {
        return from_us;
    }
    const uint64_t interval_us = uint64_t{std::max(node.device.spec().poll_interval_ms, 1U)} * kMs;
    const uint64_t since_us = from_us - std::min(from_us, node.joined_at_us);
    return node.joined_at_us + (since_us + interval_us - 1) / interval_us * interval_us;
}

// ---------------------------------------------------------------- to a device

void Mesh::send(std::shared_ptr<Flight> flight) {
    timeline_.after(0, [this, flight = std::move(flight)] {
        if (flight->destination >= kFirstBroadcast) {
            broadcast(flight);
        } else {
            attempt(flight);
        }
    });
}

void Mesh::finish(const Flight &flight, oruZbHal_clusterCommandStatus_t status, uint64_t delay_us) {
    const int index = indexOfNode(flight.destination);
    const bool withheld = index >= 0 && nodes_[static_cast<size_t>(index)].device.faults().hold_confirmations;
    timeline_.after(delay_us, [this, handle = flight.handle, status, withheld] {
        coordinator_.sendDone(handle, status, withheld);
    });
}

void Mesh::attempt(const std::shared_ptr<Flight> &flight) {
    const int index = indexOfNode(flight->destination);
    if (index >= 0) {
        attemptTo(flight, static_cast<size_t>(index));
        return;
    }
    const bool departed = std::any_of(nodes_.begin(), nodes_.end(),
                                      [&](const MeshNode &node) { return node.last_node_id == flight->destination; });
    air_.broadcast(); // the route request
    finish(*flight, departed ? ORU_ZB_HAL_NWK_UNKNOWN_DEVICE : ORU_ZB_HAL_NWK_ROUTE_DISCOVERY_FAILED,
           kRouteDiscoveryUs);
}

void Mesh::attemptTo(const std::shared_ptr<Flight> &flight, size_t index) {
    MeshNode &node = nodes_[index];
    if (node.device.faults().send_status != 0) {
        finish(*flight, static_cast<oruZbHal_clusterCommandStatus_t>(node.device.faults().send_status),
               air_.hopDelay());
        return;
    }
    const std::vector<int> path = pathTo(static_cast<int>(index));
    if (path.empty()) {
        air_.broadcast();
        timeline_.after(kRouteDiscoveryUs, [this, flight] { failed(flight, ORU_ZB_HAL_NWK_ROUTE_DISCOVERY_FAILED); });
        return;
    }
    const Journey journey = travel(path);
    const uint64_t there_us = timeline_.now() + journey.delay_us;
    if (journey.status != ORU_ZB_HAL_SUCCESS) {
        // Without acknowledgement nobody but the first hop is heard of.
        const bool unnoticed = journey.first_hop_ok && !flight->acknowledged;
        timeline_.at(there_us, [this, flight, status = unnoticed ? ORU_ZB_HAL_SUCCESS : journey.status] {
            failed(flight, status);
        });
        return;
    }
    const uint64_t taken_us = nextPoll(node, there_us);
    if (taken_us - there_us > kIndirectLimitUs) {
        const auto status = path.size() == 1 ? ORU_ZB_HAL_MAC_TRANSACTION_EXPIRED : ORU_ZB_HAL_APS_NO_ACK;
        timeline_.at(there_us + kIndirectLimitUs, [this, flight, status] { finish(*flight, status, 0); });
        return;
    }
    timeline_.at(taken_us, [this, flight, index, epoch = node.epoch] { arrive(flight, index, epoch); });
}

// Sends over every hop of the path. The first hop is the coordinator's own radio.
Mesh::Journey Mesh::travel(const std::vector<int> &path) {
    Journey journey;
    for (size_t hop = 0; hop < path.size(); ++hop) {
        MeshNode &node = nodes_[static_cast<size_t>(path[hop])];
        const bool listening = node.joined && node.powered && !node.device.faults().deaf;
        const Air::Hop result = air_.transmit(node.link_quality, hop == 0, listening);
        journey.delay_us += result.delay_us;
        if (result.outcome == Air::Outcome::delivered) {
            journey.first_hop_ok = true;
            continue;
        }
        if (hop > 0) {
            journey.status = listening ? ORU_ZB_HAL_APS_NO_ACK : ORU_ZB_HAL_NWK_ROUTE_ERROR;
        } else if (result.outcome == Air::Outcome::channel_busy) {
            journey.status = ORU_ZB_HAL_MAC_CHANNEL_ACCESSS_FAILURE;
        } else {
            journey.status =
                path.size() == 1 || listening ? ORU_ZB_HAL_MAC_NO_ACK : ORU_ZB_HAL_NWK_ROUTE_DISCOVERY_FAILED;
        }
        break;
    }
    return journey;
}

void Mesh::arrive(const std::shared_ptr<Flight> &flight, size_t index, uint32_t epoch) {
    if (nodes_[index].epoch != epoch) { // left, moved or lost power while the frame was on its way
        failed(flight, ORU_ZB_HAL_APS_NO_ACK);
        return;
    }
    if (flight->acknowledged) {
        acknowledge(flight, index); // before the answers, which may have to wait
    } else {
        finish(*flight, ORU_ZB_HAL_SUCCESS, 0);
    }
    if (!flight->received) {
        flight->received = true;
        handle(index, flight->message, false);
    }
}

void Mesh::acknowledge(const std::shared_ptr<Flight> &flight, size_t index) {
    uint64_t delay_us = 0;
    for (const int hop : pathTo(static_cast<int>(index))) {
        const MeshNode &node = nodes_[static_cast<size_t>(hop)];
        const Air::Hop result = air_.transmit(node.link_quality, false, true);
        delay_us += result.delay_us;
        if (result.outcome != Air::Outcome::delivered) {
            failed(flight, ORU_ZB_HAL_APS_NO_ACK);
            return;
        }
    }
    finish(*flight, ORU_ZB_HAL_SUCCESS, delay_us);
}

// One transmission has come to nothing: again, or the end.
void Mesh::failed(const std::shared_ptr<Flight> &flight, oruZbHal_clusterCommandStatus_t status) {
    if (status == ORU_ZB_HAL_SUCCESS) {
        finish(*flight, status, 0);
        return;
    }
    if (flight->retries_left > 0) {
        --flight->retries_left;
        air_.countApsRetry();
        timeline_.after(kApsAckWaitUs, [this, flight] { attempt(flight); });
        return;
    }
    air_.countApsFailure();
    finish(*flight, status, 0);
}

void Mesh::broadcast(const std::shared_ptr<Flight> &flight) {
    const Air::Hop on_air = air_.broadcast();
    if (on_air.outcome != Air::Outcome::delivered) {
        finish(*flight, ORU_ZB_HAL_MAC_CHANNEL_ACCESSS_FAILURE, on_air.delay_us);
        return;
    }
    for (size_t index = 0; index < nodes_.size(); ++index) {
        MeshNode &node = nodes_[index];
        const Role role = node.device.spec().role;
        const bool addressed = flight->destination == 0xFFFF ||
                               (flight->destination == 0xFFFD && role != Role::sleepy_end_device) ||
                               (flight->destination == 0xFFFC && role == Role::router);
        // Three copies are sent around, by every router.
        if (!addressed || !reachable(node) || node.device.faults().deaf ||
            (air_.loses(node.link_quality) && air_.loses(node.link_quality) && air_.loses(node.link_quality))) {
            continue;
        }
        const uint64_t there_us = timeline_.now() + air_.hopDelay() * pathTo(static_cast<int>(index)).size();
        timeline_.at(nextPoll(node, there_us), [this, flight, index, epoch = node.epoch] {
            if (nodes_[index].epoch == epoch) {
                handle(index, flight->message, true);
            }
        });
    }
    finish(*flight, ORU_ZB_HAL_SUCCESS, on_air.delay_us + kBroadcastSpreadUs);
}

// ---------------------------------------------------------------- from a device

bool Mesh::uplink(size_t index, const ApsMessage &message, bool broadcast, uint64_t extra_us) {
    MeshNode &node = nodes_[index];
    if (!reachable(node)) {
        return false;
    }
    const std::vector<int> path = pathTo(static_cast<int>(index));
    uint64_t delay_us = extra_us;
    bool delivered = false;
    for (int attempt = 0; attempt < kUplinkAttempts && !delivered; ++attempt) {
        delivered = true;
        for (size_t hop = path.size(); hop-- > 0 && delivered;) {
            const Air::Hop result = air_.transmit(nodes_[static_cast<size_t>(path[hop])].link_quality, false, true);
            delay_us += result.delay_us;
            delivered = result.outcome == Air::Outcome::delivered;
        }
    }
    if (!delivered) {
        return false;
    }
    const uint64_t due_us = std::max(timeline_.now() + delay_us, node.uplink_free_at_us + 1);
    node.uplink_free_at_us = due_us;
    const uint8_t link_quality = nodes_[static_cast<size_t>(path.front())].link_quality;
    timeline_.at(due_us, [this, message, broadcast, link_quality, source = node.node_id, counter = node.aps_counter++] {
        coordinator_.frameReceived({source, counter, broadcast, link_quality, &message});
    });
    return true;
}

} // namespace corvane::mesh
