// SPDX-License-Identifier: Apache-2.0
//
// What people type: numbers, addresses, install codes, channels. A text that makes no sense ends in a UsageError whose
// sentence names the text and says what is expected.
#pragma once
#include "corvane_client.h"
#include "zigbee/install_code.h"
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace corvane::ctl {

struct UsageError : std::runtime_error {
    using std::runtime_error::runtime_error;
};

// Decimal or 0x-hexadecimal, with an optional minus sign (also U+2212, see protectNegativeNumber). `what` names the
// value in the error.
int64_t parseNumber(std::string_view text, std::string_view what, int64_t minimum, int64_t maximum);
std::optional<int64_t> tryNumber(std::string_view text);

template <class Integer>
Integer parseAs(std::string_view text, std::string_view what) {
    return static_cast<Integer>(parseNumber(text, what, std::numeric_limits<Integer>::min(),
                                            static_cast<int64_t>(std::numeric_limits<Integer>::max())));
}

// The option parser takes "-5" for an option. Negative numbers are therefore handed to it with the minus sign of
// typography, which parseNumber understands.
std::string protectNegativeNumber(std::string_view argument);

// "00:11:22:33:44:55:66:77", also with dashes or without separators; most significant byte first.
Eui64 parseEui64(std::string_view text);
std::optional<Eui64> tryEui64(std::string_view text);
std::string formatEui64(const uint8_t *eui64); // 8 bytes, most significant first
std::string formatEui64Reversed(const uint8_t *eui64);

// How a DEVICE is given: node id (0x1A2B), EUI-64 or #INDEX (list position from 0).
using DeviceRef = std::variant<uint16_t, Eui64, uint32_t>;
DeviceRef parseDevice(std::string_view text);

struct DeviceEndpoint {
    DeviceRef device;
    std::optional<uint8_t> endpoint;
};
DeviceEndpoint parseDeviceEndpoint(std::string_view text); // DEVICE[/ENDPOINT]

// Hexadecimal bytes; between them may be spaces and a colon or dash. `maximum` bytes at most.
std::vector<uint8_t> parseHex(std::string_view text, std::string_view what, std::size_t maximum);
std::string formatHex(Bytes bytes); // lower case, no separators

// 36 digits: the CRC at their end is checked; 32 digits: it is computed.
zigbee::InstallCode parseInstallCode(std::string_view text);

// Channels 11 to 26: "15", "11-14", lists of both, "all", or a mask with 0x. Bit n of the result is channel n.
uint32_t parseChannelMask(std::string_view text);
struct ChannelRange {
    uint8_t first;
    uint8_t last;
};
ChannelRange parseChannelRange(std::string_view text); // "11-14" or "15"
uint8_t parseChannel(std::string_view text);

} // namespace corvane::ctl
