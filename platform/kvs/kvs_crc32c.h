// SPDX-License-Identifier: Apache-2.0
// CRC-32C (Castagnoli): polynomial 0x1EDC6F41 reflected to 0x82F63B78, start and final XOR 0xFFFFFFFF.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace kvs_crc32c_detail {
constexpr std::array<uint32_t, 256> makeTable() {
    std::array<uint32_t, 256> table = {};
    for (uint32_t i = 0; i < table.size(); i++) {
        uint32_t value = i;
        for (int bit = 0; bit < 8; bit++) {
            value = (value >> 1) ^ ((value & 1U) != 0 ? 0x82F63B78U : 0U);
        }
        table[i] = value;
    }
    return table;
}
inline constexpr std::array<uint32_t, 256> table = makeTable();
} // namespace kvs_crc32c_detail

// `previous` is the result for the bytes before these, 0 at the start.
constexpr uint32_t kvsCrc32c(uint32_t previous, std::span<const uint8_t> bytes) {
    uint32_t crc = ~previous;
    for (const uint8_t byte : bytes) {
        crc = (crc >> 8) ^ kvs_crc32c_detail::table[(crc ^ byte) & 0xFFU];
    }
    return ~crc;
}

// The check value every description of this CRC gives: the digits 1 to 9 in ASCII.
static_assert(kvsCrc32c(0, std::array<uint8_t, 9>{'1', '2', '3', '4', '5', '6', '7', '8', '9'}) == 0xE3069283U);
