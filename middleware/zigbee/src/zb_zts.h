// SPDX-License-Identifier: Apache-2.0
//
// Allowlist of devices that may join with an install code. It lives in memory only; a restart begins with an empty
// list. The newest item is first, duplicates are kept. At most 4,096 items.
//
// The main thread changes the list, the HAL's context looks devices up in it: a mutex inside zb_zts.cpp serialises
// every access.
#pragma once
#include "zb_types.h"

extern ztsDeviceList zts_device_list_head; // items belong to the list

// Empties the head without freeing anything; once at process start.
void oruZb_ztsListInit();
// Copies the record, whose mac_address is most significant byte first. ORU_STATUS_NULL_POINTER;
// ORU_STATUS_OUT_OF_MEMORY, also when the list is full. Main thread.
oru_status_t oruZb_ztsListAddDevice(oruZb_ztsDeviceInfo_t *device_info);
// Frees every item. Main thread.
void oruZb_ztsListRemoveAllDevices();
// True when a device with this EUI-64 (8 bytes, most significant first) is listed; false for null. Any thread.
bool oruZb_ztsOnAllowlist(const uint8_t *mac_address);
// Hands every install code to the adapter, newest item first. Refusals are logged; the result is always 0. Main thread.
oru_status_t oruZb_ztsLoadInstallCodes();
