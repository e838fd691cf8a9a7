// SPDX-License-Identifier: Apache-2.0
//
// ASH frames, the lowest layer of a serial co-processor's protocol: bytes of the line to frames and back. Pure: no
// clock, no descriptor, no allocation.
//
//   control byte | data field (DATA: randomised) | CRC high | CRC low | 0x7E
//
//   control    frame    data field
//   0nnn raaa  DATA     3 to 220 bytes, n frame number, r sent again, a acknowledges every frame before a
//   100p raaa  ACK      -                r: "not ready", hold your callbacks
//   101p raaa  NAK      -                send again from a on
//   0xC0       RST      -                host to co-processor
//   0xC1       RSTACK   version, code    co-processor to host
//   0xC2       ERROR    version, code    the co-processor has failed, only RST helps
//
// The CRC (CCITT, 0x1021, starts at 0xFFFF) covers control and data after randomising and before stuffing.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace corvane::zbhal::serial {

inline constexpr size_t ASH_MIN_DATA = 3;
inline constexpr size_t ASH_MAX_DATA = 220;
inline constexpr uint8_t ASH_VERSION = 2;
inline constexpr uint8_t ASH_SEQUENCE_MODULUS = 8;
inline constexpr uint8_t ASH_CANCEL = 0x1A; // the receiver forgets what it has collected of a frame

// Control and CRC beside the data field, every byte of it stuffed, and the closing flag.
inline constexpr size_t ASH_MAX_ENCODED = 2 * (1 + ASH_MAX_DATA + 2) + 1;

enum class AshKind : uint8_t { data, ack, nak, reset, reset_ack, error };

struct AshFrame {
    AshKind kind = AshKind::ack;
    uint8_t number = 0;                 // DATA
    uint8_t ack = 0;                    // DATA, ACK, NAK: the next frame that the sender expects
    bool again = false;                 // DATA: has been sent before
    bool not_ready = false;             // ACK, NAK: the sender has no room
    uint8_t version = ASH_VERSION;      // RSTACK, ERROR
    uint8_t code = 0;                   // RSTACK, ERROR: reason
    std::span<const uint8_t> data = {}; // DATA: not randomised; valid until the reader gets its next byte
};

// Writes the frame as it goes over the line and returns the bytes used; 0 when the data field is not 3 to 220 bytes
// long or out is too small (ASH_MAX_ENCODED always suffices).
size_t encodeAsh(const AshFrame &frame, std::span<uint8_t> out);

uint16_t ashCrc(std::span<const uint8_t> bytes);

// Collects frames from the bytes of the line. Whatever arrives, it never holds more than one frame.
class AshReader {
public:
    enum class Result : uint8_t {
        incomplete,   // nothing to report yet
        frame,        // frame() is valid until the next byte
        damaged_data, // something that looked like a DATA frame: to be asked for again
        damaged,      // something else
    };

    Result put(uint8_t byte);
    const AshFrame &frame() const { return frame_; }

private:
    Result finish();
    Result decode();
    void restart();

    std::array<uint8_t, 1 + ASH_MAX_DATA + 2> bytes_{};
    size_t size_ = 0;
    bool escaped_ = false;
    bool poisoned_ = false; // substitute byte or too long: the rest up to the flag is skipped
    AshFrame frame_;
};

} // namespace corvane::zbhal::serial
