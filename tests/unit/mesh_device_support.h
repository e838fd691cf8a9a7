// SPDX-License-Identifier: Apache-2.0
//
// Devices of the virtual mesh under test, and frames as hexadecimal text.
#pragma once
#include "virtual/device.h"
#include "virtual/text_formats.h"
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace corvane::mesh {

inline std::vector<uint8_t> bytes(const std::string &hex) {
    return parseHex(hex, static_cast<size_t>(std::count_if(hex.begin(), hex.end(), isxdigit)) / 2).value();
}

// The payloads of messages, one behind the other: "18 01 0b | 08 02".
inline std::string hex(const std::vector<ApsMessage> &messages) {
    std::string text;
    for (const ApsMessage &message : messages) {
        text += text.empty() ? "" : " | ";
        for (size_t i = 0; i < message.payload.size(); i++) {
            char byte[4];
            std::snprintf(byte, sizeof byte, "%s%02x", i == 0 ? "" : " ", message.payload[i]);
            text += byte;
        }
    }
    return text;
}

// The first device of a scenario text, in the network as 0x1234.
inline Device deviceFrom(const std::string &toml) {
    Scenario scenario;
    ScenarioError error;
    EXPECT_TRUE(parseScenario(toml, "test", scenario, error)) << error.message;
    Device device(scenario.devices.at(0));
    device.setNodeId(0x1234);
    return device;
}

} // namespace corvane::mesh
