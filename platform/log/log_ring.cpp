// SPDX-License-Identifier: Apache-2.0
#include "log_ring.h"
#include <algorithm>
#include <cstring>
#include <type_traits>

static_assert(std::is_trivially_copyable_v<Line_head>);

void Line_ring::push(const Line_head &head, std::string_view tag, std::string_view text) {
    put(&head, sizeof head);
    put(tag.data(), tag.size());
    put(text.data(), text.size());
}

void Line_ring::pop(Log_line &line) {
    get(&line.head, sizeof line.head);
    get(line.bytes.data(), size_t{line.head.tag_size} + line.head.text_size);
    if (used_ == 0) {
        first_ = 0; // memory that only a burst needs is not touched without one
    }
}

void Line_ring::put(const void *from, size_t size) {
    if (size == 0) {
        return; // from may be null, which even a copy of nothing does not allow
    }
    const size_t start = (first_ + used_) % capacity;
    const size_t whole = std::min(size, capacity - start);
    std::memcpy(bytes_.data() + start, from, whole);
    std::memcpy(bytes_.data(), static_cast<const char *>(from) + whole, size - whole);
    used_ += size;
}

void Line_ring::get(void *to, size_t size) {
    const size_t whole = std::min(size, capacity - first_);
    std::memcpy(to, bytes_.data() + first_, whole);
    std::memcpy(static_cast<char *>(to) + whole, bytes_.data(), size - whole);
    first_ = (first_ + size) % capacity;
    used_ -= size;
}
