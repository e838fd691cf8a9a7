// SPDX-License-Identifier: Apache-2.0
//
// Install codes: what stands on the label of a device, and the link key that follows from it.
#pragma once
#include <array>
#include <cstdint>
#include <span>

namespace corvane::zigbee {

constexpr std::size_t INSTALL_CODE_BYTES = 16; // without the CRC

using InstallCode = std::array<uint8_t, INSTALL_CODE_BYTES + 2>; // code and its CRC-16/X-25, low byte first
using LinkKey = std::array<uint8_t, 16>;

constexpr uint16_t crc16X25(std::span<const uint8_t> bytes) {
    constexpr unsigned POLYNOMIAL = 0x8408; // x^16 + x^12 + x^5 + 1, bits reversed
    unsigned crc = 0xFFFF;
    for (const uint8_t byte : bytes) {
        crc ^= byte;
        for (int bit = 0; bit < 8; ++bit) {
            crc = (crc & 1U) != 0 ? crc >> 1 ^ POLYNOMIAL : crc >> 1;
        }
    }
    return static_cast<uint16_t>(~crc);
}

constexpr uint16_t installCodeCrc(const InstallCode &code) {
    return crc16X25(std::span(code).first(INSTALL_CODE_BYTES));
}

// The CRC at the end is that of the code.
constexpr bool isInstallCodeValid(const InstallCode &code) {
    return (code[INSTALL_CODE_BYTES] | code[INSTALL_CODE_BYTES + 1] << 8) == installCodeCrc(code);
}

constexpr void setInstallCodeCrc(InstallCode &code) {
    const uint16_t crc = installCodeCrc(code);
    code[INSTALL_CODE_BYTES] = static_cast<uint8_t>(crc);
    code[INSTALL_CODE_BYTES + 1] = static_cast<uint8_t>(crc >> 8);
}

// The preconfigured link key: the Matyas-Meyer-Oseas hash over AES-128 of code and CRC.
LinkKey installCodeKey(const InstallCode &code);

} // namespace corvane::zigbee
