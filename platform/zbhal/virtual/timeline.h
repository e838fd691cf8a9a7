// SPDX-License-Identifier: Apache-2.0
//
// Time of the mesh: a heap of events in microseconds of the monotonic clock. Events due at the same time run in the
// order in which they were scheduled. There is no cancelling; an action finds out by itself (epochs, generations) that
// it has been overtaken.
#pragma once
#include <algorithm>
#include <cstdint>
#include <functional>
#include <vector>

namespace corvane::mesh {

class Timeline {
public:
    using Action = std::function<void()>;

    // Time of the running event, between events the time of the last advance.
    uint64_t now() const { return now_us_; }

    void at(uint64_t due_us, Action action) {
        events_.push_back({std::max(due_us, now_us_), order_++, std::move(action)});
        std::push_heap(events_.begin(), events_.end(), later);
    }
    void after(uint64_t delay_us, Action action) { at(now_us_ + delay_us, std::move(action)); }

    // Runs what is due, at most kMaxAtOnce events so that a clock that leaps forward costs a bounded time per call.
    // Returns the time of the next event, UINT64_MAX when there is none.
    uint64_t advance(uint64_t now_us) {
        for (int ran = 0; ran < kMaxAtOnce && !events_.empty() && events_.front().due_us <= now_us; ++ran) {
            std::pop_heap(events_.begin(), events_.end(), later);
            const Event event = std::move(events_.back());
            events_.pop_back();
            now_us_ = std::max(now_us_, event.due_us);
            event.action();
        }
        const uint64_t next_us = events_.empty() ? UINT64_MAX : events_.front().due_us;
        now_us_ = std::max(now_us_, std::min(now_us, next_us));
        return next_us;
    }

private:
    static constexpr int kMaxAtOnce = 20000;

    struct Event {
        uint64_t due_us;
        uint64_t order;
        Action action;
    };
    static bool later(const Event &a, const Event &b) {
        return a.due_us != b.due_us ? a.due_us > b.due_us : a.order > b.order;
    }

    std::vector<Event> events_; // heap, earliest in front
    uint64_t now_us_ = 0;
    uint64_t order_ = 0;
};

} // namespace corvane::mesh
