// SPDX-License-Identifier: Apache-2.0
//
// An input of a fuzzer, read front to back: choices first, bytes as they come. Past the end everything is zero.
#pragma once
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size);

namespace fuzz {

using Bytes = std::vector<uint8_t>;

class Input {
public:
    Input(const uint8_t *data, size_t size) : at_(data), left_(size) {}

    bool empty() const { return left_ == 0; }
    uint8_t u8() { return left_ == 0 ? uint8_t{0} : (--left_, *at_++); }
    uint16_t u16() {
        const uint8_t low = u8();
        return static_cast<uint16_t>(low | u8() << 8);
    }
    // A block of its own size on the heap, so that a sanitizer sees the first byte read beyond it.
    Bytes take(size_t count) {
        count = std::min(count, left_);
        Bytes bytes(at_, at_ + count);
        at_ += count;
        left_ -= count;
        return bytes;
    }
    Bytes sized8() { return take(u8()); }
    Bytes sized16() { return take(u16()); }

private:
    const uint8_t *at_;
    size_t left_;
};

inline void require(bool holds, const char *what) {
    if (!holds) {
        std::fprintf(stderr, "does not hold: %s\n", what);
        std::abort();
    }
}

} // namespace fuzz
