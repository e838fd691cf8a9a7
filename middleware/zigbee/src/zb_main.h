// SPDX-License-Identifier: Apache-2.0
//
// Life of the process: options, start-up in a fixed order, the main loop, shut-down in a fixed order.
//
//   parsing -> (daemon) -> initialising -> running -> stopping -> exited
//                               |  oruZb_init failed    ^
//                               +-----------------------+
//
// SIGINT and SIGTERM are the only way from running to stopping. Everything here runs on the main thread.
#pragma once
#include "zb_queue.h"
#include "zb_state.h"
#include "zb_types.h"

extern char *devicePort; // serial device of the radio adapter, "/dev/ttyUSB0" unless -p names another
extern oruZb_privateData_t sZBSvcData;

// Parses the options, starts the service, runs it until a termination signal and takes it down. 0, also when the
// adapter could not be brought up. Ends the process with status 1 for -h, a failed fork, timers, IPC service or
// throttle that cannot be created.
int zigbee_main(int argc, char **argv);
// As getopt with the options of the program, but goes on behind arguments that are none, whatever the environment says.
int oruZb_nextOption(int argc, char **argv);
// Goes on in a child process. The child keeps its terminal, directory and descriptors. Must come before any thread.
void daemonize();
void usage();                             // prints the four lines of usage on standard output
void HandleTermSignal(int signal_number); // signal context: sets terminated, nothing else
// Pools, queues, adapter, region, daily log and throttle, in this order; stops at the first failure and leaves taking
// down to oruZb_stop. device is kept in sZBSvcData and must stay valid. ORU_STATUS_OUT_OF_MEMORY when a pool cannot be
// created, ORU_STATUS_NULL_POINTER, else the status of the step that failed.
oru_status_t oruZb_init(char *device);
// IPC server, oruZb_init, main loop. Returns when terminated is set or oruZb_init failed.
void oruZb_start(char *device);
// Takes everything down, whatever of it came up. Closes the intake gate first: from then on no other thread reaches
// what is being destroyed. The adapter itself stays as it is.
void oruZb_stop();
// One round of the HAL's event processing, bounded by the library's own limit; its status.
oru_status_t oruZb_halRunEvents();
