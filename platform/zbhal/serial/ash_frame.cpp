// SPDX-License-Identifier: Apache-2.0
#include "ash_frame.h"
#include <algorithm>

namespace corvane::zbhal::serial {

namespace {

constexpr uint8_t FLAG = 0x7E;
constexpr uint8_t ESCAPE = 0x7D;
constexpr uint8_t SUBSTITUTE = 0x18;
constexpr uint8_t XON = 0x11;
constexpr uint8_t XOFF = 0x13;
constexpr uint8_t WAKE = 0xFF; // between frames
constexpr uint8_t STUFFING = 0x20;
constexpr uint8_t RANDOM_SEED = 0x42;
constexpr uint8_t RANDOM_TAPS = 0xB8;

constexpr uint8_t CONTROL_ACK = 0x80;
constexpr uint8_t CONTROL_NAK = 0xA0;
constexpr uint8_t CONTROL_RST = 0xC0;
constexpr uint8_t CONTROL_RSTACK = 0xC1;
constexpr uint8_t CONTROL_ERROR = 0xC2;
constexpr uint8_t KIND_BITS = 0xE0; // of ACK and NAK
constexpr uint8_t BIT_AGAIN = 0x08; // DATA; in ACK and NAK "not ready"
constexpr uint8_t SEQUENCE_BITS = 0x07;

constexpr bool isReserved(uint8_t byte) {
    return byte == FLAG || byte == ESCAPE || byte == XON || byte == XOFF || byte == SUBSTITUTE || byte == ASH_CANCEL;
}

constexpr uint16_t crcStep(uint16_t crc, uint8_t byte) {
    crc = static_cast<uint16_t>(crc ^ (byte << 8));
    for (int bit = 0; bit < 8; ++bit) {
        crc = static_cast<uint16_t>((crc & 0x8000) != 0 ? (crc << 1) ^ 0x1021 : crc << 1);
    }
    return crc;
}

constexpr uint8_t randomStep(uint8_t value) {
    return static_cast<uint8_t>((value >> 1) ^ ((value & 1) != 0 ? RANDOM_TAPS : 0));
}

// Randomising is its own inverse.
constexpr std::array<uint8_t, ASH_MAX_DATA> RANDOM_SEQUENCE = [] {
    std::array<uint8_t, ASH_MAX_DATA> sequence{};
    uint8_t value = RANDOM_SEED;
    for (uint8_t &entry : sequence) {
        entry = value;
        value = randomStep(value);
    }
    return sequence;
}();
static_assert(RANDOM_SEQUENCE[0] == 0x42 && RANDOM_SEQUENCE[1] == 0x21 && RANDOM_SEQUENCE[2] == 0xA8);

uint8_t controlOf(const AshFrame &frame) {
    const auto ack = static_cast<uint8_t>(frame.ack & SEQUENCE_BITS);
    const uint8_t not_ready = frame.not_ready ? BIT_AGAIN : 0;
    switch (frame.kind) {
    case AshKind::data:
        return static_cast<uint8_t>((frame.number & SEQUENCE_BITS) << 4 | (frame.again ? BIT_AGAIN : 0) | ack);
    case AshKind::ack:
        return static_cast<uint8_t>(CONTROL_ACK | not_ready | ack);
    case AshKind::nak:
        return static_cast<uint8_t>(CONTROL_NAK | not_ready | ack);
    case AshKind::reset:
        return CONTROL_RST;
    case AshKind::reset_ack:
        return CONTROL_RSTACK;
    case AshKind::error:
        return CONTROL_ERROR;
    }
    return CONTROL_RST;
}

// Appends stuffed bytes and keeps the CRC.
class Encoder {
public:
    explicit Encoder(std::span<uint8_t> out) : out_(out) {}

    void put(uint8_t byte) {
        crc_ = crcStep(crc_, byte);
        stuff(byte);
    }
    size_t finish() {
        const uint16_t crc = crc_;
        stuff(static_cast<uint8_t>(crc >> 8));
        stuff(static_cast<uint8_t>(crc));
        raw(FLAG);
        return fits_ ? used_ : 0;
    }

private:
    void stuff(uint8_t byte) {
        if (isReserved(byte)) {
            raw(ESCAPE);
            byte ^= STUFFING;
        }
        raw(byte);
    }
    void raw(uint8_t byte) {
        fits_ = fits_ && used_ < out_.size();
        if (fits_) {
            out_[used_++] = byte;
        }
    }

