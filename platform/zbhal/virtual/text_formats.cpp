// SPDX-License-Identifier: Apache-2.0
#include "text_formats.h"
#include "base/eui64.h"
#include <algorithm>
#include <array>
#include <charconv>

namespace corvane::mesh {
namespace {

constexpr size_t kPrintableMaximum = 64;
constexpr std::array<std::pair<Role, const char *>, 3> kRoles{{
    {Role::router, "router"},
    {Role::end_device, "end_device"},
    {Role::sleepy_end_device, "sleepy_end_device"},
}};

} // namespace

std::optional<std::vector<uint8_t>> parseHex(std::string_view text, size_t count) {
    std::vector<uint8_t> bytes(count);
    return base::parseHex(text, bytes) == count ? std::optional(bytes) : std::nullopt;
}

std::optional<Eui64> parseEui64(std::string_view text) {
    const auto eui64 = base::parseColonEui64(text);
    return eui64 && base::isAddress(*eui64) ? eui64 : std::nullopt;
}

std::string formatEui64(const Eui64 &eui64) {
    return std::string(base::eui64Text(eui64));
}

const char *roleName(Role role) {
    for (const auto &[known, name] : kRoles) {
        if (known == role) {
            return name;
        }
    }
    return "?";
}

std::optional<Role> roleByName(std::string_view name) {
    for (const auto &[role, known] : kRoles) {
        if (name == known) {
            return role;
        }
    }
    return std::nullopt;
}

std::string joined(std::initializer_list<std::string_view> words) {
    std::string text;
    for (const std::string_view word : words) {
        text += (text.empty() ? "" : ", ") + std::string(word);
    }
    return text;
}

std::string formatNumber(double value) {
    char text[40];
    const auto [end, error] = std::to_chars(text, text + sizeof text, value);
    return error == std::errc{} ? std::string(text, end) : std::string();
}

std::string printable(std::string_view text) {
    std::string out(text.substr(0, kPrintableMaximum));
    std::ranges::replace_if(
        out, [](char c) { return c < 0x20 || c > 0x7E; }, '?');
    return out;
}

} // namespace corvane::mesh
