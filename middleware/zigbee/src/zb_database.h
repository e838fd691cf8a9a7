// SPDX-License-Identifier: Apache-2.0
//
// zb_database, the device database: the list in memory, its image in the key-value store, statistics.
#pragma once
#include "zb_database_kvs.h"
#include "zb_database_list.h"
#include "zb_database_metrics.h"
