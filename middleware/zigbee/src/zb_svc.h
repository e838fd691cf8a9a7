// SPDX-License-Identifier: Apache-2.0
//
// Dispatch of queued messages, the handlers of client functions, and what they answer with.
#pragma once
#include "zb_queue.h"
#include "zb_reply.h"
#include "zb_state.h"
#include "zb_svc_adapter.h"
#include "zb_svc_command.h"
#include "zb_svc_dispatch.h"
#include "zb_svc_functions.h"
#include "zb_svc_interpan.h"
#include "zb_svc_network.h"
#include "zb_svc_query.h"
#include "zb_svc_radio.h"
