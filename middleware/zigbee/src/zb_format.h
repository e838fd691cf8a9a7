// SPDX-License-Identifier: Apache-2.0
//
// Log lines of frames and addresses.
#pragma once
#include "zb_types.h"

// Logs node, profile, cluster, length and as many payload bytes as fit in a line of 128 bytes. tag is ">> " for a
// frame sent, "<< " for one received. ORU_STATUS_NULL_POINTER; ORU_STATUS_GENERAL_ERROR when formatting fails.
oru_status_t oruZb_dumpPacket(const char *tag, const oruZb_clusterCmd_t *cmd);
void oruZb_printEui64(const uint8_t *eui64); // 8 bytes in stored order; null prints nothing
void oruZb_printDeviceError(const char *text, const uint8_t *eui64);
