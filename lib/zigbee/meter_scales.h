// SPDX-License-Identifier: Apache-2.0
//
// Meters say themselves how their numbers are to be scaled. This keeps what one endpoint of a device has said.
#pragma once
#include "zigbee/zcl_table.h"
#include <cstdint>
#include <map>
#include <optional>
#include <span>
#include <vector>

namespace corvane::zigbee {

// The values of ScaleInfo's multiplier_attribute and divisor_attribute, and in the metering cluster of unit_of_measure.
// 0 as from a meter that does not have it counts as 1.
struct MeterScale {
    uint32_t multiplier = 1;
    uint32_t divisor = 1;
    uint8_t unit_of_measure = 0;
};

class MeterScales {
public:
    // Takes what a report or an answer to a reading of attributes tells; any bytes are legal. What the device does not
    // have is known then, too: as 0.
    void learn(uint16_t cluster, std::span<const uint8_t> frame);
    // The attributes of the cluster that are needed, and not known yet, to scale the numbers in the frame.
    std::vector<uint16_t> missing(uint16_t cluster, std::span<const uint8_t> frame) const;
    // Nothing as long as an attribute is missing, and for a number that the device does not scale.
    std::optional<MeterScale> find(const ScaleInfo &scale) const;

private:
    std::optional<uint32_t> valueOf(uint16_t cluster, uint16_t attribute) const;

    std::map<std::pair<uint16_t, uint16_t>, uint32_t> values_; // by cluster and attribute
};

} // namespace corvane::zigbee
