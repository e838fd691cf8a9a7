// SPDX-License-Identifier: Apache-2.0
//
// Log lines of frames and addresses.
#pragma once
#include "../../../lib/base/eui64.h" // see zb_frame.h
#include "zb_types.h"

// Logs node, profile, cluster, length and as many payload bytes as fit in a line of 128 bytes. tag is ">> " for a
// frame sent, "<< " for one received. ORU_STATUS_NULL_POINTER; ORU_STATUS_GENERAL_ERROR when formatting fails.
oru_status_t oruZb_dumpPacket(const char *tag, const oruZb_clusterCmd_t *cmd);
void oruZb_printEui64(const uint8_t *eui64); // 8 bytes in stored order; null prints nothing
void oruZb_printDeviceError(const char *text, const uint8_t *eui64);

// "00124b": the organisation that assigned an EUI-64 (8 bytes, most significant first).
inline auto ouiText(const uint8_t *eui64) {
    return corvane::base::ouiText(std::span<const uint8_t, 8>(eui64, 8));
}
// "00:12:4b:00:01:02:03:04", from 8 bytes, most significant first.
inline auto eui64Text(const uint8_t *eui64) {
    return corvane::base::eui64Text(std::span<const uint8_t, 8>(eui64, 8));
}
