// SPDX-License-Identifier: Apache-2.0
#include "zigbee/data_type.h"
#include <bit>
#include <cmath>

namespace corvane::zigbee {

namespace {

double halfFloat(uint64_t raw) { // IEEE 754, 16 bits
    const auto exponent = static_cast<int>(raw >> 10 & 0x1F);
    const auto fraction = static_cast<double>(raw & 0x3FF) / 1024;
    const double value = exponent == 0    ? std::ldexp(fraction, -14)
                         : exponent == 31 ? (fraction == 0 ? INFINITY : NAN)
                                          : std::ldexp(1 + fraction, exponent - 15);
    return (raw >> 15 & 1) != 0 ? -value : value;
}

} // namespace

bool isNotAValue(uint8_t type, uint64_t raw) {
    const auto info = findType(type);
    if (!info) {
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
