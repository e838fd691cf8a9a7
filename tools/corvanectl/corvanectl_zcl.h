// SPDX-License-Identifier: Apache-2.0
//
// Frames of devices as JSON and in words. They come off the air: any bytes are legal input, a frame that ends too early
// or has a value of unknown type is told as far as it goes and marked as malformed.
#pragma once
#include "corvane_client.h"
#include "corvanectl_output.h"
#include "zigbee/words.h"
#include <optional>
#include <span>
#include <string>
#include <vector>

namespace corvane::ctl {

// Nothing when the bytes are no ZCL frame (too short, or of a reserved type).
std::optional<zigbee::FrameHeader> parseZclHeader(Bytes frame);

// The frame as JSON: sequence, command, its contents, "text" for people, "malformed" when it is. `meters` is what is
// known of the scales of the sender, or null.
Json decodeZcl(uint16_t cluster, Bytes frame, const zigbee::MeterScales *meters = nullptr);
// The same for a frame of any profile: ZDO frames have a sequence and, in answers, a status.
Json decodeFrame(uint16_t profile, uint16_t cluster, Bytes frame, const zigbee::MeterScales *meters = nullptr);

// The first status other than success in an answer decoded by decodeZcl.
std::optional<uint8_t> failureStatus(const Json &zcl);

// Frames from client to server.
std::vector<uint8_t> encodeClusterCommand(uint8_t sequence, uint8_t command, Bytes payload);
std::vector<uint8_t> encodeReadAttributes(uint8_t sequence, std::span<const uint16_t> attributes);

} // namespace corvane::ctl
