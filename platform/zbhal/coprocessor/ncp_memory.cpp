// SPDX-License-Identifier: Apache-2.0
#include "ncp_memory.h"
#include "base/descriptor.h"
#include "base/hex.h"
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <limits>
#include <nlohmann/json.hpp>
#include <sys/stat.h>

namespace corvane::coprocessor {

namespace {

using Json = nlohmann::json;

constexpr int FORMAT = 1;
constexpr size_t LONGEST_FILE = 1 << 20;

std::string hexOf(std::span<const uint8_t> bytes) {
    std::string text(2 * bytes.size(), '\0');
    (void)base::hexText(bytes, text);
    return text;
}

// Takes fields out of an object; the first that is missing or of the wrong form makes it fail for good.
class Fields {
public:
    explicit Fields(const Json &object) : object_(object), ok_(object.is_object()) {}

    void bytes(const char *name, std::span<uint8_t> bytes) {
        const Json *const found = find(name);
        const auto *const text = found == nullptr ? nullptr : found->get_ptr<const std::string *>();
        ok_ = ok_ && text != nullptr && base::parseHex(*text, bytes) == bytes.size();
    }
    template <class Integer>
    void number(const char *name, Integer &value) {
        const Json *const found = find(name);
        using Limits = std::numeric_limits<Integer>;
        ok_ = ok_ && found != nullptr && found->is_number_integer() &&
              found->template get<int64_t>() >= int64_t{Limits::min()} &&
              found->template get<int64_t>() <= int64_t{Limits::max()};
        if (ok_) {
            value = found->template get<Integer>();
        }
    }
    void fail() { ok_ = false; }
    bool ok() const { return ok_; }
    const Json *find(const char *name) const {
        const auto found = ok_ ? object_.find(name) : object_.end();
        return found == object_.end() ? nullptr : &*found;
    }

private:
    const Json &object_;
    bool ok_;
};

Json toJson(const NcpNetwork &network) {
    const auto &parameters = network.parameters;
    return {{"pan_id", parameters.pan_id},
            {"extended_pan_id", hexOf(parameters.extended_pan_id)},
            {"channel", parameters.channel},
            {"channels", parameters.channels},
            {"power_dbm", parameters.power_dbm},
            {"update_id", parameters.update_id},
            {"network_key", hexOf(network.network_key)},
            {"key_sequence", network.key_sequence},
            {"security_bitmask", network.security_bitmask},
            {"link_key", hexOf(network.link_key)}};
}

NcpNetwork readNetwork(const Json &object, bool &ok) {
    NcpNetwork network;
    Fields fields(object);
    fields.number("pan_id", network.parameters.pan_id);
    fields.bytes("extended_pan_id", network.parameters.extended_pan_id);
    fields.number("channel", network.parameters.channel);
    fields.number("channels", network.parameters.channels);
    fields.number("power_dbm", network.parameters.power_dbm);
    fields.number("update_id", network.parameters.update_id);
    fields.bytes("network_key", network.network_key);
    fields.number("key_sequence", network.key_sequence);
    fields.number("security_bitmask", network.security_bitmask);
    fields.bytes("link_key", network.link_key);
    ok = ok && fields.ok() && network.parameters.channel >= 11 && network.parameters.channel <= 26;
    return network;
}

bool syncFolderOf(const std::string &path) {
    const size_t end = path.rfind('/');
    const std::string folder = end == std::string::npos ? "." : path.substr(0, end + 1);
    const base::Descriptor descriptor(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    return descriptor && ::fsync(descriptor.get()) == 0;
}

} // namespace

std::string formatNcpMemory(const NcpMemory &memory) {
    Json object{{"format", FORMAT}, {"frame_counter", memory.frame_counter}, {"link_keys", Json::array()}};
    for (const LinkKeyEntry &entry : memory.link_keys) {
        object["link_keys"].push_back({{"eui64", hexOf(entry.eui64)}, {"key", hexOf(entry.key)}});
    }
    if (memory.network) {
        object["network"] = toJson(*memory.network);
    }
    return object.dump(2) + "\n";
}

std::optional<NcpMemory> parseNcpMemory(const std::string &text) {
    const Json object = Json::parse(text, nullptr, false);
    NcpMemory memory;
    Fields fields(object);
    int format = 0;
    fields.number("format", format);
    fields.number("frame_counter", memory.frame_counter);
    const Json *const keys = fields.find("link_keys");
    bool ok = fields.ok() && format == FORMAT && keys != nullptr && keys->is_array();
    for (size_t i = 0; ok && i < keys->size(); ++i) {
        LinkKeyEntry entry;
        Fields key((*keys)[i]);
        key.bytes("eui64", entry.eui64);
        key.bytes("key", entry.key);
        ok = key.ok();
        memory.link_keys.push_back(entry);
    }
    if (const Json *const network = fields.find("network"); ok && network != nullptr) {
        memory.network = readNetwork(*network, ok);
    }
    return ok ? std::optional(std::move(memory)) : std::nullopt;
}

std::optional<NcpMemory> loadNcpMemory(const std::string &path, std::string &problem) {
    const base::Descriptor file(::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK));
    if (!file && errno == ENOENT) {
        return NcpMemory{};
    }
    std::string text(LONGEST_FILE, '\0');
    size_t size = 0;
    ssize_t count = file ? 0 : -1;
    while (file && size < text.size() && (count = ::read(file.get(), text.data() + size, text.size() - size)) > 0) {
        size += static_cast<size_t>(count);
    }
    if (count < 0) {
        problem = path + ": " + std::strerror(errno);
        return std::nullopt;
    }
    text.resize(size);
    std::optional<NcpMemory> memory = parseNcpMemory(text);
    problem = memory ? "" : path + " is not the memory of a simulated radio; remove it to start with an empty one";
    return memory;
}

bool saveNcpMemory(const std::string &path, const NcpMemory &memory) {
    const std::string text = formatNcpMemory(memory);
    const std::string scratch = path + ".new";
    const base::Descriptor file(
        ::open(scratch.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC | O_NOFOLLOW, S_IRUSR | S_IWUSR));
    const bool written = file && ::write(file.get(), text.data(), text.size()) == static_cast<ssize_t>(text.size()) &&
                         ::fsync(file.get()) == 0;
    return written && std::rename(scratch.c_str(), path.c_str()) == 0 && syncFolderOf(path);
}

} // namespace corvane::coprocessor
