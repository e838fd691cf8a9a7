// SPDX-License-Identifier: Apache-2.0
//
// The one source of chance of the mesh: xoshiro256** seeded through splitmix64. The same seed and the same sequence of
// calls give the same run.
#pragma once
#include <bit>
#include <cstdint>

namespace corvane::mesh {

constexpr uint64_t splitmix64(uint64_t &state) {
    uint64_t z = state += 0x9E3779B97F4A7C15;
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EB;
    return z ^ (z >> 31);
}

class Random {
public:
    explicit Random(uint64_t seed) {
        for (uint64_t &word : state_) {
            word = splitmix64(seed);
        }
    }

    uint64_t next() {
        const uint64_t result = std::rotl(state_[1] * 5, 7) * 9;
        const uint64_t t = state_[1] << 17;
        state_[2] ^= state_[0];
        state_[3] ^= state_[1];
        state_[1] ^= state_[2];
        state_[0] ^= state_[3];
        state_[2] ^= t;
        state_[3] = std::rotl(state_[3], 45);
        return result;
    }
    // 0 to bound - 1; 0 for bound 0. The bias is far below what a simulation could notice.
    uint64_t below(uint64_t bound) { return bound == 0 ? 0 : next() % bound; }
    bool chance(double probability) { return static_cast<double>(next() >> 11) * 0x1.0p-53 < probability; }
    uint8_t byte() { return static_cast<uint8_t>(next() >> 56); }

private:
    uint64_t state_[4] = {};
};

} // namespace corvane::mesh
