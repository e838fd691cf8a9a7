// SPDX-License-Identifier: Apache-2.0
//
// Extended addresses, and what people and logs call them.
#pragma once
#include "hex.h"
#include <algorithm>
#include <array>
#include <cstdint>
#include <optional>
#include <span>
#include <string_view>

namespace corvane::base {

using Eui64 = std::array<uint8_t, 8>; // most significant byte first, as it is written

// From the order on the air to the order of writing, and back.
constexpr Eui64 reversed(std::span<const uint8_t, 8> eui64) {
    Eui64 result{};
    std::copy(eui64.rbegin(), eui64.rend(), result.begin());
    return result;
}

// Not all 00 and not all ff, which stand for "none".
constexpr bool isAddress(std::span<const uint8_t, 8> eui64) {
    const auto all = [&](uint8_t byte) { return std::ranges::all_of(eui64, [=](uint8_t b) { return b == byte; }); };
    return !all(0x00) && !all(0xFF);
}

// "00:12:4b:00:01:02:03:04"
constexpr FixedText<23> eui64Text(std::span<const uint8_t, 8> eui64) {
    FixedText<23> text;
    for (const uint8_t byte : eui64) {
        if (!text.view().empty()) {
            text.push(':');
        }
        text.pushHex(byte);
    }
    return text;
}

// "00124b": the organisation that assigned the address, the part that says nothing about a single device.
constexpr FixedText<6> ouiText(std::span<const uint8_t, 8> eui64) {
    FixedText<6> text;
    for (const uint8_t byte : eui64.first<3>()) {
        text.pushHex(byte);
    }
    return text;
}

// Eight bytes as parseHex() takes them: with colons, dashes, spaces or nothing between them.
constexpr std::optional<Eui64> parseEui64(std::string_view text) {
    Eui64 eui64{};
    return parseHex(text, eui64) == eui64.size() ? std::optional(eui64) : std::nullopt;
}

// Only the form that eui64Text() writes, in either case.
constexpr std::optional<Eui64> parseColonEui64(std::string_view text) {
    const auto eui64 = parseEui64(text);
    const bool colons = eui64 && text.size() == 23 && std::ranges::count(text, ':') == 7;
    return colons ? eui64 : std::nullopt;
}

} // namespace corvane::base
