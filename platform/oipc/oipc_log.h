// SPDX-License-Identifier: Apache-2.0
#pragma once
#include "oru_log.h"

// One log line of this layer; a macro so that the compiler checks format and arguments.
#define OIPC_LOG(level, ...) oruLog_log(ORU_LOG_ID_MAIN, level, "oipc", __VA_ARGS__)
