// SPDX-License-Identifier: Apache-2.0
//
// The shared medium: what happens to one frame on one hop, and what the coordinator's radio counts on the way.
//
// A hop is up to four MAC attempts. Before each attempt the coordinator's radio asks the packet traffic arbiter, then
// every sender listens for a clear channel up to five times. A channel that never gets clear ends the hop at once; an
// attempt that is lost or denied is repeated.
#pragma once
#include "oru_zbhal_types.h"
#include "random.h"
#include "scenario.h"

namespace corvane::mesh {

class Air {
public:
    enum class Outcome : uint8_t { delivered, no_ack, channel_busy };
    struct Hop {
        Outcome outcome = Outcome::delivered;
        uint64_t delay_us = 0;
    };

    Air(const AirSpec &spec, Random &random) : spec_(spec), random_(random) {}

    const AirSpec &spec() const { return spec_; }
    void setSpec(const AirSpec &spec) { spec_ = spec; }

    // One hop. local: the coordinator's radio sends, so it asks the arbiter and counts. listening: the receiver is
    // there and acknowledges. link_quality: LQI of the hop; weak links lose more.
    Hop transmit(uint8_t link_quality, bool local, bool listening);
    // A broadcast transmission of the coordinator's radio: no acknowledgement, no repetition.
    Hop broadcast();
    // Delay of one hop without loss.
    uint64_t hopDelay();
    // Whether a link loses one attempt.
    bool loses(uint8_t link_quality) { return random_.chance(lossOf(link_quality)); }

    void countApsRetry() { count(counters_.aps_tx_ucast_retry); }
    void countApsFailure() { count(counters_.aps_tx_ucast_fail); }

    // The counters with the denial rate computed.
    oruZbHal_counters_t counters() const;
    void clearCounters() { counters_ = {}; }

private:
    static void count(uint16_t &counter) {
        counter = static_cast<uint16_t>(counter == UINT16_MAX ? counter : counter + 1);
    }
    double lossOf(uint8_t link_quality) const;
    bool granted(bool high_priority);
    bool channelClear(bool local);

    AirSpec spec_;
    Random &random_;
    oruZbHal_counters_t counters_ = {};
};

} // namespace corvane::mesh
