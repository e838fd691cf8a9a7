// SPDX-License-Identifier: Apache-2.0
// Keys: of the network, of the trust centre, of devices, of install codes.
#include "ncp.h"
#include <algorithm>

namespace corvane::coprocessor {

using zbhal::serial::EzspKeyType;

namespace {

constexpr uint8_t KEY_TABLE = 0x1E; // configuration value
constexpr uint16_t USUAL_KEY_TABLE = 12;
constexpr uint8_t NO_INDEX = 0xFF;
constexpr uint16_t TRANSIENT_KEY_TTL_S = 300;
constexpr uint16_t HAS_COUNTERS = 0x0006; // outgoing and incoming
constexpr Eui64 ANY_DEVICE = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

} // namespace

// ---- security of the network

bool Ncp::setSecurity(FieldReader &in, FieldWriter &out) {
    EzspSecurity security;
    if (!get(in, security)) {
        return false;
    }
    const bool idle = stack_ == Stack::no_network;
    if (idle) {
        session_.security = security;
    }
    out.status(idle ? EzspStatus::ok : EzspStatus::invalid_state);
    return true;
}

bool Ncp::getSecurity(FieldReader & /*in*/, FieldWriter &out) {
    const bool up = stack_ == Stack::up;
    out.status(up ? EzspStatus::ok : EzspStatus::not_joined);
    out(up ? memory_.network->security_bitmask : uint16_t{0});
    out(up ? base::reversed(eui64_) : Eui64{});
    return true;
}

bool Ncp::networkKeyInfo(FieldReader & /*in*/, FieldWriter &out) {
    const bool known = memory_.network.has_value();
    out.wideStatus(known ? EzspStatus::ok : EzspStatus::not_joined);
    out(known);
    out(false); // no other key is set
    out(known ? memory_.network->key_sequence : uint8_t{0});
    out(uint8_t{0});
    out(memory_.frame_counter);
    return true;
}

EzspStatus Ncp::keyOf(const EzspKeyContext &context, EzspKey &key) {
    const LinkKeyEntry *entry = nullptr;
    switch (context.type) {
    case EzspKeyType::network:
        key = memory_.network ? memory_.network->network_key : EzspKey{};
        return memory_.network ? EzspStatus::ok : EzspStatus::not_found;
    case EzspKeyType::trust_center_link:
        key = memory_.network ? memory_.network->link_key : EzspKey{};
        return memory_.network ? EzspStatus::ok : EzspStatus::not_found;
    case EzspKeyType::trust_center_transient: {
        const auto found =
            std::ranges::find(session_.transient_keys, base::reversed(context.eui64), &LinkKeyEntry::eui64);
        entry = found == session_.transient_keys.end() ? nullptr : &*found;
        break;
    }
    case EzspKeyType::application_link:
        entry = linkKey(base::reversed(context.eui64));
        break;
    }
    key = entry == nullptr ? EzspKey{} : entry->key;
    return entry == nullptr ? EzspStatus::not_found : EzspStatus::ok;
}

bool Ncp::exportKey(FieldReader &in, FieldWriter &out) {
    EzspKeyContext context;
    if (!get(in, context)) {
        return false;
    }
    EzspKey key{};
    const EzspStatus status = keyOf(context, key);
    if (out.wide()) {
        out.wideStatus(status);
        out(key);
        put(out, context);
    } else {
        out(key);
        out.wideStatus(status);
    }
    return true;
}

bool Ncp::importKey(FieldReader &in, FieldWriter &out) {
    EzspKeyContext context;
    EzspKey key{};
    if (!get(in, context) || !read(in, key)) {
        return false;
    }
    EzspStatus status = EzspStatus::invalid_state;
    switch (context.type) {
    case EzspKeyType::network:
    case EzspKeyType::trust_center_link:
        if (session_.security && stack_ == Stack::no_network) {
            (context.type == EzspKeyType::network ? session_.security->network_key
                                                  : session_.security->preconfigured_key) = key;
            status = EzspStatus::ok;
        }
        break;
    case EzspKeyType::trust_center_transient:
        status = storeTransientKey(base::reversed(context.eui64), key);
        break;
    case EzspKeyType::application_link:
        status = storeLinkKey(base::reversed(context.eui64), key);
        remember();
        break;
    }
    out.wideStatus(status);
    return true;
}

EzspKeyMetadata Ncp::metadata() const {
    EzspKeyMetadata data;
    data.bitmask = HAS_COUNTERS;
    data.outgoing_counter = memory_.frame_counter;
    return data;
}

bool Ncp::apsKeyInfo(FieldReader &in, FieldWriter &out) {
    EzspKeyContext context;
    if (!get(in, context)) {
        return false;
    }
    EzspKey key{};
    const EzspStatus status = keyOf(context, key);
    const EzspKeyMetadata data = status == EzspStatus::ok ? metadata() : EzspKeyMetadata{};
    if (out.wide()) {
        out.wideStatus(status);
        put(out, data);
        put(out, context);
    } else {
        out(context.eui64);
        put(out, data);
        out.wideStatus(status);
    }
    return true;
}

// ---- link keys of devices

LinkKeyEntry *Ncp::linkKey(const Eui64 &eui64) {
    const auto found = std::ranges::find(memory_.link_keys, eui64, &LinkKeyEntry::eui64);
    return found == memory_.link_keys.end() ? nullptr : &*found;
}

EzspStatus Ncp::storeLinkKey(const Eui64 &eui64, const EzspKey &key) {
    const auto size = session_.config.find(KEY_TABLE);
    if (LinkKeyEntry *const known = linkKey(eui64); known != nullptr) {
        known->key = key;
    } else if (memory_.link_keys.size() < (size == session_.config.end() ? USUAL_KEY_TABLE : size->second)) {
        memory_.link_keys.push_back({eui64, key});
    } else {
        return EzspStatus::index_out_of_range;
    }
    remember();
    return EzspStatus::ok;
}

bool Ncp::clearKeyTable(FieldReader & /*in*/, FieldWriter &out) {
    memory_.link_keys.clear();
    remember();
    out.status(EzspStatus::ok);
    return true;
}

bool Ncp::eraseKeyTableEntry(FieldReader &in, FieldWriter &out) {
    uint8_t index = 0;
    if (!read(in, index)) {
        return false;
    }
    const bool there = index < memory_.link_keys.size();
    if (there) {
        memory_.link_keys.erase(memory_.link_keys.begin() + index);
        remember();
    }
    out.status(there ? EzspStatus::ok : EzspStatus::index_out_of_range);
    return true;
}

bool Ncp::findKeyTableEntry(FieldReader &in, FieldWriter &out) {
    EzspEui64 eui64{};
    bool of_link = false;
    if (!read(in, eui64, of_link)) {
        return false;
    }
    const LinkKeyEntry *const found = linkKey(base::reversed(eui64));
    out(found == nullptr ? NO_INDEX : static_cast<uint8_t>(found - memory_.link_keys.data()));
    return true;
}

bool Ncp::importLinkKey(FieldReader &in, FieldWriter &out) {
    uint8_t index = 0;
    EzspEui64 eui64{};
    EzspKey key{};
    if (!read(in, index, eui64, key)) {
        return false;
    }
    out.wideStatus(storeLinkKey(base::reversed(eui64), key));
    return true;
}

// What both tables of keys export, in the layout of the version; entry null: there is none at that index.
void Ncp::exported(FieldWriter &out, const LinkKeyEntry *entry, uint8_t type, uint8_t index, bool eui64_only) const {
    EzspKeyContext context;
    context.type = static_cast<EzspKeyType>(type);
    context.index = index;
    context.eui64 = entry == nullptr ? EzspEui64{} : base::reversed(entry->eui64);
    const EzspStatus status = entry == nullptr ? EzspStatus::index_out_of_range : EzspStatus::ok;
    EzspKeyMetadata data = entry == nullptr ? EzspKeyMetadata{} : metadata();
    data.ttl_s = entry != nullptr && !eui64_only ? TRANSIENT_KEY_TTL_S : uint16_t{0};
    if (out.wide()) {
        out.wideStatus(status);
    }
    if (!out.wide() && eui64_only) {
        out(context.eui64);
    } else {
        put(out, context);
    }
    out(entry == nullptr ? EzspKey{} : entry->key);
    put(out, data);
    if (!out.wide()) {
        out.wideStatus(status);
    }
}

bool Ncp::exportLinkKey(FieldReader &in, FieldWriter &out) {
    uint8_t index = 0;
    if (!read(in, index)) {
        return false;
    }
    const LinkKeyEntry *const entry = index < memory_.link_keys.size() ? &memory_.link_keys[index] : nullptr;
    exported(out, entry, static_cast<uint8_t>(EzspKeyType::application_link), index, true);
    return true;
}

// ---- keys for joining

EzspStatus Ncp::storeTransientKey(const Eui64 &eui64, const EzspKey &key) {
    auto &keys = session_.transient_keys;
    const auto known = std::ranges::find(keys, eui64, &LinkKeyEntry::eui64);
    if (known == keys.end() && keys.size() > radio_.scenario().coordinator.key_table_capacity) {
        return EzspStatus::no_buffers;
    }
    const bool replaces = known != keys.end();
    if (replaces) {
        known->key = key;
        radio_.clearLinkKeys();
    } else {
        keys.push_back({eui64, key});
    }
    for (const LinkKeyEntry &entry : keys) { // the mesh keeps those that it has
        if (entry.eui64 != ANY_DEVICE && !radio_.addLinkKey(entry.eui64, entry.key)) {
            keys.pop_back();
            return EzspStatus::no_buffers;
        }
    }
    return EzspStatus::ok;
}

bool Ncp::importTransientKey(FieldReader &in, FieldWriter &out) {
    EzspEui64 eui64{};
    EzspKey key{};
    if (!read(in, eui64, key)) { // version 13: flags may follow
        return false;
    }
    out.wideStatus(storeTransientKey(base::reversed(eui64), key));
    return true;
}

bool Ncp::exportTransientKey(FieldReader &in, FieldWriter &out) {
    uint8_t index = 0;
    if (!read(in, index)) {
        return false;
    }
    const LinkKeyEntry *const entry =
        index < session_.transient_keys.size() ? &session_.transient_keys[index] : nullptr;
    exported(out, entry, static_cast<uint8_t>(EzspKeyType::trust_center_transient), index, false);
    return true;
}

bool Ncp::clearTransientKeys(FieldReader & /*in*/, FieldWriter & /*out*/) {
    session_.transient_keys.clear();
    radio_.clearLinkKeys();
    return true;
}

// Of an install code with its CRC in one piece, which is what hosts let the co-processor hash.
bool Ncp::aesMmoHash(FieldReader &in, FieldWriter &out) {
    EzspKey result{};
    uint32_t length = 0;
    bool finalize = false;
    std::span<const uint8_t> bytes;
    in(result);
    in(length);
    in(finalize);
    in.counted(bytes);
    if (!in.ok()) {
        return false;
    }
    zigbee::InstallCode code{};
    const bool whole = finalize && length == 0 && bytes.size() == code.size();
    if (whole) {
        std::ranges::copy(bytes, code.begin());
        result = zigbee::installCodeKey(code);
    }
    out.status(whole ? EzspStatus::ok : EzspStatus::bad_argument);
    out(result);
    out(static_cast<uint32_t>(whole ? bytes.size() : length));
    return true;
}

} // namespace corvane::coprocessor
