// SPDX-License-Identifier: Apache-2.0
//
// Little-endian access to frames. A reader that has run past the end stays failed and yields zeros, so a parser reads
// all fields first and asks ok() once.
#pragma once
#include <cstddef>
#include <cstdint>
#include <span>
#include <vector>

namespace corvane::mesh {

class ByteReader {
public:
    explicit ByteReader(std::span<const uint8_t> bytes) : bytes_(bytes) {}

    bool ok() const { return ok_; }
    size_t left() const { return bytes_.size(); }
    uint8_t u8() { return static_cast<uint8_t>(number(1)); }
    uint16_t u16() { return static_cast<uint16_t>(number(2)); }

    // width is 1 to 8 bytes.
    uint64_t number(size_t width) {
        uint64_t value = 0;
        for (size_t i = 0; const uint8_t byte : take(width)) {
            value |= uint64_t{byte} << (8 * i++);
        }
        return value;
    }

    std::span<const uint8_t> take(size_t count) {
        if (count > bytes_.size()) {
            ok_ = false;
            bytes_ = {};
            return {};
        }
        const auto taken = bytes_.first(count);
        bytes_ = bytes_.subspan(count);
        return taken;
    }

private:
    std::span<const uint8_t> bytes_;
    bool ok_ = true;
};

inline void append(std::vector<uint8_t> &bytes, uint64_t value, size_t width) {
    for (size_t i = 0; i < width; i++) {
        bytes.push_back(static_cast<uint8_t>(value >> (8 * i)));
    }
}

} // namespace corvane::mesh
