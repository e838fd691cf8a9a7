// SPDX-License-Identifier: Apache-2.0
//
// Bounds-checked little-endian access to frames and records, without any memory of its own.
//
// A read or write that does not fit makes the cursor fail for good: reads then yield zeros, writes are dropped. A
// parser so reads all its fields in a row and asks ok() once. The bytes stay with the caller.
#pragma once
#include "eui64.h"
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <span>

namespace corvane::base {

class ByteReader {
public:
    explicit constexpr ByteReader(std::span<const uint8_t> bytes) : rest_(bytes) {}

    constexpr bool ok() const { return ok_; } // every read so far was inside the bytes
    constexpr std::size_t left() const { return rest_.size(); }
    constexpr bool atEnd() const { return rest_.empty(); }
    constexpr std::span<const uint8_t> rest() const { return rest_; }

    // For contents that make no sense although they are all there.
    constexpr void fail() {
        ok_ = false;
        rest_ = {};
    }

    // The next count bytes, where they lie; empty when they are not all there.
    constexpr std::span<const uint8_t> bytes(std::size_t count) {
        if (count > rest_.size()) {
            fail();
            return {};
        }
        const auto taken = rest_.first(count);
        rest_ = rest_.subspan(count);
        return taken;
    }
    constexpr void skip(std::size_t count) { bytes(count); }

    // width is 0 to 8 bytes.
    constexpr uint64_t number(std::size_t width) {
        uint64_t value = 0;
        unsigned shift = 0;
        for (const uint8_t byte : bytes(width)) {
            value |= uint64_t{byte} << shift;
            shift += 8;
        }
        return value;
    }
    constexpr uint8_t u8() { return static_cast<uint8_t>(number(1)); }
    constexpr uint16_t u16() { return static_cast<uint16_t>(number(2)); }
    constexpr uint32_t u24() { return static_cast<uint32_t>(number(3)); }
    constexpr uint32_t u32() { return static_cast<uint32_t>(number(4)); }
    constexpr uint64_t u64() { return number(8); }

    // Least significant byte first in the frame, most significant byte first in the result.
    constexpr void eui64(std::span<uint8_t, 8> eui64) {
        const auto taken = bytes(eui64.size());
        std::fill(eui64.begin(), eui64.end(), uint8_t{0});
        std::copy(taken.rbegin(), taken.rend(), eui64.begin());
    }
    constexpr Eui64 eui64() {
        Eui64 value{};
        eui64(value);
        return value;
    }

private:
    std::span<const uint8_t> rest_;
    bool ok_ = true;
};

class ByteWriter {
public:
    // Writes to the front of room and never beyond it.
    explicit constexpr ByteWriter(std::span<uint8_t> room) : room_(room) {}

    constexpr bool ok() const { return ok_; } // everything so far had room
    constexpr std::size_t size() const { return size_; }
    constexpr std::size_t left() const { return room_.size() - size_; }
    constexpr std::span<const uint8_t> written() const { return room_.first(size_); }

    constexpr void bytes(std::span<const uint8_t> bytes) {
        if (!fits(bytes.size())) {
            return;
        }
        std::copy(bytes.begin(), bytes.end(), room_.begin() + static_cast<std::ptrdiff_t>(size_));
        size_ += bytes.size();
    }

    // The lowest width bytes of value, width 0 to 8.
    constexpr void number(uint64_t value, std::size_t width) {
        if (!fits(width)) {
            return;
        }
        for (std::size_t i = 0; i < width; ++i) {
            room_[size_++] = static_cast<uint8_t>(value >> (8 * i));
        }
    }
    constexpr void u8(uint8_t value) { number(value, 1); }
    constexpr void u16(uint16_t value) { number(value, 2); }
    constexpr void u24(uint32_t value) { number(value, 3); }
    constexpr void u32(uint32_t value) { number(value, 4); }
    constexpr void u64(uint64_t value) { number(value, 8); }
    constexpr void eui64(const Eui64 &eui64) { bytes(reversed(eui64)); }

    // Back to an earlier size(), to take a record away that did not fit whole.
    constexpr void rewind(std::size_t size) {
        size_ = std::min(size, size_);
        ok_ = true;
    }
    // Replaces a byte written before, for counts that are known late.
    constexpr void patch(std::size_t position, uint8_t value) {
        if (position < size_) {
            room_[position] = value;
        }
    }

private:
    constexpr bool fits(std::size_t count) {
        ok_ = ok_ && count <= left();
        return ok_;
    }

    std::span<uint8_t> room_;
    std::size_t size_ = 0;
    bool ok_ = true;
};

} // namespace corvane::base
