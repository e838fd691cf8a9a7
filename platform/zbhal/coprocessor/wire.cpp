// SPDX-License-Identifier: Apache-2.0
#include "wire.h"
#include "../serial/ash_frame.h"
#include <algorithm>
#include <array>

namespace corvane::coprocessor {

namespace {

constexpr uint64_t SECOND_US = 1'000'000;
constexpr uint64_t MS = 1000;
constexpr unsigned BITS_PER_BYTE = 10; // with start and stop
constexpr uint8_t XON = 0x11;
constexpr uint8_t XOFF = 0x13;

constexpr bool isAck(uint8_t control) {
    return (control & 0xE0) == 0x80;
}

} // namespace

void Wire::write(std::span<const uint8_t> frame, uint64_t now_us) {
    if (frame.empty()) {
        return;
    }
    const bool ack = isAck(frame[0]);
    std::vector<uint8_t> spoilt = ack ? spoiltAck(frame) : std::vector<uint8_t>(frame.begin(), frame.end());
    if (random_.chance(faults_.half_frames)) {
        spoilt.resize(spoilt.size() / 2);
    }
    std::vector<uint8_t> bytes;
    damage(spoilt, bytes);
    enqueue(std::move(bytes), ack ? now_us + faults_.ack_delay_ms * MS : now_us);
}

// Bytes after each other at the speed of the line. Whatever is written later, arrives later.
void Wire::enqueue(std::vector<uint8_t> bytes, uint64_t due_us) {
    if (bytes.empty()) {
        return;
    }
    due_us = std::max(due_us, chunks_.empty() ? 0 : chunks_.back().due_us);
    waiting_ += bytes.size();
    if (faults_.bits_per_second == 0) {
        chunks_.push_back({due_us, std::move(bytes)});
        return;
    }
    const uint64_t airtime_us = bytes.size() * BITS_PER_BYTE * SECOND_US / faults_.bits_per_second;
    free_at_us_ = std::max(free_at_us_, due_us) + airtime_us;
    chunks_.push_back({free_at_us_, std::move(bytes)});
}

std::vector<uint8_t> Wire::spoiltAck(std::span<const uint8_t> frame) {
    zbhal::serial::AshFrame spoilt;
    spoilt.ack = frame[0] & (zbhal::serial::ASH_SEQUENCE_MODULUS - 1);
    const bool nak = random_.chance(faults_.naks);
    spoilt.kind = nak ? zbhal::serial::AshKind::nak : zbhal::serial::AshKind::ack;
    spoilt.not_ready = random_.chance(faults_.not_ready);
    std::array<uint8_t, 16> room; // a control byte and its CRC, stuffed
    const size_t size = zbhal::serial::encodeAsh(spoilt, room);
    return {room.begin(), room.begin() + static_cast<std::ptrdiff_t>(size)};
}

void Wire::damage(std::span<const uint8_t> bytes, std::vector<uint8_t> &out) {
    for (const uint8_t byte : bytes) {
        if (random_.chance(faults_.lost)) {
            continue;
        }
        const bool flipped = random_.chance(faults_.flipped);
        out.push_back(flipped ? static_cast<uint8_t>(byte ^ 1U << random_.below(8)) : byte);
        if (random_.chance(faults_.inserted)) {
            out.push_back(random_.byte());
        }
        if (random_.chance(faults_.flow_bytes)) {
            out.push_back(random_.chance(0.5) ? XON : XOFF);
        }
    }
}

std::span<const uint8_t> Wire::receive(std::span<const uint8_t> bytes) {
    received_.clear();
    damage(bytes, received_);
    return received_;
}

std::span<const uint8_t> Wire::due(uint64_t now_us) const {
    if (chunks_.empty() || chunks_.front().due_us > now_us) {
        return {};
    }
    return std::span(chunks_.front().bytes).subspan(sent_);
}

void Wire::consumed(size_t bytes) {
    sent_ += bytes;
    waiting_ -= bytes;
    if (sent_ == chunks_.front().bytes.size()) {
        chunks_.pop_front();
        sent_ = 0;
    }
}

uint64_t Wire::nextDueUs() const {
    return chunks_.empty() ? UINT64_MAX : chunks_.front().due_us;
}

void Wire::clear() {
    chunks_.clear();
    sent_ = waiting_ = 0;
}

} // namespace corvane::coprocessor
