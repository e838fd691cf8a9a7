// SPDX-License-Identifier: Apache-2.0
//
// Time of the mesh: a heap of events in microseconds of the monotonic clock. Events due at the same time run in the
// order in which they were scheduled. There is no cancelling; an action finds out by itself (epochs, generations) that
// it has been overtaken.
//
// When memory runs out in an action, a frame is dropped with its action, but what must happen (at the owner's word:
// surely) is run again a moment later. Scheduling itself takes memory only when there are more events than ever before.
#pragma once
#include <algorithm>
#include <concepts>
#include <cstddef>
#include <cstdint>
#include <new>
#include <type_traits>
#include <utility>
#include <vector>

namespace corvane::mesh {

// A callable without arguments, kept in place.
class Action {
public:
    template <typename Callable>
    requires(!std::same_as<Callable, Action>) Action(Callable callable)
        : kind_(&kKind<Callable>) { // NOLINT(google-explicit-constructor)
        static_assert(sizeof(Callable) <= kRoom);
        static_assert(alignof(Callable) <= alignof(std::max_align_t));
        static_assert(std::is_nothrow_move_constructible_v<Callable>);
        new (room_) Callable(std::move(callable));
    }
    Action(Action &&other) noexcept : kind_(std::exchange(other.kind_, nullptr)) {
        if (kind_ != nullptr) {
            kind_->move(other.room_, room_);
        }
    }
    Action &operator=(Action &&other) noexcept {
        if (this != &other) {
            this->~Action();
            new (this) Action(std::move(other));
        }
        return *this;
    }
    ~Action() {
        if (kind_ != nullptr) {
            kind_->destroy(room_);
        }
    }
    void operator()() { kind_->call(room_); }

private:
    static constexpr size_t kRoom = 64;

    struct Kind {
        void (*call)(void *room);
        void (*move)(void *from, void *to); // leaves nothing behind
        void (*destroy)(void *room);
    };
    template <typename Callable>
    static constexpr Kind kKind = {
        [](void *room) { (*static_cast<Callable *>(room))(); },
        [](void *from, void *to) {
            new (to) Callable(std::move(*static_cast<Callable *>(from)));
            static_cast<Callable *>(from)->~Callable();
        },
        [](void *room) { static_cast<Callable *>(room)->~Callable(); },
    };

    const Kind *kind_;
    alignas(std::max_align_t) unsigned char room_[kRoom];
};

class Timeline {
public:
    // Time of the running event, between events the time of the last advance.
    uint64_t now() const { return now_us_; }

    void at(uint64_t due_us, Action action) { push({std::max(due_us, now_us_), order_++, false, std::move(action)}); }
    void after(uint64_t delay_us, Action action) { at(now_us_ + delay_us, std::move(action)); }
    // The same for what no other event makes up for. The action may be run again when memory runs out in it.
    void surelyAt(uint64_t due_us, Action action) {
        push({std::max(due_us, now_us_), order_++, true, std::move(action)});
    }
    void surely(uint64_t delay_us, Action action) { surelyAt(now_us_ + delay_us, std::move(action)); }

    // Makes room for so many events.
    void reserve(size_t events) { events_.reserve(events + kSpare); }
    // Drops all events.
    void clear() { events_.clear(); }
    // Events that ended for want of memory, those that were run again included.
    uint64_t shortages() const { return shortages_; }

    // Runs what is due, at most kMaxAtOnce events so that a clock that leaps forward costs a bounded time per call.
    // Returns the time of the next event, UINT64_MAX when there is none, or when mayGoOn() said no before an event:
    // then time stands still.
    template <typename MayGoOn>
    uint64_t advance(uint64_t now_us, MayGoOn mayGoOn) {
        for (int ran = 0; ran < kMaxAtOnce && !events_.empty() && events_.front().due_us <= now_us; ++ran) {
            if (!mayGoOn()) {
                return UINT64_MAX;
            }
            std::pop_heap(events_.begin(), events_.end(), later);
            Event event = std::move(events_.back());
            events_.pop_back();
            now_us_ = std::max(now_us_, event.due_us);
            try {
                event.action();
            } catch (const std::bad_alloc &) {
                outOfMemory(std::move(event));
            }
        }
        const uint64_t next_us = events_.empty() ? UINT64_MAX : events_.front().due_us;
        now_us_ = std::max(now_us_, std::min(now_us, next_us));
        return next_us;
    }

private:
    static constexpr int kMaxAtOnce = 20000;
    static constexpr size_t kSpare = 64;           // places that frames leave to events of the other kind
    static constexpr uint64_t kShortageUs = 10000; // until memory may be there again

    struct Event {
        uint64_t due_us;
        uint64_t order;
        bool must_happen;
        Action action;
    };
    static bool later(const Event &a, const Event &b) {
        return a.due_us != b.due_us ? a.due_us > b.due_us : a.order > b.order;
    }
    void push(Event event) {
        if (events_.size() + kSpare >= events_.capacity()) {
            grow(event.must_happen);
        }
        events_.push_back(std::move(event));
        std::push_heap(events_.begin(), events_.end(), later);
    }
    void grow(bool must_happen) {
        try {
            events_.reserve(2 * (events_.capacity() + kSpare));
        } catch (const std::bad_alloc &) {
            if (!must_happen || events_.size() == events_.capacity()) {
                throw;
            }
        }
    }
    void outOfMemory(Event event) {
        ++shortages_;
        if (event.must_happen && events_.size() < events_.capacity()) {
            event.due_us = now_us_ + kShortageUs;
            events_.push_back(std::move(event));
            std::push_heap(events_.begin(), events_.end(), later);
        }
    }

    std::vector<Event> events_; // heap, earliest in front
    uint64_t now_us_ = 0;
    uint64_t order_ = 0;
    uint64_t shortages_ = 0;
};

} // namespace corvane::mesh
