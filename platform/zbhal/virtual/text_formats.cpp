// SPDX-License-Identifier: Apache-2.0
#include "text_formats.h"
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

int hexDigit(char c) {
    if (c >= '0' && c <= '9') {
        return c - '0';
    }
    const char lower = static_cast<char>(c | 0x20);
    return lower >= 'a' && lower <= 'f' ? lower - 'a' + 10 : -1;
}

} // namespace

std::optional<std::vector<uint8_t>> parseHex(std::string_view text, size_t count) {
    std::vector<uint8_t> bytes;
    for (size_t i = 0; i < text.size();) {
        if (text[i] == ' ') {
            i++;
            continue;
        }
        const int high = hexDigit(text[i]);
        const int low = i + 1 < text.size() ? hexDigit(text[i + 1]) : -1;
        if (high < 0 || low < 0 || bytes.size() == count) {
            return std::nullopt;
        }
        bytes.push_back(static_cast<uint8_t>(high * 16 + low));
        i += 2;
    }
    return bytes.size() == count ? std::optional(bytes) : std::nullopt;
}

std::optional<Eui64> parseEui64(std::string_view text) {
    Eui64 eui64{};
    if (text.size() != eui64.size() * 3 - 1) {
        return std::nullopt;
    }
    for (size_t i = 0; i < eui64.size(); i++) {
        const int high = hexDigit(text[3 * i]);
        const int low = hexDigit(text[3 * i + 1]);
        if (high < 0 || low < 0 || (i > 0 && text[3 * i - 1] != ':')) {
            return std::nullopt;
        }
        eui64[i] = static_cast<uint8_t>(high * 16 + low);
    }
    const auto all = [&](uint8_t byte) { return std::ranges::all_of(eui64, [=](uint8_t b) { return b == byte; }); };
    return all(0x00) || all(0xFF) ? std::nullopt : std::optional(eui64);
}

std::string formatEui64(const Eui64 &eui64) {
    static constexpr char kDigits[] = "0123456789abcdef";
    std::string text;
    for (const uint8_t byte : eui64) {
        text += text.empty() ? "" : ":";
        text += kDigits[byte >> 4];
        text += kDigits[byte & 15];
    }
    return text;
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
