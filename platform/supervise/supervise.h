// SPDX-License-Identifier: Apache-2.0
//
// Readiness and liveness of the process. The threads that must not stand still report here: the main loop with each of
// its turns, a dispatcher when it goes into a callback and comes back, a link with each of its turns. A thread that
// stands still (a call that never returns, a lock that is never released) cannot be mended from inside: its silence is
// named in one log line and ends the process, and the supervisor starts the daemon again. A supervisor that asks for it
// is told of readiness and liveness.
//
// A process that is stopped and continued (a paused container, a debugger) has stood still without fault. The watcher's
// own wait shows it: when that has taken far too long, all time counts from then on.
//
// All operations from any thread; beat and rest are a clock read and a store. No locks of others are taken.
#pragma once
#include <cstdint>

namespace corvane::supervise {

enum class Pulse : uint8_t { main_loop, dispatcher, link, count };

// limit_seconds 0: no abort. The supervisor's notifications work in any case. Starts a thread only when there is
// something to watch; false: the thread could not be started, which has been logged. Nothing has started before.
[[nodiscard]] bool start(uint32_t limit_seconds);
void stop();

// The thread is alive, and is expected to say so again within the limit. The first beat of the main loop reports
// readiness; nothing is watched before.
void beat(Pulse pulse);
// The thread waits for work and may be silent until its next beat.
void rest(Pulse pulse);

} // namespace corvane::supervise
