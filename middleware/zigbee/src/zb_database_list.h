// SPDX-License-Identifier: Apache-2.0
//
// Device database: the list in memory. Lookups hand out copies, never pointers into the list.
//
// Every operation that walks the list takes device_list_mutex for the whole walk. When the mutex cannot be taken the
// operation logs it, does nothing and returns the status of the mutex; a failed release is logged and ignored.
// Unless stated otherwise a null argument gives ORU_STATUS_NULL_POINTER.
#pragma once
#include "zb_types.h"

extern deviceList device_list_head;        // newest item first; guarded by device_list_mutex
extern std::atomic<uint32_t> device_count; // written under device_list_mutex, read without
extern oruMutex_t device_list_mutex;       // taken after txn_list_mutex; nothing of the service is taken inside it

// In the list and in the store: the node id of a device whose address was given to another one, until it announces a
// new one. Writing a record (an add or a change of node id) takes its node id from every other EUI-64.
constexpr oruZbHal_nodeId_t ORU_ZB_NODE_ID_UNKNOWN = 0xFFFE;

// Life and changes: main thread.

// Creates the mutex and loads every stored device; once, before any other thread can reach the list. Returns the
// status of the mutex or of the store's listing. Devices loaded before a failure stay in the list.
oru_status_t oruZb_databaseInit();
// Frees every item and leaves the store and the mutex alone: the list may be filled again without a new init.
oru_status_t oruZb_databaseDeInit();

// Puts a copy of the record in front of the list, then writes it to the store. There is no check for a device that is
// listed already, unless records were loaded late: one of the same device then goes from the list.
// ORU_STATUS_NULL_POINTER also when the allocator is exhausted; a store status when only the write failed (the item
// stays listed).
oru_status_t oruZb_databaseAddDevice(oruZb_device_t *device);
// The list half of an add.
oru_status_t oruZb_databaseAddDeviceHelper(oruZb_device_t *device);
// Changes the node id of the first item with this EUI-64 (8 bytes, most significant first) and rewrites its record.
// ORU_STATUS_NOT_FOUND, or the status of the store; memory holds the new node id even when the store refused it.
oru_status_t oruZb_databaseUpdateNodeId(uint8_t *eui64, oruZbHal_nodeId_t node_id);
// Removes the first item with this node id, from the store first: when the store refuses, the item stays and the
// store's status is returned. ORU_STATUS_NOT_FOUND when no item has the node id.
oru_status_t oruZb_databaseRemoveDevice(oruZbHal_nodeId_t node_id);
// The same for the first item that has both the node id and the EUI-64 of the record.
oru_status_t oruZb_databaseRemoveLeftDevice(const oruZb_device_t *device);

// Lookups: any thread.

// Copy the first match, counted from the newest item, to *p. ORU_STATUS_NOT_FOUND leaves *p as it was.
oru_status_t oruZb_databaseGetDevice(oruZbHal_nodeId_t node_id, oruZb_device_t *p);
oru_status_t oruZb_databaseGetDeviceByEui64(const uint8_t *eui64, oruZb_device_t *p); // 8 bytes, most significant first
oru_status_t oruZb_databaseGetDeviceByIndex(uint32_t index, oruZb_device_t *p);       // 0 is the newest item
uint32_t oruZb_databaseGetDeviceCount();                                              // takes no lock
oru_status_t oruZb_databasePrintDevices();                                            // one log line per device
