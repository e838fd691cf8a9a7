// SPDX-License-Identifier: Apache-2.0
//
// The header of ZCL frames and the numbers of the general commands, for those who need no more of them: nothing here
// has to be linked.
#pragma once
#include "base/bytes.h"
#include <cstdint>
#include <optional>

namespace corvane::zigbee {

struct FrameHeader {
    bool cluster_specific = false;
    bool to_client = false; // from server to client
    bool disable_default_response = false;
    std::optional<uint16_t> manufacturer{};
    uint8_t sequence = 0;
    uint8_t command = 0;
};

constexpr std::size_t LONGEST_HEADER = 5;

namespace frame_control {
constexpr uint8_t TYPE_MASK = 0x03;
constexpr uint8_t TYPE_CLUSTER = 0x01;
constexpr uint8_t MANUFACTURER_SPECIFIC = 0x04;
constexpr uint8_t SERVER_TO_CLIENT = 0x08;
constexpr uint8_t DISABLE_DEFAULT_RESPONSE = 0x10;
} // namespace frame_control

// False when the bytes are too few or the frame is of a reserved type.
inline bool readHeader(base::ByteReader &in, FrameHeader &header) {
    const uint8_t control = in.u8();
    header = FrameHeader{};
    header.cluster_specific = (control & frame_control::TYPE_MASK) == frame_control::TYPE_CLUSTER;
    header.to_client = (control & frame_control::SERVER_TO_CLIENT) != 0;
    header.disable_default_response = (control & frame_control::DISABLE_DEFAULT_RESPONSE) != 0;
    if ((control & frame_control::MANUFACTURER_SPECIFIC) != 0) {
        header.manufacturer = in.u16();
    }
    header.sequence = in.u8();
    header.command = in.u8();
    return in.ok() && (control & frame_control::TYPE_MASK) <= frame_control::TYPE_CLUSTER;
}

inline void writeHeader(base::ByteWriter &out, const FrameHeader &header) {
    const unsigned control = (header.cluster_specific ? frame_control::TYPE_CLUSTER : 0U) |
                             (header.manufacturer ? frame_control::MANUFACTURER_SPECIFIC : 0U) |
                             (header.to_client ? frame_control::SERVER_TO_CLIENT : 0U) |
                             (header.disable_default_response ? frame_control::DISABLE_DEFAULT_RESPONSE : 0U);
    out.u8(static_cast<uint8_t>(control));
    if (header.manufacturer) {
        out.u16(*header.manufacturer);
    }
    out.u8(header.sequence);
    out.u8(header.command);
}

// Of an answer to the request: same sequence and manufacturer, opposite direction, wants no default response itself.
inline FrameHeader answerTo(const FrameHeader &request, uint8_t command, bool cluster_specific) {
    FrameHeader answer = request;
    answer.cluster_specific = cluster_specific;
    answer.to_client = !request.to_client;
    answer.disable_default_response = true;
    answer.command = command;
    return answer;
}

constexpr uint8_t COMMAND_READ_ATTRIBUTES = 0x00;
constexpr uint8_t COMMAND_READ_ATTRIBUTES_RESPONSE = 0x01;
constexpr uint8_t COMMAND_WRITE_ATTRIBUTES = 0x02;
constexpr uint8_t COMMAND_WRITE_ATTRIBUTES_UNDIVIDED = 0x03;
constexpr uint8_t COMMAND_WRITE_ATTRIBUTES_RESPONSE = 0x04;
constexpr uint8_t COMMAND_WRITE_ATTRIBUTES_NO_RESPONSE = 0x05;
constexpr uint8_t COMMAND_CONFIGURE_REPORTING = 0x06;
constexpr uint8_t COMMAND_CONFIGURE_REPORTING_RESPONSE = 0x07;
constexpr uint8_t COMMAND_READ_REPORTING = 0x08;
constexpr uint8_t COMMAND_READ_REPORTING_RESPONSE = 0x09;
constexpr uint8_t COMMAND_REPORT_ATTRIBUTES = 0x0A;
constexpr uint8_t COMMAND_DEFAULT_RESPONSE = 0x0B;
constexpr uint8_t COMMAND_DISCOVER_ATTRIBUTES = 0x0C;
constexpr uint8_t COMMAND_DISCOVER_ATTRIBUTES_RESPONSE = 0x0D;

} // namespace corvane::zigbee
