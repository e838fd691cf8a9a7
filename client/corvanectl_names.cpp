// SPDX-License-Identifier: Apache-2.0
#include "corvanectl_names.h"
#include "corvanectl_parse.h"
#include <algorithm>
#include <array>
#include <fmt/format.h>
#include <tuple>

namespace corvane::ctl {

namespace {

struct Name {
    uint16_t id;
    std::string_view name;
};

template <class Table>
std::string_view lookUp(const Table &table, unsigned id) {
    const auto found = std::ranges::lower_bound(table, id, {}, &Name::id);
    return found != table.end() && found->id == id ? found->name : std::string_view();
}

template <class Table>
constexpr bool isSorted(const Table &table) {
    return std::ranges::adjacent_find(table, std::ranges::greater_equal{}, &Name::id) == table.end();
}

constexpr auto CLUSTERS = std::to_array<Name>({
    {0x0000, "basic"},
    {0x0001, "power configuration"},
    {0x0002, "device temperature"},
    {0x0003, "identify"},
    {0x0004, "groups"},
    {0x0005, "scenes"},
    {0x0006, "on/off"},
    {0x0007, "on/off switch configuration"},
    {0x0008, "level"},
    {0x0009, "alarms"},
    {0x000A, "time"},
    {0x000C, "analog input"},
    {0x000D, "analog output"},
    {0x000E, "analog value"},
    {0x000F, "binary input"},
    {0x0010, "binary output"},
    {0x0011, "binary value"},
    {0x0012, "multistate input"},
    {0x0013, "multistate output"},
    {0x0014, "multistate value"},
    {0x0019, "OTA upgrade"},
    {0x0020, "poll control"},
    {0x0021, "green power"},
    {0x0101, "door lock"},
    {0x0102, "window covering"},
    {0x0200, "pump control"},
    {0x0201, "thermostat"},
    {0x0202, "fan control"},
    {0x0204, "thermostat user interface"},
    {0x0300, "color control"},
    {0x0301, "ballast"},
    {0x0400, "illuminance"},
    {0x0401, "illuminance level"},
    {0x0402, "temperature"},
    {0x0403, "pressure"},
    {0x0404, "flow"},
    {0x0405, "humidity"},
    {0x0406, "occupancy"},
    {0x0500, "IAS zone"},
    {0x0501, "IAS ACE"},
    {0x0502, "IAS WD"},
    {0x0702, "metering"},
    {0x0B01, "meter identification"},
    {0x0B04, "electrical measurement"},
    {0x0B05, "diagnostics"},
    {0x1000, "touchlink commissioning"},
});
static_assert(isSorted(CLUSTERS));

constexpr auto ZDO_CLUSTERS = std::to_array<Name>({
    {0x0000, "NWK_addr_req"},
    {0x0001, "IEEE_addr_req"},
    {0x0002, "Node_Desc_req"},
    {0x0003, "Power_Desc_req"},
    {0x0004, "Simple_Desc_req"},
    {0x0005, "Active_EP_req"},
    {0x0006, "Match_Desc_req"},
    {0x0013, "Device_annce"},
    {0x001F, "Parent_annce"},
    {0x0021, "Bind_req"},
    {0x0022, "Unbind_req"},
    {0x0031, "Mgmt_Lqi_req"},
    {0x0032, "Mgmt_Rtg_req"},
    {0x0033, "Mgmt_Bind_req"},
    {0x0034, "Mgmt_Leave_req"},
    {0x0036, "Mgmt_Permit_Joining_req"},
    {0x0038, "Mgmt_NWK_Update_req"},
    {0x8000, "NWK_addr_rsp"},
    {0x8001, "IEEE_addr_rsp"},
    {0x8002, "Node_Desc_rsp"},
    {0x8003, "Power_Desc_rsp"},
    {0x8004, "Simple_Desc_rsp"},
    {0x8005, "Active_EP_rsp"},
    {0x8006, "Match_Desc_rsp"},
    {0x801F, "Parent_annce_rsp"},
    {0x8021, "Bind_rsp"},
    {0x8022, "Unbind_rsp"},
    {0x8031, "Mgmt_Lqi_rsp"},
    {0x8032, "Mgmt_Rtg_rsp"},
    {0x8033, "Mgmt_Bind_rsp"},
    {0x8034, "Mgmt_Leave_rsp"},
    {0x8036, "Mgmt_Permit_Joining_rsp"},
    {0x8038, "Mgmt_NWK_Update_notify"},
});
static_assert(isSorted(ZDO_CLUSTERS));

constexpr auto PROFILES = std::to_array<Name>({
    {0x0000, "ZDO"},
    {0x0104, "home automation"},
    {0x0109, "smart energy"},
    {0xA1E0, "green power"},
    {0xC05E, "light link"},
});
static_assert(isSorted(PROFILES));

constexpr auto DEVICE_TYPES = std::to_array<Name>({
    {0x0000, "on/off switch"},
    {0x0001, "level control switch"},
    {0x0002, "on/off output"},
    {0x0003, "level controllable output"},
    {0x0004, "scene selector"},
    {0x0005, "configuration tool"},
    {0x0006, "remote control"},
    {0x0007, "combined interface"},
    {0x0008, "range extender"},
    {0x0009, "mains power outlet"},
    {0x000A, "door lock"},
    {0x000B, "door lock controller"},
    {0x000C, "simple sensor"},
    {0x000D, "consumption awareness device"},
    {0x0050, "home gateway"},
    {0x0051, "smart plug"},
    {0x0052, "white goods"},
    {0x0053, "meter interface"},
    {0x0061, "on/off light"},
    {0x0100, "on/off light"},
    {0x0101, "dimmable light"},
    {0x0102, "color dimmable light"},
    {0x0103, "on/off light switch"},
    {0x0104, "dimmer switch"},
    {0x0105, "color dimmer switch"},
    {0x0106, "light sensor"},
    {0x0107, "occupancy sensor"},
    {0x010A, "on/off plug-in unit"},
    {0x010B, "dimmable plug-in unit"},
    {0x010C, "color temperature light"},
    {0x010D, "extended color light"},
    {0x0200, "shade"},
    {0x0201, "shade controller"},
    {0x0202, "window covering"},
    {0x0203, "window covering controller"},
    {0x0300, "heating/cooling unit"},
    {0x0301, "thermostat"},
    {0x0302, "temperature sensor"},
    {0x0303, "pump"},
    {0x0305, "pressure sensor"},
    {0x0306, "flow sensor"},
    {0x0400, "IAS control panel"},
    {0x0401, "IAS keypad"},
    {0x0402, "IAS zone"},
    {0x0403, "IAS warning device"},
    {0x0810, "on/off controller"},
    {0x0820, "color scene controller"},
    {0x0850, "on/off sensor"},
});
static_assert(isSorted(DEVICE_TYPES));

constexpr auto ZCL_STATUSES = std::to_array<Name>({
    {0x00, "SUCCESS"},
    {0x01, "FAILURE"},
    {0x7E, "NOT_AUTHORIZED"},
    {0x80, "MALFORMED_COMMAND"},
    {0x81, "UNSUP_CLUSTER_COMMAND"},
    {0x82, "UNSUP_GENERAL_COMMAND"},
    {0x83, "UNSUP_MANUF_CLUSTER_COMMAND"},
    {0x84, "UNSUP_MANUF_GENERAL_COMMAND"},
    {0x85, "INVALID_FIELD"},
    {0x86, "UNSUPPORTED_ATTRIBUTE"},
    {0x87, "INVALID_VALUE"},
    {0x88, "READ_ONLY"},
    {0x89, "INSUFFICIENT_SPACE"},
    {0x8A, "DUPLICATE_EXISTS"},
    {0x8B, "NOT_FOUND"},
    {0x8C, "UNREPORTABLE_ATTRIBUTE"},
    {0x8D, "INVALID_DATA_TYPE"},
    {0x8E, "INVALID_SELECTOR"},
    {0x8F, "WRITE_ONLY"},
    {0x90, "INCONSISTENT_STARTUP_STATE"},
    {0x93, "ACTION_DENIED"},
    {0x94, "TIMEOUT"},
    {0x95, "ABORT"},
    {0x96, "INVALID_IMAGE"},
    {0x97, "WAIT_FOR_DATA"},
    {0x98, "NO_IMAGE_AVAILABLE"},
    {0xC0, "HARDWARE_FAILURE"},
    {0xC1, "SOFTWARE_FAILURE"},
    {0xC2, "CALIBRATION_ERROR"},
    {0xC3, "UNSUPPORTED_CLUSTER"},
});
static_assert(isSorted(ZCL_STATUSES));

constexpr auto GENERAL_COMMANDS = std::to_array<Name>({
    {0x00, "read attributes"},
    {0x01, "read attributes response"},
    {0x02, "write attributes"},
    {0x03, "write attributes undivided"},
    {0x04, "write attributes response"},
    {0x05, "write attributes no response"},
    {0x06, "configure reporting"},
    {0x07, "configure reporting response"},
    {0x08, "read reporting configuration"},
    {0x09, "read reporting configuration response"},
    {0x0A, "report attributes"},
    {0x0B, "default response"},
    {0x0C, "discover attributes"},
    {0x0D, "discover attributes response"},
    {0x11, "discover commands received"},
    {0x12, "discover commands received response"},
    {0x15, "discover attributes extended"},
    {0x16, "discover attributes extended response"},
});
static_assert(isSorted(GENERAL_COMMANDS));

constexpr auto ATTRIBUTES = std::to_array<AttributeName>({
    {0x0000, 0x0000, "zcl_version", "ZCL version", Unit::None, ""},
    {0x0000, 0x0001, "application_version", "application version", Unit::None, ""},
    {0x0000, 0x0002, "stack_version", "stack version", Unit::None, ""},
    {0x0000, 0x0003, "hw_version", "hardware version", Unit::None, ""},
    {0x0000, 0x0004, "manufacturer_name", "manufacturer", Unit::None, ""},
    {0x0000, 0x0005, "model_identifier", "model", Unit::None, ""},
    {0x0000, 0x0006, "date_code", "date code", Unit::None, ""},
    {0x0000, 0x0007, "power_source", "power source", Unit::PowerSource, ""},
    {0x0000, 0x4000, "sw_build_id", "software build", Unit::None, ""},
    {0x0001, 0x0020, "battery_voltage", "battery voltage", Unit::Deci, "V"},
    {0x0001, 0x0021, "battery_percentage", "battery", Unit::Half, "%"},
    {0x0003, 0x0000, "identify_time", "identify time", Unit::One, "s"},
    {0x0004, 0x0000, "name_support", "group name support", Unit::None, ""},
    {0x0006, 0x0000, "on_off", "on/off", Unit::OnOff, ""},
    {0x0006, 0x4001, "on_time", "on time", Unit::Deci, "s"},
    {0x0006, 0x4002, "off_wait_time", "off wait time", Unit::Deci, "s"},
    {0x0006, 0x4003, "start_up_on_off", "start-up on/off", Unit::None, ""},
    {0x0008, 0x0000, "current_level", "level", Unit::None, ""},
    {0x0008, 0x0001, "remaining_time", "remaining time", Unit::Deci, "s"},
    {0x0008, 0x000F, "options", "options", Unit::None, ""},
    {0x0008, 0x0010, "on_off_transition_time", "on/off transition time", Unit::Deci, "s"},
    {0x0008, 0x0011, "on_level", "on level", Unit::None, ""},
    {0x0201, 0x0000, "local_temperature", "local temperature", Unit::Centi, "C"},
    {0x0201, 0x0011, "occupied_cooling_setpoint", "cooling setpoint", Unit::Centi, "C"},
    {0x0201, 0x0012, "occupied_heating_setpoint", "heating setpoint", Unit::Centi, "C"},
    {0x0400, 0x0000, "measured_value", "illuminance", Unit::Lux, "lx"},
    {0x0402, 0x0000, "measured_value", "temperature", Unit::Centi, "C"},
    {0x0402, 0x0001, "min_measured_value", "lowest temperature", Unit::Centi, "C"},
    {0x0402, 0x0002, "max_measured_value", "highest temperature", Unit::Centi, "C"},
    {0x0403, 0x0000, "measured_value", "pressure", Unit::One, "hPa"},
    {0x0405, 0x0000, "measured_value", "humidity", Unit::Centi, "%"},
    {0x0405, 0x0001, "min_measured_value", "lowest humidity", Unit::Centi, "%"},
    {0x0405, 0x0002, "max_measured_value", "highest humidity", Unit::Centi, "%"},
    {0x0406, 0x0000, "occupancy", "occupancy", Unit::Occupancy, ""},
    {0x0406, 0x0001, "occupancy_sensor_type", "occupancy sensor type", Unit::None, ""},
    {0x0406, 0x0002, "occupancy_sensor_type_bitmap", "occupancy sensor types", Unit::None, ""},
    {0x0500, 0x0000, "zone_state", "zone state", Unit::None, ""},
    {0x0500, 0x0001, "zone_type", "zone type", Unit::ZoneType, ""},
    {0x0500, 0x0002, "zone_status", "zone status", Unit::ContactStatus, ""},
    {0x0500, 0x0010, "ias_cie_address", "IAS CIE address", Unit::None, ""},
    {0x0500, 0x0011, "zone_id", "zone id", Unit::None, ""},
    {0x0702, 0x0000, "current_summation_delivered", "energy delivered (raw)", Unit::None, ""},
    {0x0702, 0x0200, "status", "meter status", Unit::None, ""},
    {0x0702, 0x0300, "unit_of_measure", "unit of measure", Unit::None, ""},
    {0x0702, 0x0301, "multiplier", "multiplier", Unit::None, ""},
    {0x0702, 0x0302, "divisor", "divisor", Unit::None, ""},
    {0x0702, 0x0303, "summation_formatting", "summation formatting", Unit::None, ""},
    {0x0702, 0x0304, "demand_formatting", "demand formatting", Unit::None, ""},
    {0x0702, 0x0306, "metering_device_type", "metering device type", Unit::None, ""},
    {0x0702, 0x0400, "instantaneous_demand", "demand (raw)", Unit::None, ""},
    {0x0B04, 0x0000, "measurement_type", "measurement type", Unit::None, ""},
    {0x0B04, 0x0505, "rms_voltage", "voltage", Unit::One, "V"},
    {0x0B04, 0x0508, "rms_current", "current", Unit::One, "mA"},
    {0x0B04, 0x050B, "active_power", "power", Unit::One, "W"},
});
static_assert(std::ranges::is_sorted(ATTRIBUTES, [](const AttributeName &a, const AttributeName &b) {
    return std::tie(a.cluster, a.id) < std::tie(b.cluster, b.id);
}));

constexpr AttributeName CLUSTER_REVISION{0, 0xFFFD, "cluster_revision", "cluster revision", Unit::None, ""};

constexpr Parameter TWO_OPTIONS[] = {{"options_mask", 1}, {"options_override", 1}};
constexpr Parameter OFF_WITH_EFFECT[] = {{"effect", 1}, {"variant", 1}};
constexpr Parameter ON_WITH_TIMED_OFF[] = {{"control", 1}, {"on_time", 2}, {"off_wait_time", 2}};
constexpr Parameter MOVE_TO_LEVEL[] = {{"level", 1}, {"transition_time", 2}, TWO_OPTIONS[0], TWO_OPTIONS[1]};
constexpr Parameter MOVE[] = {{"mode", 1}, {"rate", 1}, TWO_OPTIONS[0], TWO_OPTIONS[1]};
constexpr Parameter STEP[] = {{"mode", 1}, {"size", 1}, {"transition_time", 2}, TWO_OPTIONS[0], TWO_OPTIONS[1]};
constexpr Parameter SECONDS[] = {{"time", 2}};
constexpr Parameter GROUP_AND_NAME[] = {{"group", 2}, {"name", 0}};
constexpr Parameter GROUP[] = {{"group", 2}};
constexpr Parameter STATUS_AND_GROUP[] = {{"status", 1}, {"group", 2}};
constexpr Parameter VIEW_GROUP_RESPONSE[] = {{"status", 1}, {"group", 2}, {"name", 0}};
constexpr Parameter GROUP_LIST[] = {{"groups", LIST_16}};
constexpr Parameter GROUP_MEMBERSHIP[] = {{"capacity", 1}, {"groups", LIST_16}};
constexpr Parameter RECALL_SCENE[] = {{"group", 2}, {"scene", 1}};
constexpr Parameter ZONE_STATUS[] = {{"zone_status", 2}, {"extended_status", 1}, {"zone_id", 1}, {"delay", 2}};
constexpr Parameter ENROLL_REQUEST[] = {{"zone_type", 2}, {"manufacturer_code", 2}};
constexpr Parameter ENROLL_RESPONSE[] = {{"response", 1}, {"zone_id", 1}};
constexpr Parameter PERCENTAGE[] = {{"percentage", 1}};
constexpr Parameter PIN[] = {{"pin", 0}};
constexpr Parameter STATUS[] = {{"status", 1}};
constexpr Parameter QUERY_NEXT_IMAGE[] = {
    {"field_control", 1}, {"manufacturer_code", 2}, {"image_type", 2}, {"file_version", 4}};

constexpr auto COMMANDS = std::to_array<CommandName>({
    {0x0003, false, 0x00, "identify", SECONDS},
    {0x0003, false, 0x01, "identify query", {}},
    {0x0003, true, 0x00, "identify query response", SECONDS},
    {0x0004, false, 0x00, "add group", GROUP_AND_NAME},
    {0x0004, false, 0x01, "view group", GROUP},
    {0x0004, false, 0x02, "get group membership", GROUP_LIST},
    {0x0004, false, 0x03, "remove group", GROUP},
    {0x0004, false, 0x04, "remove all groups", {}},
    {0x0004, false, 0x05, "add group if identifying", GROUP_AND_NAME},
    {0x0004, true, 0x00, "add group response", STATUS_AND_GROUP},
    {0x0004, true, 0x01, "view group response", VIEW_GROUP_RESPONSE},
    {0x0004, true, 0x02, "get group membership response", GROUP_MEMBERSHIP},
    {0x0004, true, 0x03, "remove group response", STATUS_AND_GROUP},
    {0x0005, false, 0x05, "recall scene", RECALL_SCENE},
    {0x0006, false, 0x00, "off", {}},
    {0x0006, false, 0x01, "on", {}},
    {0x0006, false, 0x02, "toggle", {}},
    {0x0006, false, 0x40, "off with effect", OFF_WITH_EFFECT},
    {0x0006, false, 0x41, "on with recall of global scene", {}},
    {0x0006, false, 0x42, "on with timed off", ON_WITH_TIMED_OFF},
    {0x0008, false, 0x00, "move to level", MOVE_TO_LEVEL},
    {0x0008, false, 0x01, "move", MOVE},
    {0x0008, false, 0x02, "step", STEP},
    {0x0008, false, 0x03, "stop", TWO_OPTIONS},
    {0x0008, false, 0x04, "move to level with on/off", MOVE_TO_LEVEL},
    {0x0008, false, 0x05, "move with on/off", MOVE},
    {0x0008, false, 0x06, "step with on/off", STEP},
    {0x0008, false, 0x07, "stop with on/off", TWO_OPTIONS},
    {0x0019, false, 0x01, "query next image request", QUERY_NEXT_IMAGE},
    {0x0020, true, 0x00, "check-in", {}},
    {0x0101, false, 0x00, "lock door", PIN},
    {0x0101, false, 0x01, "unlock door", PIN},
    {0x0101, true, 0x00, "lock door response", STATUS},
    {0x0101, true, 0x01, "unlock door response", STATUS},
    {0x0102, false, 0x00, "up / open", {}},
    {0x0102, false, 0x01, "down / close", {}},
    {0x0102, false, 0x02, "stop", {}},
    {0x0102, false, 0x05, "go to lift percentage", PERCENTAGE},
    {0x0500, false, 0x00, "zone enroll response", ENROLL_RESPONSE},
    {0x0500, true, 0x00, "zone status change notification", ZONE_STATUS},
    {0x0500, true, 0x01, "zone enroll request", ENROLL_REQUEST},
});

std::string withNumber(std::string_view name, uint16_t id) {
    return name.empty() ? fmt::format("0x{:04x}", id) : fmt::format("{} 0x{:04x}", name, id);
}

} // namespace

const AttributeName *findAttribute(uint16_t cluster, uint16_t id) {
    if (id == CLUSTER_REVISION.id) {
        return &CLUSTER_REVISION;
    }
    const auto found = std::ranges::find_if(
        ATTRIBUTES, [&](const AttributeName &entry) { return entry.cluster == cluster && entry.id == id; });
    return found != ATTRIBUTES.end() ? &*found : nullptr;
}

std::string_view clusterName(uint16_t profile, uint16_t cluster) {
    return profile == PROFILE_ZDO ? lookUp(ZDO_CLUSTERS, cluster) : lookUp(CLUSTERS, cluster);
}

std::string_view profileName(uint16_t profile) {
    return lookUp(PROFILES, profile);
}

std::string_view deviceTypeName(uint16_t profile, uint16_t device_id) {
    const bool known = profile == PROFILE_HOME_AUTOMATION || profileName(profile) == "light link";
    return known ? lookUp(DEVICE_TYPES, device_id) : std::string_view();
}

std::string_view zclStatusName(uint8_t status) {
    return lookUp(ZCL_STATUSES, status);
}

std::string_view generalCommandName(uint8_t command) {
    return lookUp(GENERAL_COMMANDS, command);
}

std::string clusterText(uint16_t profile, uint16_t cluster) {
    return withNumber(clusterName(profile, cluster), cluster);
}

std::string deviceTypeText(uint16_t profile, uint16_t device_id) {
    return withNumber(deviceTypeName(profile, device_id), device_id);
}

uint16_t parseCluster(std::string_view text) {
    if (const auto number = tryNumber(text)) {
        return static_cast<uint16_t>(parseNumber(text, "the cluster", 0, 0xFFFF));
    }
    const std::string wanted = normalized(text);
    const auto found =
        std::ranges::find_if(CLUSTERS, [&](const Name &entry) { return normalized(entry.name) == wanted; });
    if (found == CLUSTERS.end()) {
        std::string known;
        for (const Name &entry : CLUSTERS) {
            known += (known.empty() ? "" : ", ") + std::string(entry.name);
        }
        throw UsageError(
            fmt::format("there is no cluster named \"{}\"; give its number (0x0006) or one of: {}", text, known));
    }
    return found->id;
}

uint16_t parseAttribute(uint16_t cluster, std::string_view text) {
    if (const auto number = tryNumber(text)) {
        return static_cast<uint16_t>(parseNumber(text, "the attribute", 0, 0xFFFF));
    }
    const std::string wanted = normalized(text);
    std::string known;
    for (const AttributeName &entry : ATTRIBUTES) {
        if (entry.cluster == cluster && normalized(entry.name) == wanted) {
            return entry.id;
        }
        if (entry.cluster == cluster) {
            known += (known.empty() ? "" : ", ") + std::string(entry.name);
        }
    }
    if (wanted == normalized(CLUSTER_REVISION.name)) {
        return CLUSTER_REVISION.id;
    }
    throw UsageError(fmt::format("the cluster {} has no attribute named \"{}\"; give its number{}{}",
                                 clusterText(PROFILE_HOME_AUTOMATION, cluster), text,
                                 known.empty() ? "" : " or one of: ", known));
}

const CommandName *findCommand(uint16_t cluster, bool to_client, uint8_t id) {
    const auto found = std::ranges::find_if(COMMANDS, [&](const CommandName &entry) {
        return entry.cluster == cluster && entry.to_client == to_client && entry.id == id;
    });
    return found != COMMANDS.end() ? &*found : nullptr;
}

std::string zoneStatusText(unsigned status) {
    static constexpr std::array<const char *, 10> BITS = {
        "",        "alarm 2", "tamper",      "battery low", "supervision",
        "restore", "trouble", "mains fault", "test",        "battery defect"};
    std::string text = (status & 1U) != 0 ? "contact: open" : "contact: closed";
    for (std::size_t bit = 1; bit < BITS.size(); ++bit) {
        if ((status >> bit & 1U) != 0) {
            text += fmt::format(", {}", BITS[bit]);
        }
    }
    return text;
}

} // namespace corvane::ctl
