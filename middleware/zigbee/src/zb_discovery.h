// SPDX-License-Identifier: Apache-2.0
//
// Device discovery: lists, joins, interrogation of new devices, recovery of those that did not answer.
#pragma once
#include "zb_discovery_interview.h"
#include "zb_discovery_join.h"
#include "zb_discovery_list.h"
#include "zb_discovery_recovery.h"
#include "zb_svc_dispatch.h"
