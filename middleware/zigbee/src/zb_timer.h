// SPDX-License-Identifier: Apache-2.0
//
// The four one-shot timers of discovery, recovery and region access. They are created before the radio starts and
// deleted at shut-down; whoever waits for one starts it, nothing re-arms it by itself.
//
// Callbacks run on the platform's timer thread. Three of them only post a message to the main thread; the fourth runs
// the region access itself. A stopped timer may already have posted: handlers tolerate one late message.
#pragma once
#include "zb_region_info.h"
#include "zb_types.h"

extern oruTimer_t device_announce_timer;   // begin-discovery timer, whatever its name says
extern oruTimer_t service_discovery_timer; // response time-out of the request under way
extern oruTimer_t device_recovery_timer;   // next leave request to a device whose discovery failed

// Creates the timers, on the main thread at start-up. 0 or ORU_STATUS_ALREADY_INITIALIZED is success; any other status
// is that of the first timer that could not be created, and those after it do not exist then.
oru_status_t oruZb_timersInit();

// Deletes the timers; a callback that is running ends by itself.
void oruZb_timersDeInit();

// Posts an internal message without payload. ORU_STATUS_OUT_OF_MEMORY when no queue item is free, else the status of
// the post; nothing is leaked on failure. May wait for a place in the queue.
oru_status_t oruZb_timerPostServerMsg(oruZb_msgType_t timer_id);

void oruZb_timerDeviceAnnounceCallback(void *context);
void oruZb_timerServiceDiscoveryCallback(void *context);
void oruZb_timerDeviceRecoveryCallback(void *context);
