// SPDX-License-Identifier: Apache-2.0
//
// Platform start-up, the first thing the process does. All three operations run on the main thread only, may be
// followed by a fork (no threads, no open sockets or files stay behind), and use no other layer but the log.
//
//   with a configuration file:   oruUserConfig_parser, then oru_initWithConfig
//   without one:                 oru_init
#pragma once
#include "oru_status.h"
#include <cstdint>
#include <cstdio>

// Priorities of the seven thread classes, in units of the configuration file; 0 for one that is not given.
struct oruThread_prio_config {
    uint32_t idle;
    uint32_t low;
    uint32_t below_normal;
    uint32_t normal;
    uint32_t above_normal;
    uint32_t high;
    uint32_t realtime;
};
static_assert(sizeof(oruThread_prio_config) == 28, "seven 32-bit priorities");

struct oruUserConfig_config_t {
    uint32_t version;                   // of the configuration format; the service stores 1
    oruThread_prio_config *thread_prio; // the service stores null; the parser may attach a malloc'ed table
};

extern "C" {
// Platform start-up with the default settings: creates the state folder and the folder of the sockets where only their
// last component is missing, checks that both can be written, and sets the log up. What fails is one line in the log;
// the process may go on, the layers concerned then report their own failures.
//   ORU_STATUS_OK             all is in place
//   ORU_STATUS_GENERAL_ERROR  a folder is missing, or that of the sockets cannot be written (that of the store may be
//                             read-only or full for a while; it gets its line and no more)
//   ORU_STATUS_BAD_PARAM      the log cannot be set up
//   ORU_STATUS_OUT_OF_MEMORY
oru_status_t oru_init(void);

// The same with the settings of the file parsed before. The process should end with the status when it is not 0: the
// caller asked for these settings and one of them does not work; the log line says which, why and what to do.
// config: not kept, nor is its table; the caller releases the table right after the call, whatever the result.
//   as oru_init, and
//   ORU_STATUS_NULL_POINTER   config is null
//   ORU_STATUS_BAD_PARAM      config->version is not 1
oru_status_t oru_initWithConfig(const oruUserConfig_config_t *config);

// Reads the configuration file (TOML, see docs/configuration.md) to its end and keeps the settings for
// oru_initWithConfig and the layers. All or nothing: after a failure the settings in force are those from before.
// file: opened for reading, at the start of the text; stays open. Anything that can be read will do, up to 1 MiB.
// config: version becomes 1; thread_prio becomes a table from malloc, which the caller releases with free, when the
//   file sets at least one priority, and is left alone otherwise and on failure.
//   ORU_STATUS_OK
//   ORU_STATUS_NULL_POINTER   file or config is null
//   ORU_STATUS_BAD_PARAM      it cannot be read, is not TOML, or has an unknown name or a wrong value; one log line
//                             names file, line and column, what is wrong and what is allowed
//   ORU_STATUS_OUT_OF_MEMORY
oru_status_t oruUserConfig_parser(FILE *file, oruUserConfig_config_t *config);
}
