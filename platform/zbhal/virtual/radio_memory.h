// SPDX-License-Identifier: Apache-2.0
//
// What the virtual radio keeps over a restart of the daemon, as a real one keeps it in its non-volatile memory: its
// network and the devices in it. A small text file, replaced as a whole by rename, readable by its owner only because
// it holds the network key. The last line carries a checksum; a file that does not check is left alone until the next
// write and the radio starts without a network. Every coordinator has a file of its own, so that scenarios of different
// radios can share a state folder; devices that a scenario does not know stay in the file.
#pragma once
#include "mesh.h"
#include "zigbee/install_code.h"
#include <optional>
#include <string>
#include <string_view>

namespace corvane::mesh {

struct Network {
    uint16_t pan_id = 0;
    uint8_t channel = 11;
    Eui64 extended_pan_id{};
    Key key{};
    uint32_t channel_mask = 0;
    int8_t power_dbm = 0;
};

struct Memory {
    Network network;
    std::vector<Member> members;
};

// The file of the radio with this EUI-64. The one file of earlier versions becomes that of the first radio that asks.
std::string memoryPath(const std::string &state_directory, const Eui64 &eui64);

std::string formatMemory(const Memory &memory);
std::optional<Memory> parseMemory(std::string_view text); // empty: damaged

// Reads the file. Empty when there is none or it is damaged; damage is logged.
std::optional<Memory> loadMemory(const std::string &path);
// Writes the file to the disk, or removes it when there is nothing to remember. Failures are logged.
bool saveMemory(const std::string &path, const std::optional<Memory> &memory);

} // namespace corvane::mesh
