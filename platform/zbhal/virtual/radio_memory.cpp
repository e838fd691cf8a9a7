// SPDX-License-Identifier: Apache-2.0
#include "radio_memory.h"
#include "oru_log.h"
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sstream>
#include <unistd.h>

namespace corvane::mesh {

namespace {

constexpr char kTag[] = "zbhal";
constexpr char kMagic[] = "corvane-virtual-radio 1";
constexpr size_t kLongestFile = 1 << 20;

std::string hex(const uint8_t *bytes, size_t count) {
    static constexpr char digits[] = "0123456789abcdef";
    std::string text;
    for (size_t i = 0; i < count; ++i) {
        text += digits[bytes[i] >> 4];
        text += digits[bytes[i] & 0x0F];
    }
    return text;
}

template <typename Number>
bool readNumber(const std::string &text, Number &value, int base) {
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value, base);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

template <size_t Count>
bool readBytes(const std::string &text, std::array<uint8_t, Count> &bytes) {
    if (text.size() != Count * 2) {
        return false;
    }
    for (size_t i = 0; i < Count; ++i) {
        if (!readNumber(text.substr(i * 2, 2), bytes[i], 16)) {
            return false;
        }
    }
    return true;
}

uint64_t checksum(const std::string &text) { // FNV-1a
    uint64_t sum = 0xCBF29CE484222325;
    for (const char character : text) {
        sum = (sum ^ static_cast<uint8_t>(character)) * 0x100000001B3;
    }
    return sum;
}

bool readNetwork(std::istringstream &line, Network &network) {
    std::string pan_id;
    std::string channel;
    std::string extended_pan_id;
    std::string key;
    std::string mask;
    std::string power;
    line >> pan_id >> channel >> extended_pan_id >> key >> mask >> power;
    return readNumber(pan_id, network.pan_id, 16) && readNumber(channel, network.channel, 10) &&
           readBytes(extended_pan_id, network.extended_pan_id) && readBytes(key, network.key) &&
           readNumber(mask, network.channel_mask, 16) && readNumber(power, network.power_dbm, 10) &&
           network.channel >= 11 && network.channel <= 26;
}

bool readMember(std::istringstream &line, Member &member) {
    std::string eui64;
    std::string node_id;
    line >> eui64 >> node_id;
    return readBytes(eui64, member.eui64) && readNumber(node_id, member.node_id, 16) && member.node_id != 0 &&
           member.node_id < kFirstBroadcast;
}

bool usedTwice(const std::vector<Member> &members, const Member &candidate) {
    return std::any_of(members.begin(), members.end(), [&](const Member &member) {
        return member.node_id == candidate.node_id || member.eui64 == candidate.eui64;
    });
}

} // namespace

std::string formatMemory(const Memory &memory) {
    const Network &network = memory.network;
    std::string text = std::string(kMagic) + "\n";
    char line[160];
    (void)std::snprintf(line, sizeof line, "network %04x %u %s %s %08x %d\n", network.pan_id, network.channel,
                        hex(network.extended_pan_id.data(), 8).c_str(), hex(network.key.data(), 16).c_str(),
                        network.channel_mask, network.power_dbm);
    text += line;
    for (const Member &member : memory.members) {
        (void)std::snprintf(line, sizeof line, "device %s %04x\n", hex(member.eui64.data(), 8).c_str(), member.node_id);
        text += line;
    }
    (void)std::snprintf(line, sizeof line, "sum %016llx\n", static_cast<unsigned long long>(checksum(text)));
    return text + line;
}

std::optional<Memory> parseMemory(const std::string &text) {
    const size_t sum_at = text.rfind("sum ");
    if (sum_at == std::string::npos || sum_at == 0 || text[sum_at - 1] != '\n' || text.back() != '\n') {
        return std::nullopt;
    }
    uint64_t sum = 0;
    if (!readNumber(text.substr(sum_at + 4, text.size() - sum_at - 5), sum, 16) ||
        sum != checksum(text.substr(0, sum_at))) {
        return std::nullopt;
    }
    std::istringstream lines(text.substr(0, sum_at));
    std::string content;
    if (!std::getline(lines, content) || content != kMagic) {
        return std::nullopt;
    }
    Memory memory;
    bool has_network = false;
    while (std::getline(lines, content)) {
        std::istringstream line(content);
        std::string word;
        line >> word;
        Member member;
        if (word == "network" && !has_network && readNetwork(line, memory.network)) {
            has_network = true;
        } else if (word == "device" && readMember(line, member) && !usedTwice(memory.members, member)) {
            memory.members.push_back(member);
        } else {
            return std::nullopt;
        }
    }
    return has_network ? std::optional(memory) : std::nullopt;
}

std::optional<Memory> loadMemory(const std::string &path) {
    std::ifstream file(path, std::ios::binary);
    if (!file) {
        return std::nullopt; // nothing remembered yet
    }
    std::string text;
    char block[4096];
    while (text.size() < kLongestFile && (file.read(block, sizeof block), file.gcount() > 0)) {
        text.append(block, static_cast<size_t>(file.gcount()));
    }
    std::optional<Memory> memory = parseMemory(text);
    if (!memory) {
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, kTag,
                   "the memory of the virtual radio %s is damaged: starting without a network", path.c_str());
    }
    return memory;
}

bool saveMemory(const std::string &path, const std::optional<Memory> &memory) {
    if (!memory) {
        return unlink(path.c_str()) == 0 || errno == ENOENT;
    }
    const std::string text = formatMemory(*memory);
    const std::string scratch = path + ".new";
    const int descriptor = open(scratch.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (descriptor < 0) {
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, kTag, "cannot write the memory of the virtual radio %s: %s",
                   scratch.c_str(), std::strerror(errno));
        return false;
    }
    bool written = write(descriptor, text.data(), text.size()) == static_cast<ssize_t>(text.size());
    written = close(descriptor) == 0 && written;
    if (!written || std::rename(scratch.c_str(), path.c_str()) != 0) {
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, kTag, "cannot replace the memory of the virtual radio %s: %s",
                   path.c_str(), std::strerror(errno));
        unlink(scratch.c_str());
        return false;
    }
    return true;
}

} // namespace corvane::mesh
