// SPDX-License-Identifier: Apache-2.0
#include "medium.h"
#include <algorithm>

namespace corvane::mesh {

namespace {

constexpr uint64_t kBackoffUs = 320;  // unit backoff period of CSMA-CA
constexpr uint64_t kBackoffSlots = 8; // 2^macMinBE

} // namespace

uint64_t Medium::meets(const Hearing &hearing, const Span &span) const {
    for (const size_t neighbourhood : hearing) {
        const std::vector<Span> &spans = busy_[neighbourhood];
        const auto next = std::ranges::upper_bound(spans, span.from_us, {}, &Span::until_us);
        if (next != spans.end() && next->from_us < span.until_us) {
            return next->until_us;
        }
    }
    return 0;
}

std::optional<uint64_t> Medium::take(const Hearing &hearing, uint64_t now_us, uint64_t at_us, uint64_t airtime_us,
                                     Random &random) {
    uint64_t start_us = at_us;
    while (const uint64_t busy_until_us = meets(hearing, {start_us, start_us + airtime_us})) {
        start_us = busy_until_us + kBackoffUs * random.below(kBackoffSlots);
        if (start_us > at_us + kLongestWaitUs) {
            return std::nullopt;
        }
    }
    for (size_t i = 0; i < hearing.size(); ++i) {
        if (std::find(hearing.begin(), hearing.begin() + i, hearing[i]) != hearing.begin() + i) {
            continue;
        }
        std::vector<Span> &spans = busy_[hearing[i]];
        spans.erase(spans.begin(), std::ranges::upper_bound(spans, now_us, {}, &Span::until_us));
        spans.insert(std::ranges::upper_bound(spans, start_us, {}, &Span::from_us), {start_us, start_us + airtime_us});
    }
    return start_us;
}

} // namespace corvane::mesh
