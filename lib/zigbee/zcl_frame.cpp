// SPDX-License-Identifier: Apache-2.0
#include "zigbee/zcl_frame.h"
#include <algorithm>
#include <iterator>

namespace corvane::zigbee {

namespace {

// Steps of a record: a field, or what decides whether the record goes on.
enum Step : uint8_t {
    END,
    ATTRIBUTE,
    STATUS,
    DIRECTION,
    TYPE,
    VALUE,
    REPORTING, // by direction: type, intervals and change, or a timeout
    COMMAND,
    COUNT,
    ACCESS,
    IF_SUCCESSFUL, // a record with a failure ends here
    IF_MORE,       // a success for everything ends here
};
constexpr std::size_t MAX_STEPS = 6;

} // namespace

struct RecordReader::Layout {
    uint8_t command;
    bool complete_first; // a byte in front of all records
    bool single;
    Step steps[MAX_STEPS];
};

namespace {

using Layout = RecordReader::Layout;

constexpr Layout LAYOUTS[] = {
    {0x00, false, false, {ATTRIBUTE}},                                              // read attributes
    {0x01, false, false, {ATTRIBUTE, STATUS, IF_SUCCESSFUL, TYPE, VALUE}},          // response
    {0x02, false, false, {ATTRIBUTE, TYPE, VALUE}},                                 // write attributes
    {0x03, false, false, {ATTRIBUTE, TYPE, VALUE}},                                 // undivided
    {0x04, false, false, {STATUS, IF_MORE, ATTRIBUTE}},                             // response
    {0x05, false, false, {ATTRIBUTE, TYPE, VALUE}},                                 // no response
    {0x06, false, false, {DIRECTION, ATTRIBUTE, REPORTING}},                        // configure reporting
    {0x07, false, false, {STATUS, IF_MORE, DIRECTION, ATTRIBUTE}},                  // response
    {0x08, false, false, {DIRECTION, ATTRIBUTE}},                                   // read reporting configuration
    {0x09, false, false, {STATUS, DIRECTION, ATTRIBUTE, IF_SUCCESSFUL, REPORTING}}, // response
    {0x0A, false, false, {ATTRIBUTE, TYPE, VALUE}},                                 // report attributes
    {0x0B, false, true, {COMMAND, STATUS}},                                         // default response
    {0x0C, false, true, {ATTRIBUTE, COUNT}},                                        // discover attributes
    {0x0D, true, false, {ATTRIBUTE, TYPE}},                                         // response
    {0x11, false, true, {COMMAND, COUNT}},                                          // discover commands received
    {0x12, true, false, {COMMAND}},                                                 // response
    {0x13, false, true, {COMMAND, COUNT}},                                          // discover commands generated
    {0x14, true, false, {COMMAND}},                                                 // response
    {0x15, false, true, {ATTRIBUTE, COUNT}},                                        // discover attributes extended
    {0x16, true, false, {ATTRIBUTE, TYPE, ACCESS}},                                 // response
};
static_assert(std::ranges::is_sorted(LAYOUTS, {}, &Layout::command));

const Layout *findLayout(uint8_t command) {
    const auto *const found = std::ranges::lower_bound(LAYOUTS, command, {}, &Layout::command);
    return found != std::end(LAYOUTS) && found->command == command ? found : nullptr;
}

void readReporting(base::ByteReader &in, AttributeRecord &record) {
    if (record.direction != DIRECTION_REPORTED) {
        record.timeout_s = in.u16();
        record.set(Field::Timeout);
        return;
    }
    record.type = in.u8();
    record.set(Field::Type);
    record.minimum_s = in.u16();
    record.maximum_s = in.u16();
    if (typeIsAnalog(record.type)) {
        readValue(in, record.type, record.change);
    } else if (!findType(record.type)) {
        in.fail(); // it may carry a change, or not
    }
    record.set(Field::Reporting);
}

void writeReporting(base::ByteWriter &out, const AttributeRecord &record) {
    if (record.direction != DIRECTION_REPORTED) {
        out.u16(record.timeout_s);
        return;
    }
    out.u8(record.type);
    out.u16(record.minimum_s);
    out.u16(record.maximum_s);
    if (typeIsAnalog(record.type)) {
        out.number(record.change.raw, *typeWidth(record.type));
    }
}

// Each step of a record for reading. False: the record ends.
bool readStep(base::ByteReader &in, Step step, AttributeRecord &record) {
    switch (step) {
    case END:
        return false;
    case IF_SUCCESSFUL:
        return record.status == STATUS_SUCCESS;
    case IF_MORE:
        return !in.atEnd();
    case ATTRIBUTE:
        record.attribute = in.u16();
        record.set(Field::Attribute);
        break;
    case STATUS:
        record.status = in.u8();
        record.set(Field::Status);
        break;
    case DIRECTION:
        record.direction = in.u8();
        record.set(Field::Direction);
        break;
    case TYPE:
        record.type = in.u8();
        record.set(Field::Type);
        break;
    case VALUE:
        readValue(in, record.type, record.value);
        record.set(Field::Value);
        break;
    case REPORTING:
        readReporting(in, record);
        break;
    case COMMAND:
        record.command = in.u8();
        record.set(Field::Command);
        break;
    case COUNT:
        record.count = in.u8();
        record.set(Field::Count);
        break;
    case ACCESS:
        record.access = in.u8();
        record.set(Field::Access);
        break;
    }
    return in.ok();
}

// The same for writing.
bool writeStep(base::ByteWriter &out, Step step, const AttributeRecord &record) {
    switch (step) {
    case END:
        return false;
    case IF_SUCCESSFUL:
        return record.status == STATUS_SUCCESS;
    case IF_MORE:
        return record.has(Field::Attribute);
    case ATTRIBUTE:
        out.u16(record.attribute);
        break;
    case STATUS:
        out.u8(record.status);
        break;
    case DIRECTION:
        out.u8(record.direction);
        break;
    case TYPE:
        out.u8(record.type);
        break;
    case VALUE:
        writeValue(out, record.value);
        break;
    case REPORTING:
        writeReporting(out, record);
        break;
    case COMMAND:
        out.u8(record.command);
        break;
    case COUNT:
        out.u8(record.count);
        break;
    case ACCESS:
        out.u8(record.access);
        break;
    }
    return out.ok();
}

void readList(base::ByteReader &in, const ParameterInfo &info, Value &value) {
    const std::size_t width = info.type;
    value.type = TYPE_ARRAY;
    value.kind = TypeKind::List;
    value.present = true;
    value.element_type = static_cast<uint8_t>(TYPE_UINT8 + width - 1);
    const std::size_t count = info.counted != 0 ? in.u8() : in.left() / width;
    value.bytes = in.bytes(count * width);
    value.count = static_cast<uint16_t>(in.ok() ? count : 0);
}

} // namespace

RecordReader::RecordReader(uint8_t command, std::span<const uint8_t> payload)
    : layout_(findLayout(command)), in_(payload) {
    if (layout_ != nullptr && layout_->complete_first) {
        complete_ = in_.u8() != 0;
    }
}

bool RecordReader::next(AttributeRecord &record) {
    record = AttributeRecord{};
    if (layout_ == nullptr || done_ || !in_.ok() || (in_.atEnd() && !layout_->single)) {
        return false;
    }
    done_ = layout_->single;
    for (const Step step : layout_->steps) {
        if (!readStep(in_, step, record)) {
            break;
        }
    }
    return in_.ok();
}

bool writeRecord(base::ByteWriter &out, uint8_t command, const AttributeRecord &record) {
    const Layout *const layout = findLayout(command);
    if (layout == nullptr || !out.ok()) {
        return false;
    }
    const std::size_t begin = out.size();
    for (const Step step : layout->steps) {
        if (!writeStep(out, step, record)) {
            break;
        }
    }
    if (!out.ok()) {
        out.rewind(begin);
        return false;
    }
    return true;
}

bool ParameterReader::next(Parameter &parameter) {
    parameter = Parameter{};
    if (parameters_.empty() || in_.atEnd()) {
        return false;
    }
    const ParameterInfo &info = parameters_.front();
    parameters_ = parameters_.subspan(1);
    parameter.info = &info;
    if (info.type >= PARAMETER_LIST8 && info.type <= PARAMETER_LIST32) {
        readList(in_, info, parameter.value);
    } else if (info.type == PARAMETER_REST) {
        parameter.value.kind = TypeKind::Data;
        parameter.value.present = true;
        parameter.value.bytes = in_.bytes(in_.left());
    } else {
        readValue(in_, info.type, parameter.value);
    }
    return in_.ok();
}

} // namespace corvane::zigbee
