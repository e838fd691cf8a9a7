// SPDX-License-Identifier: Apache-2.0
#pragma once
#include "scenario.h"
#include <array>
#include <cstdint>

namespace corvane::mesh {

using Key = std::array<uint8_t, 16>;

// The preconfigured link key of an install code: the Matyas-Meyer-Oseas hash over AES-128 of all 18 bytes, code and
// CRC (Zigbee specification, annex B.6).
Key installCodeKey(const InstallCode &code);

} // namespace corvane::mesh
