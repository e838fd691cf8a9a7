// SPDX-License-Identifier: Apache-2.0
#include "radio_memory.h"
#include "base/descriptor.h"
#include "oru_log.h"
#include <algorithm>
#include <cerrno>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <unistd.h>

namespace corvane::mesh {

namespace {

using base::Descriptor;

constexpr char kTag[] = "zbhal";
constexpr char kMagic[] = "corvane-virtual-radio 1";
constexpr std::string_view kReturning = "returning";
constexpr size_t kLongestFile = 1 << 20;

void logFault(const char *what, const std::string &path) {
    oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, kTag, "%s the memory of the virtual radio %s: %s", what, path.c_str(),
               std::strerror(errno));
}

bool syncFolder(const std::string &folder) {
    const Descriptor descriptor(open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return descriptor && fsync(descriptor.get()) == 0;
}

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
bool readNumber(std::string_view text, Number &value, int base) {
    const auto result = std::from_chars(text.data(), text.data() + text.size(), value, base);
    return result.ec == std::errc() && result.ptr == text.data() + text.size();
}

template <size_t Count>
bool readBytes(std::string_view text, std::array<uint8_t, Count> &bytes) {
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

// Takes the text up to the separator, or all of it.
std::string_view take(std::string_view &text, char separator) {
    const size_t end = std::min(text.find(separator), text.size());
    const std::string_view taken = text.substr(0, end);
    text.remove_prefix(std::min(end + 1, text.size()));
    return taken;
}

uint64_t checksum(std::string_view text) { // FNV-1a
    uint64_t sum = 0xCBF29CE484222325;
    for (const char character : text) {
        sum = (sum ^ static_cast<uint8_t>(character)) * 0x100000001B3;
    }
    return sum;
}

bool readNetwork(std::string_view line, Network &network) {
    return readNumber(take(line, ' '), network.pan_id, 16) && readNumber(take(line, ' '), network.channel, 10) &&
           readBytes(take(line, ' '), network.extended_pan_id) && readBytes(take(line, ' '), network.key) &&
           readNumber(take(line, ' '), network.channel_mask, 16) &&
           readNumber(take(line, ' '), network.power_dbm, 10) && network.channel >= 11 && network.channel <= 26;
}

bool readMember(std::string_view line, Member &member) {
    const bool read = readBytes(take(line, ' '), member.eui64) && readNumber(take(line, ' '), member.node_id, 16) &&
                      member.node_id != 0 && member.node_id < kFirstBroadcast;
    member.returning = line == kReturning;
    return read && (line.empty() || member.returning);
}

bool usedTwice(const std::vector<Member> &members, const Member &candidate) {
    return std::any_of(members.begin(), members.end(), [&](const Member &member) {
        return member.node_id == candidate.node_id || member.eui64 == candidate.eui64;
    });
}

} // namespace

std::string memoryPath(const std::string &state_directory, const Eui64 &eui64) {
    const std::string path = state_directory + "/virtual-radio-" + hex(eui64.data(), 8) + ".state";
    const std::string earlier = state_directory + "/virtual-radio.state";
    if (access(path.c_str(), F_OK) != 0 && errno == ENOENT && access(earlier.c_str(), F_OK) == 0 &&
        std::rename(earlier.c_str(), path.c_str()) != 0) {
        logFault("cannot rename", earlier);
    }
    return path;
}

std::string formatMemory(const Memory &memory) {
    const Network &network = memory.network;
    std::string text = std::string(kMagic) + "\n";
    char line[160];
    (void)std::snprintf(line, sizeof line, "network %04x %u %s %s %08x %d\n", network.pan_id, network.channel,
                        hex(network.extended_pan_id.data(), 8).c_str(), hex(network.key.data(), 16).c_str(),
                        network.channel_mask, network.power_dbm);
    text += line;
    for (const Member &member : memory.members) {
        (void)std::snprintf(line, sizeof line, "device %s %04x%s\n", hex(member.eui64.data(), 8).c_str(),
                            member.node_id, member.returning ? " returning" : "");
        text += line;
    }
    (void)std::snprintf(line, sizeof line, "sum %016llx\n", static_cast<unsigned long long>(checksum(text)));
    return text + line;
}

std::optional<Memory> parseMemory(std::string_view text) {
    const size_t sum_at = text.rfind("sum ");
    if (sum_at == std::string::npos || sum_at == 0 || text[sum_at - 1] != '\n' || text.back() != '\n') {
        return std::nullopt;
    }
    uint64_t sum = 0;
    if (!readNumber(text.substr(sum_at + 4, text.size() - sum_at - 5), sum, 16) ||
        sum != checksum(text.substr(0, sum_at))) {
        return std::nullopt;
    }
    std::string_view lines = text.substr(0, sum_at);
    if (take(lines, '\n') != kMagic) {
        return std::nullopt;
    }
    Memory memory;
    bool has_network = false;
    while (!lines.empty()) {
        std::string_view line = take(lines, '\n');
        const std::string_view word = take(line, ' ');
        Member member;
        if (word == "network" && !has_network && readNetwork(line, memory.network)) {
            has_network = true;
        } else if (word == "device" && readMember(line, member) && !usedTwice(memory.members, member)) {
            memory.members.push_back(member);
        } else {
            return std::nullopt;
        }
    }
    return has_network ? std::optional(std::move(memory)) : std::nullopt;
}

std::optional<Memory> loadMemory(const std::string &path) {
    std::string text(kLongestFile, '\0');
    const Descriptor file(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!file) {
        if (errno != ENOENT) { // else nothing is remembered yet
            logFault("cannot open", path);
        }
        return std::nullopt;
    }
    size_t size = 0;
    ssize_t count = 0;
    while (size < text.size() && (count = read(file.get(), text.data() + size, text.size() - size)) > 0) {
        size += static_cast<size_t>(count);
    }
    if (count < 0) {
        logFault("cannot read", path);
        return std::nullopt;
    }
    std::optional<Memory> memory = parseMemory(std::string_view(text).substr(0, size));
    if (!memory) {
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, kTag,
                   "the memory of the virtual radio %s is damaged: starting without a network", path.c_str());
    }
    return memory;
}

// Replaced as a whole: the new file is on the disk before it gets the name, the name before this returns.
bool saveMemory(const std::string &path, const std::optional<Memory> &memory) {
    const std::string folder = path.substr(0, path.rfind('/') + 1);
    if (!memory) {
        return (unlink(path.c_str()) == 0 && syncFolder(folder)) || errno == ENOENT;
    }
    const std::string text = formatMemory(*memory);
    const std::string scratch = path + ".new";
    const Descriptor file(open(scratch.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, 0600));
    if (!file) {
        logFault("cannot write", scratch);
        return false;
    }
    const bool written =
        write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) && fsync(file.get()) == 0;
    if (!written || std::rename(scratch.c_str(), path.c_str()) != 0) {
        logFault("cannot replace", path);
        unlink(scratch.c_str());
        return false;
    }
    return syncFolder(folder);
}

} // namespace corvane::mesh
