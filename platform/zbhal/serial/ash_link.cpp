// SPDX-License-Identifier: Apache-2.0
#include "ash_link.h"
#include <algorithm>

namespace corvane::zbhal::serial {

namespace {

constexpr uint64_t MS = 1000;
constexpr uint64_t RESET_WAIT_US = 5000 * MS;
constexpr uint8_t RESET_TRIES = 5;
constexpr uint64_t ACK_TIMEOUT_START_US = 800 * MS;
constexpr uint64_t ACK_TIMEOUT_MIN_US = 400 * MS;
constexpr uint64_t ACK_TIMEOUT_MAX_US = 2400 * MS;
constexpr uint8_t TIMEOUTS_IN_A_ROW = 6;
constexpr uint64_t READY_REPEAT_US = 480 * MS;
constexpr uint64_t PEER_BUSY_US = 1000 * MS; // two repetitions

constexpr size_t windowOf(AshLink::Role role) {
    return role == AshLink::Role::host ? 3 : 5; // legal: 1 to 7
}

constexpr uint8_t following(uint8_t number, size_t steps = 1) {
    return static_cast<uint8_t>((number + steps) % ASH_SEQUENCE_MODULUS);
}

constexpr uint8_t distance(uint8_t from, uint8_t to) {
    return static_cast<uint8_t>((to - from) & (ASH_SEQUENCE_MODULUS - 1));
}

} // namespace

AshLink::AshLink(Role role, AshSink &sink) : role_(role), sink_(sink) {}

// ---- life

void AshLink::clear() {
    first_ = count_ = sent_ = 0;
    oldest_ = expected_ = 0;
    asked_again_ = ack_due_ = false;
    ack_timeout_us_ = ACK_TIMEOUT_START_US;
    ack_deadline_us_ = measured_since_us_ = reset_deadline_us_ = ready_repeat_us_ = NEVER;
    timeouts_in_a_row_ = 0;
    ready_ = true;
    peer_busy_until_us_ = 0;
}

void AshLink::stop() {
    clear();
    reader_ = {};
    state_ = State::down;
}

void AshLink::connect(uint64_t now_us) {
    clear();
    state_ = State::resetting;
    resets_sent_ = 0;
    wrong_version_ = 0;
    sendReset(now_us);
}

void AshLink::sendReset(uint64_t now_us) {
    ++resets_sent_;
    reset_deadline_us_ = now_us + RESET_WAIT_US;
    const uint8_t cancel = ASH_CANCEL;
    sink_.write({&cancel, 1});
    writeControl(AshKind::reset);
}

void AshLink::announceReset(uint8_t reset_code) {
    clear();
    state_ = State::down;
    writeControl(AshKind::reset_ack, reset_code);
}

void AshLink::enterUp(uint8_t reset_code) {
    clear();
    state_ = State::up;
    if (role_ == Role::coprocessor) {
        writeControl(AshKind::reset_ack, reset_code);
    } else {
        ack_due_ = true; // the co-processor waits for it before it speaks
    }
    sink_.up(reset_code);
}

void AshLink::fail(AshFailure failure, uint8_t code) {
    clear();
    state_ = State::failed;
    if (role_ == Role::coprocessor) {
        writeControl(AshKind::error, code);
    }
    sink_.failed(failure, code);
}

// ---- from the line

void AshLink::feed(std::span<const uint8_t> bytes, uint64_t now_us) {
    in_feed_ = true;
    for (const uint8_t byte : bytes) {
        switch (reader_.put(byte)) {
        case AshReader::Result::incomplete:
            break;
        case AshReader::Result::frame:
            handle(reader_.frame(), now_us);
            break;
        case AshReader::Result::damaged_data:
            ++counters_.damaged;
            if (state_ == State::up) {
                askAgain();
            }
            break;
        case AshReader::Result::damaged:
            ++counters_.damaged;
            break;
        }
    }
    in_feed_ = false;
    flush(now_us);
}

void AshLink::handle(const AshFrame &frame, uint64_t now_us) {
    switch (frame.kind) {
    case AshKind::reset:
    case AshKind::reset_ack:
    case AshKind::error:
        return role_ == Role::host ? handleAsHost(frame) : handleAsCoprocessor(frame);
    case AshKind::data:
    case AshKind::ack:
    case AshKind::nak:
        if (state_ == State::up) {
            handleWhileUp(frame, now_us);
        }
        return;
    }
}

void AshLink::handleAsHost(const AshFrame &frame) {
    if (frame.kind == AshKind::reset || state_ == State::down || state_ == State::failed) {
        return;
    }
    if (frame.kind == AshKind::error) {
        // While resetting it is the old complaint of an end that has not seen our RST yet.
        if (state_ == State::up) {
            fail(AshFailure::error_frame, frame.code);
        }
    } else if (state_ == State::up) {
        fail(AshFailure::unexpected_reset, frame.code);
    } else if (frame.version != ASH_VERSION) {
        wrong_version_ = frame.version;
    } else if (frame.code == RESET_BY_SOFTWARE) { // any other reset was not ours
        enterUp(frame.code);
    }
}

void AshLink::handleAsCoprocessor(const AshFrame &frame) {
    if (frame.kind == AshKind::reset) {
        enterUp(RESET_BY_SOFTWARE);
    }
}

void AshLink::handleWhileUp(const AshFrame &frame, uint64_t now_us) {
    if (!acknowledge(frame.ack, now_us)) {
        ++counters_.out_of_sequence;
        return;
    }
    timeouts_in_a_row_ = 0; // a bad line, not a dead one; an end that only repeats itself is the caller's to notice
    if (frame.kind == AshKind::data) {
        return handleData(frame);
    }
    peer_busy_until_us_ = frame.not_ready ? now_us + PEER_BUSY_US : 0;
    if (frame.kind == AshKind::nak) {
        ++counters_.naks_received;
        resend(now_us);
    }
}

void AshLink::handleData(const AshFrame &frame) {
    if (frame.number == expected_) {
        expected_ = following(expected_);
        asked_again_ = false;
        ack_due_ = true;
        ++counters_.frames_received;
        sink_.received(frame.data);
    } else if (frame.again) {
        ack_due_ = true; // have it already: our acknowledgement was lost
    } else {
        ++counters_.out_of_sequence;
        askAgain();
    }
}

// Once until a frame arrives in sequence: the other end sends again all that is missing.
void AshLink::askAgain() {
    if (!asked_again_) {
        asked_again_ = true;
        writeControl(AshKind::nak);
    }
}

// ---- to the line

// False: acknowledges what was never sent.
bool AshLink::acknowledge(uint8_t ack, uint64_t now_us) {
    const uint8_t done = distance(oldest_, ack);
    if (done > sent_) {
        return false;
    }
    if (done == 0) {
        return true;
    }
    measure(done, now_us);
    first_ = (first_ + done) % QUEUE_FRAMES;
    count_ -= done;
    sent_ -= done;
    oldest_ = ack;
    ack_deadline_us_ = sent_ == 0 ? NEVER : now_us + ack_timeout_us_;
    return true;
}

// Smoothed round-trip time, from frames that were sent once only.
void AshLink::measure(uint8_t newly_acknowledged, uint64_t now_us) {
    if (measured_since_us_ != NEVER && distance(oldest_, measured_) < newly_acknowledged) {
        const uint64_t round_trip_us = now_us - std::min(now_us, measured_since_us_);
        ack_timeout_us_ =
            std::clamp((7 * ack_timeout_us_ + 2 * round_trip_us) / 8, ACK_TIMEOUT_MIN_US, ACK_TIMEOUT_MAX_US);
        measured_since_us_ = NEVER;
    }
}

bool AshLink::send(std::span<const uint8_t> payload, uint64_t now_us) {
    if (state_ != State::up || count_ == QUEUE_FRAMES || payload.size() < ASH_MIN_DATA ||
        payload.size() > ASH_MAX_DATA) {
        return false;
    }
    Slot &slot = slots_[(first_ + count_) % QUEUE_FRAMES];
    slot.size = static_cast<uint8_t>(payload.size());
    std::ranges::copy(payload, slot.bytes.begin());
    ++count_;
    flush(now_us);
    return true;
}

// New frames as far as the window goes; they carry the acknowledgement that is due, or an ACK does.
void AshLink::flush(uint64_t now_us) {
    if (in_feed_ || state_ != State::up) {
        return;
    }
    while (sent_ < std::min(count_, windowOf(role_))) {
        if (measured_since_us_ == NEVER) {
            measured_ = following(oldest_, sent_);
            measured_since_us_ = now_us;
        }
        writeData(sent_, false);
        ++sent_;
        ++counters_.frames_sent;
        ack_deadline_us_ = ack_deadline_us_ == NEVER ? now_us + ack_timeout_us_ : ack_deadline_us_;
    }
    if (ack_due_) {
        writeControl(AshKind::ack);
    }
}

void AshLink::resend(uint64_t now_us) {
    if (sent_ == 0) {
        return;
    }
    if (role_ == Role::host) {
        const uint8_t cancel = ASH_CANCEL;
        sink_.write({&cancel, 1});
    }
    for (size_t i = 0; i < sent_; ++i) {
        writeData(i, true);
        ++counters_.sent_again;
    }
    measured_since_us_ = NEVER;
    ack_deadline_us_ = now_us + ack_timeout_us_;
}

void AshLink::writeData(size_t index, bool again) {
    AshFrame frame;
    frame.kind = AshKind::data;
    frame.number = following(oldest_, index);
    frame.ack = expected_;
    frame.again = again;
    frame.data = {slot(index).bytes.data(), slot(index).size};
    std::array<uint8_t, ASH_MAX_ENCODED> bytes;
    ack_due_ = false;
    sink_.write({bytes.data(), encodeAsh(frame, bytes)});
}

void AshLink::writeControl(AshKind kind, uint8_t code) {
    AshFrame frame;
    frame.kind = kind;
    frame.ack = expected_;
    frame.not_ready = !ready_;
    frame.code = code;
    std::array<uint8_t, 16> bytes; // control, two bytes, CRC, all stuffed, and the flag
    if (kind == AshKind::ack || kind == AshKind::nak) {
        ack_due_ = false;
    }
    sink_.write({bytes.data(), encodeAsh(frame, bytes)});
}

// ---- time

uint64_t AshLink::nextDeadlineUs() const {
    return std::min({reset_deadline_us_, ack_deadline_us_, ready_repeat_us_});
}

void AshLink::tick(uint64_t now_us) {
    if (now_us >= reset_deadline_us_) {
        if (resets_sent_ < RESET_TRIES) {
            sendReset(now_us);
        } else {
            fail(wrong_version_ != 0 ? AshFailure::wrong_version : AshFailure::no_answer, wrong_version_);
        }
    }
    if (now_us >= ack_deadline_us_) {
        onAckTimeout(now_us);
    }
    if (now_us >= ready_repeat_us_) {
        ready_repeat_us_ = now_us + READY_REPEAT_US;
        writeControl(AshKind::ack);
    }
}

void AshLink::onAckTimeout(uint64_t now_us) {
    ++counters_.timeouts;
    if (++timeouts_in_a_row_ >= TIMEOUTS_IN_A_ROW) {
        fail(AshFailure::no_acknowledge, TOO_MANY_TIMEOUTS);
        return;
    }
    ack_timeout_us_ = std::min(2 * ack_timeout_us_, ACK_TIMEOUT_MAX_US);
    resend(now_us);
}

void AshLink::setReady(bool ready, uint64_t now_us) {
    if (ready == ready_ || state_ != State::up) {
        return;
    }
    ready_ = ready;
    ready_repeat_us_ = ready ? NEVER : now_us + READY_REPEAT_US;
    writeControl(AshKind::ack);
}

} // namespace corvane::zbhal::serial
