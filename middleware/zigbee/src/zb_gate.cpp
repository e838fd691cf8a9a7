// SPDX-License-Identifier: Apache-2.0
//
// The gate is a state and a count of the threads inside, both changed under one mutex. The state is readable without
// the mutex because producers test it around their wait for a place in the queue (see oruZb_msgPut): they count
// themselves as waiting before they test, and closing stores the state before it reads that count, so every producer
// either sees the closed gate or is woken.
//
// The record is never destroyed: threads of the platform may still knock while the process exits.
#include "zb_gate.h"
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>

namespace {

enum class GateState { not_opened_yet, open, closed };

struct Gate {
    std::mutex mutex; // guards inside, release_waiting and changes of state; a leaf
    std::condition_variable emptied;
    std::atomic<GateState> state{GateState::not_opened_yet};
    uint32_t inside = 0;                 // passes held
    void (*release_waiting)() = nullptr; // of whoever opened it
};

Gate &gate() {
    static Gate *const the_gate = new Gate;
    return *the_gate;
}

bool lets(GateState state, oruZb_gatePass::For purpose) {
    switch (purpose) {
    case oruZb_gatePass::For::client_call:
        return state == GateState::open;
    case oruZb_gatePass::For::callback:
        return state != GateState::closed;
    }
    return false;
}

} // namespace

void oruZb_gateOpen(void (*release_waiting)()) {
    const std::lock_guard<std::mutex> lock(gate().mutex);
    gate().release_waiting = release_waiting;
    gate().state.store(GateState::open);
}

bool oruZb_gateClose(uint32_t limit_ms) {
    std::unique_lock<std::mutex> lock(gate().mutex);
    gate().state.store(GateState::closed);
    if (gate().release_waiting != nullptr) {
        gate().release_waiting();
    }
    return gate().emptied.wait_for(lock, std::chrono::milliseconds(limit_ms), [] { return gate().inside == 0; });
}

bool oruZb_gateIsClosed() {
    return gate().state.load() == GateState::closed;
}

oruZb_gatePass::oruZb_gatePass(For purpose) {
    const std::lock_guard<std::mutex> lock(gate().mutex);
    inside_ = lets(gate().state.load(), purpose);
    if (inside_) {
        ++gate().inside;
    }
}

oruZb_gatePass::~oruZb_gatePass() {
    leave();
}

void oruZb_gatePass::leave() {
    if (!inside_) {
        return;
    }
    inside_ = false;
    const std::lock_guard<std::mutex> lock(gate().mutex);
    if (--gate().inside == 0) {
        gate().emptied.notify_all();
    }
}
