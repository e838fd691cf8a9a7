// SPDX-License-Identifier: Apache-2.0
//
// The clusters, attributes and commands of the Zigbee Cluster Library, and the names of numbers that frames carry.
//
// The table is constant data; looking up a number halves a sorted range, nothing allocates, any thread may ask. What
// is not known has no row (null) or no name (empty), and callers then show the number alone.
//
// Names are the terms of the standard in lower snake case ("on_off"). On input a name is compared without case and
// punctuation, so that "on/off" and "OnOff" are the same, and further names are understood beside it.
#pragma once
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace corvane::zigbee {

constexpr uint16_t PROFILE_ZDO = 0x0000;
constexpr uint16_t PROFILE_HOME_AUTOMATION = 0x0104;
constexpr uint16_t PROFILE_LIGHT_LINK = 0xC05E;

constexpr uint16_t CLUSTER_BASIC = 0x0000;
constexpr uint16_t CLUSTER_POWER_CONFIGURATION = 0x0001;
constexpr uint16_t CLUSTER_IDENTIFY = 0x0003;
constexpr uint16_t CLUSTER_GROUPS = 0x0004;
constexpr uint16_t CLUSTER_ON_OFF = 0x0006;
constexpr uint16_t CLUSTER_LEVEL = 0x0008;
constexpr uint16_t CLUSTER_ILLUMINANCE = 0x0400;
constexpr uint16_t CLUSTER_TEMPERATURE = 0x0402;
constexpr uint16_t CLUSTER_HUMIDITY = 0x0405;
constexpr uint16_t CLUSTER_OCCUPANCY = 0x0406;
constexpr uint16_t CLUSTER_IAS_ZONE = 0x0500;
constexpr uint16_t CLUSTER_METERING = 0x0702;
constexpr uint16_t CLUSTER_ELECTRICAL_MEASUREMENT = 0x0B04;
constexpr uint16_t CLUSTER_UNKNOWN = 0xFFFF; // names nothing: for frames that carry a manufacturer code

constexpr uint16_t ATTRIBUTE_CLUSTER_REVISION = 0xFFFD; // every cluster has it

// Texts of the table; they end in a zero byte and live for ever.
std::string_view tableText(uint16_t offset);

struct AttributeInfo {
    uint16_t id;
    uint8_t type;
    uint8_t flags;
    uint16_t name_at;
    uint16_t aliases_at;

    std::string_view name() const { return tableText(name_at); }
    bool isMandatory() const { return (flags & 1) != 0; }
    bool isWritable() const { return (flags & 2) != 0; }
    bool isReportable() const { return (flags & 4) != 0; }
};

// Shapes of parameters beside the data types: numbers of 1 to 4 bytes up to the end of the frame, or as many as a byte
// in front says; whatever is left.
constexpr uint8_t PARAMETER_LIST8 = 0x01;
constexpr uint8_t PARAMETER_LIST32 = 0x04;
constexpr uint8_t PARAMETER_REST = 0x05;

struct ParameterInfo {
    uint8_t type;
    uint8_t counted; // 1: of a list, with a count in front
    uint16_t name_at;

    std::string_view name() const { return tableText(name_at); }
};

struct CommandInfo {
    uint8_t id;
    uint8_t to_client; // 1: from server to client
    uint16_t name_at;
    uint16_t aliases_at;
    uint16_t label_at;
    uint16_t first_parameter;
    uint8_t parameter_count;

    std::string_view name() const { return tableText(name_at); }
    std::string_view ownLabel() const { return tableText(label_at); } // empty: labelOf(name()) says it
    std::span<const ParameterInfo> parameters() const;
};

struct ClusterInfo {
    uint16_t id;
    uint16_t name_at;
    uint16_t aliases_at;
    uint16_t first_attribute;
    uint16_t first_command;
    uint8_t attribute_count;
    uint8_t command_count;

    std::string_view name() const { return tableText(name_at); }
    std::span<const AttributeInfo> attributes() const; // by id, without those that every cluster has
    std::span<const CommandInfo> commands() const;     // by direction and id
};

// How the number of an attribute is to be read.
enum class Reading : uint8_t {
    Number,      // units_factor / units_divisor of unit()
    Switch,      // 0 off, others on
    Illuminance, // 10000 log10(lux) + 1; 0: too dark to measure
    Occupancy,   // bit 0
    ZoneStatus,  // of an alarm zone
    Energy,      // in the unit that the metering cluster names
    Demand,      // the same per hour
};

struct ScaleInfo {
    uint16_t cluster;
    uint16_t attribute;
    Reading reading;
    uint16_t divisor;
    uint32_t factor;
    uint16_t unit_at;
    uint16_t subject_at;
    uint16_t multiplier_attribute; // of the same cluster on the device; 0 with divisor_attribute: none
    uint16_t divisor_attribute;

    std::string_view unit() const { return tableText(unit_at); }       // "C"; may be empty
    std::string_view subject() const { return tableText(subject_at); } // what is measured: "temperature"
    bool isScaledByDevice() const { return divisor_attribute != 0; }
};

std::span<const ClusterInfo> clusters(); // by id
std::span<const ScaleInfo> scales();     // by cluster and attribute
const ClusterInfo *findCluster(uint16_t id);
const AttributeInfo *findAttribute(uint16_t cluster, uint16_t id);
const CommandInfo *findCommand(uint16_t cluster, bool to_client, uint8_t id);
const ScaleInfo *findScale(uint16_t cluster, uint16_t attribute);

const ClusterInfo *clusterByName(std::string_view name);
const AttributeInfo *attributeByName(uint16_t cluster, std::string_view name);
const CommandInfo *commandByName(uint16_t cluster, bool to_client, std::string_view name);

// "contact switch" for 0x0015 of the zone type.
std::string_view valueName(uint16_t cluster, uint16_t attribute, int64_t value);

std::string_view profileName(uint16_t profile);
std::string_view deviceTypeName(uint16_t profile, uint16_t device_id); // "dimmable light"
std::string_view statusName(uint8_t status);                           // "UNSUPPORTED_ATTRIBUTE"
std::string_view generalCommandName(uint8_t command);                  // "report_attributes"
std::string_view zdoCommandName(uint16_t cluster);                     // "Active_EP_req"

// Equal but for case and everything that is neither letter nor digit.
bool isSameName(std::string_view a, std::string_view b);

} // namespace corvane::zigbee
