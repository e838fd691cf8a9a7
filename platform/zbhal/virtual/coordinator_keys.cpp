// SPDX-License-Identifier: Apache-2.0
// The trust centre: who may join, install codes, keys.
#include "coordinator.h"
#include <algorithm>

namespace corvane::mesh {

namespace {

constexpr uint16_t kKeyHasCounters = 0x0007; // bits of oruZbHal_keyStruct_t::bitmask: sequence number, outgoing and
                                             // incoming frame counter are given
constexpr uint16_t kKeyHasPartner = 0x0008;
constexpr uint16_t kKeyAuthorized = 0x0010;

} // namespace

oru_status_t CoordinatorRadio::permitJoin(bool allow) {
    if (allow && stack_ != Stack::network_up) {
        return ORU_STATUS_DEVICE_STATE_INVALID;
    }
    // Closing closes both modes: the service knows one state only, and closed must mean closed.
    setJoining(allow, allow && join_zts_);
    return ORU_STATUS_OK;
}

oru_status_t CoordinatorRadio::permitJoinZts(bool enable) {
    if (enable && stack_ != Stack::network_up) {
        return ORU_STATUS_DEVICE_STATE_INVALID;
    }
    setJoining(enable && join_open_, enable);
    return ORU_STATUS_OK;
}

void CoordinatorRadio::setJoining(bool open, bool zts) {
    const bool was_open = join_open_ || join_zts_;
    join_open_ = open;
    join_zts_ = zts;
    if (!open && !zts) {
        mesh_.joiningClosed();
    } else if (!was_open) {
        mesh_.joiningOpened();
    }
}

Admission CoordinatorRadio::admit(const JoinRequest &request) {
    const auto no = [](Verdict verdict, const char *reason) {
        return Admission{verdict, ORU_ZB_HAL_DENY_JOIN, reason};
    };
    if (stack_ != Stack::network_up) {
        return no(Verdict::not_listening, "there is no network");
    }
    if (!join_open_ && !join_zts_) {
        return no(Verdict::not_listening, "the network is closed for joining");
    }
    if (request.end_device_of_coordinator && mesh_.coordinatorChildren() >= scenario_.coordinator.child_capacity) {
        return no(Verdict::not_listening, "the coordinator has no room for another child");
    }
    const TransientKey *known = transientKey(request.spec.eui64);
    if (known != nullptr && request.spec.install_code && known->code == *request.spec.install_code) {
        return {Verdict::accepted, ORU_ZB_HAL_USE_PRECONFIGURED_KEY, {}};
    }
    if (known != nullptr) { // the key that the device has does not open what the trust centre sends
        return no(Verdict::refused, "the install code that was added is not the device's");
    }
    if (!join_open_) {
        return no(Verdict::refused, "no install code was added for the device");
    }
    if (request.spec.install_code_only) {
        return no(Verdict::not_listening, "the device joins with its install code only, and none was added");
    }
    return {Verdict::accepted, ORU_ZB_HAL_USE_PRECONFIGURED_KEY, {}};
}

void CoordinatorRadio::deviceReport(const DeviceReport &report) {
    if (stack_ != Stack::network_up) {
        return;
    }
    scratch_ = {};
    scratch_.kind = IndicationKind::trust_center;
    scratch_.node_id = report.node_id;
    scratch_.parent = report.parent;
    scratch_.status = report.update;
    scratch_.decision = report.decision;
    std::reverse_copy(report.eui64.begin(), report.eui64.end(), scratch_.eui64);
    tell(scratch_);
}

// ---------------------------------------------------------------- keys

const CoordinatorRadio::TransientKey *CoordinatorRadio::transientKey(const Eui64 &eui64) const {
    const auto found = std::find_if(transient_keys_.begin(), transient_keys_.end(),
                                    [&](const TransientKey &entry) { return entry.eui64 == eui64; });
    return found == transient_keys_.end() ? nullptr : &*found;
}

oru_status_t CoordinatorRadio::addInstallCode(std::span<const uint8_t, 8> eui64_lsb_first,
                                              std::span<const uint8_t, 18> code) {
    TransientKey entry;
    const oruSecret_guard_t guard(&entry, sizeof entry);
    std::reverse_copy(eui64_lsb_first.begin(), eui64_lsb_first.end(), entry.eui64.begin());
    std::copy(code.begin(), code.end(), entry.code.begin());
    if (!zigbee::isInstallCodeValid(entry.code)) {
        return ORU_STATUS_BAD_PARAM;
    }
    entry.key = zigbee::installCodeKey(entry.code);
    if (transientKey(entry.eui64) != nullptr) {
        return ORU_STATUS_OK; // the service hands over its newest code first
    }
    if (transient_keys_.size() >= scenario_.coordinator.key_table_capacity) {
        return ORU_STATUS_OUT_OF_MEMORY;
    }
    transient_keys_.reserve(scenario_.coordinator.key_table_capacity); // no copy is left behind by growing
    transient_keys_.push_back(entry);
    return ORU_STATUS_OK;
}

oru_status_t CoordinatorRadio::clearTransientLinkKeys() {
    decltype(transient_keys_)().swap(transient_keys_); // clear() would keep the memory and what is in it
    return ORU_STATUS_OK;
}

// The link key that the trust centre gave the device when it joined: its own for every device and network.
Key CoordinatorRadio::deviceKey(const Eui64 &eui64) const {
    uint64_t state = 0;
    for (size_t i = 0; i < eui64.size(); ++i) {
        state = state << 8 | static_cast<uint8_t>(eui64[i] ^ network_->key[i]);
    }
    Key key{};
    for (size_t half = 0; half < 2; ++half) {
        const uint64_t word = splitmix64(state);
        for (size_t i = 0; i < 8; ++i) {
            key[half * 8 + i] = static_cast<uint8_t>(word >> (8 * i));
        }
    }
    return key;
}

// Entries: the network key, the link keys of install codes, the link keys of the devices in the network.
oru_status_t CoordinatorRadio::keyTableEntry(uint8_t index, oruZbHal_keyStruct_t &entry) {
    size_t position = index;
    if (network_) {
        if (position == 0) {
            return key(ORU_ZB_HAL_CURRENT_NETWORK_KEY, entry);
        }
        --position;
    }
    const bool transient = position < transient_keys_.size();
    const Eui64 *member = network_ && !transient ? mesh_.member(position - transient_keys_.size()) : nullptr;
    if (!(transient || member != nullptr) || index == UINT8_MAX) {
        return ORU_STATUS_NOT_FOUND;
    }
    const Eui64 &partner = transient ? transient_keys_[position].eui64 : *member;
    const Key contents = transient ? transient_keys_[position].key : deviceKey(partner);
    entry = {};
    entry.bitmask = static_cast<uint16_t>(kKeyHasPartner | (transient ? 0 : kKeyAuthorized));
    entry.type = ORU_ZB_HAL_TRUST_CENTER_LINK_KEY;
    std::copy(contents.begin(), contents.end(), entry.key.contents);
    std::reverse_copy(partner.begin(), partner.end(), entry.partner_eui64);
    return ORU_STATUS_OK;
}

oru_status_t CoordinatorRadio::key(oruZbHal_keyType_t type, oruZbHal_keyStruct_t &entry) {
    if (type != ORU_ZB_HAL_CURRENT_NETWORK_KEY) {
        return ORU_STATUS_NOT_SUPPORTED;
    }
    if (!network_) {
        return ORU_STATUS_NOT_FOUND;
    }
    entry = {};
    entry.bitmask = kKeyHasCounters;
    entry.type = type;
    std::copy(network_->key.begin(), network_->key.end(), entry.key.contents);
    return ORU_STATUS_OK;
}

} // namespace corvane::mesh
