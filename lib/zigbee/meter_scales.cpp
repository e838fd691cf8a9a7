// SPDX-License-Identifier: Apache-2.0
#include "zigbee/meter_scales.h"
#include "zigbee/zcl_frame.h"
#include <algorithm>

namespace corvane::zigbee {

namespace {

constexpr uint16_t UNIT_OF_MEASURE = 0x0300; // of the metering cluster

bool namesItsUnit(const ScaleInfo &scale) {
    return scale.reading == Reading::Energy || scale.reading == Reading::Demand;
}

// For the scale of another attribute.
bool isNeeded(uint16_t cluster, uint16_t attribute) {
    return std::ranges::any_of(scales(), [=](const ScaleInfo &scale) {
        return scale.cluster == cluster && scale.isScaledByDevice() &&
               (attribute == scale.multiplier_attribute || attribute == scale.divisor_attribute ||
                (namesItsUnit(scale) && attribute == UNIT_OF_MEASURE));
    });
}

// Calls take(record) for each attribute that a frame of a device tells about.
template <class Take>
void eachAttribute(std::span<const uint8_t> frame, Take take) {
    base::ByteReader in(frame);
    FrameHeader header;
    const bool tells =
        readHeader(in, header) && !header.cluster_specific && !header.manufacturer && header.to_client &&
        (header.command == COMMAND_READ_ATTRIBUTES_RESPONSE || header.command == COMMAND_REPORT_ATTRIBUTES);
    if (!tells) {
        return;
    }
    RecordReader records(header.command, in.rest());
    for (AttributeRecord record; records.next(record);) {
        take(record);
    }
}

} // namespace

void MeterScales::learn(uint16_t cluster, std::span<const uint8_t> frame) {
    eachAttribute(frame, [&](const AttributeRecord &record) {
        if (isNeeded(cluster, record.attribute)) {
            const bool told = record.has(Field::Value) && record.value.present && record.value.isNumber();
            values_[{cluster, record.attribute}] = told ? static_cast<uint32_t>(record.value.raw) : 0;
        }
    });
}

std::vector<uint16_t> MeterScales::missing(uint16_t cluster, std::span<const uint8_t> frame) const {
    std::vector<uint16_t> attributes;
    const auto need = [&](uint16_t attribute) {
        if (!valueOf(cluster, attribute) && std::ranges::find(attributes, attribute) == attributes.end()) {
            attributes.push_back(attribute);
        }
    };
    eachAttribute(frame, [&](const AttributeRecord &record) {
        const ScaleInfo *const scale = findScale(cluster, record.attribute);
        if (scale == nullptr || !scale->isScaledByDevice() || !record.value.present) {
            return;
        }
        need(scale->multiplier_attribute);
        need(scale->divisor_attribute);
        if (namesItsUnit(*scale)) {
            need(UNIT_OF_MEASURE);
        }
    });
    return attributes;
}

std::optional<MeterScale> MeterScales::find(const ScaleInfo &scale) const {
    const auto multiplier = valueOf(scale.cluster, scale.multiplier_attribute);
    const auto divisor = valueOf(scale.cluster, scale.divisor_attribute);
    const auto unit = namesItsUnit(scale) ? valueOf(scale.cluster, UNIT_OF_MEASURE) : 0;
    if (!scale.isScaledByDevice() || !multiplier || !divisor || !unit) {
        return std::nullopt;
    }
    return MeterScale{*multiplier, *divisor, static_cast<uint8_t>(*unit)};
}

std::optional<uint32_t> MeterScales::valueOf(uint16_t cluster, uint16_t attribute) const {
    const auto found = values_.find({cluster, attribute});
    return found != values_.end() ? std::optional(found->second) : std::nullopt;
}

} // namespace corvane::zigbee
