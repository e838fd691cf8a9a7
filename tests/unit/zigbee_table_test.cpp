// SPDX-License-Identifier: Apache-2.0
// Names and numbers of the cluster library.
#include "zigbee/words.h"
#include <fstream>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

namespace corvane::zigbee {
namespace {

std::vector<std::string> split(const std::string &text, const std::string &by) {
    std::vector<std::string> parts{""};
    for (std::size_t at = 0; at < text.size();) {
        if (text.compare(at, by.size(), by) == 0) {
            parts.emplace_back();
            at += by.size();
        } else {
            parts.back() += text[at++];
        }
    }
    return parts;
}

unsigned hex(const std::string &text) {
    return static_cast<unsigned>(std::stoul(text, nullptr, 16));
}

std::string snake(const std::string &name) {
    std::string result;
    for (const char c : name) {
        result +=
            std::isalnum(static_cast<unsigned char>(c)) ? std::string(1, static_cast<char>(std::tolower(c))) : " ";
    }
    std::istringstream words(result);
    result.clear();
    for (std::string word; words >> word;) {
        result += (result.empty() ? "" : "_") + word;
    }
    return result;
}

// What scenario files and command lines in the field use, and people see: of each cluster its label, "attribute
// name=subject" where the subject is not the name, commands "q id label(parameters)" to the server and "r" from it.
const char *const kKnown =
    R"(0000 basic; 0000 zcl_version=ZCL version; 0001 application_version; 0002 stack_version; 0003 hw_version=hardware
  version; 0004 manufacturer_name=manufacturer; 0005 model_identifier=model; 0006 date_code; 0007 power_source;
  4000 sw_build_id=software build
0001 power configuration; 0020 battery_voltage; 0021 battery_percentage=battery
0002 device temperature
0003 identify; 0000 identify_time; q00 identify(time); q01 identify query; r00 identify query response(time)
0004 groups; 0000 name_support=group name support; q00 add group(group name); q01 view group(group); q02 get group
  membership(groups); q03 remove group(group); q04 remove all groups; q05 add group if identifying(group name); r00
  add group response(status group); r01 view group response(status group name); r02 get group membership
  response(capacity groups); r03 remove group response(status group)
0005 scenes; q05 recall scene(group scene)
0006 on/off; 0000 on_off=on/off; 4001 on_time; 4002 off_wait_time; 4003 start_up_on_off=start-up on/off; q00 off;
  q01 on; q02 toggle; q40 off with effect(effect variant); q41 on with recall of global scene; q42 on with timed
  off(control on_time off_wait_time)
0007 on/off switch configuration
0008 level; 0000 current_level=level; 0001 remaining_time; 000F options; 0010 on_off_transition_time=on/off
  transition time; 0011 on_level; q00 move to level(level transition_time options_mask options_override); q01
  move(mode rate options_mask options_override); q02 step(mode size transition_time options_mask options_override);
  q03 stop(options_mask options_override); q04 move to level with on/off(level transition_time options_mask
  options_override); q05 move with on/off(mode rate options_mask options_override); q06 step with on/off(mode size
  transition_time options_mask options_override); q07 stop with on/off(options_mask options_override)
0009 alarms
000A time
000C analog input
000D analog output
000E analog value
000F binary input
0010 binary output
0011 binary value
0012 multistate input
0013 multistate output
0014 multistate value
0019 OTA upgrade; q01 query next image request(field_control manufacturer_code image_type file_version)
0020 poll control; r00 check-in
0021 green power
0101 door lock; q00 lock door(pin); q01 unlock door(pin); r00 lock door response(status); r01 unlock door
  response(status)
0102 window covering; q00 up / open; q01 down / close; q02 stop; q05 go to lift percentage(percentage)
0200 pump control
0201 thermostat; 0000 local_temperature; 0011 occupied_cooling_setpoint=cooling setpoint; 0012
  occupied_heating_setpoint=heating setpoint
0202 fan control
0204 thermostat user interface
0300 color control
0301 ballast
0400 illuminance; 0000 measured_value=illuminance
0401 illuminance level
0402 temperature; 0000 measured_value=temperature; 0001 min_measured_value=lowest temperature; 0002
  max_measured_value=highest temperature
0403 pressure; 0000 measured_value=pressure
0404 flow
0405 humidity; 0000 measured_value=humidity; 0001 min_measured_value=lowest humidity; 0002
  max_measured_value=highest humidity
0406 occupancy; 0000 occupancy; 0001 occupancy_sensor_type; 0002 occupancy_sensor_type_bitmap=occupancy sensor
  types
0500 IAS zone; 0000 zone_state; 0001 zone_type; 0002 zone_status; 0010 ias_cie_address=IAS CIE address; 0011
  zone_id; q00 zone enroll response(response zone_id); r00 zone status change notification(zone_status
  extended_status zone_id delay); r01 zone enroll request(zone_type manufacturer_code)
0501 IAS ACE
0502 IAS WD
0702 metering; 0000 current_summation_delivered=energy delivered; 0200 status=meter status; 0300 unit_of_measure;
  0301 multiplier; 0302 divisor; 0303 summation_formatting; 0304 demand_formatting; 0306 metering_device_type; 0400
  instantaneous_demand=demand
0B01 meter identification
0B04 electrical measurement; 0000 measurement_type; 0505 rms_voltage=voltage; 0508 rms_current=current; 050B
  active_power=power
0B05 diagnostics
1000 touchlink commissioning)";

void expectAttribute(uint16_t cluster, const std::string &row) {
    const auto parts = split(row.substr(5), "=");
    const AttributeInfo *const found = attributeByName(cluster, parts[0]);
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->id, hex(row.substr(0, 4)));
    EXPECT_EQ(found->name(), parts[0]);
    EXPECT_EQ(attributeLabel(cluster, found->id), parts.size() > 1 ? parts[1] : labelOf(parts[0]));
    EXPECT_EQ(findAttribute(cluster, found->id), found);
}

