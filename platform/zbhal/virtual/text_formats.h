// SPDX-License-Identifier: Apache-2.0
//
// Addresses and codes as people write them.
#pragma once
#include "scenario.h"
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::mesh {

// "00:11:22:33:44:55:66:77", most significant byte first; not all 00 and not all ff, which mean "none".
std::optional<Eui64> parseEui64(std::string_view text);
std::string formatEui64(const Eui64 &eui64);

// Hexadecimal digits, spaces, colons and dashes between bytes ignored; empty unless they are exactly count bytes.
std::optional<std::vector<uint8_t>> parseHex(std::string_view text, size_t count);

const char *roleName(Role role);
std::optional<Role> roleByName(std::string_view name);

// "a, b, c"
std::string joined(std::initializer_list<std::string_view> words);
std::string formatNumber(double value);

// The text with everything but printable ASCII replaced by '?', cut after 64 characters.
std::string printable(std::string_view text);

} // namespace corvane::mesh
