// SPDX-License-Identifier: Apache-2.0
//
// The attributes that a virtual device with the server side of a cluster has: type, range, access.
#pragma once
#include "zigbee/data_type.h"
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace corvane::mesh {

inline constexpr uint16_t kClusterBasic = 0x0000;
inline constexpr uint16_t kClusterPowerConfiguration = 0x0001;
inline constexpr uint16_t kClusterIdentify = 0x0003;
inline constexpr uint16_t kClusterGroups = 0x0004;
inline constexpr uint16_t kClusterOnOff = 0x0006;
inline constexpr uint16_t kClusterLevel = 0x0008;
inline constexpr uint16_t kClusterTemperature = 0x0402;
inline constexpr uint16_t kClusterHumidity = 0x0405;
inline constexpr uint16_t kClusterOccupancy = 0x0406;
inline constexpr uint16_t kClusterIasZone = 0x0500;
inline constexpr uint16_t kClusterMetering = 0x0702;
inline constexpr uint16_t kClusterElectrical = 0x0B04;

inline constexpr uint16_t kAttributeClusterRevision = 0xFFFD; // every cluster has it

// ZCL data types in use.
enum class ZclType : uint8_t {
    boolean = 0x10,
    bitmap8 = 0x18,
    bitmap16 = 0x19,
    uint8 = 0x20,
    uint16 = 0x21,
    uint24 = 0x22,
    uint48 = 0x25,
    int16 = 0x29,
    int24 = 0x2A,
    enum8 = 0x30,
    enum16 = 0x31,
    character_string = 0x42,
    eui64 = 0xF0,
};

enum AttributeAccess : uint8_t { READ = 0, WRITE = 1, REPORT = 2 };

struct AttributeInfo {
    uint16_t cluster_id = 0;
    uint16_t id = 0;
    ZclType type = ZclType::uint8;
    uint8_t access = READ;
    int64_t initial = 0;
    int64_t minimum = 0;
    int64_t maximum = 0;
    int32_t drift = 0; // largest step of a sensor value between two periodic reports

    constexpr bool can(AttributeAccess wanted) const { return (access & wanted) != 0; }
};

// Null: a server of the cluster has no such attribute.
const AttributeInfo *findAttribute(uint16_t cluster_id, uint16_t attribute_id);

// The attributes of a cluster in ascending order, without the cluster revision.
std::span<const AttributeInfo> clusterAttributes(uint16_t cluster_id);

using zigbee::typeIsAnalog;
using zigbee::typeWidth;

// Names as in scenario files and on the control socket ("on_off"); empty when there is none, or no device has the
// attribute.
std::optional<uint16_t> clusterByName(std::string_view name);
std::optional<uint16_t> attributeByName(uint16_t cluster_id, std::string_view name);
std::string clusterNames(); // separated by ", ", for messages

} // namespace corvane::mesh