void expectCommand(uint16_t cluster, const std::string &row) {
    const auto parts = split(row.substr(4), "(");
    const CommandInfo *const found = commandByName(cluster, row[0] == 'r', parts[0]);
    ASSERT_NE(found, nullptr);
    EXPECT_EQ(found->id, hex(row.substr(1, 2)));
    EXPECT_EQ(commandLabel(*found), parts[0]);
    std::string names;
    for (const ParameterInfo &parameter : found->parameters()) {
        names += (names.empty() ? "" : " ") + std::string(parameter.name());
    }
    EXPECT_EQ(names.find(parts.size() > 1 ? parts[1].substr(0, parts[1].size() - 1) : names), 0U) << names;
}

TEST(ZclTable, KnowsEveryNameInUse) {
    for (const std::string &line : split(std::regex_replace(kKnown, std::regex("\n  "), " "), "\n")) {
        SCOPED_TRACE(line);
        const auto rows = split(line, "; ");
        const auto id = static_cast<uint16_t>(hex(rows[0].substr(0, 4)));
        const std::string label = rows[0].substr(5);
        const ClusterInfo *const cluster = clusterByName(label);
        ASSERT_NE(cluster, nullptr);
        EXPECT_EQ(cluster->id, id);
        EXPECT_EQ(cluster->name(), snake(label));
        EXPECT_EQ(clusterLabel(PROFILE_HOME_AUTOMATION, id), label);
        for (std::size_t i = 1; i < rows.size(); ++i) {
            SCOPED_TRACE(rows[i]);
            rows[i][0] == 'q' || rows[i][0] == 'r' ? expectCommand(id, rows[i]) : expectAttribute(id, rows[i]);
        }
    }
}

// Every name of the table that ours are made from, also where ours differ. Slips of that table are corrected ids.
TEST(ZclTable, UnderstandsTheNamesOfItsSource) {
    std::ifstream file(CORVANE_ZCL_TABLE);
    unsigned rows = 0;
    uint16_t cluster = 0;
    for (std::string line; std::getline(file, line);) {
        SCOPED_TRACE(line);
        const auto fields = split(line, "\t");
        if (fields[0] == "C") {
            cluster = static_cast<uint16_t>(hex(fields[1]));
            ASSERT_EQ(clusterByName(fields[2]), findCluster(cluster));
            ASSERT_NE(findCluster(cluster), nullptr);
        } else if (fields[0] == "A") {
            const AttributeInfo *const found = attributeByName(cluster, fields[6]);
            ASSERT_NE(found, nullptr);
            EXPECT_EQ(findAttribute(cluster, found->id), found);
            const bool slip = cluster == CLUSTER_METERING && (fields[1] == "0312" || fields[1] == "0420");
            EXPECT_TRUE(found->id == hex(fields[1]) || slip);
            EXPECT_EQ(found->type, hex(fields[2]));
            EXPECT_EQ(found->isReportable(), fields[3].find('r') != std::string::npos);
            EXPECT_EQ(found->isWritable(), fields[3].find('w') != std::string::npos);
        } else if (fields[0] == "Q" || fields[0] == "R") {
            const CommandInfo *const found = commandByName(cluster, fields[0] == "R", fields[2]);
            ASSERT_NE(found, nullptr);
            EXPECT_EQ(findCommand(cluster, fields[0] == "R", found->id), found);
            const bool slip = cluster == 0x001B || cluster == 0x0021 || cluster == 0x0904;
            EXPECT_TRUE(found->id == hex(fields[1]) || slip);
        }
        rows += line.starts_with('#') ? 0 : 1;
    }
    EXPECT_GT(rows, 1800U);
}

