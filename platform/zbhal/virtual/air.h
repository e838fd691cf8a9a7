// SPDX-License-Identifier: Apache-2.0
//
// What happens to one frame on one hop, and what the coordinator's radio counts on the way.
//
// A hop is up to four MAC attempts. Before each attempt the coordinator's radio asks the packet traffic arbiter, then
// every sender listens for a clear channel up to five times, and with a shared medium waits for its turn. A channel
// that never gets clear ends the hop at once; an attempt that is lost or denied is repeated.
#pragma once
#include "medium.h"
#include "oru_zbhal_types.h"
#include "random.h"
#include "scenario.h"
#include "timeline.h"

namespace corvane::mesh {

class Air {
public:
    enum class Outcome : uint8_t { delivered, no_ack, channel_busy };
    struct Hop {
        Outcome outcome = Outcome::delivered;
        uint64_t delay_us = 0;
    };
    struct Frame {                 // to be sent over one hop
        uint64_t at_us = 0;        // not before now
        size_t payload = 0;        // of the APS layer, bytes
        Medium::Hearing hearing{}; // who shares the medium with sender and receiver
        uint8_t link_quality = 0;  // LQI of the hop; weak links lose more
        bool local = false;        // the coordinator's radio sends, so it asks the arbiter and counts
        bool listening = true;     // the receiver is there and acknowledges
    };

    // neighbourhoods: of the medium; number 0 is the coordinator's.
    Air(const AirSpec &spec, size_t neighbourhoods, Timeline &timeline, Random &random)
        : spec_(spec), medium_(neighbourhoods), timeline_(timeline), random_(random) {}

    const AirSpec &spec() const { return spec_; }
    void setSpec(const AirSpec &spec) { spec_ = spec; }

    Hop transmit(const Frame &frame);
    // A broadcast transmission of the coordinator's radio: no acknowledgement, no repetition.
    Hop broadcast(size_t payload);
    // A router repeats a broadcast: nobody counts it, but the medium is busy.
    void relay(const Medium::Hearing &hearing, uint64_t at_us, size_t payload);
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
    bool takeTurn(const Medium::Hearing &hearing, uint64_t at_us, uint64_t airtime_us, bool local, Hop &hop);

    AirSpec spec_;
    Medium medium_;
    Timeline &timeline_;
    Random &random_;
    oruZbHal_counters_t counters_ = {};
};

} // namespace corvane::mesh
