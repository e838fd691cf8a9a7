// SPDX-License-Identifier: Apache-2.0
//
// The line between the simulated co-processor and its host, as bad as one likes: it loses, flips and inserts bytes in
// both directions, cuts frames in half, is slow, and spoils the co-processor's acknowledgements. Pure: the clock is an
// argument; what is to go out is fetched by the owner.
//
// Bytes towards the host wait in a queue until they are due. One thread.
#pragma once
#include "../virtual/random.h"
#include <cstdint>
#include <deque>
#include <span>
#include <vector>

namespace corvane::coprocessor {

// All off by default. Probabilities are 0.0 to 1.0.
struct WireFaults {
    double lost = 0;              // of each byte, both ways
    double flipped = 0;           // one bit of it
    double inserted = 0;          // a byte of chance behind it
    double flow_bytes = 0;        // XON or XOFF behind it
    double half_frames = 0;       // of each frame to the host: its second half is lost
    double naks = 0;              // of each acknowledgement: NAK instead
    double not_ready = 0;         // of each acknowledgement: "not ready"
    uint32_t ack_delay_ms = 0;    // of each acknowledgement
    uint32_t bits_per_second = 0; // 10 bits a byte; 0: no limit
    int32_t refuse_config = -1;   // this configuration value is refused
    int32_t refuse_command = -1;  // this command is answered like an unknown one
};

// A visitor is called with (key, number &, minimum, maximum).
template <class Visitor>
void visitWire(WireFaults &faults, Visitor &&visit) {
    visit("lost", faults.lost, 0.0, 1.0);
    visit("flipped", faults.flipped, 0.0, 1.0);
    visit("inserted", faults.inserted, 0.0, 1.0);
    visit("flow_bytes", faults.flow_bytes, 0.0, 1.0);
    visit("half_frames", faults.half_frames, 0.0, 1.0);
    visit("naks", faults.naks, 0.0, 1.0);
    visit("not_ready", faults.not_ready, 0.0, 1.0);
    visit("ack_delay_ms", faults.ack_delay_ms, 0, 60000);
    visit("bits_per_second", faults.bits_per_second, 0, 10'000'000);
    visit("refuse_config", faults.refuse_config, -1, 0xFF);
    visit("refuse_command", faults.refuse_command, -1, 0xFFFF);
}

class Wire {
public:
    explicit Wire(uint64_t seed) : random_(seed) {}

    void setFaults(const WireFaults &faults) { faults_ = faults; }
    const WireFaults &faults() const { return faults_; }

    // One frame of the co-processor, as its link writes it.
    void write(std::span<const uint8_t> frame, uint64_t now_us);
    // Bytes of the host: what of them arrives. Valid until the next call.
    std::span<const uint8_t> receive(std::span<const uint8_t> bytes);

    // What is due for the host, as far as it lies in one piece; consumed() takes it away. Empty: nothing.
    std::span<const uint8_t> due(uint64_t now_us) const;
    void consumed(size_t bytes);
    uint64_t nextDueUs() const; // UINT64_MAX: nothing waits
    size_t waiting() const { return waiting_; }
    void clear(); // the host has gone

private:
    struct Chunk {
        uint64_t due_us = 0;
        std::vector<uint8_t> bytes;
    };

    void damage(std::span<const uint8_t> bytes, std::vector<uint8_t> &out);
    std::vector<uint8_t> spoiltAck(std::span<const uint8_t> frame);
    void enqueue(std::vector<uint8_t> bytes, uint64_t due_us);

    WireFaults faults_;
    mesh::Random random_;
    std::deque<Chunk> chunks_; // in the order of their due times
    size_t sent_ = 0;          // of the first chunk
    size_t waiting_ = 0;       // bytes in all of them
    uint64_t free_at_us_ = 0;  // the line, at its speed
    std::vector<uint8_t> received_;
};

} // namespace corvane::coprocessor
