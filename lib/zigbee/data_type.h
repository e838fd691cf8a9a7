// SPDX-License-Identifier: Apache-2.0
//
// The data types of the Zigbee Cluster Library.
#pragma once
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <iterator>
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

inline constexpr TypeInfo TYPES[] = {
    {0x00, 0x00, TypeKind::None, 0, "none"},
    {0x08, 0x0F, TypeKind::Data, 1, "data"},
    {0x10, 0x10, TypeKind::Boolean, 1, "bool"},
    {0x18, 0x1F, TypeKind::Bitmap, 1, "bitmap"},
    {0x20, 0x27, TypeKind::Unsigned, 1, "uint"},
    {0x28, 0x2F, TypeKind::Signed, 1, "int"},
    {0x30, 0x31, TypeKind::Enum, 1, "enum"},
    {0x38, 0x38, TypeKind::Float, 2, "semi"},
    {0x39, 0x39, TypeKind::Float, 4, "single"},
    {0x3A, 0x3A, TypeKind::Float, 8, "double"},
    {0x41, 0x41, TypeKind::Octets, 1, "octets"},
    {0x42, 0x42, TypeKind::Text, 1, "string"},
    {0x43, 0x43, TypeKind::Octets, 2, "long octets"},
    {0x44, 0x44, TypeKind::Text, 2, "long string"},
    {0x48, 0x48, TypeKind::List, 0, "array"},
    {0x4C, 0x4C, TypeKind::Struct, 0, "struct"},
    {0x50, 0x50, TypeKind::List, 0, "set"},
    {0x51, 0x51, TypeKind::List, 0, "bag"},
    {0xE0, 0xE0, TypeKind::Unsigned, 4, "time of day"},
    {0xE1, 0xE1, TypeKind::Unsigned, 4, "date"},
    {0xE2, 0xE2, TypeKind::Unsigned, 4, "UTC time"},
    {0xE8, 0xE8, TypeKind::Id, 2, "cluster id"},
    {0xE9, 0xE9, TypeKind::Id, 2, "attribute id"},
    {0xEA, 0xEA, TypeKind::Unsigned, 4, "BACnet OID"},
    {0xF0, 0xF0, TypeKind::Eui64, 8, "EUI-64"},
    {0xF1, 0xF1, TypeKind::Key, 16, "key"},
};
static_assert(std::ranges::is_sorted(TYPES, {}, &TypeInfo::first));

// Nothing: no such type, so nobody knows how long its values are. By value, because g++ 12 takes the address of a row
// for no constant when it instruments.
constexpr std::optional<TypeInfo> findType(uint8_t type) {
    const auto *const found = std::ranges::lower_bound(TYPES, type, {}, &TypeInfo::last);
    return found != std::end(TYPES) && type >= found->first ? std::optional(*found) : std::nullopt;
}

// Bytes of a value in a frame; nothing where the value itself tells, and for types that do not exist.
constexpr std::optional<std::size_t> typeWidth(uint8_t type) {
    const auto info = findType(type);
    if (!info || info->kind == TypeKind::Octets || info->kind == TypeKind::Text || info->kind == TypeKind::List ||
        info->kind == TypeKind::Struct) {
        return std::nullopt;
    }
    return info->first_width + std::size_t{type} - info->first;
}

// Values that can differ by an amount: Configure Reporting carries a reportable change for them.
constexpr bool typeIsAnalog(uint8_t type) {
    const auto info = findType(type);
    return info && type != 0xEA && // an object identifier is a number, but no quantity
           (info->kind == TypeKind::Unsigned || info->kind == TypeKind::Signed || info->kind == TypeKind::Float);
}

// width is 1 to 8 bytes.
constexpr int64_t signExtended(uint64_t value, std::size_t width) {
    const unsigned shift = 64U - 8U * static_cast<unsigned>(width);
    return static_cast<int64_t>(value << shift) >> shift;
}

// The bits of a number stand for "no value": all set, only the highest set (signed), not a number (float).
bool isNotAValue(uint8_t type, uint64_t raw);

double floatOf(uint8_t type, uint64_t raw); // of one of the three float types

} // namespace corvane::zigbee
