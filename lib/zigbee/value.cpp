// SPDX-License-Identifier: Apache-2.0
#include "zigbee/value.h"

namespace corvane::zigbee {

namespace {

constexpr int MAX_NESTING = 4;
constexpr uint16_t NO_ELEMENTS = 0xFFFF; // instead of a count: the list has no value

bool readNested(base::ByteReader &in, uint8_t type, Value &value, int depth);

bool readElement(base::ByteReader &in, bool typed, uint8_t type, Value &element, int depth) {
    const uint8_t own = typed ? in.u8() : type;
    if (own == TYPE_NONE) { // takes no byte, so a count alone would make them many
        in.fail();
        return false;
    }
    return readNested(in, own, element, depth);
}

void readElements(base::ByteReader &in, Value &value, int depth) {
    const bool typed = value.kind == TypeKind::Struct;
    value.element_type = typed ? TYPE_NONE : in.u8();
    const uint16_t count = in.u16();
    const auto begin = in.rest();
    value.present = count != NO_ELEMENTS;
    value.count = value.present ? count : uint16_t{0};
    Value element;
    for (unsigned i = 0; i < value.count && in.ok(); ++i) {
        readElement(in, typed, value.element_type, element, depth + 1);
    }
    value.bytes = begin.first(in.ok() ? begin.size() - in.left() : 0);
}

// Octets and texts: all bits of the length set mean that there is no value.
void readString(base::ByteReader &in, Value &value, std::size_t length_width) {
    const uint64_t length = in.number(length_width);
    value.present = length != (uint64_t{1} << (8 * length_width)) - 1;
    value.bytes = value.present ? in.bytes(length) : std::span<const uint8_t>();
}

bool readNested(base::ByteReader &in, uint8_t type, Value &value, int depth) {
    const auto info = findType(type);
    value = Value{};
    if (!info || depth > MAX_NESTING) {
        in.fail();
        return false;
    }
    value.type = type;
    value.kind = info->kind;
    switch (info->kind) {
    case TypeKind::None:
        break;
    case TypeKind::Octets:
    case TypeKind::Text:
        readString(in, value, info->first_width);
        break;
    case TypeKind::List:
    case TypeKind::Struct:
        readElements(in, value, depth);
        break;
    case TypeKind::Data:
    case TypeKind::Key:
        value.bytes = in.bytes(*typeWidth(type));
        value.present = true;
        break;
    default:
        value.raw = in.number(*typeWidth(type));
        value.present = !isNotAValue(type, value.raw);
    }
    return in.ok();
}

} // namespace

bool Value::isNumber() const {
    switch (kind) {
    case TypeKind::Boolean:
    case TypeKind::Bitmap:
    case TypeKind::Unsigned:
    case TypeKind::Signed:
    case TypeKind::Enum:
    case TypeKind::Float:
        return true;
    default:
        return false;
    }
}

int64_t Value::integer() const {
    if (kind == TypeKind::Float || !typeWidth(type)) {
        return 0;
    }
    return kind == TypeKind::Signed ? signExtended(raw, *typeWidth(type)) : static_cast<int64_t>(raw);
}

double Value::number() const {
    if (kind == TypeKind::Float) {
        return floatOf(type, raw);
    }
    return kind == TypeKind::Signed ? static_cast<double>(integer()) : static_cast<double>(raw);
}

base::Eui64 Value::eui64() const {
    base::Eui64 eui64{};
    for (std::size_t i = 0; i < eui64.size(); ++i) {
        eui64[i] = static_cast<uint8_t>(raw >> (8 * (eui64.size() - 1 - i)));
    }
    return eui64;
}

Value numberValue(uint8_t type, int64_t number) {
    Value value;
    const auto info = findType(type);
    const std::size_t width = typeWidth(type).value_or(0);
    if (!info || width == 0 || width > 8) {
        return value;
    }
    value.type = type;
    value.kind = info->kind;
    value.raw = static_cast<uint64_t>(number) & (~uint64_t{0} >> (64 - 8 * width));
    value.present = !isNotAValue(type, value.raw);
    return value;
}

Value textValue(std::string_view text) {
    constexpr std::size_t LONGEST = 254;
    Value value;
    value.type = TYPE_CHARACTER_STRING;
    value.kind = TypeKind::Text;
    value.present = true;
    const std::string_view kept = text.substr(0, LONGEST);
    value.bytes = {reinterpret_cast<const uint8_t *>(kept.data()), kept.size()};
    return value;
}

bool readValue(base::ByteReader &in, uint8_t type, Value &value) {
    return readNested(in, type, value, 0);
}

void writeValue(base::ByteWriter &out, const Value &value) {
    const auto info = findType(value.type);
    if (!info) {
        return;
    }
    switch (info->kind) {
    case TypeKind::Octets:
    case TypeKind::Text:
        out.number(value.present ? value.bytes.size() : ~uint64_t{0}, info->first_width);
        break;
    case TypeKind::List:
        out.u8(value.element_type);
        [[fallthrough]];
    case TypeKind::Struct:
        out.u16(value.present ? value.count : NO_ELEMENTS);
        break;
    case TypeKind::None:
    case TypeKind::Data:
    case TypeKind::Key:
        break;
    default:
        out.number(value.raw, *typeWidth(value.type));
    }
    out.bytes(value.bytes);
}

bool Elements::next(Value &element) {
    if (left_ == 0) {
        return false;
    }
    --left_;
    return readElement(in_, struct_, type_, element, 1);
}

} // namespace corvane::zigbee
