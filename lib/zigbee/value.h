// SPDX-License-Identifier: Apache-2.0
//
// Values of attributes and parameters as they stand in frames. A value that is longer than a number stays where it is
// in the frame, so it is good for as long as the bytes of the frame are.
#pragma once
#include "base/bytes.h"
#include "zigbee/data_type.h"
#include <cstdint>
#include <span>
#include <string_view>

namespace corvane::zigbee {

struct Value {
    uint8_t type = TYPE_NONE;
    TypeKind kind = TypeKind::None;
    bool present = false; // false: no value, or one of those that stand for "no value"
    uint64_t raw = 0;     // of kinds with at most 8 bytes, as in the frame, without a sign
    uint16_t count = 0;   // elements of a list or structure
    uint8_t element_type = TYPE_NONE;
    std::span<const uint8_t> bytes{}; // of texts, octets, keys; of all elements

    bool isNumber() const;   // Boolean, Bitmap, Unsigned, Signed, Enum, Float
    int64_t integer() const; // with its sign; 0 for everything that is no whole number
    double number() const;   // of any number
    std::string_view text() const { return {reinterpret_cast<const char *>(bytes.data()), bytes.size()}; }
    base::Eui64 eui64() const;
};

// A number of any type that has at most 8 bytes; value may be negative. For writing.
Value numberValue(uint8_t type, int64_t value);
Value textValue(std::string_view text); // at most 254 characters; refers to text

// Reads a value of the type, whose byte has been read. Fails the reader, and returns false, for a type that does not
// exist, for lists in lists deeper than devices make them, and for what does not fit into the frame.
bool readValue(base::ByteReader &in, uint8_t type, Value &value);

// Writes the value without its type byte.
void writeValue(base::ByteWriter &out, const Value &value);

// The elements of a list or structure, or nothing of any other value.
class Elements {
public:
    explicit Elements(const Value &value)
        : in_(value.bytes), left_(value.count), struct_(value.kind == TypeKind::Struct), type_(value.element_type) {}
    bool next(Value &element);

private:
    base::ByteReader in_;
    unsigned left_;
    bool struct_;
    uint8_t type_;
};

} // namespace corvane::zigbee
