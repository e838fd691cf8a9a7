// SPDX-License-Identifier: Apache-2.0
//
// Lines that wait to be written, first in, first out, in a fixed piece of memory. A line is a head, the tag and the
// text, end to end; the bytes of the last one go on at the beginning of the memory. Not thread-safe.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>
#include <spdlog/common.h>
#include <string_view>

constexpr size_t log_tag_capacity = 64;
constexpr size_t log_text_capacity = 1024;

struct Line_head {
    spdlog::log_clock::time_point time;
    uint64_t lost; // not 0: a report that so many lines were dropped; it has no tag and no text
    spdlog::level::level_enum level;
    uint16_t tag_size; // bytes
    uint16_t text_size;
};

struct Log_line {
    Line_head head;
    std::array<char, log_tag_capacity + log_text_capacity> bytes; // the tag and the text

    std::string_view tag() const { return {bytes.data(), head.tag_size}; }
    std::string_view text() const { return {bytes.data() + head.tag_size, head.text_size}; }
};

class Line_ring {
public:
    bool empty() const { return used_ == 0; }
    bool hasRoomFor(size_t text_bytes) const { return sizeof(Line_head) + text_bytes <= bytes_.size() - used_; }
    // Only when there is room for head, tag and text. The sizes in the head are theirs.
    void push(const Line_head &head, std::string_view tag, std::string_view text);
    // Only when not empty.
    void pop(Log_line &line);

private:
    void put(const void *from, size_t size);
    void get(void *to, size_t size);

    static constexpr size_t capacity = 256 * size_t{1024}; // about 1,500 lines of usual length

    std::array<char, capacity> bytes_;
    size_t first_ = 0;
    size_t used_ = 0;
};
