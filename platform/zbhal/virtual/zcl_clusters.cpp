// SPDX-License-Identifier: Apache-2.0
//
// Commands of single clusters. Transitions take no time: a virtual device has no clock, so a lamp is at its new level
// at once and IdentifyTime keeps the value it was given.
#include "zcl.h"
#include <algorithm>
#include <utility>

namespace corvane::mesh {
namespace {

constexpr size_t kMaxGroups = 16; // of one endpoint
constexpr int64_t kLevelMinimum = 1;
constexpr int64_t kLevelMaximum = 254;
constexpr uint8_t kExecuteIfOff = 0x01;
constexpr uint8_t kModeDown = 0x01; // Move and Step
constexpr uint16_t kLevelOptions = 0x000F;
constexpr uint16_t kZoneState = 0x0000;
constexpr uint16_t kZoneType = 0x0001;
constexpr uint16_t kZoneId = 0x0011;
constexpr uint8_t kZoneEnrollRequest = 0x01;

} // namespace

const ZclServer::ClusterCommand ZclServer::kClusterCommands[] = {
    {kClusterIdentify, 0x00, 2, &ZclServer::identify},
    {kClusterIdentify, 0x01, 0, &ZclServer::identifyQuery},
    {kClusterGroups, 0x00, 3, &ZclServer::addGroup},
    {kClusterGroups, 0x01, 2, &ZclServer::viewGroup},
    {kClusterGroups, 0x02, 1, &ZclServer::getGroupMembership},
    {kClusterGroups, 0x03, 2, &ZclServer::removeGroup},
    {kClusterGroups, 0x04, 0, &ZclServer::removeAllGroups},
    {kClusterGroups, 0x05, 3, &ZclServer::addGroupIfIdentifying},
    {kClusterOnOff, 0x00, 0, &ZclServer::switchOff},
    {kClusterOnOff, 0x01, 0, &ZclServer::switchOn},
    {kClusterOnOff, 0x02, 0, &ZclServer::toggle},
    {kClusterLevel, 0x00, 3, &ZclServer::moveToLevel},
    {kClusterLevel, 0x01, 2, &ZclServer::moveLevel},
    {kClusterLevel, 0x02, 4, &ZclServer::stepLevel},
    {kClusterLevel, 0x03, 0, &ZclServer::stopLevel},
    {kClusterLevel, 0x04, 3, &ZclServer::moveToLevel},
    {kClusterLevel, 0x05, 2, &ZclServer::moveLevel},
    {kClusterLevel, 0x06, 4, &ZclServer::stepLevel},
    {kClusterLevel, 0x07, 0, &ZclServer::stopLevel},
    {kClusterIasZone, 0x00, 2, &ZclServer::zoneEnrollResponse},
    {0, 0, 0, nullptr},
};

ZclServer::Result ZclServer::identify(ByteReader &in) {
    change(kClusterIdentify, 0, in.u16());
    return ZclStatus::success;
}

// Only a device that identifies itself answers; the others stay silent apart from the Default Response.
ZclServer::Result ZclServer::identifyQuery(ByteReader &) {
    const int64_t seconds = current(kClusterIdentify, 0);
    if (seconds == 0) {
        return ZclStatus::success;
    }
    auto out = begin(kZclClusterSpecific, 0x00);
    append(out, static_cast<uint64_t>(seconds), 2);
    answer(std::move(out));
    return std::nullopt;
}

ZclStatus ZclServer::storeGroup(uint16_t group_id) {
    const auto own = [this](const auto &group) { return group.first == endpoint_.id; };
    auto &groups = device_.groups_;
    if (group_id == 0 || group_id > 0xFFF7) {
        return ZclStatus::invalid_value;
    }
    if (groups.contains({endpoint_.id, group_id})) {
        return ZclStatus::success;
    }
    if (std::ranges::count_if(groups, own) >= static_cast<std::ptrdiff_t>(kMaxGroups)) {
        return ZclStatus::insufficient_space;
    }
    groups.insert({endpoint_.id, group_id});
    return ZclStatus::success;
}

ZclServer::Result ZclServer::addGroup(ByteReader &in) {
    const uint16_t group_id = in.u16();
    in.bytes(in.u8()); // group name: not kept
    if (!in.ok()) {
        return ZclStatus::malformed_command;
    }
    const ZclStatus status = storeGroup(group_id);
    if (broadcast_) {
        return std::nullopt;
    }
    auto out = begin(kZclClusterSpecific, 0x00);
    out.push_back(static_cast<uint8_t>(status));
    append(out, group_id, 2);
    answer(std::move(out));
    return std::nullopt;
}

ZclServer::Result ZclServer::addGroupIfIdentifying(ByteReader &in) {
    const uint16_t group_id = in.u16();
    in.bytes(in.u8());
    if (!in.ok()) {
        return ZclStatus::malformed_command;
    }
    return current(kClusterIdentify, 0) != 0 ? storeGroup(group_id) : ZclStatus::success;
}

ZclServer::Result ZclServer::viewGroup(ByteReader &in) {
    const uint16_t group_id = in.u16();
    if (broadcast_) {
        return std::nullopt;
    }
    const bool member = device_.groups_.contains({endpoint_.id, group_id});
    auto out = begin(kZclClusterSpecific, 0x01);
    out.push_back(static_cast<uint8_t>(member ? ZclStatus::success : ZclStatus::not_found));
    append(out, group_id, 2);
    out.push_back(0); // empty name
    answer(std::move(out));
    return std::nullopt;
}

ZclServer::Result ZclServer::getGroupMembership(ByteReader &in) {
    const uint8_t asked = in.u8();
    std::set<uint16_t> wanted;
    for (unsigned i = 0; i < asked; i++) {
        wanted.insert(in.u16());
    }
    if (!in.ok()) {
        return ZclStatus::malformed_command;
    }
    std::vector<uint8_t> members;
    size_t own = 0;
    for (const auto &[endpoint, group_id] : device_.groups_) {
        if (endpoint != endpoint_.id) {
            continue;
        }
        own++;
        if (asked == 0 || wanted.contains(group_id)) {
            append(members, group_id, 2);
        }
    }
    if (asked != 0 && members.empty()) {
        return ZclStatus::success; // no response from a device that is in none of the groups
    }
    auto out = begin(kZclClusterSpecific, 0x02);
    out.push_back(static_cast<uint8_t>(kMaxGroups - own));
    out.push_back(static_cast<uint8_t>(members.size() / 2));
    out.insert(out.end(), members.begin(), members.end());
    answer(std::move(out));
    return std::nullopt;
}

ZclServer::Result ZclServer::removeGroup(ByteReader &in) {
    const uint16_t group_id = in.u16();
    const bool removed = device_.groups_.erase({endpoint_.id, group_id}) != 0;
    if (broadcast_) {
        return std::nullopt;
    }
    auto out = begin(kZclClusterSpecific, 0x03);
    out.push_back(static_cast<uint8_t>(removed ? ZclStatus::success : ZclStatus::not_found));
    append(out, group_id, 2);
    answer(std::move(out));
    return std::nullopt;
}

ZclServer::Result ZclServer::removeAllGroups(ByteReader &) {
    std::erase_if(device_.groups_, [this](const auto &group) { return group.first == endpoint_.id; });
    return ZclStatus::success;
}

ZclServer::Result ZclServer::switchOff(ByteReader &) {
    change(kClusterOnOff, 0, 0);
    return ZclStatus::success;
}

ZclServer::Result ZclServer::switchOn(ByteReader &) {
    change(kClusterOnOff, 0, 1);
    return ZclStatus::success;
}

ZclServer::Result ZclServer::toggle(ByteReader &) {
    change(kClusterOnOff, 0, current(kClusterOnOff, 0) == 0 ? 1 : 0);
    return ZclStatus::success;
}

// The commands without On/Off leave a lamp that is off alone, unless the options of the command or of the device say
// otherwise; the command still succeeds.
void ZclServer::setLevel(int64_t level, ByteReader &options, bool with_on_off) {
    auto effective = static_cast<uint8_t>(current(kClusterLevel, kLevelOptions));
    if (options.left() >= 2) {
        const uint8_t mask = options.u8();
        const uint8_t override_bits = options.u8();
        effective = static_cast<uint8_t>((effective & ~mask) | (override_bits & mask));
    }
    const bool off = !device_.isOn(endpoint_.id);
    if (!with_on_off && off && (effective & kExecuteIfOff) == 0) {
        return;
    }
    const int64_t reached = std::clamp(level, kLevelMinimum, kLevelMaximum);
    change(kClusterLevel, 0, reached);
    if (with_on_off && device_.value(endpoint_.id, kClusterOnOff, 0)) {
        change(kClusterOnOff, 0, reached > kLevelMinimum ? 1 : 0);
    }
}

ZclServer::Result ZclServer::moveToLevel(ByteReader &in) {
    const uint8_t level = in.u8();
    in.u16(); // transition time
    if (level > kLevelMaximum) {
        return ZclStatus::invalid_value;
    }
    setLevel(level, in, withOnOff());
    return ZclStatus::success;
}

ZclServer::Result ZclServer::moveLevel(ByteReader &in) {
    const uint8_t mode = in.u8();
    in.u8(); // rate
    if (mode > kModeDown) {
        return ZclStatus::invalid_value;
    }
    setLevel(mode == kModeDown ? 0 : kLevelMaximum, in, withOnOff());
    return ZclStatus::success;
}

ZclServer::Result ZclServer::stepLevel(ByteReader &in) {
    const uint8_t mode = in.u8();
    const int64_t size = in.u8();
    in.u16(); // transition time
    if (mode > kModeDown || size == 0) {
        return ZclStatus::invalid_value;
    }
    const int64_t level = current(kClusterLevel, 0) + (mode == kModeDown ? -size : size);
    setLevel(std::max<int64_t>(level, 0), in, withOnOff());
    return ZclStatus::success;
}

ZclServer::Result ZclServer::stopLevel(ByteReader &) {
    return ZclStatus::success;
}

// A control panel has made itself known: the sensor asks it to enroll.
void ZclServer::writeCieAddress() {
    std::vector<uint8_t> out{kZclClusterSpecific | kZclServerToClient, device_.zcl_sequence_++, kZoneEnrollRequest};
    append(out, static_cast<uint64_t>(current(kClusterIasZone, kZoneType)), 2);
    append(out, device_.spec_.manufacturer_code, 2);
    caused_.push_back({endpoint_.profile_id, kClusterIasZone, endpoint_.id, frame_.source_endpoint, std::move(out)});
}

ZclServer::Result ZclServer::zoneEnrollResponse(ByteReader &in) {
    const uint8_t code = in.u8();
    const uint8_t zone_id = in.u8();
    if (code == 0) {
        change(kClusterIasZone, kZoneState, 1);
        change(kClusterIasZone, kZoneId, zone_id);
    }
    return ZclStatus::success;
}

} // namespace corvane::mesh
