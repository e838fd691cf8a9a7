// SPDX-License-Identifier: Apache-2.0
//
// What the units of discovery (zb_discovery*.cpp) share and nobody else uses: the lock and the operations under it.
#pragma once
#include "zb_discovery_list.h"
#include <mutex>
#include <type_traits>

// Guards both lists (links and every node field), current_discovery_item and the recovery cursor. They are shared by
// the main thread and the HAL's callback context, where joins are handled.
//   - Held for short scopes only; never while posting, calling the HAL, publishing or calling back: a post can wait for
//     the main thread, whose next handler takes this lock.
//   - Only the main thread frees nodes of the discovery list and moves current_discovery_item, so it may keep a pointer
//     to a listed node between two scopes. Nodes of the failed list are freed from both sides: copy, don't keep.
//   - Order: after the region lock; the allowlist, transaction and device-list locks may be taken inside it.
extern std::mutex discovery_mutex;
static_assert(std::is_trivially_destructible_v<std::mutex>, "exit() may run while other threads hold it");

inline constexpr int DISCOVERY_WAIT_MS = 10'000; // between two begin-discovery steps; for the response to a request

// The caller holds discovery_mutex.
oruZb_node_t *oruZb_findNodeLocked(const oruZb_nodeList &list, const uint8_t *eui64);
void oruZb_prepareForDiscoveryStateLocked(oruZb_node_t *item, oruZb_device_discovery_state state);
oruZb_node_t *oruZb_addToDiscoveryListLocked(const uint8_t *eui64, uint16_t node_id, uint8_t capabilities);

// The invariants of zb_discovery.cpp, as far as the lists show them; nothing while check_invariants is off.
void checkDiscoveryLocked();

// Remembers a join whose device is listed already, if that node is FINISHED. removal_queued: the database held a record
// of the device, and its removal is on its way.
void oruZb_noteJoinOfFinishedNodeLocked(const uint8_t *eui64, bool removal_queued);

// How a FINISHED node ended: in NEW when its device joined while it was being stored.
enum class finishedNode {
    deleted,
    missing,       // not listed
    renewed,       // the record just stored is about to be removed
    renewed_stored // the record just stored is of the join before and still there
};

// These take discovery_mutex themselves.
finishedNode oruZb_releaseFinishedNode(const uint8_t *eui64); // main thread
bool oruZb_discoveryListIsEmpty();
bool oruZb_failedDiscoveryListIsEmpty();
bool oruZb_copyCurrentItem(oruZb_node_t *copy); // false, copy untouched: no device is being interrogated

// Counts a failed interrogation, and tells once a day of a device that keeps the interrogator busy. Main thread.
void oruZb_noteFailedDiscovery(const uint8_t *eui64);
