// SPDX-License-Identifier: Apache-2.0
//
// Latency statistics of the devices.
#pragma once
#include "zb_types.h"

// Adds one latency sample in milliseconds to the first item with this node id; ORU_STATUS_NOT_FOUND without one. HAL
// context, inside txn_list_mutex.
oru_status_t oruZb_databaseUpdateItemLatency(oruZbHal_nodeId_t node_id, uint32_t latency);
// Logs the metrics of every device and starts all latency statistics afresh. Timer thread; samples that arrive
// meanwhile wait and count for the new day.
oru_status_t oruZb_databaseUploadMetrics();
