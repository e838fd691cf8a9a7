// SPDX-License-Identifier: Apache-2.0
//
// Intake gate: the one door through which other threads (IPC, HAL callbacks, timers) reach the queue, the pools and
// the lists. Shut-down closes it first, waits for the threads inside, and then may take everything down.
//
//   not opened yet --oruZb_gateOpen--> open --oruZb_gateClose--> closed --oruZb_gateOpen--> open (a new start)
//
// Before the first opening HAL and timer callbacks pass (there are none then), client calls do not.
// A thread may hold several passes at once: join handling called from a HAL callback, for instance.
#pragma once
#include <cstdint>

// Lets everybody in. Called at the end of a successful oruZb_msgQueueInit: from then on a message can be queued.
// release_waiting wakes whoever waits inside for something that only the main thread provides; called on closing, with
// the gate's mutex held.
void oruZb_gateOpen(void (*release_waiting)());
// Closes the gate and waits until every thread inside has left, at most limit_ms milliseconds. Producers that wait
// for a place in the queue are released (they return ORU_STATUS_CANCELED). False: the limit passed with threads still
// inside. Main thread, which must hold no pass itself.
bool oruZb_gateClose(uint32_t limit_ms);
// True from the first moment of oruZb_gateClose on. Any thread.
bool oruZb_gateIsClosed();

// A pass for one stay inside; test it before going on.
class oruZb_gatePass {
public:
    enum class For {
        client_call, // passes only while the gate is open
        callback,    // passes unless the gate is closed
    };
    explicit oruZb_gatePass(For purpose);
    ~oruZb_gatePass();
    oruZb_gatePass(const oruZb_gatePass &) = delete;
    oruZb_gatePass &operator=(const oruZb_gatePass &) = delete;
    explicit operator bool() const { return inside_; }
    void leave(); // before waiting for something only the main thread can provide

private:
    bool inside_;
};
