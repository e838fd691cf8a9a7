// SPDX-License-Identifier: Apache-2.0
//
// Set-up of the log, for the part of the platform that reads the configuration.
#pragma once
#include "oru_log.h"
#include "oru_status.h"
#include <cstddef>
#include <string>

struct oruLog_config_t {
    enum class sink_t {
        standard_error, // descriptor 2; coloured on a terminal unless NO_COLOR is set in the environment
        syslog,         // the datagram socket /dev/log (journal or syslog daemon), facility "daemon"
        file,           // a regular file, created with mode 0640, appended to
    };
    sink_t sink = sink_t::standard_error;
    oruLog_level_t level = ORU_LOG_INFO; // lines below are dropped
    std::string file;                    // path, for sink_t::file only
    size_t max_file_bytes = 0;           // the file is rotated before it grows beyond this; 0 = never
    unsigned max_files = 0;              // old files kept beside it: FILE.1 (newest) to FILE.max_files
};

// Switches the log to config. May be called again, from any thread: lines from before go to the place before when it
// takes them within a second. Starts no thread and may be followed by a fork: the line logged next starts the writer, a
// thread with all signals blocked (which takes SIGHUP when the process has blocked it: the log file is then opened
// anew). Until then lines are written by whoever logs them.
// Result: ORU_STATUS_OK; ORU_STATUS_BAD_PARAM when the place cannot be opened (the log stays as it was, and a text for
// people is stored in *error unless that is null); ORU_STATUS_OUT_OF_MEMORY.
oru_status_t oruLog_configure(const oruLog_config_t &config, std::string *error = nullptr);

// Waits until the lines logged so far are written, or dropped by their place. False when the limit came first.
bool oruLog_flush(uint32_t limit_ms);
