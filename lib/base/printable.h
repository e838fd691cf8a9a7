// SPDX-License-Identifier: Apache-2.0
//
// Texts that come from outside, freed of what would reach into a terminal or a log.
#pragma once
#include <algorithm>
#include <cstddef>
#include <string>
#include <string_view>

namespace corvane::base {

constexpr bool isUtf8Continuation(char c) {
    return (static_cast<unsigned char>(c) & 0xC0U) == 0x80U;
}

// Bytes of the UTF-8 character that text begins with; 0 when it is broken or a control character (also an encoded one).
constexpr std::size_t printableLength(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text.empty() ? '\0' : text.front());
    const std::size_t length = lead < 0x80 ? 1 : lead >> 5 == 6 ? 2 : lead >> 4 == 14 ? 3 : lead >> 3 == 30 ? 4 : 0;
    if (length == 0 || length > text.size() || (length == 1 && (lead < 0x20 || lead == 0x7F))) {
        return 0;
    }
    const auto rest = text.substr(1, length - 1);
    const bool c1 = lead == 0xC2 && static_cast<unsigned char>(rest[0]) < 0xA0;
    return std::ranges::all_of(rest, isUtf8Continuation) && !c1 ? length : 0;
}

// Control characters and broken UTF-8 replaced by '?'.
inline std::string printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        const std::size_t length = printableLength(text);
        result += length == 0 ? std::string_view("?") : text.substr(0, length);
        text.remove_prefix(std::max<std::size_t>(length, 1));
    }
    return result;
}

} // namespace corvane::base
