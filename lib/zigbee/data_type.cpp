// SPDX-License-Identifier: Apache-2.0
#include "zigbee/data_type.h"
#include <algorithm>
#include <bit>
#include <cmath>
#include <iterator>

namespace corvane::zigbee {

namespace {

constexpr TypeInfo TYPES[] = {
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

double halfFloat(uint64_t raw) { // IEEE 754, 16 bits
    const auto exponent = static_cast<int>(raw >> 10 & 0x1F);
    const auto fraction = static_cast<double>(raw & 0x3FF) / 1024;
    const double value = exponent == 0    ? std::ldexp(fraction, -14)
                         : exponent == 31 ? (fraction == 0 ? INFINITY : NAN)
                                          : std::ldexp(1 + fraction, exponent - 15);
    return (raw >> 15 & 1) != 0 ? -value : value;
}

} // namespace

const TypeInfo *findType(uint8_t type) {
    const auto *const found = std::ranges::lower_bound(TYPES, type, {}, &TypeInfo::last);
    return found != std::end(TYPES) && type >= found->first ? found : nullptr;
}

std::optional<std::size_t> typeWidth(uint8_t type) {
    const TypeInfo *const info = findType(type);
    if (info == nullptr || info->kind == TypeKind::Octets || info->kind == TypeKind::Text ||
        info->kind == TypeKind::List || info->kind == TypeKind::Struct) {
        return std::nullopt;
    }
    return info->first_width + std::size_t{type} - info->first;
}

bool typeIsAnalog(uint8_t type) {
    const TypeInfo *const info = findType(type);
    return info != nullptr && type != 0xEA && // an object identifier is a number, but no quantity
           (info->kind == TypeKind::Unsigned || info->kind == TypeKind::Signed || info->kind == TypeKind::Float);
}

int64_t signExtended(uint64_t value, std::size_t width) {
    const unsigned shift = 64U - 8U * static_cast<unsigned>(width);
    return static_cast<int64_t>(value << shift) >> shift;
}

bool isNotAValue(uint8_t type, uint64_t raw) {
    const TypeInfo *const info = findType(type);
    if (info == nullptr) {
        return false;
    }
    switch (info->kind) {
    case TypeKind::Boolean:
    case TypeKind::Unsigned:
    case TypeKind::Enum:
    case TypeKind::Id:
    case TypeKind::Eui64:
        return raw == ~uint64_t{0} >> (64 - 8 * *typeWidth(type));
    case TypeKind::Signed:
        return raw == uint64_t{0x80} << (8 * (*typeWidth(type) - 1));
    case TypeKind::Float:
        return !std::isfinite(floatOf(type, raw));
    default:
        return false;
    }
}

double floatOf(uint8_t type, uint64_t raw) {
    switch (type) {
    case TYPE_HALF_FLOAT:
        return halfFloat(raw);
    case TYPE_SINGLE_FLOAT:
        return static_cast<double>(std::bit_cast<float>(static_cast<uint32_t>(raw)));
    default:
        return std::bit_cast<double>(raw);
    }
}

} // namespace corvane::zigbee
