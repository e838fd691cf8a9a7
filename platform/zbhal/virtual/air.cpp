// SPDX-License-Identifier: Apache-2.0
#include "air.h"

namespace corvane::mesh {

namespace {

constexpr int kMacAttempts = 4;          // first transmission and macMaxFrameRetries (3)
constexpr int kCcaAttempts = 5;          // macMaxCSMABackoffs (4) and the first try
constexpr uint64_t kMacRetryUs = 2500;   // backoff, frame and the wait for the acknowledgement
constexpr uint64_t kCcaBackoffUs = 1100; // mean backoff of CSMA-CA
constexpr uint8_t kGoodLink = 60;        // below this LQI a link loses frames of its own

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

Air::Hop Air::transmit(uint8_t link_quality, bool local, bool listening) {
    Hop hop{Outcome::no_ack, hopDelay()};
    bool ever_granted = !local;
    for (int attempt = 0; attempt < kMacAttempts; ++attempt) {
        if (attempt > 0) {
            hop.delay_us += kMacRetryUs;
            if (local) {
                count(counters_.mac_tx_ucast_retry);
            }
        }
        if (local && !granted(attempt > 0)) { // repetitions ask with high priority
            continue;
        }
        ever_granted = true;
        if (!channelClear(local)) {
            hop.delay_us += kCcaAttempts * kCcaBackoffUs;
            hop.outcome = Outcome::channel_busy;
            break;
        }
        if (listening && !loses(link_quality)) {
            hop.outcome = Outcome::delivered;
            return hop;
        }
    }
    if (!ever_granted) {
        hop.outcome = Outcome::channel_busy;
    }
    if (local) {
        count(counters_.mac_tx_ucast_fail);
    }
    return hop;
}

Air::Hop Air::broadcast() {
    const bool on_air = granted(false) && channelClear(true);
    return {on_air ? Outcome::delivered : Outcome::channel_busy, hopDelay()};
}

oruZbHal_counters_t Air::counters() const {
    oruZbHal_counters_t result = counters_;
    const uint32_t asked = uint32_t{result.pta_lo_pri_req} + result.pta_hi_pri_req;
    const uint32_t denied = uint32_t{result.pta_lo_pri_denied} + result.pta_hi_pri_denied;
    result.pta_denied_rate = static_cast<uint16_t>(asked == 0 ? 0 : denied * 100 / asked);
    return result;
}

} // namespace corvane::mesh
