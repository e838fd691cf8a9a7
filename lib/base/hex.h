// SPDX-License-Identifier: Apache-2.0
//
// Bytes as hexadecimal digits, both ways, without memory of its own.
#pragma once
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace corvane::base {

constexpr char hexDigit(unsigned value) {
    return "0123456789abcdef"[value & 0x0F];
}

// 0 to 15; nothing for any other character.
constexpr std::optional<uint8_t> hexValue(char c) {
    if (c >= '0' && c <= '9') {
        return static_cast<uint8_t>(c - '0');
    }
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? std::optional(static_cast<uint8_t>(lower - 'a' + 10)) : std::nullopt;
}

// A short text that lives where it is declared: at most Capacity characters, the rest is dropped.
template <std::size_t Capacity>
class FixedText {
public:
    constexpr const char *c_str() const { return text_; }
    constexpr std::string_view view() const { return {text_, size_}; }
    constexpr operator std::string_view() const { return view(); }

    constexpr void push(char c) {
        if (size_ < Capacity) {
            text_[size_++] = c;
        }
    }
    constexpr void pushHex(uint8_t byte) {
        push(hexDigit(byte >> 4));
        push(hexDigit(byte));
    }

private:
    char text_[Capacity + 1] = {};
    std::size_t size_ = 0;
};

// Number of bytes in text, which are at the front of room then; nothing when it is not hexadecimal or room is too
// small. Between bytes there may be spaces and one colon or dash; spaces may also stand at both ends.
constexpr std::optional<std::size_t> parseHex(std::string_view text, std::span<uint8_t> room) {
    const auto skipSpaces = [&] { text.remove_prefix(std::min(text.find_first_not_of(' '), text.size())); };
    std::size_t count = 0;
    for (skipSpaces(); !text.empty(); skipSpaces()) {
        if (count > 0 && (text.front() == ':' || text.front() == '-')) {
            text.remove_prefix(1);
            skipSpaces();
        }
        const auto high = text.size() < 2 ? std::nullopt : hexValue(text[0]);
        const auto low = high ? hexValue(text[1]) : std::nullopt;
        if (!low || count == room.size()) {
            return std::nullopt;
        }
        room[count++] = static_cast<uint8_t>(*high << 4 | *low);
        text.remove_prefix(2);
    }
    return count;
}

// The bytes as lower-case digits at the front of room, for as many bytes as fit whole. The result lies in room.
constexpr std::string_view hexText(std::span<const uint8_t> bytes, std::span<char> room) {
    std::size_t size = 0;
    for (const uint8_t byte : bytes) {
        if (room.size() - size < 2) {
            break;
        }
        room[size++] = hexDigit(byte >> 4);
        room[size++] = hexDigit(byte);
    }
    return {room.data(), size};
}

} // namespace corvane::base