TEST(ZclTable, NamesAreComparedByTheirLettersAndUnknownNumbersHaveNone) {
    for (const char *name : {"on_off", "on/off", "On-Off", "genOnOff", "OnOff"}) {
        EXPECT_EQ(clusterByName(name), findCluster(CLUSTER_ON_OFF)) << name;
    }
    EXPECT_EQ(attributeByName(CLUSTER_POWER_CONFIGURATION, "BatteryPercentageRemaining")->id, 0x0021);
    EXPECT_EQ(attributeByName(0xFC01, "cluster_revision")->id, ATTRIBUTE_CLUSTER_REVISION);
    EXPECT_EQ(clusterByName("level_control")->id, CLUSTER_LEVEL);
    for (const char *name : {"", "_", "on", "gen_on_off_", "on_offs", "6"}) {
        const bool known = std::string(name) == "gen_on_off_";
        EXPECT_EQ(clusterByName(name) != nullptr, known) << name;
    }
    EXPECT_EQ(findCluster(0xFC01), nullptr);
    EXPECT_EQ(findAttribute(0xFC01, 0), nullptr);
    EXPECT_EQ(findCommand(CLUSTER_ON_OFF, true, 0), nullptr);
    EXPECT_EQ(attributeByName(CLUSTER_TEMPERATURE, "on_off"), nullptr);
    EXPECT_EQ(valueName(CLUSTER_IAS_ZONE, 1, 0x10015), "");
    EXPECT_EQ(clusterText(PROFILE_ZDO, 0x8005) + ", " + clusterText(PROFILE_HOME_AUTOMATION, 0xFC01),
              "Active_EP_rsp 0x8005, 0xfc01");
    EXPECT_EQ(deviceTypeName(PROFILE_LIGHT_LINK, 0x0101), "dimmable light");
    EXPECT_EQ(deviceTypeName(PROFILE_ZDO, 0x0101), "");
    EXPECT_EQ(statusText(0x88) + ", " + statusText(0x7F), "READ_ONLY 0x88, 0x7f");
}

TEST(DataTypes, WidthNameAndWhatIsNotAValue) {
    const struct {
        uint8_t type;
        bool analog;
        int width; // -1: the value tells
        const char *name;
        uint64_t none; // 0: every value is one
    } kTypes[] = {
        {0x00, false, 0, "none", 0},
        {0x0F, false, 8, "data64", 0},
        {TYPE_BOOLEAN, false, 1, "bool", 0xFF},
        {TYPE_BITMAP16, false, 2, "bitmap16", 0},
        {TYPE_UINT8, true, 1, "uint8", 0xFF},
        {TYPE_UINT48, true, 6, "uint48", 0xFFFFFFFFFFFF},
        {0x27, true, 8, "uint64", UINT64_MAX},
        {TYPE_INT24, true, 3, "int24", 0x800000},
        {TYPE_ENUM16, false, 2, "enum16", 0xFFFF},
        {TYPE_HALF_FLOAT, true, 2, "semi", 0x7E00},
        {TYPE_SINGLE_FLOAT, true, 4, "single", 0x7FC00000},
        {TYPE_CHARACTER_STRING, false, -1, "string", 0},
        {TYPE_STRUCT, false, -1, "struct", 0},
        {TYPE_UTC_TIME, true, 4, "UTC time", 0xFFFFFFFF},
        {0xEA, false, 4, "BACnet OID", 0xFFFFFFFF},
        {TYPE_EUI64, false, 8, "EUI-64", UINT64_MAX},
        {TYPE_KEY, false, 16, "key", 0},
    };
    for (const auto &row : kTypes) {
        EXPECT_EQ(typeText(row.type), row.name);
        EXPECT_EQ(typeWidth(row.type) ? static_cast<int>(*typeWidth(row.type)) : -1, row.width) << row.name;
        EXPECT_EQ(typeIsAnalog(row.type), row.analog) << row.name;
        EXPECT_EQ(isNotAValue(row.type, row.none), row.none != 0) << row.name;
        EXPECT_FALSE(isNotAValue(row.type, 1)) << row.name;
    }
    EXPECT_TRUE(!findType(0x07) && !findType(0x32) && !findType(0xFF));
    EXPECT_EQ(numberValue(TYPE_INT24, -2).integer(), -2);
    EXPECT_EQ(floatOf(TYPE_HALF_FLOAT, 0xC100), -2.5);
    EXPECT_EQ(floatOf(TYPE_HALF_FLOAT, 0x0001) * 16777216, 1);
}

