// SPDX-License-Identifier: Apache-2.0
#include "oru_kvs_state.h"
#include <algorithm>
#include <atomic>
#include <chrono>
#include <mutex>
#include <tuple>

namespace corvane::kvs {

namespace {

using Clock = std::chrono::steady_clock;

std::mutex state_mutex; // guards the two below; a leaf
State last_state;
Clock::time_point condition_since = Clock::now();

std::atomic<void (*)()> state_listener{nullptr};

auto essence(const State &state) {
    return std::tuple(state.condition, state.files_set_aside, state.records_set_aside);
}

} // namespace

void State::setReason(std::string_view text) {
    text = text.substr(0, reason.size() - 1);
    std::fill(std::ranges::copy(text, reason.begin()).out, reason.end(), '\0');
}

State state() {
    const std::lock_guard lock(state_mutex);
    State current = last_state;
    const auto age = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - condition_since);
    current.condition_ms = static_cast<uint64_t>(age.count());
    return current;
}

void onStateChange(void (*listener)()) {
    state_listener = listener;
}

bool publishState(const State &state) {
    const std::lock_guard lock(state_mutex);
    const bool changed = essence(state) != essence(last_state);
    condition_since = state.condition == last_state.condition ? condition_since : Clock::now();
    last_state = state;
    return changed;
}

void tellListener() {
    if (auto *const listener = state_listener.load(); listener != nullptr) {
        listener();
    }
}

} // namespace corvane::kvs
