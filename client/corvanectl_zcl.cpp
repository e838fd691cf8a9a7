// SPDX-License-Identifier: Apache-2.0
#include "corvanectl_zcl.h"
#include "corvanectl_names.h"
#include "corvanectl_parse.h"
#include <algorithm>
#include <bit>
#include <cmath>
#include <fmt/format.h>

namespace corvane::ctl {

namespace {

constexpr uint8_t FRAME_TYPE_MASK = 0x03;
constexpr uint8_t FRAME_TYPE_CLUSTER = 0x01;
constexpr uint8_t MANUFACTURER_SPECIFIC = 0x04;
constexpr uint8_t SERVER_TO_CLIENT = 0x08;
constexpr uint8_t DISABLE_DEFAULT_RESPONSE = 0x10;
constexpr int MAX_NESTING = 4; // of arrays and structures

// Reads a frame from its front. A read beyond the end gives zeros and is remembered.
class Reader {
public:
    explicit Reader(Bytes bytes) : rest_(bytes) {}

    bool ok() const { return ok_; }
    bool atEnd() const { return rest_.empty(); }
    std::size_t left() const { return rest_.size(); }
    void fail() { ok_ = false; }

    Bytes take(std::size_t count) {
        if (count > rest_.size()) {
            ok_ = false;
            rest_ = {};
            return {};
        }
        const Bytes taken = rest_.first(count);
        rest_ = rest_.subspan(count);
        return taken;
    }
    uint64_t number(std::size_t width) { // little-endian, at most 8 bytes
        uint64_t value = 0;
        unsigned shift = 0;
        for (const uint8_t byte : take(width)) {
            value |= uint64_t{byte} << shift;
            shift += 8;
        }
        return value;
    }
    uint8_t u8() { return static_cast<uint8_t>(number(1)); }
    uint16_t u16() { return static_cast<uint16_t>(number(2)); }

private:
    Bytes rest_;
    bool ok_ = true;
};

enum class TypeClass : uint8_t {
    None,
    Data,
    Bool,
    Bitmap,
    Unsigned,
    Signed,
    Enum,
    Float,
    Text,
    Octets,
    List,
    Struct,
    Id
};

struct TypeInfo {
    uint8_t first;
    uint8_t last;
    TypeClass kind;
    uint8_t width; // of the first; the others are one byte wider each where `step`. Strings: width of the length
    bool step;
    const char *name;
};

constexpr TypeInfo TYPES[] = {
    {0x00, 0x00, TypeClass::None, 0, false, "none"},
    {0x08, 0x0F, TypeClass::Data, 1, true, "data"},
    {0x10, 0x10, TypeClass::Bool, 1, false, "bool"},
    {0x18, 0x1F, TypeClass::Bitmap, 1, true, "bitmap"},
    {0x20, 0x27, TypeClass::Unsigned, 1, true, "uint"},
    {0x28, 0x2F, TypeClass::Signed, 1, true, "int"},
    {0x30, 0x31, TypeClass::Enum, 1, true, "enum"},
    {0x38, 0x38, TypeClass::Float, 2, false, "semi"},
    {0x39, 0x39, TypeClass::Float, 4, false, "single"},
    {0x3A, 0x3A, TypeClass::Float, 8, false, "double"},
    {0x41, 0x41, TypeClass::Octets, 1, false, "octets"},
    {0x42, 0x42, TypeClass::Text, 1, false, "string"},
    {0x43, 0x43, TypeClass::Octets, 2, false, "long octets"},
    {0x44, 0x44, TypeClass::Text, 2, false, "long string"},
    {0x48, 0x48, TypeClass::List, 0, false, "array"},
    {0x4C, 0x4C, TypeClass::Struct, 0, false, "struct"},
    {0x50, 0x51, TypeClass::List, 0, false, "set"},
    {0xE0, 0xE0, TypeClass::Unsigned, 4, false, "time of day"},
    {0xE1, 0xE1, TypeClass::Unsigned, 4, false, "date"},
    {0xE2, 0xE2, TypeClass::Unsigned, 4, false, "UTC time"},
    {0xE8, 0xE8, TypeClass::Id, 2, false, "cluster id"},
    {0xE9, 0xE9, TypeClass::Id, 2, false, "attribute id"},
    {0xEA, 0xEA, TypeClass::Unsigned, 4, false, "BACnet OID"},
    {0xF0, 0xF0, TypeClass::Id, 8, false, "EUI-64"},
    {0xF1, 0xF1, TypeClass::Octets, 0, false, "key"}, // 16 bytes without a length
};

const TypeInfo *findType(uint8_t type) {
    const auto *found =
        std::ranges::find_if(TYPES, [type](const TypeInfo &info) { return type >= info.first && type <= info.last; });
    return found != std::end(TYPES) ? found : nullptr;
}

std::size_t widthOf(const TypeInfo &info, uint8_t type) {
    return info.width + (info.step ? static_cast<std::size_t>(type - info.first) : 0U);
}

std::string typeName(uint8_t type) {
    const TypeInfo *info = findType(type);
    if (info == nullptr) {
        return hex8(type);
    }
    return info->step ? fmt::format("{}{}", info->name, widthOf(*info, type) * 8) : info->name;
}

int64_t signExtended(uint64_t value, std::size_t width) {
    const unsigned shift = 64U - 8U * static_cast<unsigned>(width);
    return static_cast<int64_t>(value << shift) >> shift;
}

Json floatValue(uint64_t bits, std::size_t width) {
    double value = 0;
    if (width == 8) {
        value = std::bit_cast<double>(bits);
    } else if (width == 4) {
        value = static_cast<double>(std::bit_cast<float>(static_cast<uint32_t>(bits)));
    } else { // IEEE 754 half precision
        const auto exponent = static_cast<int>(bits >> 10 & 0x1F);
        const auto fraction = static_cast<double>(bits & 0x3FF) / 1024;
        value = exponent == 0    ? std::ldexp(fraction, -14)
                : exponent == 31 ? NAN
                                 : std::ldexp(1 + fraction, exponent - 15);
        value = (bits >> 15 & 1) != 0 ? -value : value;
    }
    return std::isfinite(value) ? Json(value) : Json(nullptr);
}

// Text or octets with a length in front; all bits set in the length: no value.
Json stringValue(Reader &in, const TypeInfo &info) {
    if (info.width == 0) {
        return formatHex(in.take(16));
    }
    const uint64_t length = in.number(info.width);
    if (length == (uint64_t{1} << (8 * info.width)) - 1) {
        return nullptr;
    }
    const Bytes bytes = in.take(length);
    return info.kind == TypeClass::Text ? Json(printable({reinterpret_cast<const char *>(bytes.data()), bytes.size()}))
                                        : Json(formatHex(bytes));
}

Json readValue(Reader &in, uint8_t type, int depth = 0);

Json readElements(Reader &in, bool typed, int depth) { // typed: each element brings its type
    const uint8_t common = typed ? uint8_t{0} : in.u8();
    const uint16_t count = in.u16();
    Json elements = Json::array();
    for (unsigned i = 0; i < count && count != 0xFFFF && in.ok(); ++i) {
        const uint8_t type = typed ? in.u8() : common;
        if (type == 0) { // without a value, so the count alone would make them many
            in.fail();
            break;
        }
        elements.push_back(readValue(in, type, depth + 1));
    }
    return elements;
}

Json readValue(Reader &in, uint8_t type, int depth) {
    const TypeInfo *info = findType(type);
    if (info == nullptr || depth > MAX_NESTING) {
        in.fail(); // nobody knows where the next value begins
        return nullptr;
    }
    const std::size_t width = widthOf(*info, type);
    switch (info->kind) {
    case TypeClass::None:
        return nullptr;
    case TypeClass::Bool:
        return in.u8() != 0;
    case TypeClass::Unsigned:
    case TypeClass::Bitmap:
    case TypeClass::Enum:
        return in.number(width);
    case TypeClass::Signed:
        return signExtended(in.number(width), width);
    case TypeClass::Float:
        return floatValue(in.number(width), width);
    case TypeClass::Text:
    case TypeClass::Octets:
        return stringValue(in, *info);
    case TypeClass::List:
        return readElements(in, false, depth);
    case TypeClass::Struct:
        return readElements(in, true, depth);
    case TypeClass::Data:
        return formatHex(in.take(width));
    case TypeClass::Id:
        if (width == 8) {
            const Bytes bytes = in.take(8);
            return bytes.empty() ? Json(nullptr) : Json(formatEui64Reversed(bytes.data()));
        }
        return hex16(in.u16());
    }
    return nullptr;
}

// ---------------------------------------------------------------- values to words

std::string fixed(double value, int decimals, const char *suffix) {
    return fmt::format("{:.{}f}{}{}", value, decimals, *suffix != '\0' && *suffix != '%' ? " " : "", suffix);
}

std::string enumText(Unit unit, int64_t value) {
    static constexpr const char *SOURCES[] = {"unknown", "mains",           "mains (3 phases)", "battery",
                                              "DC",      "emergency mains", "emergency mains"};
    if (unit == Unit::PowerSource && (value & 0x7F) < static_cast<int64_t>(std::size(SOURCES))) {
        return SOURCES[value & 0x7F];
    }
    if (unit == Unit::ZoneType) {
        switch (value) {
        case 0x000D:
            return "motion sensor";
        case 0x0015:
            return "contact switch";
        case 0x0028:
            return "fire sensor";
        case 0x002A:
            return "water sensor";
        default:
            break;
        }
    }
    return std::to_string(value);
}

// Numbers only. The value of an attribute that has none for now is all bits set, or the lowest of a signed type.
std::string unitText(const AttributeName &attribute, int64_t value, bool invalid) {
    if (invalid) {
        return "unknown";
    }
    const auto number = static_cast<double>(value);
    switch (attribute.unit) {
    case Unit::OnOff:
        return value != 0 ? "on" : "off";
    case Unit::Centi:
        return fixed(number / 100, 2, attribute.suffix);
    case Unit::Half:
        return fixed(number / 2, 1, attribute.suffix);
    case Unit::Deci:
        return fixed(number / 10, 1, attribute.suffix);
    case Unit::One:
        return fixed(number, 0, attribute.suffix);
    case Unit::Lux:
        return value == 0 ? "too dark to measure" : fixed(std::pow(10, (number - 1) / 10000), 0, attribute.suffix);
    case Unit::ContactStatus:
        return zoneStatusText(static_cast<unsigned>(value));
    case Unit::Occupancy:
        return (value & 1) != 0 ? "occupied" : "clear";
    case Unit::PowerSource:
    case Unit::ZoneType:
        return enumText(attribute.unit, value);
    case Unit::None:
        break;
    }
    return std::to_string(value);
}

bool isInvalidValue(uint8_t type, const Json &value) {
    const TypeInfo *info = findType(type);
    if (info == nullptr || !value.is_number_integer()) {
        return false;
    }
    const std::size_t width = widthOf(*info, type);
    if (info->kind == TypeClass::Signed) {
        return value.get<int64_t>() == signExtended(uint64_t{0x80} << (8 * (width - 1)), width);
    }
    return info->kind == TypeClass::Unsigned && value.get<uint64_t>() == (~uint64_t{0} >> (64 - 8 * width));
}

std::string valueText(const AttributeName *attribute, uint8_t type, const Json &value) {
    if (attribute != nullptr && (value.is_number_integer() || value.is_boolean())) {
        const int64_t number = value.is_boolean() ? static_cast<int64_t>(value.get<bool>()) : value.get<int64_t>();
        return unitText(*attribute, number, isInvalidValue(type, value));
    }
    return value.is_string() ? value.get<std::string>() : value.is_null() ? "none" : jsonLine(value);
}

void describeValue(Json &record, uint16_t cluster, uint16_t id, uint8_t type, Json value) {
    const AttributeName *attribute = findAttribute(cluster, id);
    const std::string words = valueText(attribute, type, value);
    record["type"] = typeName(type);
    if (attribute != nullptr && value.is_number_integer() && !isInvalidValue(type, value)) {
        const auto number = static_cast<double>(value.get<int64_t>());
        if (attribute->unit == Unit::Centi || attribute->unit == Unit::Half || attribute->unit == Unit::Deci) {
            record["scaled"] = number / (attribute->unit == Unit::Centi ? 100 : attribute->unit == Unit::Half ? 2 : 10);
            record["unit"] = attribute->suffix;
        }
    }
    record["value"] = std::move(value);
    const bool speaks_for_itself = attribute != nullptr && attribute->unit == Unit::ContactStatus;
    const std::string subject = attribute != nullptr ? attribute->subject : "attribute " + hex16(id);
    record["text"] = speaks_for_itself ? words : fmt::format("{}: {}", subject, words);
}

std::string statusText(uint8_t status) {
    const std::string_view name = zclStatusName(status);
    return name.empty() ? hex8(status) : fmt::format("{} {}", name, hex8(status));
}

void setStatus(Json &record, uint8_t status) {
    record["status"] = status;
    record["status_name"] = zclStatusName(status).empty() ? "unknown" : zclStatusName(status);
}

// ---------------------------------------------------------------- records of the general commands

Json attributeRecord(uint16_t cluster, uint16_t id) {
    Json record;
    record["attribute"] = hex16(id);
    if (const AttributeName *name = findAttribute(cluster, id)) {
        record["name"] = name->name;
    }
    return record;
}

std::string attributeLabel(uint16_t cluster, uint16_t id) {
    const AttributeName *name = findAttribute(cluster, id);
    return name != nullptr ? name->subject : "attribute " + hex16(id);
}

using RecordReader = Json (*)(Reader &in, uint16_t cluster);

Json idRecord(Reader &in, uint16_t cluster) {
    const uint16_t id = in.u16();
    Json record = attributeRecord(cluster, id);
    record["text"] = attributeLabel(cluster, id);
    return record;
}

Json valueRecord(Reader &in, uint16_t cluster) {
    const uint16_t id = in.u16();
    const uint8_t type = in.u8();
    Json record = attributeRecord(cluster, id);
    describeValue(record, cluster, id, type, readValue(in, type));
    return record;
}

Json readResponseRecord(Reader &in, uint16_t cluster) {
    const uint16_t id = in.u16();
    const uint8_t status = in.u8();
    Json record = attributeRecord(cluster, id);
    setStatus(record, status);
    if (status == 0) {
        const uint8_t type = in.u8();
        describeValue(record, cluster, id, type, readValue(in, type));
    } else {
        record["text"] = fmt::format("{}: {}", attributeLabel(cluster, id), statusText(status));
    }
    return record;
}

Json statusRecord(Reader &in, uint16_t cluster, bool with_direction) {
    Json record;
    const uint8_t status = in.u8();
    setStatus(record, status);
    record["text"] = statusText(status);
    if (!in.atEnd()) { // a success alone has no attribute
        if (with_direction) {
            in.u8();
        }
        const uint16_t id = in.u16();
        record.update(attributeRecord(cluster, id));
        record["text"] = fmt::format("{}: {}", attributeLabel(cluster, id), statusText(status));
    }
    return record;
}

Json writeResponseRecord(Reader &in, uint16_t cluster) {
    return statusRecord(in, cluster, false);
}
Json configureResponseRecord(Reader &in, uint16_t cluster) {
    return statusRecord(in, cluster, true);
}

Json typeRecord(Reader &in, uint16_t cluster) {
    const uint16_t id = in.u16();
    Json record = attributeRecord(cluster, id);
    record["type"] = typeName(in.u8());
    record["text"] = fmt::format("{} ({})", attributeLabel(cluster, id), record["type"].get<std::string>());
    return record;
}

constexpr struct {
    uint8_t command;
    std::size_t skip; // bytes before the records
    RecordReader reader;
} RECORDS[] = {
    {0x00, 0, idRecord},
    {0x01, 0, readResponseRecord},
    {0x02, 0, valueRecord},
    {0x03, 0, valueRecord},
    {0x04, 0, writeResponseRecord},
    {0x05, 0, valueRecord},
    {0x07, 0, configureResponseRecord},
    {0x0A, 0, valueRecord},
    {0x0D, 1, typeRecord},
};

std::string joinTexts(const Json &records) {
    std::string text;
    for (const Json &record : records) {
        text += (text.empty() ? "" : ", ") + record["text"].get<std::string>();
    }
    return text;
}

// Contents of general commands; returns what to say about them.
std::string decodeGeneral(Json &zcl, Reader &in, uint16_t cluster, const ZclHeader &header) {
    if (header.command == ZCL_DEFAULT_RESPONSE) {
        const uint8_t command = in.u8();
        const uint8_t status = in.u8();
        zcl["answers"] = command;
        if (in.ok()) {
            setStatus(zcl, status);
        }
        return in.ok() ? statusText(status) : "";
    }
    const auto *found = std::ranges::find(RECORDS, header.command, [](const auto &entry) { return entry.command; });
    if (found == std::end(RECORDS)) {
        zcl["payload"] = formatHex(in.take(in.left()));
        return zcl["payload"].get<std::string>();
    }
    in.take(found->skip);
    Json &records = zcl["attributes"] = Json::array();
    while (in.ok() && !in.atEnd()) {
        Json record = found->reader(in, cluster);
        if (in.ok()) {
            records.push_back(std::move(record));
        }
    }
    return joinTexts(records);
}

Json readParameter(Reader &in, const Parameter &parameter) {
    if (parameter.width == 0) {
        const Bytes text = in.take(in.u8());
        return printable({reinterpret_cast<const char *>(text.data()), text.size()});
    }
    if (parameter.width < LIST_8) {
        return in.number(parameter.width);
    }
    Json list = Json::array();
    const uint8_t count = in.u8();
    for (unsigned i = 0; i < count && in.ok(); ++i) {
        list.push_back(in.number(parameter.width == LIST_16 ? 2 : 1));
    }
    return list;
}

std::string parameterText(const Parameter &parameter, const Json &value) {
    const std::string_view name = parameter.name;
    if (name == "zone_status") {
        return zoneStatusText(value.get<unsigned>());
    }
    if (name == "status") {
        return statusText(value.get<uint8_t>());
    }
    return fmt::format("{} {}", name, value.is_string() ? value.get<std::string>() : jsonLine(value));
}

// Contents of commands of single clusters. Trailing parameters may be missing: many were added over the years.
std::string decodeCluster(Json &zcl, Reader &in, uint16_t cluster, const ZclHeader &header) {
    const CommandName *command = header.manufacturer ? nullptr : findCommand(cluster, header.to_client, header.command);
    zcl["command"] = command != nullptr ? command->name : "command " + hex8(header.command);
    if (command == nullptr) {
        zcl["payload"] = formatHex(in.take(in.left()));
        return zcl["payload"].get<std::string>();
    }
    std::string text;
    for (const Parameter &parameter : command->parameters) {
        if (in.atEnd()) {
            break;
        }
        const Json value = readParameter(in, parameter);
        if (!in.ok()) {
            break;
        }
        zcl["parameters"][parameter.name] = value;
        if (std::string_view(parameter.name) == "status") {
            setStatus(zcl, value.get<uint8_t>());
        }
        if (!zcl["parameters"].contains("zone_status") || text.empty()) { // the status says it all
            text += (text.empty() ? "" : ", ") + parameterText(parameter, value);
        }
    }
    if (in.ok() && !in.atEnd()) {
        zcl["trailing"] = formatHex(in.take(in.left()));
    }
    return text;
}

} // namespace

std::optional<ZclHeader> parseZclHeader(Bytes frame) {
    Reader in(frame);
    const uint8_t control = in.u8();
    ZclHeader header;
    header.cluster_specific = (control & FRAME_TYPE_MASK) == FRAME_TYPE_CLUSTER;
    header.to_client = (control & SERVER_TO_CLIENT) != 0;
    header.wants_default_response = (control & DISABLE_DEFAULT_RESPONSE) == 0;
    if ((control & MANUFACTURER_SPECIFIC) != 0) {
        header.manufacturer = in.u16();
    }
    header.sequence = in.u8();
    header.command = in.u8();
    header.size = frame.size() - in.left();
    return in.ok() && (control & FRAME_TYPE_MASK) <= FRAME_TYPE_CLUSTER ? std::optional(header) : std::nullopt;
}

Json decodeZcl(uint16_t cluster, Bytes frame) {
    Json zcl;
    const auto header = parseZclHeader(frame);
    if (!header) {
        zcl["malformed"] = true;
        zcl["raw"] = formatHex(frame);
        zcl["text"] = fmt::format("not a ZCL frame: {}", frame.empty() ? "empty" : formatHex(frame));
        return zcl;
    }
    zcl["sequence"] = header->sequence;
    zcl["frame_type"] = header->cluster_specific ? "cluster" : "general";
    zcl["direction"] = header->to_client ? "server to client" : "client to server";
    if (header->manufacturer) {
        zcl["manufacturer_code"] = hex16(*header->manufacturer);
    }
    zcl["command_id"] = header->command;
    const std::string_view general = generalCommandName(header->command);
    zcl["command"] = general.empty() ? "command " + hex8(header->command) : std::string(general);

    Reader in(frame.subspan(header->size));
    const std::string contents =
        header->cluster_specific ? decodeCluster(zcl, in, cluster, *header) : decodeGeneral(zcl, in, cluster, *header);
    const auto command = zcl["command"].get<std::string>();
    zcl["text"] = contents.empty() ? command : fmt::format("{}: {}", command, contents);
    if (!in.ok()) {
        zcl["malformed"] = true;
        zcl["raw"] = formatHex(frame);
        zcl["text"] = fmt::format("{} (malformed frame {})", zcl["text"].get<std::string>(), formatHex(frame));
    }
    return zcl;
}

Json decodeFrame(uint16_t profile, uint16_t cluster, Bytes frame) {
    if (profile != PROFILE_ZDO) {
        return decodeZcl(cluster, frame);
    }
    Json zdo;
    const bool response = (cluster & 0x8000U) != 0;
    zdo["command"] = clusterText(profile, cluster);
    zdo["text"] = zdo["command"];
    if (frame.size() < (response ? 2U : 1U)) {
        zdo["malformed"] = true;
    } else {
        zdo["sequence"] = frame[0];
        if (response) {
            zdo["status"] = frame[1];
        }
    }
    zdo["payload"] = formatHex(frame);
    return zdo;
}

std::optional<uint8_t> failureStatus(const Json &zcl) {
    const auto failed = [](const Json &record) {
        return record.contains("status") && record["status"].get<unsigned>() != 0;
    };
    if (failed(zcl)) {
        return zcl["status"].get<uint8_t>();
    }
    if (zcl.contains("attributes")) {
        const auto &records = zcl["attributes"];
        const auto found = std::find_if(records.begin(), records.end(), failed);
        if (found != records.end()) {
            return (*found)["status"].get<uint8_t>();
        }
    }
    return std::nullopt;
}

std::vector<uint8_t> encodeClusterCommand(uint8_t sequence, uint8_t command, Bytes payload) {
    std::vector<uint8_t> frame;
    frame.reserve(3 + payload.size());
    frame = {FRAME_TYPE_CLUSTER, sequence, command};
    std::copy(payload.begin(), payload.end(), std::back_inserter(frame));
    return frame;
}

std::vector<uint8_t> encodeReadAttribute(uint8_t sequence, uint16_t attribute) {
    return {0x00, sequence, ZCL_READ_ATTRIBUTES, static_cast<uint8_t>(attribute), static_cast<uint8_t>(attribute >> 8)};
}

} // namespace corvane::ctl
