// SPDX-License-Identifier: Apache-2.0
#include "zigbee/words.h"
#include "base/hex.h"
#include "base/printable.h"
#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>

namespace corvane::zigbee {

namespace {

constexpr uint8_t UNIT_BCD = 0x80; // of unit_of_measure: two decimal digits in each byte
constexpr int MAX_DECIMALS = 6;

struct MeterUnit {
    std::string_view amount;
    std::string_view per_hour;
};

constexpr MeterUnit METER_UNITS[] = {
    {"kWh", "kW"},          {"m3", "m3/h"},           {"ft3", "ft3/h"}, {"ccf", "ccf/h"},
    {"US gal", "US gal/h"}, {"imp gal", "imp gal/h"}, {"BTU", "BTU/h"}, {"l", "l/h"},
    {"kPa", "kPa"},         {"kPa", "kPa"},           {"mcf", "mcf/h"}, {"", ""},
    {"MJ", "MJ/h"},         {"kvarh", "kvar"},
};

std::string fixed(double number, int decimals) {
    char text[400];
    const auto [end, error] = std::to_chars(text, text + sizeof text, number, std::chars_format::fixed, decimals);
    return error == std::errc{} ? std::string(text, end) : std::string();
}

std::string hexNumber(uint64_t value, int digits) {
    std::string text = "0x";
    for (int shift = 4 * (digits - 1); shift >= 0; shift -= 4) {
        text += base::hexDigit(static_cast<unsigned>(value >> shift));
    }
    return text;
}

std::string hexOf(std::span<const uint8_t> bytes) {
    std::string text;
    for (const uint8_t byte : bytes) {
        text += base::hexDigit(byte >> 4);
        text += base::hexDigit(byte);
    }
    return text;
}

// As many decimals as one raw unit needs.
uint8_t decimalsOf(double unit) {
    int decimals = 0;
    for (double scaled = unit; decimals < MAX_DECIMALS && scaled < 0.999; scaled *= 10) {
        ++decimals;
    }
    return static_cast<uint8_t>(decimals);
}

std::optional<double> fromBcd(uint64_t raw) {
    double number = 0;
    for (int shift = 60; shift >= 0; shift -= 4) {
        const auto digit = static_cast<unsigned>(raw >> shift & 0xF);
        if (digit > 9) {
            return std::nullopt;
        }
        number = number * 10 + digit;
    }
    return number;
}

std::optional<Quantity> meterQuantity(const ScaleInfo &scale, const Value &value, const MeterScale &meter) {
    std::optional<double> number = value.number();
    Quantity quantity;
    quantity.unit = scale.unit();
    if (scale.reading == Reading::Energy || scale.reading == Reading::Demand) {
        const std::size_t unit = meter.unit_of_measure & ~UNIT_BCD;
        if (unit < std::size(METER_UNITS)) {
            quantity.unit = scale.reading == Reading::Energy ? METER_UNITS[unit].amount : METER_UNITS[unit].per_hour;
        }
        if ((meter.unit_of_measure & UNIT_BCD) != 0) {
            number = fromBcd(value.raw);
        }
    }
    if (!number) {
        return std::nullopt;
    }
    const double unit = static_cast<double>(std::max(meter.multiplier, 1U)) / std::max(meter.divisor, 1U);
    quantity.number = *number * unit;
    quantity.decimals = decimalsOf(unit);
    return quantity;
}

std::string withUnit(const Quantity &quantity) {
    const bool apart = !quantity.unit.empty() && quantity.unit != "%";
    return fixed(quantity.number, quantity.decimals) + (apart ? " " : "") + std::string(quantity.unit);
}

std::string numberText(const Value &value) {
    if (value.kind == TypeKind::Boolean) {
        return value.raw != 0 ? "true" : "false";
    }
    if (value.kind == TypeKind::Signed) {
        return std::to_string(value.integer());
    }
    if (value.kind != TypeKind::Float) {
        return std::to_string(value.raw);
    }
    char text[40];
    const auto [end, error] = std::to_chars(text, text + sizeof text, value.number());
    std::string number(text, error == std::errc{} ? end : text);
    return number.find_first_of(".e") == number.npos ? number + ".0" : number;
}

std::string elementText(const Value &element) {
    const bool quoted = element.kind == TypeKind::Text || element.kind == TypeKind::Octets ||
                        element.kind == TypeKind::Data || element.kind == TypeKind::Key ||
                        element.kind == TypeKind::Id || element.kind == TypeKind::Eui64;
    const std::string text = plainText(element);
    return quoted && element.present ? "\"" + text + "\"" : text;
}

std::string listText(const Value &value) {
    std::string text = "[";
    Elements elements(value);
    for (Value element; elements.next(element);) {
        text += (text.size() > 1 ? "," : "") + elementText(element);
    }
    return text + "]";
}

// The readings that are no quantity.
std::optional<std::string> readingText(const ScaleInfo &scale, const Value &value) {
    switch (scale.reading) {
    case Reading::Switch:
        return value.raw != 0 ? "on" : "off";
    case Reading::Occupancy:
        return (value.raw & 1) != 0 ? "occupied" : "clear";
    case Reading::ZoneStatus:
        return zoneStatusText(static_cast<unsigned>(value.raw));
    case Reading::Illuminance:
        return value.raw == 0 ? std::optional<std::string>("too dark to measure") : std::nullopt;
    default:
        return std::nullopt;
    }
}

std::string join(std::string &text, const std::string &more) {
    return text += (text.empty() || more.empty() ? "" : ", ") + more;
}

std::string generalText(uint16_t cluster, uint8_t command, std::span<const uint8_t> payload, const MeterScales *meters,
                        bool &ok) {
    RecordReader records(command, payload);
    if (!records.isKnown()) {
        return hexOf(payload);
    }
    std::string text;
    for (AttributeRecord record; records.next(record);) {
        const auto meter = meterScaleOf(cluster, record.attribute, meters);
        join(text, recordText(cluster, record, meter ? &*meter : nullptr));
    }
    ok = records.ok();
    return text;
}

std::string parametersText(const CommandInfo &command, std::span<const uint8_t> payload, bool &ok) {
    ParameterReader parameters(command, payload);
    std::string text;
    bool status_seen = false; // of an alarm zone; it says it all
    for (Parameter parameter; parameters.next(parameter);) {
        if (!status_seen) {
            join(text, parameterText(parameter));
        }
        status_seen = status_seen || parameter.info->name() == "zone_status";
    }
    ok = parameters.ok();
    return text;
}

} // namespace

std::optional<Quantity> quantityOf(const ScaleInfo &scale, const Value &value, const MeterScale *meter) {
    if (!value.present || !value.isNumber()) {
        return std::nullopt;
    }
    if (scale.isScaledByDevice()) {
        return meter != nullptr ? meterQuantity(scale, value, *meter) : std::nullopt;
    }
    if (scale.reading == Reading::Illuminance) {
        const double lux = value.raw == 0 ? 0 : std::pow(10, (value.number() - 1) / 10000);
        return Quantity{lux, scale.unit(), 0};
    }
    if (scale.reading != Reading::Number || (scale.unit().empty() && scale.divisor == 1)) {
        return std::nullopt;
    }
    const double unit = static_cast<double>(scale.factor) / scale.divisor;
    const uint8_t decimals = value.kind == TypeKind::Float && scale.factor == 1 ? uint8_t{1} : decimalsOf(unit);
    return Quantity{value.number() * scale.factor / scale.divisor, scale.unit(), decimals};
}

std::string labelOf(std::string_view name) {
    static constexpr std::string_view CAPITALS[] = {"ace", "cie", "ias", "ota", "pir", "rfid", "wd", "zcl"};
    std::string label;
    while (!name.empty()) {
        const auto end = std::min(name.find('_'), name.size());
        std::string word(name.substr(0, end));
        name.remove_prefix(std::min(end + 1, name.size()));
        if (std::ranges::find(CAPITALS, word) != std::end(CAPITALS)) {
            std::ranges::transform(word, word.begin(), [](char c) { return static_cast<char>(c & ~0x20); });
        }
        const bool on_off = word == "off" && (label == "on" || label.ends_with(" on"));
        label += (label.empty() ? "" : on_off ? "/" : " ") + word;
    }
    return label;
}

std::string clusterLabel(uint16_t profile, uint16_t cluster) {
    if (profile == PROFILE_ZDO) {
        return std::string(zdoCommandName(cluster));
    }
    const ClusterInfo *const info = findCluster(cluster);
    return info != nullptr ? labelOf(info->name()) : std::string();
}

std::string clusterText(uint16_t profile, uint16_t cluster) {
    const std::string label = clusterLabel(profile, cluster);
    return (label.empty() ? "" : label + " ") + hexNumber(cluster, 4);
}

std::string attributeLabel(uint16_t cluster, uint16_t attribute) {
    if (const ScaleInfo *const scale = findScale(cluster, attribute)) {
        return std::string(scale->subject());
    }
    const AttributeInfo *const info = findAttribute(cluster, attribute);
    return info != nullptr ? labelOf(info->name()) : "attribute " + hexNumber(attribute, 4);
}

std::string commandLabel(const CommandInfo &command) {
    return command.ownLabel().empty() ? labelOf(command.name()) : std::string(command.ownLabel());
}

std::string statusText(uint8_t status) {
    const std::string_view name = statusName(status);
    return (name.empty() ? "" : std::string(name) + " ") + hexNumber(status, 2);
}

std::string typeText(uint8_t type) {
    const auto info = findType(type);
    if (!info) {
        return hexNumber(type, 2);
    }
    const bool numbered = info->first != info->last || info->kind == TypeKind::Enum;
    return info->name + (numbered ? std::to_string(8 * *typeWidth(type)) : std::string());
}

std::string zoneStatusText(unsigned status) {
    static constexpr std::array<const char *, 10> BITS = {
        "",        "alarm 2", "tamper",      "battery low", "supervision",
        "restore", "trouble", "mains fault", "test",        "battery defect"};
    std::string text = (status & 1U) != 0 ? "contact: open" : "contact: closed";
    for (std::size_t bit = 1; bit < BITS.size(); ++bit) {
        if ((status >> bit & 1U) != 0) {
            text += std::string(", ") + BITS[bit];
        }
    }
    return text;
}

std::optional<MeterScale> meterScaleOf(uint16_t cluster, uint16_t attribute, const MeterScales *meters) {
    const ScaleInfo *const scale = meters != nullptr ? findScale(cluster, attribute) : nullptr;
    return scale != nullptr ? meters->find(*scale) : std::nullopt;
}

std::string plainText(const Value &value) {
    switch (value.kind) {
    case TypeKind::None:
        return "none";
    case TypeKind::Text:
        return value.present ? base::printable(value.text()) : "none";
    case TypeKind::Octets:
    case TypeKind::Data:
    case TypeKind::Key:
        return value.present ? hexOf(value.bytes) : "none";
    case TypeKind::List:
    case TypeKind::Struct:
        return listText(value);
    case TypeKind::Id:
        return hexNumber(value.raw, 4);
    case TypeKind::Eui64:
        return std::string(base::eui64Text(value.eui64()));
    case TypeKind::Float:
        return value.present ? numberText(value) : "none";
    default:
        return numberText(value);
    }
}

std::string valueText(uint16_t cluster, uint16_t attribute, const Value &value, const MeterScale *meter) {
    if (!value.isNumber() || value.kind == TypeKind::Float) {
        const ScaleInfo *const scale = findScale(cluster, attribute);
        const auto quantity = scale != nullptr ? quantityOf(*scale, value, meter) : std::nullopt;
        return quantity ? withUnit(*quantity) : plainText(value);
    }
    if (const std::string_view name = valueName(cluster, attribute, value.integer()); !name.empty()) {
        return std::string(name);
    }
    if (!value.present && findAttribute(cluster, attribute) != nullptr) {
        return "unknown";
    }
    const ScaleInfo *const scale = findScale(cluster, attribute);
    if (scale == nullptr) {
        return numberText(value);
    }
    if (const auto text = readingText(*scale, value)) {
        return *text;
    }
    const auto quantity = quantityOf(*scale, value, meter);
    return quantity ? withUnit(*quantity) : numberText(value) + (scale->isScaledByDevice() ? " (raw)" : "");
}

std::string recordText(uint16_t cluster, const AttributeRecord &record, const MeterScale *meter) {
    const bool failed = record.has(Field::Status) && !record.has(Field::Value) && !record.has(Field::Reporting);
    if (!record.has(Field::Attribute)) {
        return failed ? statusText(record.status) : "command " + hexNumber(record.command, 2);
    }
    const std::string subject = attributeLabel(cluster, record.attribute);
    if (failed) {
        return subject + ": " + statusText(record.status);
    }
    if (record.has(Field::Value)) {
        const ScaleInfo *const scale = findScale(cluster, record.attribute);
        const bool says_it_all = scale != nullptr && scale->reading == Reading::ZoneStatus;
        const std::string words = valueText(cluster, record.attribute, record.value, meter);
        return says_it_all ? words : subject + ": " + words;
    }
    if (record.has(Field::Reporting)) {
        std::string text =
            subject + ": " + std::to_string(record.minimum_s) + " to " + std::to_string(record.maximum_s) + " s";
        return record.change.kind != TypeKind::None ? text + ", change " + plainText(record.change) : text;
    }
    return record.has(Field::Type) ? subject + " (" + typeText(record.type) + ")" : subject;
}

std::string parameterText(const Parameter &parameter) {
    const std::string_view name = parameter.info->name();
    if (name == "zone_status") {
        return zoneStatusText(static_cast<unsigned>(parameter.value.raw));
    }
    if (name == "status") {
        return statusText(static_cast<uint8_t>(parameter.value.raw));
    }
    return std::string(name) + " " + plainText(parameter.value);
}

std::string frameText(uint16_t cluster, std::span<const uint8_t> frame, const MeterScales *meters) {
    base::ByteReader in(frame);
    FrameHeader header;
    if (!readHeader(in, header)) {
        return "";
    }
    bool ok = true;
    std::string command;
    std::string contents;
    cluster = header.manufacturer ? CLUSTER_UNKNOWN : cluster;
    const CommandInfo *const info =
        header.cluster_specific ? findCommand(cluster, header.to_client, header.command) : nullptr;
    if (!header.cluster_specific) {
        command = labelOf(generalCommandName(header.command));
        contents = generalText(cluster, header.command, in.rest(), meters, ok);
    } else {
        command = info != nullptr ? commandLabel(*info) : "";
        contents = info != nullptr ? parametersText(*info, in.rest(), ok) : hexOf(in.rest());
    }
    command = command.empty() ? "command " + hexNumber(header.command, 2) : command;
    const std::string text = contents.empty() ? command : command + ": " + contents;
    return ok ? text : text + " (malformed frame " + hexOf(frame) + ")";
}

} // namespace corvane::zigbee
