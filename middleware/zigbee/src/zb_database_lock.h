// SPDX-License-Identifier: Apache-2.0
//
// Scope guard of device_list_mutex, for the units of the device database.
#pragma once
#include "zb_database_list.h"

// Test status() before touching the list. Failures are logged under the name of the operation.
class deviceListLock {
public:
    explicit deviceListLock(const char *operation);
    ~deviceListLock() { release(); }
    deviceListLock(const deviceListLock &) = delete;
    deviceListLock &operator=(const deviceListLock &) = delete;
    oru_status_t status() const { return status_; }
    void release(); // early, before lines that are to be logged outside the lock

private:
    const char *operation_; // a literal or __func__
    oru_status_t status_;
    bool held_;
};

// The first item, from the head, for which match(item) holds; null without one. device_list_mutex is held.
template <typename Match>
oruZb_deviceListItem_t *findListItem(Match match) {
    oruZb_deviceListItem_t *item = device_list_head.slh_first;
    while (item != nullptr && !match(*item)) {
        item = item->entries.sle_next;
    }
    return item;
}
