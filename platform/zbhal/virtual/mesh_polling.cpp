// SPDX-License-Identifier: Apache-2.0
// Sleepy devices: the frames that their parents keep for them, and the polls that fetch those.
//
// Polls that would find nothing are not simulated: there is an event for the next poll only while frames wait.
#include "mesh.h"
#include <algorithm>

namespace corvane::mesh {

namespace {

constexpr uint64_t kMs = 1000;
constexpr uint64_t kFastPollUs = 250 * kMs;    // between two polls while polling fast
constexpr uint64_t kPendingPollUs = 20 * kMs;  // to the next poll when the parent has said that more is waiting
constexpr uint64_t kAfterFrameUs = 3000 * kMs; // fast polls go on so long after a frame that was fetched

} // namespace

uint64_t Mesh::nextPoll(const MeshNode &node, uint64_t from_us) const {
    const auto next = [from_us](uint64_t origin_us, uint64_t interval_us) {
        const uint64_t since_us = from_us - std::min(from_us, origin_us);
        return origin_us + (since_us + interval_us - 1) / interval_us * interval_us;
    };
    const uint64_t interval_us = uint64_t{std::max(node.device.spec().poll_interval_ms, 1U)} * kMs;
    const uint64_t fast_us = next(node.poll_from_us, std::min(interval_us, kFastPollUs));
    return fast_us <= node.fast_poll_until_us ? fast_us : next(node.fast_poll_until_us, interval_us);
}

void Mesh::pollFast(size_t index, uint64_t for_us) {
    MeshNode &node = nodes_[index];
    node.poll_from_us = timeline_.now();
    node.fast_poll_until_us = std::max(node.fast_poll_until_us, timeline_.now() + for_us);
    schedulePoll(index, timeline_.now());
}

void Mesh::schedulePoll(size_t index, uint64_t from_us) {
    MeshNode &node = nodes_[index];
    if (node.waiting.empty()) {
        return;
    }
    timeline_.surelyAt(from_us, [this, index, round = ++node.poll_round] {
        if (nodes_[index].poll_round == round) {
            poll(index);
        }
    });
}

void Mesh::keepForChild(size_t index, const std::shared_ptr<Flight> &flight) {
    MeshNode &node = nodes_[index];
    const uint64_t expires_us = timeline_.now() + air_.spec().indirect_queue_ms * kMs;
    node.waiting.push_back({flight, expires_us, node.epoch});
    timeline_.surelyAt(expires_us, [this, index] { expire(index); });
    schedulePoll(index, nextPoll(node, timeline_.now()));
}

// A child of the coordinator has not fetched its frame; of another parent's child nothing is heard.
void Mesh::expire(size_t index) {
    std::vector<Waiting> &waiting = nodes_[index].waiting;
    while (!waiting.empty() && waiting.front().expires_us <= timeline_.now()) {
        const std::shared_ptr<Flight> flight = waiting.front().flight;
        waiting.erase(waiting.begin());
        if (flight->destination < kFirstBroadcast) {
            const bool direct = nodes_[index].parent < 0;
            finish(flight, direct ? ORU_ZB_HAL_MAC_TRANSACTION_EXPIRED : ORU_ZB_HAL_APS_NO_ACK, 0);
        }
    }
}

// Fetches the oldest frame. One that gets lost stays with the parent for the next poll.
void Mesh::poll(size_t index) {
    MeshNode &node = nodes_[index];
    if (node.waiting.empty()) { // expired meanwhile
        return;
    }
    const bool asks = reachable(node) && !node.device.faults().deaf;
    const Air::Hop hop =
        asks ? air_.transmit(frameTo(index, timeline_.now(), node.waiting.front().flight->message.payload.size()))
             : Air::Hop{Air::Outcome::no_ack, 0};
    if (hop.outcome != Air::Outcome::delivered) {
        schedulePoll(index, nextPoll(node, timeline_.now() + 1));
        return;
    }
    timeline_.after(hop.delay_us, [this, index, flight = node.waiting.front().flight,
                                   epoch = node.waiting.front().epoch] { arrive(flight, index, epoch); });
    node.waiting.erase(node.waiting.begin());
    node.poll_from_us = timeline_.now();
    node.fast_poll_until_us = std::max(node.fast_poll_until_us, timeline_.now() + kAfterFrameUs);
    schedulePoll(index, timeline_.now() + kPendingPollUs);
}

} // namespace corvane::mesh
