// SPDX-License-Identifier: Apache-2.0
//
// Logging. Where lines go and which levels are kept is set up at start-up (oru_log_setup.h); until then lines of
// ORU_LOG_INFO and above go to the standard error stream.
#pragma once
#include <cstdint>

enum oruLog_id_t : int32_t {
    ORU_LOG_ID_MAIN = 0,
};

enum oruLog_level_t : int32_t {
    ORU_LOG_VERBOSE = 0,
    ORU_LOG_DEBUG = 1,
    ORU_LOG_INFO = 2,
    ORU_LOG_WARN = 3,
    ORU_LOG_ERROR = 4,
    ORU_LOG_FATAL = 5,
};

extern "C" {
// Writes one line: time, level, [tag], text.
//   id      the log to write to; there is only the main one
//   level   lines below the configured level are dropped before they are formatted; a value outside of the list counts
//           as the nearest one in it. ORU_LOG_FATAL does not end the process.
//   tag     short name of the program part, trusted text; null prints "-"
//   format  printf format of the text; null writes nothing
// The text is cut at 1023 bytes, never inside a UTF-8 character. One newline at its end is removed; every other control
// character becomes '?', so that text from outside cannot forge lines or drive a terminal.
//
// Threads: every thread at any time, also while exit() runs; not in signal handlers. Takes only the log's own lock,
// calls nobody back, allocates no memory, and keeps errno. Never waits for a slow reader: a thread of the log's own
// writes the lines, in the order of the calls, and those that do not fit into the 256 KiB that may wait for it are
// dropped; "N log lines dropped" stands where they would have been. The end of main() and exit() leave it a second to
// write what waits, a crash 0.2 s; kill -9 costs what was logged in the last milliseconds.
//
// A line of ORU_LOG_FATAL may be the last one: the caller writes it, and comes back when it is written, or after 0.2 s
// when its place takes nothing.
void oruLog_log(oruLog_id_t id, oruLog_level_t level, const char *tag, const char *format, ...)
    __attribute__((format(printf, 4, 5)));
}
