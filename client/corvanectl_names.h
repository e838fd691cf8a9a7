// SPDX-License-Identifier: Apache-2.0
//
// Names of the numbers of the Zigbee Cluster Library and of ZDO, for output and for input. Unknown numbers have no
// name; callers then show the number alone.
#pragma once
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace corvane::ctl {

constexpr uint16_t PROFILE_ZDO = 0x0000;
constexpr uint16_t PROFILE_HOME_AUTOMATION = 0x0104;

constexpr uint16_t CLUSTER_BASIC = 0x0000;
constexpr uint16_t CLUSTER_ON_OFF = 0x0006;
constexpr uint16_t CLUSTER_LEVEL = 0x0008;

// How the value of an attribute is told to people.
enum class Unit : uint8_t {
    None,          // the number, or the text
    OnOff,         // 0 off, 1 on
    Centi,         // 0.01 of `suffix`
    Half,          // 0.5 of `suffix`
    Deci,          // 0.1 of `suffix`
    One,           // whole `suffix`
    Lux,           // 10000 log10(lux) + 1
    ContactStatus, // IAS zone status
    Occupancy,     // bit 0
    PowerSource,
    ZoneType,
};

struct AttributeName {
    uint16_t cluster;
    uint16_t id;
    const char *name;    // as typed: "measured_value"
    const char *subject; // as told: "temperature"
    Unit unit;
    const char *suffix;
};
const AttributeName *findAttribute(uint16_t cluster, uint16_t id);

// Names; empty when there is none.
std::string_view clusterName(uint16_t profile, uint16_t cluster);
std::string_view profileName(uint16_t profile);
std::string_view deviceTypeName(uint16_t profile, uint16_t device_id);
std::string_view zclStatusName(uint8_t status);
std::string_view generalCommandName(uint8_t command);

// "on/off 0x0006", "0xfc01" without a name.
std::string clusterText(uint16_t profile, uint16_t cluster);
std::string deviceTypeText(uint16_t profile, uint16_t device_id);

// By number or by name ("on_off", "on/off", "temperature"); UsageError with the known names otherwise.
uint16_t parseCluster(std::string_view text);
uint16_t parseAttribute(uint16_t cluster, std::string_view text);

// Parameters of a cluster-specific command in their order: width in bytes; 0 is a text with a length byte, LIST_8 and
// LIST_16 are that many entries as a count byte says.
struct Parameter {
    const char *name = nullptr;
    uint8_t width = 0;
};
constexpr uint8_t LIST_8 = 0x81;
constexpr uint8_t LIST_16 = 0x82;

struct CommandName {
    uint16_t cluster;
    bool to_client; // direction: from server to client
    uint8_t id;
    const char *name;
    std::span<const Parameter> parameters;
};
const CommandName *findCommand(uint16_t cluster, bool to_client, uint8_t id);

// "contact: open, battery low" of an IAS zone status.
std::string zoneStatusText(unsigned status);

} // namespace corvane::ctl
