// SPDX-License-Identifier: Apache-2.0
#include "air.h"
#include <algorithm>

namespace corvane::mesh {

namespace {

constexpr int kMacAttempts = 4;          // first transmission and macMaxFrameRetries (3)
constexpr int kCcaAttempts = 5;          // macMaxCSMABackoffs (4) and the first try
constexpr uint64_t kMacRetryUs = 2500;   // backoff, frame and the wait for the acknowledgement
constexpr uint64_t kCcaBackoffUs = 1100; // mean backoff of CSMA-CA
constexpr uint8_t kGoodLink = 60;        // below this LQI a link loses frames of its own

// A frame on the air at 250 kbit/s.
constexpr uint64_t kByteUs = 32;
constexpr size_t kHeaders = 51;        // bytes of the PHY, MAC, network, security and APS around a payload
constexpr size_t kLongestPayload = 82; // bytes; what is longer goes in several frames
constexpr uint64_t kGapUs = 640;       // long interframe space
constexpr uint64_t kAckUs = 192 + 352; // turnaround and acknowledgement

uint64_t airtime(size_t payload, bool acknowledged) {
    const size_t frames = std::max<size_t>(1, (payload + kLongestPayload - 1) / kLongestPayload);
    return (payload + frames * kHeaders) * kByteUs + frames * (kGapUs + (acknowledged ? kAckUs : 0));
}

} // namespace

double Air::lossOf(uint8_t link_quality) const {
    const double weak = link_quality >= kGoodLink ? 0.0 : static_cast<double>(kGoodLink - link_quality) / 120.0;
    return spec_.loss + (1.0 - spec_.loss) * weak;
}

bool Air::granted(bool high_priority) {
    count(high_priority ? counters_.pta_hi_pri_req : counters_.pta_lo_pri_req);
    if (!random_.chance(spec_.pta_denial)) {
        return true;
    }
    count(high_priority ? counters_.pta_hi_pri_denied : counters_.pta_lo_pri_denied);
    return false;
}

bool Air::channelClear(bool local) {
    for (int attempt = 0; attempt < kCcaAttempts; ++attempt) {
        if (!random_.chance(spec_.interference)) {
            return true;
        }
        if (local && attempt + 1 < kCcaAttempts) {
            count(counters_.cca_retries);
        }
    }
    if (local) {
        count(counters_.cca_failures);
    }
    return false;
}

uint64_t Air::hopDelay() {
    return uint64_t{spec_.delay_ms} * 1000 + random_.below(uint64_t{spec_.jitter_ms} * 1000 + 1);
}

// Waits for the medium and keeps it busy; what that takes is added to the hop. False: no turn.
bool Air::takeTurn(const Medium::Hearing &hearing, uint64_t at_us, uint64_t airtime_us, bool local, Hop &hop) {
    if (!spec_.shared_medium) {
        return true;
    }
    const auto start_us = medium_.take(hearing, timeline_.now(), at_us + hop.delay_us, airtime_us, random_);
    if (!start_us) {
        hop.delay_us += Medium::kLongestWaitUs;
        if (local) {
            count(counters_.cca_failures);
        }
        return false;
    }
    hop.delay_us = *start_us - at_us;
    return true;
}

Air::Hop Air::transmit(const Frame &frame) {
    const uint64_t latency_us = hopDelay();
    const uint64_t airtime_us = spec_.shared_medium ? airtime(frame.payload, true) : 0;
    Hop hop{Outcome::no_ack, 0};
    bool ever_granted = !frame.local;
    for (int attempt = 0; attempt < kMacAttempts; ++attempt) {
        if (attempt > 0) {
            hop.delay_us += std::max(kMacRetryUs, airtime_us);
            if (frame.local) {
                count(counters_.mac_tx_ucast_retry);
            }
        }
        if (frame.local && !granted(attempt > 0)) { // repetitions ask with high priority
            continue;
        }
        ever_granted = true;
        if (!channelClear(frame.local)) {
            hop.delay_us += kCcaAttempts * kCcaBackoffUs;
            hop.outcome = Outcome::channel_busy;
            break;
        }
        if (!takeTurn(frame.hearing, frame.at_us, airtime_us, frame.local, hop)) {
            hop.outcome = Outcome::channel_busy;
            break;
        }
        if (frame.listening && !loses(frame.link_quality)) {
            hop.outcome = Outcome::delivered;
            break;
        }
    }
    hop.delay_us += std::max(latency_us, airtime_us);
    if (hop.outcome == Outcome::delivered) {
        return hop;
    }
    if (!ever_granted) {
        hop.outcome = Outcome::channel_busy;
    }
    if (frame.local) {
        count(counters_.mac_tx_ucast_fail);
    }
    return hop;
}

Air::Hop Air::broadcast(size_t payload) {
    const uint64_t airtime_us = spec_.shared_medium ? airtime(payload, false) : 0;
    Hop hop;
    const bool on_air = granted(false) && channelClear(true) && takeTurn({}, timeline_.now(), airtime_us, true, hop);
    hop.outcome = on_air ? Outcome::delivered : Outcome::channel_busy;
    hop.delay_us += std::max(hopDelay(), airtime_us);
    return hop;
}

void Air::relay(const Medium::Hearing &hearing, uint64_t at_us, size_t payload) {
    Hop hop;
    (void)takeTurn(hearing, at_us, airtime(payload, false), false, hop);
}

oruZbHal_counters_t Air::counters() const {
    oruZbHal_counters_t result = counters_;
    const uint32_t asked = uint32_t{result.pta_lo_pri_req} + result.pta_hi_pri_req;
    const uint32_t denied = uint32_t{result.pta_lo_pri_denied} + result.pta_hi_pri_denied;
    result.pta_denied_rate = static_cast<uint16_t>(asked == 0 ? 0 : denied * 100 / asked);
    return result;
}

} // namespace corvane::mesh
