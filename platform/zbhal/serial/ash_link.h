// SPDX-License-Identifier: Apache-2.0
//
// The ASH link: a reliable, ordered stream of payloads over a line that loses and damages bytes. Both ends, told apart
// by their role. Pure: the clock is an argument, the line a sink; so a test runs two ends against each other over any
// line it likes, in virtual time.
//
//   down -------> resetting      connect()                                        host
//   resetting --> up             RSTACK, version 2, reset by software             host
//   resetting --> resetting      no such RSTACK for 5 s: RST again                host
//   resetting --> failed         five times                                       host
//   down, up, failed --> up      RST: answered with RSTACK                        co-processor
//   up ---------> failed         too many acknowledgement time-outs; host: RSTACK or ERROR out of turn
//   any --------> down           stop()
//
// Invariants: in every state but up nothing waits to be sent or acknowledged; the unacknowledged frames are the first
// sent_ of the queue, numbered from oldest_ on, and never more than the window; the acknowledgement timer runs exactly
// while sent_ is not 0.
//
// One thread. The sink is called from within connect, feed, tick and send, and may call send and setReady.
#pragma once
#include "ash_frame.h"

namespace corvane::zbhal::serial {

// Why a link that was up, or was to come up, is not.
enum class AshFailure : uint8_t {
    no_answer,        // nobody answered RST
    wrong_version,    // somebody did, with another version of the framing; code: that version
    unexpected_reset, // RSTACK out of turn; code: the reason that it gives
    error_frame,      // ERROR; code: the reason that it gives
    no_acknowledge,   // too many time-outs in a row
};

// What a link writes and reports.
class AshSink {
public:
    virtual ~AshSink() = default;
    virtual void write(std::span<const uint8_t> bytes) = 0;
    virtual void received(std::span<const uint8_t> payload) = 0; // valid during the call
    virtual void up(uint8_t reset_code) = 0; // co-processor: after an RST, before anything else is sent
    virtual void failed(AshFailure failure, uint8_t code) = 0;
};

struct AshCounters {
    uint32_t frames_sent = 0;     // DATA, first time
    uint32_t frames_received = 0; // DATA, in sequence
    uint32_t sent_again = 0;
    uint32_t damaged = 0;
    uint32_t out_of_sequence = 0;
    uint32_t timeouts = 0;
    uint32_t naks_received = 0;
};

class AshLink { // NOLINT(clang-analyzer-optin.performance.Padding): members stand by what they belong to
public:
    enum class Role : uint8_t { host, coprocessor };
    enum class State : uint8_t { down, resetting, up, failed };

    static constexpr uint64_t NEVER = UINT64_MAX;
    static constexpr uint8_t RESET_BY_SOFTWARE = 0x0B;
    static constexpr uint8_t TOO_MANY_TIMEOUTS = 0x51;
    static constexpr size_t QUEUE_FRAMES = 16; // sent or to be sent

    AshLink(Role role, AshSink &sink);

    // Host: resets the other end and waits for it. Whatever was queued is forgotten.
    void connect(uint64_t now_us);
    // Co-processor that has restarted by itself: tells the host so and waits for its RST.
    void announceReset(uint8_t reset_code);
    void stop(); // forgets everything; writes nothing

    void feed(std::span<const uint8_t> bytes, uint64_t now_us); // from the line
    void tick(uint64_t now_us);                                 // does what is due
    uint64_t nextDeadlineUs() const;                            // NEVER: nothing is due

    // 3 to 220 bytes; copied. False: not up, no room or no such length.
    [[nodiscard]] bool send(std::span<const uint8_t> payload, uint64_t now_us);
    size_t room() const { return QUEUE_FRAMES - count_; }
    size_t unacknowledged() const { return sent_; }

    // Host: whether the other end may go on sending callbacks.
    void setReady(bool ready, uint64_t now_us);
    // Co-processor: false while the host has no room. Believed for PEER_BUSY_US, it repeats itself.
    bool peerReady(uint64_t now_us) const { return now_us >= peer_busy_until_us_; }

    State state() const { return state_; }
    const AshCounters &counters() const { return counters_; }

private:
    struct Slot {
        uint8_t size = 0;
        std::array<uint8_t, ASH_MAX_DATA> bytes{};
    };

    void handle(const AshFrame &frame, uint64_t now_us);
    void handleAsHost(const AshFrame &frame);
    void handleAsCoprocessor(const AshFrame &frame);
    void handleWhileUp(const AshFrame &frame, uint64_t now_us);
    void handleData(const AshFrame &frame);
    bool acknowledge(uint8_t ack, uint64_t now_us);
    void measure(uint8_t newly_acknowledged, uint64_t now_us);
    void sendReset(uint64_t now_us);
    void enterUp(uint8_t reset_code);
    void fail(AshFailure failure, uint8_t code);
    void clear();
    void flush(uint64_t now_us);
    void resend(uint64_t now_us);
    void askAgain();
    void onAckTimeout(uint64_t now_us);
    void writeData(size_t index, bool again);
    void writeControl(AshKind kind, uint8_t code = 0);
    const Slot &slot(size_t index) const { return slots_[(first_ + index) % QUEUE_FRAMES]; }

    const Role role_;
    AshSink &sink_;
    State state_ = State::down;
    AshReader reader_;
    AshCounters counters_;

    std::array<Slot, QUEUE_FRAMES> slots_{};
    size_t first_ = 0;
    size_t count_ = 0;
    size_t sent_ = 0;
    uint8_t oldest_ = 0;   // number of the first slot
    uint8_t expected_ = 0; // number of the next frame to be received
    bool asked_again_ = false;
    bool ack_due_ = false;
    bool in_feed_ = false;

    uint64_t ack_timeout_us_ = 0;
    uint64_t ack_deadline_us_ = NEVER;
    uint8_t timeouts_in_a_row_ = 0;
    uint64_t measured_since_us_ = NEVER; // when the frame measured_ was sent, once
    uint8_t measured_ = 0;

    uint64_t reset_deadline_us_ = NEVER;
    uint8_t resets_sent_ = 0;
    uint8_t wrong_version_ = 0; // seen in an answer to RST; 0 none

    bool ready_ = true;
    uint64_t ready_repeat_us_ = NEVER;
    uint64_t peer_busy_until_us_ = 0;
};

} // namespace corvane::zbhal::serial
