// SPDX-License-Identifier: Apache-2.0
// Traffic: the journey of a frame to a device and of a device's frames to the coordinator.
#include "mesh.h"
#include <algorithm>

namespace corvane::mesh {

namespace {

constexpr uint64_t kMs = 1000;
constexpr uint64_t kBroadcastSpreadUs = 60 * kMs; // passive acknowledgements of the neighbours
constexpr int kUplinkAttempts = 3;                // a device repeats an unacknowledged frame

// Neighbourhoods of the medium are numbered by their router, the coordinator's is 0.
size_t neighbourhood(int router) {
    return static_cast<size_t>(std::max(router, Mesh::kCoordinator) + 1);
}

} // namespace

int Mesh::indexOfNode(uint16_t node_id) const {
    const auto found = std::find_if(nodes_.begin(), nodes_.end(),
                                    [node_id](const MeshNode &node) { return node.joined && node.node_id == node_id; });
    return found == nodes_.end() ? -1 : static_cast<int>(found - nodes_.begin());
}

// The parent and its child hear the frame either way; what the parent sends, its own parent hears, too.
Air::Frame Mesh::frameTo(size_t child, uint64_t at_us, size_t payload) const {
    Air::Frame frame = frameFrom(child, at_us, payload);
    const int parent = nodes_[child].parent;
    frame.local = parent < 0;
    frame.hearing[2] = frame.local ? 0 : neighbourhood(nodes_[static_cast<size_t>(parent)].parent);
    return frame;
}

Air::Frame Mesh::frameFrom(size_t child, uint64_t at_us, size_t payload) const {
    const MeshNode &node = nodes_[child];
    const size_t parent = neighbourhood(node.parent);
    Air::Frame frame;
    frame.at_us = at_us;
    frame.payload = payload;
    frame.hearing = {parent, neighbourhood(static_cast<int>(child)), parent};
    frame.link_quality = node.link_quality;
    return frame;
}

// ---------------------------------------------------------------- to a device

void Mesh::send(const std::shared_ptr<Flight> &flight) {
    try {
        timeline_.after(0, [this, flight] {
            if (flight->destination >= kFirstBroadcast) {
                broadcast(flight);
            } else {
                attempt(flight);
            }
        });
    } catch (const std::bad_alloc &) {
        flight->conclude(ORU_ZB_HAL_NWK_FRAME_NOT_BUFFERED, false);
    }
}

void Mesh::finish(const std::shared_ptr<Flight> &flight, oruZbHal_clusterCommandStatus_t status, uint64_t delay_us) {
    const int index = indexOfNode(flight->destination);
    const bool withheld = index >= 0 && nodes_[static_cast<size_t>(index)].device.faults().hold_confirmations;
    if (status != ORU_ZB_HAL_SUCCESS && flight->destination < kFirstBroadcast) {
        air_.countApsFailure();
    }
    timeline_.after(delay_us, [flight, status, withheld] { flight->conclude(status, withheld); });
}

void Mesh::attempt(const std::shared_ptr<Flight> &flight) {
    const int index = indexOfNode(flight->destination);
    flight->sent_us = timeline_.now();
    if (index >= 0) {
        attemptTo(flight, static_cast<size_t>(index));
        return;
    }
    const bool departed = std::any_of(nodes_.begin(), nodes_.end(),
                                      [&](const MeshNode &node) { return node.last_node_id == flight->destination; });
    air_.broadcast(0); // the route request
    finish(flight, departed ? ORU_ZB_HAL_NWK_UNKNOWN_DEVICE : ORU_ZB_HAL_NWK_ROUTE_DISCOVERY_FAILED,
           air_.spec().route_discovery_ms * kMs);
}

void Mesh::attemptTo(const std::shared_ptr<Flight> &flight, size_t index) {
    MeshNode &node = nodes_[index];
    if (node.device.faults().send_status != 0) {
        finish(flight, static_cast<oruZbHal_clusterCommandStatus_t>(node.device.faults().send_status), air_.hopDelay());
        return;
    }
    std::vector<int> path = pathTo(static_cast<int>(index));
    if (path.empty()) {
        air_.broadcast(0);
        timeline_.after(air_.spec().route_discovery_ms * kMs,
                        [this, flight] { failed(flight, ORU_ZB_HAL_NWK_ROUTE_DISCOVERY_FAILED); });
        return;
    }
    const bool sleepy = node.device.spec().role == Role::sleepy_end_device;
    const Journey journey = travel(path, sleepy ? path.size() - 1 : path.size(), flight->message.payload.size());
    const uint64_t there_us = timeline_.now() + journey.delay_us;
    if (journey.status != ORU_ZB_HAL_SUCCESS) {
        // Without acknowledgement nobody but the first hop is heard of.
        const bool unnoticed = journey.first_hop_ok && !flight->acknowledged;
        timeline_.at(there_us, [this, flight, status = unnoticed ? ORU_ZB_HAL_SUCCESS : journey.status] {
            failed(flight, status);
        });
    } else if (sleepy) {
        timeline_.at(there_us, [this, flight, index] { keepForChild(index, flight); });
    } else {
        timeline_.at(there_us, [this, flight, index, epoch = node.epoch] { arrive(flight, index, epoch); });
    }
}

// Sends over the first so many hops of the path. The first hop is the coordinator's own radio.
Mesh::Journey Mesh::travel(const std::vector<int> &path, size_t hops, size_t payload) {
    Journey journey;
    for (size_t hop = 0; hop < hops; ++hop) {
        const auto child = static_cast<size_t>(path[hop]);
        const MeshNode &node = nodes_[child];
        Air::Frame frame = frameTo(child, timeline_.now() + journey.delay_us, payload);
        frame.listening = node.joined && node.powered && !nodes_[child].device.faults().deaf;
        const Air::Hop result = air_.transmit(frame);
        journey.delay_us += result.delay_us;
        if (result.outcome == Air::Outcome::delivered) {
            journey.first_hop_ok = true;
            continue;
        }
        if (hop > 0) {
            journey.status = frame.listening ? ORU_ZB_HAL_APS_NO_ACK : ORU_ZB_HAL_NWK_ROUTE_ERROR;
        } else if (result.outcome == Air::Outcome::channel_busy) {
            journey.status = ORU_ZB_HAL_MAC_CHANNEL_ACCESSS_FAILURE;
        } else {
            journey.status =
                path.size() == 1 || frame.listening ? ORU_ZB_HAL_MAC_NO_ACK : ORU_ZB_HAL_NWK_ROUTE_DISCOVERY_FAILED;
        }
        break;
    }
    return journey;
}

void Mesh::arrive(const std::shared_ptr<Flight> &flight, size_t index, uint32_t epoch) {
    const bool gone = nodes_[index].epoch != epoch; // left, moved or lost power while the frame was on its way
    if (flight->destination >= kFirstBroadcast) {
        if (!gone && flight->group_id != 0) {
            handleInGroup(index, *flight);
        } else if (!gone) {
            handle(index, flight->message, true);
        }
        return;
    }
    if (gone) {
        failed(flight, ORU_ZB_HAL_APS_NO_ACK);
        return;
    }
    if (flight->acknowledged) {
        acknowledge(flight, index); // before the answers, which may have to wait
    } else {
        finish(flight, ORU_ZB_HAL_SUCCESS, 0);
    }
    if (!flight->received) {
        flight->received = true;
        handle(index, flight->message, false);
    }
}

void Mesh::handleInGroup(size_t index, const Flight &flight) {
    ApsMessage message = flight.message;
    for (const EndpointSpec &endpoint : nodes_[index].device.spec().endpoints) {
        if (nodes_[index].device.isInGroup(endpoint.id, flight.group_id)) {
            message.destination_endpoint = endpoint.id;
            handle(index, message, true);
        }
    }
}

void Mesh::acknowledge(const std::shared_ptr<Flight> &flight, size_t index) {
    uint64_t delay_us = 0;
    for (const int hop : pathTo(static_cast<int>(index))) {
        const Air::Hop result = air_.transmit(frameFrom(static_cast<size_t>(hop), timeline_.now() + delay_us, 0));
        delay_us += result.delay_us;
        if (result.outcome != Air::Outcome::delivered) {
            failed(flight, ORU_ZB_HAL_APS_NO_ACK);
            return;
        }
    }
    finish(flight, ORU_ZB_HAL_SUCCESS, delay_us);
}

// One transmission has come to nothing: when no acknowledgement has come in time, again, or the end.
void Mesh::failed(const std::shared_ptr<Flight> &flight, oruZbHal_clusterCommandStatus_t status) {
    if (status == ORU_ZB_HAL_SUCCESS || !flight->acknowledged) {
        finish(flight, status, 0);
        return;
    }
    const uint64_t waited_us = timeline_.now() - flight->sent_us;
    const uint64_t wait_us = air_.spec().aps_ack_wait_ms * kMs;
    const uint64_t left_us = wait_us - std::min(wait_us, waited_us);
    if (flight->retries_left == 0) {
        finish(flight, status, left_us);
        return;
    }
    --flight->retries_left;
    air_.countApsRetry();
    timeline_.after(left_us, [this, flight] { attempt(flight); });
}

void Mesh::broadcast(const std::shared_ptr<Flight> &flight) {
    const Air::Hop on_air = air_.broadcast(flight->message.payload.size());
    if (on_air.outcome != Air::Outcome::delivered) {
        finish(flight, ORU_ZB_HAL_MAC_CHANNEL_ACCESSS_FAILURE, on_air.delay_us);
        return;
    }
    for (size_t index = 0; index < nodes_.size(); ++index) {
        MeshNode &node = nodes_[index];
        const Role role = node.device.spec().role;
        const bool addressed = flight->destination == 0xFFFF ||
                               (flight->destination == kAllAwake && role != Role::sleepy_end_device) ||
                               (flight->destination == 0xFFFC && role == Role::router);
        // Three copies are sent around, by every router.
        if (!addressed || !reachable(node) || node.device.faults().deaf ||
            (air_.loses(node.link_quality) && air_.loses(node.link_quality) && air_.loses(node.link_quality))) {
            continue;
        }
        const size_t hops = pathTo(static_cast<int>(index)).size();
        const uint64_t there_us = timeline_.now() + on_air.delay_us + air_.hopDelay() * (hops - 1);
        if (role == Role::sleepy_end_device) {
            timeline_.at(there_us, [this, flight, index] { keepForChild(index, flight); });
        } else {
            timeline_.at(there_us, [this, flight, index, epoch = node.epoch] { arrive(flight, index, epoch); });
        }
    }
    relayed(flight->message);
    finish(flight, ORU_ZB_HAL_SUCCESS, on_air.delay_us + kBroadcastSpreadUs);
}

// Every router that is up repeats a broadcast once; its neighbours' medium is busy for that long.
void Mesh::relayed(const ApsMessage &message) {
    for (size_t index = 0; index < nodes_.size(); ++index) {
        if (nodes_[index].device.spec().role == Role::router && reachable(nodes_[index])) {
            air_.relay(frameFrom(index, 0, 0).hearing, timeline_.now(), message.payload.size());
        }
    }
}

// ---------------------------------------------------------------- from a device

bool Mesh::uplink(size_t index, const ApsMessage &message, bool broadcast) {
    MeshNode &node = nodes_[index];
    if (!reachable(node)) {
        return false;
    }
    const std::vector<int> path = pathTo(static_cast<int>(index));
    uint64_t delay_us = 0;
    bool delivered = false;
    for (int attempt = 0; attempt < kUplinkAttempts && !delivered; ++attempt) {
        delivered = true;
        for (size_t hop = path.size(); hop-- > 0 && delivered;) {
            const Air::Hop result = air_.transmit(
                frameFrom(static_cast<size_t>(path[hop]), timeline_.now() + delay_us, message.payload.size()));
            delay_us += result.delay_us;
            delivered = result.outcome == Air::Outcome::delivered;
        }
    }
    if (!delivered) {
        return false;
    }
    if (broadcast) {
        relayed(message);
    }
    const uint64_t due_us = std::max(timeline_.now() + delay_us, node.uplink_free_at_us + 1);
    node.uplink_free_at_us = due_us;
    const uint8_t link_quality = nodes_[static_cast<size_t>(path.front())].link_quality;
    timeline_.at(due_us, [this, message = message, broadcast, link_quality, source = node.node_id,
                          counter = node.aps_counter++] {
        coordinator_.frameReceived({source, counter, broadcast, link_quality, &message});
    });
    return true;
}

} // namespace corvane::mesh