    std::span<uint8_t> out_;
    size_t used_ = 0;
    bool fits_ = true;
    uint16_t crc_ = 0xFFFF;
};

} // namespace

uint16_t ashCrc(std::span<const uint8_t> bytes) {
    uint16_t crc = 0xFFFF;
    for (const uint8_t byte : bytes) {
        crc = crcStep(crc, byte);
    }
    return crc;
}

size_t encodeAsh(const AshFrame &frame, std::span<uint8_t> out) {
    Encoder encoder(out);
    encoder.put(controlOf(frame));
    if (frame.kind == AshKind::data) {
        if (frame.data.size() < ASH_MIN_DATA || frame.data.size() > ASH_MAX_DATA) {
            return 0;
        }
        for (size_t i = 0; i < frame.data.size(); ++i) {
            encoder.put(frame.data[i] ^ RANDOM_SEQUENCE[i]);
        }
    } else if (frame.kind == AshKind::reset_ack || frame.kind == AshKind::error) {
        encoder.put(frame.version);
        encoder.put(frame.code);
    }
    return encoder.finish();
}

void AshReader::restart() {
    size_ = 0;
    escaped_ = false;
    poisoned_ = false;
}

AshReader::Result AshReader::put(uint8_t byte) {
    switch (byte) {
    case FLAG:
        return finish();
    case ASH_CANCEL:
        restart();
        return Result::incomplete;
    case SUBSTITUTE:
        poisoned_ = true;
        return Result::incomplete;
    case XON:
    case XOFF:
        return Result::incomplete;
    case ESCAPE:
        escaped_ = true;
        return Result::incomplete;
    default:
        break;
    }
    if (size_ == 0 && !escaped_ && byte == WAKE) {
        return Result::incomplete;
    }
    if (size_ == bytes_.size()) {
        poisoned_ = true;
        return Result::incomplete;
    }
    bytes_[size_++] = escaped_ ? static_cast<uint8_t>(byte ^ STUFFING) : byte;
    escaped_ = false;
    return Result::incomplete;
}

AshReader::Result AshReader::finish() {
    Result result = Result::incomplete;
    if (size_ > 0 || poisoned_) {
        const bool looks_like_data = size_ > 0 && (bytes_[0] & 0x80) == 0;
        result = poisoned_ || escaped_ ? Result::damaged : decode();
        if (result == Result::damaged && looks_like_data) {
            result = Result::damaged_data;
        }
    }
    restart();
    return result;
}

// True when the control byte fits the number of bytes behind it.
static bool describe(uint8_t control, std::span<const uint8_t> body, AshFrame &frame) {
    frame = {};
    frame.ack = control & SEQUENCE_BITS;
    if ((control & 0x80) == 0) {
        frame.kind = AshKind::data;
        frame.number = (control >> 4) & SEQUENCE_BITS;
        frame.again = (control & BIT_AGAIN) != 0;
        frame.data = body;
        return body.size() >= ASH_MIN_DATA && body.size() <= ASH_MAX_DATA;
    }
    if ((control & KIND_BITS) == CONTROL_ACK || (control & KIND_BITS) == CONTROL_NAK) {
        frame.kind = (control & KIND_BITS) == CONTROL_ACK ? AshKind::ack : AshKind::nak;
        frame.not_ready = (control & BIT_AGAIN) != 0;
        return body.empty();
    }
    frame.ack = 0;
    if (control == CONTROL_RST) {
        frame.kind = AshKind::reset;
        return body.empty();
    }
    if ((control == CONTROL_RSTACK || control == CONTROL_ERROR) && body.size() == 2) {
        frame.kind = control == CONTROL_RSTACK ? AshKind::reset_ack : AshKind::error;
        frame.version = body[0];
        frame.code = body[1];
        return true;
    }
    return false;
}

AshReader::Result AshReader::decode() {
    constexpr size_t crc_size = 2;
    if (size_ < 1 + crc_size || ashCrc({bytes_.data(), size_}) != 0) { // over its own CRC the remainder is 0
        return Result::damaged;
    }
    const std::span<uint8_t> body = std::span(bytes_).subspan(1, size_ - 1 - crc_size);
    if (!describe(bytes_[0], body, frame_)) {
        return Result::damaged;
    }
    if (frame_.kind == AshKind::data) {
        std::transform(body.begin(), body.end(), RANDOM_SEQUENCE.begin(), body.begin(),
                       [](uint8_t byte, uint8_t mask) { return static_cast<uint8_t>(byte ^ mask); });
    }
    return Result::frame;
}

} // namespace corvane::zbhal::serial
