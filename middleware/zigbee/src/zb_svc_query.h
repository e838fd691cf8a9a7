// SPDX-License-Identifier: Apache-2.0
//
// Network and device queries, counters of the radio. Main thread.
//
// All of them give ORU_STATUS_NULL_POINTER for a null record. Records are filled in place; len is the payload's length
// in bytes.
#pragma once
#include "zb_types.h"

oru_status_t oruZb_doPing(oruZb_pingResponse_t *echo, const char *resp); // main and IPC threads
oru_status_t oruZb_doGetAdapterState(oruZb_adapterState_t *state);       // IPC threads
// Always 0: without a network (without a key) the fields hold the fill values of oruZb_networkInfo_t.
oru_status_t oruZb_doGetNetworkInfo(oruZb_networkInfo_t *info);
// By list position, node id or EUI-64, as req->by says. ORU_STATUS_NOT_FOUND, or ORU_STATUS_GENERAL_ERROR for an
// unknown kind of key; the record stays as it was then.
oru_status_t oruZb_doGetDevice(oruZb_getDevice_t *req);
oru_status_t oruZb_doGetDeviceCount(oruZb_deviceCount_t *out);
// Fills every entry the payload holds, from list position node_index on, and advances node_index past each.
// ORU_STATUS_UNRECOVERABLE: all entries filled, more devices remain. ORU_STATUS_GENERAL_ERROR: the payload holds more
// entries than remain; those that do are filled. ORU_STATUS_DATA_LEN_INVALID: no room for node_index.
oru_status_t oruZb_doGetConnectedNodes(uint32_t len, oruZb_nodeInfoList_t *list);
// The result is that of the identity; a version that cannot be read is an empty text.
oru_status_t oruZb_doGetAdapterInfo(oruZb_adapterInfo_t *info);
// The coordinator itself. On failure only id, manufacturer_code and type are written.
oru_status_t oruZb_doGetLocalNodeInfo(oruZb_nodeInfo_t *node);
// Adapter tables, at most 255 entries, numbered from 1; entries beyond those the adapter has are not written. A payload
// too short for one entry gives 0 and is left alone. The status of the adapter; ORU_STATUS_NULL_POINTER also when there
// is no memory for the transfer.
oru_status_t oruZb_doGetChildren(uint32_t len, oruZb_childTableEntry_t *entries);
oru_status_t oruZb_doGetRoutes(uint32_t len, oruZb_routeTableEntry_t *entries);
oru_status_t oruZb_doGetNeighbors(uint32_t len, oruZb_neighborTableEntry_t *entries);
// Starts a scan; the status of the start is returned and sent to the client (not for a null scan). Results are logged.
oru_status_t oruZb_doScan(oruZb_scan_t *scan, oruOipc_nodeId_t client_id, oruOipc_functionId_t callback_id);
// Radio counters since they were last cleared; clear != 0 clears them in the same step.
oru_status_t oruZb_doGetPtaCounters(oruZb_counters_t *pta_counters, uint8_t clear);
