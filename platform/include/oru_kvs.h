// SPDX-License-Identifier: Apache-2.0
#pragma once
#include "oru_status.h"
#include <cstddef>
#include <cstdint>

typedef int (*oruKeyValueDsHal_listKeysCallback_t)(const char *key_name); // 0 = continue, -1 = stop

extern "C" {
oru_status_t oruKeyValueDsHal_set(const char *key, const void *value, size_t value_size);
int32_t oruKeyValueDsHal_get(const char *key, void *buffer, size_t buffer_size);
oru_status_t oruKeyValueDsHal_remove(const char *key);
oru_status_t oruKeyValueDsHal_listKeys(const char *group, oruKeyValueDsHal_listKeysCallback_t callback);
oru_status_t oruKeyValueDsHal_eraseGroup(const char *group);
}
