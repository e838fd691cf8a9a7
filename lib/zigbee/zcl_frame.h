// SPDX-License-Identifier: Apache-2.0
//
// ZCL frames as plain records, and back. Frames come off the air: any bytes are legal input. What does not fit ends the
// reading, what was read before stays true. Records refer to the frame, which must stay as it is while they are in use.
//
//   ByteReader in(frame);
//   FrameHeader header;
//   if (!readHeader(in, header)) ...                            not a ZCL frame
//   if (header.cluster_specific) {
//       ParameterReader parameters(*findCommand(cluster, header.to_client, header.command), in.rest());
//       for (Parameter parameter; parameters.next(parameter);) ...
//   } else {
//       RecordReader records(header.command, in.rest());
//       for (AttributeRecord record; records.next(record);) ...
//   }
#pragma once
#include "base/bytes.h"
#include "zigbee/value.h"
#include "zigbee/zcl_header.h"
#include "zigbee/zcl_table.h"
#include <cstdint>
#include <span>

namespace corvane::zigbee {

constexpr uint8_t STATUS_SUCCESS = 0x00;
constexpr uint8_t STATUS_MALFORMED_COMMAND = 0x80;
constexpr uint8_t STATUS_UNSUP_CLUSTER_COMMAND = 0x81;
constexpr uint8_t STATUS_UNSUP_GENERAL_COMMAND = 0x82;
constexpr uint8_t STATUS_UNSUP_MANUF_CLUSTER_COMMAND = 0x83;
constexpr uint8_t STATUS_UNSUP_MANUF_GENERAL_COMMAND = 0x84;
constexpr uint8_t STATUS_UNSUPPORTED_ATTRIBUTE = 0x86;
constexpr uint8_t STATUS_INVALID_VALUE = 0x87;
constexpr uint8_t STATUS_READ_ONLY = 0x88;
constexpr uint8_t STATUS_INSUFFICIENT_SPACE = 0x89;
constexpr uint8_t STATUS_NOT_FOUND = 0x8B;
constexpr uint8_t STATUS_UNREPORTABLE_ATTRIBUTE = 0x8C;
constexpr uint8_t STATUS_INVALID_DATA_TYPE = 0x8D;
constexpr uint8_t STATUS_UNSUPPORTED_CLUSTER = 0xC3;

constexpr uint16_t STOP_REPORTING = 0xFFFF; // as maximum interval
constexpr uint8_t DIRECTION_REPORTED = 0;   // of a reporting configuration: the receiver reports
constexpr uint8_t DIRECTION_RECEIVED = 1;   // the receiver is to expect reports

// What a record of a general command may hold. has() tells what a record read has; a writer sets what may be missing.
enum class Field : uint8_t { Attribute, Status, Direction, Type, Value, Reporting, Timeout, Command, Count, Access };

struct AttributeRecord {
    uint16_t fields = 0; // bits by Field
    uint16_t attribute = 0;
    uint8_t status = STATUS_SUCCESS;
    uint8_t direction = DIRECTION_REPORTED;
    uint8_t type = TYPE_NONE;
    Value value{};          // of type
    uint16_t minimum_s = 0; // Reporting
    uint16_t maximum_s = 0;
    Value change{};         // of type; present only for analog types
    uint16_t timeout_s = 0; // of a direction that is received
    uint8_t command = 0;    // that a default response answers; discovered; to begin with
    uint8_t count = 0;      // at most to be discovered
    uint8_t access = 0;     // bits: readable, writable, reportable

    bool has(Field field) const { return (fields >> static_cast<unsigned>(field) & 1U) != 0; }
    void set(Field field) { fields = static_cast<uint16_t>(fields | 1U << static_cast<unsigned>(field)); }
};

// The records of a general command, one after the other.
class RecordReader {
public:
    RecordReader(uint8_t command, std::span<const uint8_t> payload);

    bool isKnown() const { return layout_ != nullptr; } // otherwise there are no records, whatever the payload
    // Of discover responses: nothing more to discover.
    bool isComplete() const { return complete_; }
    // False at the end, and where a record does not fit; ok() tells which.
    bool next(AttributeRecord &record);
    bool ok() const { return in_.ok(); }
    std::size_t left() const { return in_.left(); }

    struct Layout;

private:
    const Layout *layout_;
    base::ByteReader in_;
    bool complete_ = false;
    bool done_ = false;
};

// Appends a record of the general command. False, and nothing written, when it does not fit or the command has none.
// A discover response begins with a byte "complete", which is the caller's.
bool writeRecord(base::ByteWriter &out, uint8_t command, const AttributeRecord &record);

struct Parameter {
    const ParameterInfo *info = nullptr;
    Value value{}; // lists: kind List of unsigned numbers; what is left of the frame: Data
};

// The parameters of a command of a cluster. Trailing ones may be missing: many were added over the years.
class ParameterReader {
public:
    ParameterReader(const CommandInfo &command, std::span<const uint8_t> payload)
        : parameters_(command.parameters()), in_(payload) {}

    bool next(Parameter &parameter);
    bool ok() const { return in_.ok(); }
    std::span<const uint8_t> trailing() const { return in_.rest(); } // behind the last parameter

private:
    std::span<const ParameterInfo> parameters_;
    base::ByteReader in_;
};

} // namespace corvane::zigbee
