// SPDX-License-Identifier: Apache-2.0
#include "clusters.h"
#include "zigbee/zcl_table.h"
#include <algorithm>
#include <array>

namespace corvane::mesh {
namespace {

constexpr AttributeInfo attribute(uint16_t cluster_id, uint16_t id, ZclType type, uint8_t access = READ,
                                  int64_t initial = 0, int32_t drift = 0) {
    AttributeInfo info{cluster_id, id, type, access, initial, 0, 0, drift};
    const auto code = static_cast<uint8_t>(type);
    const std::size_t bits = 8 * zigbee::typeWidth(code).value_or(0);
    const zigbee::TypeKind kind = zigbee::findType(code)->kind;
    if (kind == zigbee::TypeKind::Boolean) {
        info.maximum = 1;
    } else if (kind == zigbee::TypeKind::Signed) {
        info.maximum = (int64_t{1} << (bits - 1)) - 1;
        info.minimum = -info.maximum - 1;
    } else if (bits == 64) { // EUI-64: any bit pattern
        info.minimum = INT64_MIN;
        info.maximum = INT64_MAX;
    } else {
        info.maximum = (int64_t{1} << bits) - 1;
    }
    return info;
}

constexpr AttributeInfo within(AttributeInfo info, int64_t minimum, int64_t maximum) {
    info.minimum = minimum;
    info.maximum = maximum;
    return info;
}

using enum ZclType;

constexpr auto kAttributes = std::to_array<AttributeInfo>({
    attribute(kClusterBasic, 0x0000, uint8, READ, 8),
    attribute(kClusterBasic, 0x0001, uint8, READ, 1),
    attribute(kClusterBasic, 0x0002, uint8, READ, 1),
    attribute(kClusterBasic, 0x0003, uint8, READ, 1),
    attribute(kClusterBasic, 0x0004, character_string),
    attribute(kClusterBasic, 0x0005, character_string),
    attribute(kClusterBasic, 0x0006, character_string),
    attribute(kClusterBasic, 0x0007, enum8),
    attribute(kClusterBasic, 0x4000, character_string),
    attribute(kClusterPowerConfiguration, 0x0020, uint8, REPORT, 30),                  // 100 mV
    within(attribute(kClusterPowerConfiguration, 0x0021, uint8, REPORT, 200), 0, 200), // 0.5 %
    attribute(kClusterIdentify, 0x0000, uint16, WRITE),
    attribute(kClusterGroups, 0x0000, bitmap8),
    attribute(kClusterOnOff, 0x0000, boolean, REPORT),
    attribute(kClusterOnOff, 0x4001, uint16, WRITE),
    attribute(kClusterOnOff, 0x4002, uint16, WRITE),
    attribute(kClusterOnOff, 0x4003, enum8, WRITE, 0xFF),
    within(attribute(kClusterLevel, 0x0000, uint8, REPORT, 254), 0, 254),
    attribute(kClusterLevel, 0x0001, uint16),
    attribute(kClusterLevel, 0x000F, bitmap8, WRITE),
    attribute(kClusterLevel, 0x0010, uint16, WRITE),
    attribute(kClusterLevel, 0x0011, uint8, WRITE, 0xFF),
    attribute(0x0400, 0x0000, uint16, REPORT, 20000, 150),
    within(attribute(kClusterTemperature, 0x0000, int16, REPORT, 2150, 12), -4000, 12500), // 0.01 C
    attribute(kClusterTemperature, 0x0001, int16, READ, -4000),
    attribute(kClusterTemperature, 0x0002, int16, READ, 12500),
    within(attribute(kClusterHumidity, 0x0000, uint16, REPORT, 4500, 40), 0, 10000), // 0.01 %
    attribute(kClusterHumidity, 0x0001, uint16, READ, 0),
    attribute(kClusterHumidity, 0x0002, uint16, READ, 10000),
    within(attribute(kClusterOccupancy, 0x0000, bitmap8, REPORT), 0, 1),
    attribute(kClusterOccupancy, 0x0001, enum8),
    attribute(kClusterOccupancy, 0x0002, bitmap8, READ, 1),
    attribute(kClusterIasZone, 0x0000, enum8),
    attribute(kClusterIasZone, 0x0001, enum16, READ, 0x0015), // contact switch
    attribute(kClusterIasZone, 0x0002, bitmap16, REPORT),
    attribute(kClusterIasZone, 0x0010, eui64, WRITE),
    attribute(kClusterIasZone, 0x0011, uint8, READ, 0xFF),
    attribute(kClusterMetering, 0x0000, uint48, REPORT, 12345), // Wh
    attribute(kClusterMetering, 0x0200, bitmap8),
    attribute(kClusterMetering, 0x0300, enum8),
    attribute(kClusterMetering, 0x0301, uint24, READ, 1),
    attribute(kClusterMetering, 0x0302, uint24, READ, 1000),
    attribute(kClusterMetering, 0x0303, bitmap8, READ, 0x2B),
    attribute(kClusterMetering, 0x0304, bitmap8, READ, 0x2B),
    attribute(kClusterMetering, 0x0306, bitmap8),
    attribute(kClusterMetering, 0x0400, int24, REPORT, 60), // W
    attribute(kClusterElectrical, 0x0000, bitmap16, READ, 0x0008),
    attribute(kClusterElectrical, 0x0505, uint16, REPORT, 230, 1),
    attribute(kClusterElectrical, 0x0508, uint16, REPORT, 260), // mA
    attribute(kClusterElectrical, 0x050B, int16, REPORT, 60),   // W
    attribute(kClusterElectrical, 0x0600, uint16, READ, 1),     // multipliers and divisors of these three
    attribute(kClusterElectrical, 0x0601, uint16, READ, 1),
    attribute(kClusterElectrical, 0x0602, uint16, READ, 1),
    attribute(kClusterElectrical, 0x0603, uint16, READ, 1000),
    attribute(kClusterElectrical, 0x0604, uint16, READ, 1),
    attribute(kClusterElectrical, 0x0605, uint16, READ, 1),
});

constexpr AttributeInfo kClusterRevision = attribute(0xFFFF, kAttributeClusterRevision, uint16, READ, 1);

constexpr bool before(const AttributeInfo &a, const AttributeInfo &b) {
    return a.cluster_id != b.cluster_id ? a.cluster_id < b.cluster_id : a.id < b.id;
}
static_assert(std::ranges::is_sorted(kAttributes, before), "attributes are searched by halving");

} // namespace

std::span<const AttributeInfo> clusterAttributes(uint16_t cluster_id) {
    const auto *const first = std::ranges::lower_bound(kAttributes, cluster_id, {}, &AttributeInfo::cluster_id);
    const auto *const last = std::ranges::upper_bound(kAttributes, cluster_id, {}, &AttributeInfo::cluster_id);
    return {first, last};
}

const AttributeInfo *findAttribute(uint16_t cluster_id, uint16_t attribute_id) {
    if (attribute_id == kAttributeClusterRevision) {
        return &kClusterRevision;
    }
    const auto attributes = clusterAttributes(cluster_id);
    const auto found = std::ranges::find(attributes, attribute_id, &AttributeInfo::id);
    return found == attributes.end() ? nullptr : &*found;
}

std::optional<uint16_t> clusterByName(std::string_view name) {
    const zigbee::ClusterInfo *const found = zigbee::clusterByName(name);
    return found != nullptr ? std::optional(found->id) : std::nullopt;
}

std::optional<uint16_t> attributeByName(uint16_t cluster_id, std::string_view name) {
    const zigbee::AttributeInfo *const found = zigbee::attributeByName(cluster_id, name);
    return found != nullptr && findAttribute(cluster_id, found->id) != nullptr ? std::optional(found->id)
                                                                               : std::nullopt;
}

std::string clusterNames() {
    std::string names;
    for (const zigbee::ClusterInfo &cluster : zigbee::clusters()) {
        names += (names.empty() ? "" : ", ") + std::string(cluster.name());
    }
    return names;
}

} // namespace corvane::mesh
