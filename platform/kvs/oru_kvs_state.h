// SPDX-License-Identifier: Apache-2.0
//
// What the store says about itself to other layers of the platform. Its own lock guards only the last word of the
// store, so that nobody who asks waits for a medium that hangs. Any thread.
#pragma once
#include <array>
#include <cstdint>
#include <string_view>

namespace corvane::kvs {

// Numbers are part of the protocol of clients.
enum class Condition : uint8_t {
    not_opened = 0,     // nobody has used it yet
    sound = 1,          // all of it is on the medium
    in_memory = 2,      // the medium fails: it can be read, changes wait in memory
    copy = 3,           // the same, and it is read from a copy because nothing can be written beside the original
    not_read_whole = 4, // it could not be opened, or part of it not be read: what is missing there is not known
};

struct State {
    Condition condition = Condition::not_opened;
    uint32_t waiting = 0;           // values and erasures of groups that are in memory only
    uint32_t files_set_aside = 0;   // damaged ones, since the process started
    uint32_t records_set_aside = 0; // the same; also those of a file that was set aside
    uint64_t condition_ms = 0;      // how long the condition has lasted
    std::array<char, 232> reason{}; // of any condition but the first two: a sentence, zero-terminated

    void setReason(std::string_view text); // cuts what is too long
};

State state();

// Called, without any lock held, after the condition or what was set aside has changed, on the thread that changed it.
// One listener, for ever; it asks for the state itself. Null: none.
void onStateChange(void (*listener)());

// ---- for the store

// True when the listener is to be told.
bool publishState(const State &state);
void tellListener();

} // namespace corvane::kvs
