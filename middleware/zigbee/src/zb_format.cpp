// SPDX-License-Identifier: Apache-2.0
#include "zb_format.h"
#include <algorithm>
#include <array>
#include <cstdio>

constexpr size_t DUMP_LINE_SIZE = 128; // terminator included
constexpr size_t DUMP_BYTE_ROOM = 4;   // two digits, a blank and the terminator

oru_status_t oruZb_dumpPacket(const char *tag, const oruZb_clusterCmd_t *cmd) {
    if (tag == nullptr || cmd == nullptr) {
        ZB_LOG_ERROR("%s: %s() NULL pointer passed\n", ZB_SVC, __func__);
        return ORU_STATUS_NULL_POINTER;
    }
    char line[DUMP_LINE_SIZE];
    const int head = snprintf(line, sizeof line, "nodeid %4.4x, profile %4.4x, cluster %4.4x pkg len %d, data %s ",
                              cmd->dest_node, cmd->profile_id, cmd->cluster_id, cmd->payload_len, tag);
    if (head < 0) {
        return ORU_STATUS_GENERAL_ERROR;
    }
    size_t used = std::min(static_cast<size_t>(head), sizeof line - 1);
    const size_t payload_len = std::min<size_t>(cmd->payload_len, sizeof cmd->payload);
    for (size_t i = 0; i < payload_len && used < sizeof line - DUMP_BYTE_ROOM; ++i) {
        const int added = snprintf(line + used, sizeof line - used, "%2.2x ", cmd->payload[i]);
        if (added < 0) {
            break;
        }
        used += static_cast<size_t>(added);
    }
    ZB_LOG_INFO("%s: %s", ZB_SVC, line);
    return ORU_STATUS_OK;
}

void oruZb_printEui64(const uint8_t *eui64) {
    if (eui64 != nullptr) {
        ZB_LOG_INFO("%s: (%c)%x%x%x%x%x%x%x%x", ZB_SVC, '<', eui64[0], eui64[1], eui64[2], eui64[3], eui64[4], eui64[5],
                    eui64[6], eui64[7]);
    }
}

void oruZb_printDeviceError(const char *text, const uint8_t *eui64) {
    ZB_LOG_ERROR("%s: <ERROR> %s for device", ZB_SVC, text != nullptr ? text : "");
    oruZb_printEui64(eui64);
}
