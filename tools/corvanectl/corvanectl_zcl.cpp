// SPDX-License-Identifier: Apache-2.0
#include "corvanectl_zcl.h"
#include "corvanectl_names.h"
#include "corvanectl_parse.h"
#include <algorithm>
#include <fmt/format.h>

namespace corvane::ctl {

namespace {

using zigbee::AttributeRecord;
using zigbee::Field;
using zigbee::TypeKind;
using zigbee::Value;

Json jsonOf(const Value &value);

Json elementsOf(const Value &value) {
    Json list = Json::array();
    zigbee::Elements elements(value);
    for (Value element; elements.next(element);) {
        list.push_back(jsonOf(element));
    }
    return list;
}

Json jsonOf(const Value &value) {
    switch (value.kind) {
    case TypeKind::None:
        return nullptr;
    case TypeKind::Boolean:
        return value.raw != 0;
    case TypeKind::Bitmap:
    case TypeKind::Enum:
    case TypeKind::Unsigned:
        return value.raw;
    case TypeKind::Signed:
        return value.integer();
    case TypeKind::Float:
        return value.present ? Json(value.number()) : Json(nullptr);
    case TypeKind::List:
    case TypeKind::Struct:
        return elementsOf(value);
    default:
        return value.present ? Json(zigbee::plainText(value)) : Json(nullptr);
    }
}

void setStatus(Json &record, uint8_t status) {
    const std::string_view name = zigbee::statusName(status);
    record["status"] = status;
    record["status_name"] = name.empty() ? "unknown" : name;
}

void setValue(Json &json, uint16_t cluster, const AttributeRecord &record, const zigbee::MeterScale *meter) {
    const zigbee::ScaleInfo *const scale = zigbee::findScale(cluster, record.attribute);
    json["type"] = zigbee::typeText(record.type);
    const auto quantity = scale != nullptr ? zigbee::quantityOf(*scale, record.value, meter) : std::nullopt;
    if (quantity && !quantity->unit.empty()) {
        json["scaled"] = quantity->number;
        json["unit"] = quantity->unit;
    }
    json["value"] = jsonOf(record.value);
}

void setReporting(Json &json, const AttributeRecord &record) {
    json["minimum_s"] = record.minimum_s;
    json["maximum_s"] = record.maximum_s;
    if (record.change.kind != TypeKind::None) {
        json["change"] = jsonOf(record.change);
    }
}

Json recordOf(uint16_t cluster, const AttributeRecord &record, const zigbee::MeterScales *meters) {
    Json json;
    const auto scale = zigbee::meterScaleOf(cluster, record.attribute, meters);
    const zigbee::MeterScale *const meter = scale ? &*scale : nullptr;
    if (record.has(Field::Attribute)) {
        json["attribute"] = hex16(record.attribute);
        if (const zigbee::AttributeInfo *const info = zigbee::findAttribute(cluster, record.attribute)) {
            json["name"] = info->name();
        }
    }
    if (record.has(Field::Status)) {
        setStatus(json, record.status);
    }
    if (record.has(Field::Value)) {
        setValue(json, cluster, record, meter);
    } else if (record.has(Field::Type)) {
        json["type"] = zigbee::typeText(record.type);
    }
    if (record.has(Field::Reporting)) {
        setReporting(json, record);
    }
    json["text"] = zigbee::recordText(cluster, record, meter);
    return json;
}

// Contents of general commands; false where they end too early.
bool addGeneral(Json &zcl, uint16_t cluster, uint8_t command, Bytes payload, const zigbee::MeterScales *meters) {
    zigbee::RecordReader records(command, payload);
    if (!records.isKnown()) {
        zcl["payload"] = formatHex(payload);
        return true;
    }
    AttributeRecord record;
    if (command == zigbee::COMMAND_DEFAULT_RESPONSE) {
        const bool whole = records.next(record);
        zcl["answers"] = record.command;
        if (whole) {
            setStatus(zcl, record.status);
        }
        return whole;
    }
    Json &attributes = zcl["attributes"] = Json::array();
    while (records.next(record)) {
        attributes.push_back(recordOf(cluster, record, meters));
    }
    return records.ok();
}

// Contents of commands of single clusters.
bool addParameters(Json &zcl, const zigbee::CommandInfo *command, Bytes payload) {
    if (command == nullptr) {
        zcl["payload"] = formatHex(payload);
        return true;
    }
    zigbee::ParameterReader parameters(*command, payload);
    for (zigbee::Parameter parameter; parameters.next(parameter);) {
        const Json value = jsonOf(parameter.value);
        zcl["parameters"][std::string(parameter.info->name())] = value;
        if (parameter.info->name() == "status") {
            setStatus(zcl, value.get<uint8_t>());
        }
    }
    if (parameters.ok() && !parameters.trailing().empty()) {
        zcl["trailing"] = formatHex(parameters.trailing());
    }
    return parameters.ok();
}

std::string commandName(const zigbee::FrameHeader &header, const zigbee::CommandInfo *command) {
    if (header.cluster_specific && command != nullptr) {
        return zigbee::commandLabel(*command);
    }
    const std::string_view general =
        header.cluster_specific ? std::string_view() : zigbee::generalCommandName(header.command);
    return general.empty() ? "command " + hex8(header.command) : zigbee::labelOf(general);
}

} // namespace

std::optional<zigbee::FrameHeader> parseZclHeader(Bytes frame) {
    base::ByteReader in(frame);
    zigbee::FrameHeader header;
    return zigbee::readHeader(in, header) ? std::optional(header) : std::nullopt;
}

Json decodeZcl(uint16_t cluster, Bytes frame, const zigbee::MeterScales *meters) {
    Json zcl;
    base::ByteReader in(frame);
    zigbee::FrameHeader header;
    if (!zigbee::readHeader(in, header)) {
        zcl["malformed"] = true;
        zcl["raw"] = formatHex(frame);
        zcl["text"] = fmt::format("not a ZCL frame: {}", frame.empty() ? "empty" : formatHex(frame));
        return zcl;
    }
    zcl["sequence"] = header.sequence;
    zcl["frame_type"] = header.cluster_specific ? "cluster" : "general";
    zcl["direction"] = header.to_client ? "server to client" : "client to server";
    if (header.manufacturer) {
        zcl["manufacturer_code"] = hex16(*header.manufacturer);
        cluster = zigbee::CLUSTER_UNKNOWN;
    }
    const zigbee::CommandInfo *const command = zigbee::findCommand(cluster, header.to_client, header.command);
    zcl["command_id"] = header.command;
    zcl["command"] = commandName(header, command);
    const bool whole = header.cluster_specific ? addParameters(zcl, command, in.rest())
                                               : addGeneral(zcl, cluster, header.command, in.rest(), meters);
    zcl["text"] = zigbee::frameText(cluster, frame, meters);
    if (!whole) {
        zcl["malformed"] = true;
        zcl["raw"] = formatHex(frame);
    }
    return zcl;
}

Json decodeFrame(uint16_t profile, uint16_t cluster, Bytes frame, const zigbee::MeterScales *meters) {
    if (profile != PROFILE_ZDO) {
        return decodeZcl(cluster, frame, meters);
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
    std::vector<uint8_t> frame(payload.size() + zigbee::LONGEST_HEADER);
    base::ByteWriter out(frame);
    zigbee::FrameHeader header;
    header.cluster_specific = true;
    header.sequence = sequence;
    header.command = command;
    zigbee::writeHeader(out, header);
    out.bytes(payload);
    frame.resize(out.size());
    return frame;
}

std::vector<uint8_t> encodeReadAttributes(uint8_t sequence, std::span<const uint16_t> attributes) {
    std::vector<uint8_t> frame(zigbee::LONGEST_HEADER + 2 * attributes.size());
    base::ByteWriter out(frame);
    zigbee::FrameHeader header;
    header.sequence = sequence;
    header.command = zigbee::COMMAND_READ_ATTRIBUTES;
    zigbee::writeHeader(out, header);
    for (const uint16_t attribute : attributes) {
        out.u16(attribute);
    }
    frame.resize(out.size());
    return frame;
}

} // namespace corvane::ctl
