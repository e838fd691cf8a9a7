// SPDX-License-Identifier: Apache-2.0
//
// Cursor over a received frame: little-endian fields, every read checked against the end of the frame.
//
// A read that does not fit yields zeros and makes the cursor fail for good, so a parser reads all its fields in a row
// and asks ok() once. The bytes stay with the caller; nothing is copied except by eui64().
#pragma once
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

class oruZb_frameReader {
public:
    explicit constexpr oruZb_frameReader(std::span<const uint8_t> frame) : rest_(frame) {}

    // The next count bytes, in the frame itself; empty when they are not all there.
    constexpr std::span<const uint8_t> bytes(size_t count) {
        if (count > rest_.size()) {
            ok_ = false;
            rest_ = {};
            return {};
        }
        const std::span<const uint8_t> taken = rest_.first(count);
        rest_ = rest_.subspan(count);
        return taken;
    }

    constexpr void skip(size_t count) { bytes(count); }

    constexpr uint8_t u8() {
        const std::span<const uint8_t> taken = bytes(1);
        return taken.empty() ? uint8_t{0} : taken[0];
    }

    constexpr uint16_t u16() {
        const std::span<const uint8_t> taken = bytes(2);
        return taken.empty() ? uint16_t{0} : static_cast<uint16_t>(taken[0] | taken[1] << 8);
    }

    // An EUI-64, least significant byte first on the air, most significant byte first in eui64.
    constexpr void eui64(std::span<uint8_t, 8> eui64) {
        const std::span<const uint8_t> taken = bytes(8);
        std::fill(eui64.begin(), eui64.end(), uint8_t{0});
        std::copy(taken.rbegin(), taken.rend(), eui64.begin());
    }

    constexpr bool ok() const { return ok_; } // every read so far was inside the frame
    constexpr size_t left() const { return rest_.size(); }

private:
    std::span<const uint8_t> rest_;
    bool ok_ = true;
};
