// SPDX-License-Identifier: Apache-2.0
// Records of calls and events, and the bytes that carry them.
#pragma once
#include "oru_zigbee_api.h"
#include <algorithm>
#include <cstdint>
#include <vector>

using Bytes = std::vector<uint8_t>;

template <typename T>
Bytes bytesOf(const T &record) {
    const auto *raw = reinterpret_cast<const uint8_t *>(&record);
    return {raw, raw + sizeof record};
}
template <typename T>
T recordOf(const Bytes &bytes) {
    T record{};
    std::copy_n(bytes.begin(), std::min(bytes.size(), sizeof record), reinterpret_cast<uint8_t *>(&record));
    return record;
}

inline oruZb_clusterCmd_t toggle(uint16_t node_id) { // On/Off, endpoint 1 to endpoint 1
    oruZb_clusterCmd_t cmd{};
    cmd.dest_node = node_id;
    cmd.cluster_id = 0x0006;
    cmd.profile_id = 0x0104;
    cmd.dest_ep = cmd.src_ep = 1;
    cmd.payload[0] = 0x01;
    cmd.payload[2] = 0x02;
    cmd.payload_len = 3;
    return cmd;
}
