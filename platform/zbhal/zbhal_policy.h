// SPDX-License-Identifier: Apache-2.0
//
// What holds for every adapter: transmit power by region, the coordinator's own endpoint, the radius of a frame, and
// which devices are reported.
#pragma once
#include "zbhal_adapter.h"
#include <algorithm>

namespace corvane::zbhal {

inline constexpr int8_t LOWEST_POWER_DBM = -20;
inline constexpr int8_t DEFAULT_POWER_DBM = 8;
inline constexpr uint8_t DEFAULT_RADIUS = 30; // hops
inline constexpr oruZbHal_nodeId_t FIRST_BROADCAST = 0xFFF8;

// An amplifier delivers 20 dBm where the power density leaves room; regions with a density limit of 10 mW per MHz end
// at 10 dBm.
inline constexpr std::array<int8_t, ORU_ZB_HAL_REGION_MAX> HIGHEST_POWER_DBM = {20, 10, 10, 20, 10, 10, 20, 20, 20, 20};

constexpr int8_t highestPowerDbm(oruZbHal_region_t region) {
    return HIGHEST_POWER_DBM[static_cast<size_t>(region)];
}

// power_dbm, or the nearest that the region allows.
constexpr int8_t allowedPowerDbm(int8_t power_dbm, oruZbHal_region_t region) {
    return std::clamp(power_dbm, LOWEST_POWER_DBM, highestPowerDbm(region));
}

inline constexpr uint16_t DEFAULT_INPUT_CLUSTERS[] = {0x0000, 0x0003, 0x0006, 0x0008, 0x0019, 0x000A};
inline constexpr uint16_t DEFAULT_OUTPUT_CLUSTERS[] = {0x0000, 0x0003, 0x0006, 0x0008, 0x0300, 0x0004,
                                                       0x0101, 0x0020, 0x0500, 0x0001, 0x0B05, 0x0201,
                                                       0x0406, 0x0400, 0x0402, 0x0102, 0xFC57};
inline constexpr EndpointRequest DEFAULT_ENDPOINT = {1, 0x0104, 7, 1, DEFAULT_INPUT_CLUSTERS, DEFAULT_OUTPUT_CLUSTERS};

// Such a device is not in the network: to report it would start the interview of a ghost. Whoever rejoins with the
// network key or leaves is, or was, in the network.
inline bool isJoinDenied(const Indication &indication) {
    return indication.kind == IndicationKind::trust_center && indication.decision == ORU_ZB_HAL_DENY_JOIN &&
           (indication.status == ORU_ZB_HAL_STANDARD_SECURITY_UNSECURED_JOIN ||
            indication.status == ORU_ZB_HAL_STANDARD_SECURITY_UNSECURED_REJOIN);
}

} // namespace corvane::zbhal
