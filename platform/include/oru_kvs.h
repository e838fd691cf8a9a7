// SPDX-License-Identifier: Apache-2.0
//
// Persistent key-value storage.
//
// A key is "group.name": both parts not empty, 64 bytes at most together, divided at the first full stop. Any other
// byte may follow and is kept as it is. A value is 1 to 65536 bytes without structure.
//
// What is stored survives the end of the process at any moment, and with a medium that keeps its promises also the end
// of power. Each value is checked when it is read; one that was damaged is taken out of the store (kept apart for
// inspection, named in the log) and treated as absent, so it never hides the others.
//
// When the medium fails, nothing here is fatal: set reports the failure and keeps the value in memory (1024 keys at
// most), get and listKeys see it, and every later operation, a timer (every 5 s) and the end of the process try to
// write it; what is lost in the end is named in the log. An erasure of a group is kept in the same way. Each change of
// condition is one log line, however many calls fail. A medium on which nothing can be written is read from a copy in
// the folder of the sockets.
//
// All operations may be called from every thread, also under locks of the caller: no lock is held while a callback
// runs, and the only layers used are the log and the timers. They wait for the medium (one flush per set), and once for
// up to 2 s when another program has the file locked. The store opens itself at the first call, in the folder of the
// configuration; that call waits up to 10 s for a store that cannot be opened, or until SIGTERM or SIGINT arrives.
// Files deleted while they are open are written back; nothing is written to a file that has replaced ours.
//
// Statuses that every operation that changes something can return:
//   ORU_STATUS_GENERAL_ERROR  the medium is full, read-only or failing, the folder is not there, or the file was
//   replaced ORU_STATUS_BUSY           another daemon uses the folder, or another program has the file locked
//   ORU_STATUS_NOT_SUPPORTED  the store was written by a newer release; it is left untouched
//   ORU_STATUS_OUT_OF_MEMORY
#pragma once
#include "oru_status.h"
#include <cstddef>
#include <cstdint>

// key_name: the name without group and full stop, zero-terminated, valid during the call.
// 0 = continue, -1 = stop (anything but 0 stops).
typedef int (*oruKeyValueDsHal_listKeysCallback_t)(const char *key_name);

extern "C" {
// Creates or replaces the value of a key: afterwards the old or the new value is there, never a mixture. An equal value
// costs no write. value is copied.
//   ORU_STATUS_OK                the value is on the medium
//   ORU_STATUS_NULL_POINTER      key or value is null
//   ORU_STATUS_DATA_LEN_INVALID  value_size (bytes) is 0 or above 65536
//   ORU_STATUS_BAD_PARAM         the key has the wrong form
oru_status_t oruKeyValueDsHal_set(const char *key, const void *value, size_t value_size);

// Copies the value of a key, or its first buffer_size bytes when it is longer. buffer is written only up to the
// returned count.
//   1 and more                   bytes copied
//   ORU_STATUS_NOT_FOUND         there is no (sound) value of this key
//   ORU_STATUS_TRY_AGAIN         the store could not be read, whatever the reason: there may be a value
//   ORU_STATUS_NULL_POINTER      key or buffer is null
//   ORU_STATUS_DATA_LEN_INVALID  buffer_size is 0
//   ORU_STATUS_BAD_PARAM         the key has the wrong form
int32_t oruKeyValueDsHal_get(const char *key, void *buffer, size_t buffer_size);

// Removes a key and its value. After a failure it is still there.
//   ORU_STATUS_OK                there is no such key any more, whether or not there was one
//   ORU_STATUS_NULL_POINTER      key is null
//   ORU_STATUS_BAD_PARAM         the key has the wrong form
oru_status_t oruKeyValueDsHal_remove(const char *key);

// Calls back once for each key of the group, ascending by the bytes of the name, on the calling thread, until the
// callback stops it. The names are those at the moment of the call; the callback may use the store and change it.
//   ORU_STATUS_OK                the listing ran, also over no key at all and when the callback stopped it
//   ORU_STATUS_NULL_POINTER      group or callback is null
//   ORU_STATUS_TRY_AGAIN         the store could not be read, whatever the reason: there may be more than was listed
//                                (values waiting in memory were)
oru_status_t oruKeyValueDsHal_listKeys(const char *group, oruKeyValueDsHal_listKeysCallback_t callback);

// Removes every key of the group, all or nothing.
//   ORU_STATUS_OK                the group is empty, whether or not it was before
//   ORU_STATUS_NULL_POINTER      group is null
//   any other                    the group counts as empty from now on, but is not yet so on the medium: should the
//                                process end before the erasure could be made up for, its keys are back
oru_status_t oruKeyValueDsHal_eraseGroup(const char *group);
}
