// SPDX-License-Identifier: Apache-2.0
//
// Settings of the platform layers, inside the platform only: the service never includes this header.
//
// The settings are plain values. They start as defaults, oruUserConfig_parser replaces them as a whole when the
// configuration file was read without an error, and nothing changes them after start-up. Every layer reads them with
// oruConfig_get. Every key of the file is described in docs/configuration.md.
#pragma once
#include "oru_log.h"
#include <cstdint>
#include <string>
#include <sys/types.h>
#include <vector>

enum class oruConfig_log_sink_t : int32_t {
    STANDARD_ERROR,
    SYSTEM_LOG,
    LOG_FILE,
};

struct oruConfig_t {
    // [store] directory. Default: first entry of $STATE_DIRECTORY, else /var/lib/corvane.
    std::string state_directory;

    // [ipc] directory of the sockets. Default: first entry of $RUNTIME_DIRECTORY, else /run/corvane.
    std::string runtime_directory;
    mode_t socket_mode = 0660; // while nobody is listed but the daemon's own user and group; else 0666
    // Names or decimal numbers of those who may connect besides root and the daemon's own user.
    std::vector<std::string> ipc_users;
    std::vector<std::string> ipc_groups;

    // [radio]
    bool radio_event_descriptor = true; // event_mode "descriptor"; false: "thread"
    uint64_t radio_seed = 0;            // meaningful only when radio_seed_set
    bool radio_seed_set = false;
    uint32_t watchdog_seconds = 30;      // 0: no watchdog
    bool radio_wait_for_adapter = false; // a missing adapter does not end the start

    // [simulation]
    bool simulation_control = true;

    // [log]
    oruConfig_log_sink_t log_sink = oruConfig_log_sink_t::STANDARD_ERROR;
    oruLog_level_t log_level = ORU_LOG_INFO;
    std::string log_file; // not empty when log_sink is LOG_FILE
    uint32_t log_max_size_kib = 1024;
    uint32_t log_max_files = 3; // old files kept beside it
};

// The settings in force. The reference stays valid for the life of the process (the storage is never destroyed, so
// threads that outlive main may use it). Any thread, without a lock, once start-up is over.
const oruConfig_t &oruConfig_get();

// The settings of a process without a configuration file; reads the two environment variables at each call.
oruConfig_t oruConfig_defaults();
