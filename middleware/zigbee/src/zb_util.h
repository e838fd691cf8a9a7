// SPDX-License-Identifier: Apache-2.0
//
// zb_util: message queue, transaction list, memory pools and small helpers, one header each.
#pragma once
#include "zb_format.h"
#include "zb_queue.h"
#include "zb_svc_functions.h"
#include "zb_svc_network.h"
#include "zb_txn.h"
