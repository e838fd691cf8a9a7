// SPDX-License-Identifier: Apache-2.0
//
// Who may occupy the adapter's places for sends. A device that does not answer keeps each frame for seconds, until its
// last repetition is given up: whoever commands it quickly would fill all places and stop everybody else, and every
// interview of a new device. So one destination gets at most kMaxPerDestination, and the last places are for ZDO.
#pragma once
#include "zbhal_events.h"
#include <algorithm>

namespace corvane::zbhal {

class SendPlaces {
public:
    static constexpr size_t kMaxPerDestination = 16;
    static constexpr size_t kKeptForZdo = 4; // at most an eighth of the capacity

    // Takes a place for a send. capacity: of the adapter. False: the send must be refused.
    [[nodiscard]] bool take(oruZbHal_nodeId_t destination, bool zdo, size_t capacity) {
        const size_t kept = zdo ? 0 : std::min(kKeptForZdo, capacity / 8);
        const auto end = taken_.begin() + count_;
        const auto same = static_cast<size_t>(std::count(taken_.begin(), end, destination));
        if (count_ + kept >= std::min(capacity, taken_.size()) || same >= kMaxPerDestination) {
            return false;
        }
        taken_[count_++] = destination;
        return true;
    }
    void release(oruZbHal_nodeId_t destination) {
        const auto end = taken_.begin() + count_;
        const auto place = std::find(taken_.begin(), end, destination);
        if (place != end) {
            *place = taken_[--count_];
        }
    }

private:
    std::array<oruZbHal_nodeId_t, EventQueue::kMaxReserved> taken_{}; // the first count_, in no order
    size_t count_ = 0;
};

} // namespace corvane::zbhal
