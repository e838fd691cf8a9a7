// SPDX-License-Identifier: Apache-2.0
//
// Records in words, for people. Texts that a device wrote are freed of control characters.
#pragma once
#include "zigbee/meter_scales.h"
#include "zigbee/zcl_frame.h"
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace corvane::zigbee {

struct Quantity {
    double number = 0;
    std::string_view unit{};
    uint8_t decimals = 0; // that the resolution of the raw number gives
};

// Nothing when the value stands for "no value", when the attribute is no quantity, and when it is scaled by the device
// and meter is null.
std::optional<Quantity> quantityOf(const ScaleInfo &scale, const Value &value, const MeterScale *meter = nullptr);

// "on/off" of "on_off"; "IAS zone" of "ias_zone".
std::string labelOf(std::string_view name);
std::string clusterLabel(uint16_t profile, uint16_t cluster);     // empty without a name
std::string clusterText(uint16_t profile, uint16_t cluster);      // "on/off 0x0006", "0xfc01"
std::string attributeLabel(uint16_t cluster, uint16_t attribute); // what it measures, or "attribute 0x0001"
std::string commandLabel(const CommandInfo &command);
std::string statusText(uint8_t status);      // "READ_ONLY 0x88"
std::string typeText(uint8_t type);          // "uint16"
std::string zoneStatusText(unsigned status); // "contact: open, battery low"

// Nothing when it is not known, or the attribute needs none.
std::optional<MeterScale> meterScaleOf(uint16_t cluster, uint16_t attribute, const MeterScales *meters);

// "[1,2]" and the like, without any knowledge of what the value means.
std::string plainText(const Value &value);
// "21.43 C"; what it measures is not said.
std::string valueText(uint16_t cluster, uint16_t attribute, const Value &value, const MeterScale *meter = nullptr);
// "temperature: 21.43 C", "on/off: UNREPORTABLE_ATTRIBUTE 0x8c"
std::string recordText(uint16_t cluster, const AttributeRecord &record, const MeterScale *meter = nullptr);
std::string parameterText(const Parameter &parameter); // "level 128"

// A whole frame of any profile but ZDO's, with what was legible of a malformed one; empty when it has no header. The
// attributes and commands of a manufacturer are shown by number. meters is what is known of the endpoint, or null.
std::string frameText(uint16_t cluster, std::span<const uint8_t> frame, const MeterScales *meters = nullptr);

} // namespace corvane::zigbee
