// SPDX-License-Identifier: Apache-2.0
#include "corvanectl_parse.h"
#include "base/eui64.h"
#include <algorithm>
#include <bit>
#include <charconv>
#include <fmt/format.h>

namespace corvane::ctl {

namespace {

constexpr std::string_view MINUS = "\xE2\x88\x92"; // U+2212
constexpr uint8_t FIRST_CHANNEL = 11;
constexpr uint8_t LAST_CHANNEL = 26;
constexpr uint32_t ALL_CHANNELS = 0x07FFF800;

bool isDigit(char c) {
    return c >= '0' && c <= '9';
}

std::optional<std::vector<uint8_t>> tryHex(std::string_view text) {
    std::vector<uint8_t> bytes(text.size() / 2);
    const auto count = base::parseHex(text, bytes);
    bytes.resize(count.value_or(0));
    return count ? std::optional(std::move(bytes)) : std::nullopt;
}

// "A-B" or "A" as two texts.
std::pair<std::string_view, std::string_view> splitRange(std::string_view text) {
    const auto dash = text.find('-');
    return dash == text.npos ? std::pair{text, text} : std::pair{text.substr(0, dash), text.substr(dash + 1)};
}

} // namespace

std::optional<int64_t> tryNumber(std::string_view text) {
    bool negative = false;
    for (const std::string_view sign : {std::string_view("-"), MINUS}) {
        if (text.starts_with(sign)) {
            text.remove_prefix(sign.size());
            negative = true;
            break;
        }
    }
    const bool hex = text.starts_with("0x") || text.starts_with("0X");
    if (hex) {
        text.remove_prefix(2);
    }
    int64_t value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, hex ? 16 : 10);
    if (error != std::errc() || end != text.data() + text.size() || value < 0) { // value < 0: a second minus sign
        return std::nullopt;
    }
    return negative ? -value : value;
}

int64_t parseNumber(std::string_view text, std::string_view what, int64_t minimum, int64_t maximum) {
    const auto value = tryNumber(text);
    if (!value || *value < minimum || *value > maximum) {
        throw UsageError(fmt::format("{} must be a number from {} to {}, decimal or 0x..., not \"{}\"", what, minimum,
                                     maximum, text));
    }
    return *value;
}

std::string protectNegativeNumber(std::string_view argument) {
    if (argument.size() > 1 && argument[0] == '-' && isDigit(argument[1]) && tryNumber(argument)) {
        return std::string(MINUS) + std::string(argument.substr(1));
    }
    return std::string(argument);
}

std::optional<Eui64> tryEui64(std::string_view text) {
    const auto bytes = tryHex(text);
    if (!bytes || bytes->size() != Eui64{}.size()) {
        return std::nullopt;
    }
    Eui64 eui64;
    std::ranges::copy(*bytes, eui64.begin());
    return eui64;
}

Eui64 parseEui64(std::string_view text) {
    const auto eui64 = tryEui64(text);
    if (!eui64) {
        throw UsageError(
            fmt::format("\"{}\" is not an EUI-64: 8 hexadecimal bytes such as 00:12:4b:00:01:02:03:04", text));
    }
    return *eui64;
}

std::string formatEui64(const uint8_t *eui64) {
    return std::string(base::eui64Text(std::span<const uint8_t, 8>(eui64, 8)));
}

std::string formatEui64Reversed(const uint8_t *eui64) {
    return std::string(base::eui64Text(base::reversed(std::span<const uint8_t, 8>(eui64, 8))));
}

DeviceRef parseDevice(std::string_view text) {
    if (text.starts_with('#')) {
        return static_cast<uint32_t>(parseNumber(text.substr(1), "the index of a device", 0, INT32_MAX));
    }
    if (const auto eui64 = tryEui64(text)) {
        return *eui64;
    }
    const auto id = tryNumber(text);
    if (!id || *id < 0 || *id > 0xFFFF) {
        throw UsageError(fmt::format("\"{}\" is not a device: give a node id (0x1a2b), an EUI-64 "
                                     "(00:12:4b:00:01:02:03:04) or a list position ('#0')",
                                     text));
    }
    return static_cast<uint16_t>(*id);
}

DeviceEndpoint parseDeviceEndpoint(std::string_view text) {
    const auto slash = text.find('/');
    if (slash == text.npos) {
        return {parseDevice(text), std::nullopt};
    }
    return {parseDevice(text.substr(0, slash)),
            static_cast<uint8_t>(parseNumber(text.substr(slash + 1), "the endpoint", 0, 255))};
}

std::vector<uint8_t> parseHex(std::string_view text, std::string_view what, std::size_t maximum) {
    const auto bytes = tryHex(text);
    if (!bytes) {
        throw UsageError(fmt::format("{} must be hexadecimal bytes such as 01002a, not \"{}\"", what, text));
    }
    if (bytes->size() > maximum) {
        throw UsageError(fmt::format("{} has {} bytes, at most {} fit", what, bytes->size(), maximum));
    }
    return *bytes;
}

std::string formatHex(Bytes bytes) {
    return fmt::format("{:02x}", fmt::join(bytes, ""));
}

zigbee::InstallCode parseInstallCode(std::string_view text) {
    const auto bytes = tryHex(text);
    zigbee::InstallCode code{};
    if (!bytes || (bytes->size() != zigbee::INSTALL_CODE_BYTES && bytes->size() != code.size())) {
        throw UsageError(fmt::format("\"{}\" is not an install code: 36 hexadecimal digits with the CRC at the end, or "
                                     "32 without",
                                     text));
    }
    std::ranges::copy(*bytes, code.begin());
    if (bytes->size() == zigbee::INSTALL_CODE_BYTES) {
        zigbee::setInstallCodeCrc(code);
    } else if (!zigbee::isInstallCodeValid(code)) {
        const unsigned crc = zigbee::installCodeCrc(code);
        throw UsageError(fmt::format("the install code \"{}\" has a typing error: it ends in {:02x}{:02x}, but its CRC "
                                     "is {:02x}{:02x}",
                                     text, code[16], code[17], crc & 0xFF, crc >> 8));
    }
    return code;
}

uint8_t parseChannel(std::string_view text) {
    return static_cast<uint8_t>(parseNumber(text, "the channel", FIRST_CHANNEL, LAST_CHANNEL));
}

ChannelRange parseChannelRange(std::string_view text) {
    const auto [first, last] = splitRange(text);
    const ChannelRange range{parseChannel(first), parseChannel(last)};
    if (range.first > range.last) {
        throw UsageError(fmt::format("the channels \"{}\" run backwards: the lower one comes first", text));
    }
    return range;
}

uint32_t parseChannelMask(std::string_view text) {
    if (text == "all") {
        return ALL_CHANNELS;
    }
    if (text.starts_with("0x")) {
        const auto mask = static_cast<uint32_t>(parseNumber(text, "the channel mask", 1, UINT32_MAX));
        if ((mask & ~ALL_CHANNELS) != 0) {
            throw UsageError(
                fmt::format("the channel mask {} names channels outside 11 to 26 (mask 0x07fff800)", text));
        }
        return mask;
    }
    uint32_t mask = 0;
    for (std::size_t at = 0; at <= text.size();) {
        const auto comma = std::min(text.find(',', at), text.size());
        const ChannelRange range = parseChannelRange(text.substr(at, comma - at));
        for (unsigned channel = range.first; channel <= range.last; ++channel) {
            mask |= uint32_t{1} << channel;
        }
        at = comma + 1;
    }
    return mask;
}

} // namespace corvane::ctl
