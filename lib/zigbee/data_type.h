// SPDX-License-Identifier: Apache-2.0
//
// The data types of the Zigbee Cluster Library.
#pragma once
#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace corvane::zigbee {

// Codes as they stand in frames. Those with a number of bits run on: TYPE_UINT8 + 2 has 24 bits.
constexpr uint8_t TYPE_NONE = 0x00;
constexpr uint8_t TYPE_DATA8 = 0x08;
constexpr uint8_t TYPE_BOOLEAN = 0x10;
constexpr uint8_t TYPE_BITMAP8 = 0x18;
constexpr uint8_t TYPE_BITMAP16 = 0x19;
constexpr uint8_t TYPE_BITMAP32 = 0x1B;
constexpr uint8_t TYPE_UINT8 = 0x20;
constexpr uint8_t TYPE_UINT16 = 0x21;
constexpr uint8_t TYPE_UINT24 = 0x22;
constexpr uint8_t TYPE_UINT32 = 0x23;
constexpr uint8_t TYPE_UINT48 = 0x25;
constexpr uint8_t TYPE_INT8 = 0x28;
constexpr uint8_t TYPE_INT16 = 0x29;
constexpr uint8_t TYPE_INT24 = 0x2A;
constexpr uint8_t TYPE_INT32 = 0x2B;
constexpr uint8_t TYPE_ENUM8 = 0x30;
constexpr uint8_t TYPE_ENUM16 = 0x31;
constexpr uint8_t TYPE_HALF_FLOAT = 0x38;
constexpr uint8_t TYPE_SINGLE_FLOAT = 0x39;
constexpr uint8_t TYPE_DOUBLE_FLOAT = 0x3A;
constexpr uint8_t TYPE_OCTET_STRING = 0x41;
constexpr uint8_t TYPE_CHARACTER_STRING = 0x42;
constexpr uint8_t TYPE_LONG_OCTET_STRING = 0x43;
constexpr uint8_t TYPE_LONG_CHARACTER_STRING = 0x44;
constexpr uint8_t TYPE_ARRAY = 0x48;
constexpr uint8_t TYPE_STRUCT = 0x4C;
constexpr uint8_t TYPE_SET = 0x50;
constexpr uint8_t TYPE_BAG = 0x51;
constexpr uint8_t TYPE_UTC_TIME = 0xE2; // seconds since 2000-01-01
constexpr uint8_t TYPE_EUI64 = 0xF0;
constexpr uint8_t TYPE_KEY = 0xF1;

enum class TypeKind : uint8_t {
    None,     // no value at all
    Data,     // bytes without a meaning
    Boolean,  //
    Bitmap,   //
    Unsigned, // with the kinds of time
    Signed,   //
    Enum,     //
    Float,    //
    Id,       // of a cluster or an attribute
    Octets,   // a length, then bytes
    Text,     // a length, then characters
    List,     // array, set, bag: type of all elements, their count, elements
    Struct,   // count, then a type and a value for each
    Eui64,    //
    Key,      // 16 bytes
};

struct TypeInfo {
    uint8_t first;
    uint8_t last;
    TypeKind kind;
    uint8_t first_width; // bytes of the first type; each further one has one more. Texts and octets: of the length
    char name[14];       // "uint" of uint8 to uint64
};

// Null: no such type, so nobody knows how long its values are.
const TypeInfo *findType(uint8_t type);

// Bytes of a value in a frame; nothing where the value itself tells, and for types that do not exist.
std::optional<std::size_t> typeWidth(uint8_t type);

// Values that can differ by an amount: Configure Reporting carries a reportable change for them.
bool typeIsAnalog(uint8_t type);

int64_t signExtended(uint64_t value, std::size_t width); // width 1 to 8 bytes

// The bits of a number stand for "no value": all set, only the highest set (signed), not a number (float).
bool isNotAValue(uint8_t type, uint64_t raw);

double floatOf(uint8_t type, uint64_t raw); // of one of the three float types

} // namespace corvane::zigbee
