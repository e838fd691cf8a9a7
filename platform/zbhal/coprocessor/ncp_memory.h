// SPDX-License-Identifier: Apache-2.0
//
// What the simulated co-processor keeps without power: its network, keys and frame counter. A JSON file, readable by
// its owner only, replaced as a whole.
#pragma once
#include "../serial/ezsp.h"
#include "base/eui64.h"
#include <optional>
#include <string>
#include <vector>

namespace corvane::coprocessor {

struct LinkKeyEntry {
    base::Eui64 eui64{};
    zbhal::serial::EzspKey key{};
};

struct NcpNetwork {
    zbhal::serial::EzspNetwork parameters;
    zbhal::serial::EzspKey network_key{};
    uint8_t key_sequence = 0;
    uint16_t security_bitmask = 0;
    zbhal::serial::EzspKey link_key{}; // the trust centre's
};

struct NcpMemory {
    std::optional<NcpNetwork> network;
    uint32_t frame_counter = 0; // never used before, nor anything above it
    std::vector<LinkKeyEntry> link_keys;
};

std::string formatNcpMemory(const NcpMemory &memory);
std::optional<NcpMemory> parseNcpMemory(const std::string &text); // empty: damaged

// An absent file is an empty memory. Empty with a sentence in problem: there is one, and it cannot be used.
std::optional<NcpMemory> loadNcpMemory(const std::string &path, std::string &problem);
// Written to the disk. False with errno.
bool saveNcpMemory(const std::string &path, const NcpMemory &memory);

} // namespace corvane::coprocessor
