// SPDX-License-Identifier: Apache-2.0
#include "clusters.h"
#include <algorithm>
#include <array>

namespace corvane::mesh {
namespace {

struct ClusterName {
    uint16_t id;
    std::string_view name;
};

constexpr auto kClusterNames = std::to_array<ClusterName>({
    {0x0000, "basic"},
    {0x0001, "power_configuration"},
    {0x0002, "device_temperature"},
    {0x0003, "identify"},
    {0x0004, "groups"},
    {0x0005, "scenes"},
    {0x0006, "on_off"},
    {0x0007, "on_off_switch_configuration"},
    {0x0008, "level"},
    {0x0009, "alarms"},
    {0x000A, "time"},
    {0x000C, "analog_input"},
    {0x000D, "analog_output"},
    {0x000F, "binary_input"},
    {0x0010, "binary_output"},
    {0x0012, "multistate_input"},
    {0x0019, "ota_upgrade"},
    {0x0020, "poll_control"},
    {0x0101, "door_lock"},
    {0x0102, "window_covering"},
    {0x0201, "thermostat"},
    {0x0202, "fan_control"},
    {0x0204, "thermostat_user_interface"},
    {0x0300, "color_control"},
    {0x0400, "illuminance"},
    {0x0402, "temperature"},
    {0x0403, "pressure"},
    {0x0404, "flow"},
    {0x0405, "humidity"},
    {0x0406, "occupancy"},
    {0x0500, "ias_zone"},
    {0x0501, "ias_ace"},
    {0x0502, "ias_wd"},
    {0x0702, "metering"},
    {0x0B04, "electrical_measurement"},
    {0x0B05, "diagnostics"},
    {0x1000, "touchlink_commissioning"},
});

constexpr uint8_t widthOf(ZclType type) {
    switch (type) {
    case ZclType::boolean:
    case ZclType::bitmap8:
    case ZclType::uint8:
    case ZclType::enum8:
        return 1;
    case ZclType::bitmap16:
    case ZclType::uint16:
    case ZclType::int16:
    case ZclType::enum16:
        return 2;
    case ZclType::uint24:
    case ZclType::int24:
        return 3;
    case ZclType::uint48:
        return 6;
    case ZclType::eui64:
        return 8;
    case ZclType::character_string:
        return 0;
    }
    return 0;
}

constexpr AttributeInfo attribute(uint16_t cluster_id, uint16_t id, std::string_view name, ZclType type,
                                  uint8_t access = READ, int64_t initial = 0, int32_t drift = 0) {
    AttributeInfo info{cluster_id, id, name, type, access, initial, 0, 0, drift};
    const unsigned bits = 8U * widthOf(type);
    if (type == ZclType::boolean) {
        info.maximum = 1;
    } else if (type == ZclType::int16 || type == ZclType::int24) {
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
    attribute(kClusterBasic, 0x0000, "zcl_version", uint8, READ, 8),
    attribute(kClusterBasic, 0x0001, "application_version", uint8, READ, 1),
    attribute(kClusterBasic, 0x0002, "stack_version", uint8, READ, 1),
    attribute(kClusterBasic, 0x0003, "hw_version", uint8, READ, 1),
    attribute(kClusterBasic, 0x0004, "manufacturer_name", character_string),
    attribute(kClusterBasic, 0x0005, "model_identifier", character_string),
    attribute(kClusterBasic, 0x0006, "date_code", character_string),
    attribute(kClusterBasic, 0x0007, "power_source", enum8),
    attribute(kClusterBasic, 0x4000, "sw_build_id", character_string),
    attribute(kClusterPowerConfiguration, 0x0020, "battery_voltage", uint8, REPORT, 30),                     // 100 mV
    within(attribute(kClusterPowerConfiguration, 0x0021, "battery_percentage", uint8, REPORT, 200), 0, 200), // 0.5 %
    attribute(kClusterIdentify, 0x0000, "identify_time", uint16, WRITE),
    attribute(kClusterGroups, 0x0000, "name_support", bitmap8),
    attribute(kClusterOnOff, 0x0000, "on_off", boolean, REPORT),
    attribute(kClusterOnOff, 0x4001, "on_time", uint16, WRITE),
    attribute(kClusterOnOff, 0x4002, "off_wait_time", uint16, WRITE),
    attribute(kClusterOnOff, 0x4003, "start_up_on_off", enum8, WRITE, 0xFF),
    within(attribute(kClusterLevel, 0x0000, "current_level", uint8, REPORT, 254), 0, 254),
    attribute(kClusterLevel, 0x0001, "remaining_time", uint16),
    attribute(kClusterLevel, 0x000F, "options", bitmap8, WRITE),
    attribute(kClusterLevel, 0x0010, "on_off_transition_time", uint16, WRITE),
    attribute(kClusterLevel, 0x0011, "on_level", uint8, WRITE, 0xFF),
    attribute(0x0400, 0x0000, "measured_value", uint16, REPORT, 20000, 150),
    within(attribute(kClusterTemperature, 0x0000, "measured_value", int16, REPORT, 2150, 12), -4000, 12500), // 0.01 C
    attribute(kClusterTemperature, 0x0001, "min_measured_value", int16, READ, -4000),
    attribute(kClusterTemperature, 0x0002, "max_measured_value", int16, READ, 12500),
    within(attribute(kClusterHumidity, 0x0000, "measured_value", uint16, REPORT, 4500, 40), 0, 10000), // 0.01 %
    attribute(kClusterHumidity, 0x0001, "min_measured_value", uint16, READ, 0),
    attribute(kClusterHumidity, 0x0002, "max_measured_value", uint16, READ, 10000),
    within(attribute(kClusterOccupancy, 0x0000, "occupancy", bitmap8, REPORT), 0, 1),
    attribute(kClusterOccupancy, 0x0001, "occupancy_sensor_type", enum8),
    attribute(kClusterOccupancy, 0x0002, "occupancy_sensor_type_bitmap", bitmap8, READ, 1),
    attribute(kClusterIasZone, 0x0000, "zone_state", enum8),
    attribute(kClusterIasZone, 0x0001, "zone_type", enum16, READ, 0x0015), // contact switch
    attribute(kClusterIasZone, 0x0002, "zone_status", bitmap16, REPORT),
    attribute(kClusterIasZone, 0x0010, "ias_cie_address", eui64, WRITE),
    attribute(kClusterIasZone, 0x0011, "zone_id", uint8, READ, 0xFF),
    attribute(kClusterMetering, 0x0000, "current_summation_delivered", uint48, REPORT, 12345), // Wh
    attribute(kClusterMetering, 0x0200, "status", bitmap8),
    attribute(kClusterMetering, 0x0300, "unit_of_measure", enum8),
    attribute(kClusterMetering, 0x0301, "multiplier", uint24, READ, 1),
    attribute(kClusterMetering, 0x0302, "divisor", uint24, READ, 1000),
    attribute(kClusterMetering, 0x0303, "summation_formatting", bitmap8, READ, 0x2B),
    attribute(kClusterMetering, 0x0304, "demand_formatting", bitmap8, READ, 0x2B),
    attribute(kClusterMetering, 0x0306, "metering_device_type", bitmap8),
    attribute(kClusterMetering, 0x0400, "instantaneous_demand", int24, REPORT, 60), // W
    attribute(kClusterElectrical, 0x0000, "measurement_type", bitmap16, READ, 0x0008),
    attribute(kClusterElectrical, 0x0505, "rms_voltage", uint16, REPORT, 230, 1),
    attribute(kClusterElectrical, 0x0508, "rms_current", uint16, REPORT, 260), // mA
    attribute(kClusterElectrical, 0x050B, "active_power", int16, REPORT, 60),  // W
});

constexpr AttributeInfo kClusterRevision =
    attribute(0xFFFF, kAttributeClusterRevision, "cluster_revision", uint16, READ, 1);

constexpr bool before(const AttributeInfo &a, const AttributeInfo &b) {
    return a.cluster_id != b.cluster_id ? a.cluster_id < b.cluster_id : a.id < b.id;
}
static_assert(std::ranges::is_sorted(kAttributes, before), "attributes are searched by halving");
static_assert(std::ranges::is_sorted(kClusterNames, {}, &ClusterName::id), "clusters in ascending order");

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

std::optional<uint8_t> typeWidth(uint8_t type) {
    struct Range {
        uint8_t first, last, width, step;
    };
    static constexpr Range kRanges[] = {
        {0x00, 0x00, 0, 0}, {0x08, 0x0F, 1, 1}, {0x10, 0x10, 1, 0}, {0x18, 0x1F, 1, 1}, {0x20, 0x27, 1, 1},
        {0x28, 0x2F, 1, 1}, {0x30, 0x31, 1, 1}, {0x38, 0x38, 2, 0}, {0x39, 0x39, 4, 0}, {0x3A, 0x3A, 8, 0},
        {0xE0, 0xE2, 4, 0}, {0xE8, 0xE9, 2, 0}, {0xEA, 0xEA, 4, 0}, {0xF0, 0xF0, 8, 0}, {0xF1, 0xF1, 16, 0},
    };
    for (const Range &range : kRanges) {
        if (type >= range.first && type <= range.last) {
            return static_cast<uint8_t>(range.width + (type - range.first) * range.step);
        }
    }
    return std::nullopt;
}

bool typeIsAnalog(uint8_t type) {
    return (type >= 0x20 && type <= 0x2F) || (type >= 0x38 && type <= 0x3A) || (type >= 0xE0 && type <= 0xE2);
}

std::optional<uint16_t> clusterByName(std::string_view name) {
    const auto *const found = std::ranges::find(kClusterNames, name, &ClusterName::name);
    return found == kClusterNames.end() ? std::nullopt : std::optional(found->id);
}

std::optional<uint16_t> attributeByName(uint16_t cluster_id, std::string_view name) {
    const auto attributes = clusterAttributes(cluster_id);
    const auto found = std::ranges::find(attributes, name, &AttributeInfo::name);
    return found == attributes.end() ? std::nullopt : std::optional(found->id);
}

std::string clusterNames() {
    std::string names;
    for (const ClusterName &cluster : kClusterNames) {
        names += (names.empty() ? "" : ", ") + std::string(cluster.name);
    }
    return names;
}

} // namespace corvane::mesh
