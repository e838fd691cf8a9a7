// SPDX-License-Identifier: Apache-2.0
//
// Little-endian access to frames, and frames that grow as they are written.
#pragma once
#include "base/bytes.h"
#include <vector>

namespace corvane::mesh {

using base::ByteReader;

inline void append(std::vector<uint8_t> &bytes, uint64_t value, size_t width) {
    for (size_t i = 0; i < width; i++) {
        bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

} // namespace corvane::mesh