TEST(Scales, MetersSayWhatTheirNumbersMean) {
    const auto text = [](uint16_t cluster, uint16_t attribute, uint8_t type, int64_t number, const MeterScale *meter) {
        return valueText(cluster, attribute, numberValue(type, number), meter);
    };
    const MeterScale tenth{1, 10, 0};
    const MeterScale thousandth{1, 1000, 0};
    const MeterScale water{0, 0, 0x87}; // litres in decimal digits, without multiplier and divisor
    EXPECT_EQ(text(0x0B04, 0x0505, TYPE_UINT16, 2301, &tenth), "230.1 V");
    EXPECT_EQ(text(0x0B04, 0x0508, TYPE_UINT16, 260, &thousandth), "0.260 A");
    EXPECT_EQ(text(0x0B04, 0x050B, TYPE_INT16, -60, &tenth), "-6.0 W");
    EXPECT_EQ(text(0x0B04, 0x090B, TYPE_INT16, 60, nullptr), "60 (raw)");
    EXPECT_EQ(text(0x0B04, 0x0505, TYPE_UINT16, 0xFFFF, &tenth), "unknown");
    EXPECT_EQ(text(0x0702, 0x0000, TYPE_UINT48, 12345, &thousandth), "12.345 kWh");
    EXPECT_EQ(text(0x0702, 0x0400, TYPE_INT24, -60, &thousandth), "-0.060 kW");
    EXPECT_EQ(text(0x0702, 0x0000, TYPE_UINT48, 0x1234, &water), "1234 l");
    EXPECT_EQ(text(0x0702, 0x0000, TYPE_UINT48, 0x123A, &water), "4666 (raw)");
    EXPECT_EQ(text(0x0400, 0x0000, TYPE_UINT16, 20001, nullptr), "100 lx");
    EXPECT_EQ(text(0x040D, 0x0000, TYPE_SINGLE_FLOAT, 0x3A51B717, nullptr), "800 ppm");
    EXPECT_EQ(text(0x0006, 0x4003, TYPE_ENUM8, 0xFF, nullptr), "previous");

    // What the device says itself: a report, the answer to the reading of what is missing (no multiplier), the report.
    MeterScales meters;
    const std::vector<uint8_t> report{0x18, 1, 0x0A, 0x05, 0x05, 0x21, 0xFD, 0x08, 0x08, 0x05, 0x21, 4, 1};
    const std::vector<uint8_t> answer{0x18, 1, 1, 0x00, 6, 0x86, 0x01, 6, 0, 0x21, 10, 0};
    const std::vector<uint8_t> summation{0x18, 1, 0x0A, 0, 0, 0x20, 7};
    EXPECT_EQ(meters.missing(0x0B04, report), (std::vector<uint16_t>{0x0600, 0x0601, 0x0602, 0x0603}));
    EXPECT_EQ(meters.missing(0x0702, summation), (std::vector<uint16_t>{0x0301, 0x0302, 0x0300}));
    EXPECT_TRUE(meters.missing(0x0B04, answer).empty() && meters.missing(0x0402, report).empty());
    meters.learn(0x0702, answer); // another cluster
    meters.learn(0x0B04, answer);
    EXPECT_EQ(meters.missing(0x0B04, report), (std::vector<uint16_t>{0x0602, 0x0603}));
    EXPECT_EQ(frameText(0x0B04, report, &meters), "report attributes: voltage: 230.1 V, current: 260 (raw)");
}

} // namespace
} // namespace corvane::zigbee
