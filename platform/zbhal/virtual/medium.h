// SPDX-License-Identifier: Apache-2.0
//
// The shared medium: radios that hear each other send one after the other. A neighbourhood is the coordinator or a
// router with everybody who hears it; a transmission keeps every neighbourhood that hears it busy for its airtime.
//
// Journeys are worked out hop by hop ahead of time, so a neighbourhood keeps the spans in which it will be busy, and a
// sender takes the first gap that is long enough in all that hear it, with a random backoff after each busy span.
#pragma once
#include "random.h"
#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

namespace corvane::mesh {

class Medium {
public:
    using Hearing = std::array<size_t, 3>; // neighbourhoods; the same one twice counts once

    explicit Medium(size_t neighbourhoods) : busy_(neighbourhoods) {}

    // Takes the first gap from at_us on and returns when it begins; empty when the medium stays busy for
    // kLongestWaitUs. Spans that are over at now_us are forgotten; at_us is not before it.
    std::optional<uint64_t> take(const Hearing &hearing, uint64_t now_us, uint64_t at_us, uint64_t airtime_us,
                                 Random &random);

    static constexpr uint64_t kLongestWaitUs = 500000;

private:
    struct Span {
        uint64_t from_us;
        uint64_t until_us;
    };
    // End of a span that meets the one given, 0 when there is none.
    uint64_t meets(const Hearing &hearing, const Span &span) const;

    std::vector<std::vector<Span>> busy_; // by neighbourhood, then by time; spans of one do not meet
};

} // namespace corvane::mesh
