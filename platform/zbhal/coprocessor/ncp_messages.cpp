// SPDX-License-Identifier: Apache-2.0
// Messages in both directions, and what the mesh reports.
#include "ncp.h"
#include "oru_log.h"
#include "zigbee/mac_capabilities.h"
#include <algorithm>

namespace corvane::coprocessor {

using zbhal::IndicationKind;
using zbhal::serial::EzspBroadcast;
using zbhal::serial::EzspChildJoin;
using zbhal::serial::EzspEnergyResult;
using zbhal::serial::EzspIncomingMessage;
using zbhal::serial::EzspMessageSent;
using zbhal::serial::EzspMulticast;
using zbhal::serial::EzspNetworkFound;
using zbhal::serial::EzspRawTransmitComplete;
using zbhal::serial::EzspScanComplete;
using zbhal::serial::EzspTrustCenterJoin;
using zbhal::serial::EzspUnicast;

namespace {

constexpr uint8_t DIRECT = 0;
constexpr uint8_t MULTICAST = 3;
constexpr uint8_t BROADCAST = 5;
constexpr uint8_t OWN = 0xFF; // sent by the stack itself: nobody waits for the confirmation

constexpr uint16_t ZDO_PROFILE = 0;
constexpr uint16_t ZDO_RESPONSE = 0x8000;
constexpr uint16_t ZDO_DEVICE_ANNOUNCE = 0x0013;
constexpr uint16_t ZDO_LEAVE = 0x0034;
constexpr size_t MAX_PAYLOAD = 82; // of one frame
constexpr uint16_t FRAGMENTED = 0x8000;
constexpr uint8_t LINK_KEY_VERIFIED = 0x34;
constexpr size_t MAX_RELAYS = 30;
constexpr uint8_t SENT_CONTENTS_POLICY = 4;
constexpr uint8_t WITH_CONTENTS = 0x41;
constexpr uint8_t OWN_LQI = 255;
constexpr int8_t OWN_RSSI_DBM = -40;
constexpr uint16_t ALL_AWAKE = 0xFFFD;

// A request's kind and the host's tag travel through the mesh as the number of the request.
constexpr uint32_t requestId(uint8_t type, uint16_t tag) {
    return uint32_t{type} << 16 | tag;
}

EzspAps toAps(const oruZbHal_apsFrame_t &frame) {
    return {frame.profile_id, frame.cluster_id, frame.source_endpoint, frame.destination_endpoint,
            frame.options,    frame.group_id,   frame.sequence};
}

oruZbHal_apsFrame_t fromAps(const EzspAps &aps) {
    return {
        aps.profile_id, aps.cluster_id, aps.source_endpoint, aps.destination_endpoint, aps.options, aps.group_id, 0, 0};
}

EzspStatus refusal(oru_status_t status) {
    switch (status) {
    case ORU_STATUS_OK:
        return EzspStatus::ok;
    case ORU_ZB_HAL_MAC_TRANSACTION_OVERFLOW:
        return EzspStatus::too_many_messages;
    case ORU_STATUS_DEVICE_STATE_INVALID:
        return EzspStatus::network_down;
    default:
        return EzspStatus::bad_argument;
    }
}

EzspStatus outcome(int32_t status) {
    switch (status) {
    case ORU_ZB_HAL_SUCCESS:
        return EzspStatus::ok;
    case ORU_ZB_HAL_APS_ASDU_TOO_LONG:
    case ORU_ZB_HAL_MAC_FRAME_TOO_LONG:
        return EzspStatus::message_too_long;
    default:
        return EzspStatus::delivery_failed;
    }
}

} // namespace

// ---- from the mesh

void Ncp::indicated(const Indication &indication) {
    switch (indication.kind) {
    case IndicationKind::incoming_message:
        return incoming(indication);
    case IndicationKind::trust_center:
        return deviceReported(indication);
    case IndicationKind::energy_result:
        return tell(EzspId::energy_result, EzspEnergyResult{indication.channel, indication.rssi});
    case IndicationKind::network_found: {
        EzspNetworkFound found;
        found.network = {
            indication.network.channel,       indication.network.pan_id,        {},
            indication.network.allowing_join, indication.network.stack_profile, indication.network.nwk_update_id};
        std::ranges::copy(indication.network.extended_pan_id, found.network.extended_pan_id.begin());
        found.lqi = indication.lqi;
        found.rssi_dbm = indication.rssi;
        return tell(EzspId::network_found, found);
    }
    case IndicationKind::scan_complete:
        return tell(EzspId::scan_complete, EzspScanComplete{indication.channel, EzspStatus::ok});
    case IndicationKind::send_confirmed:
        if (indication.request_id >> 16 != OWN) {
            messageSent(static_cast<uint8_t>(indication.request_id >> 16), indication.node_id,
                        toAps(indication.aps_frame), static_cast<uint16_t>(indication.request_id),
                        outcome(indication.status), std::span(indication.payload).first(indication.length));
        }
        return;
    case IndicationKind::interpan_sent:
        return tell(EzspId::raw_transmit_complete,
                    EzspRawTransmitComplete{indication.status == 0 ? EzspStatus::ok : EzspStatus::delivery_failed, {}});
    case IndicationKind::stack_status:
        return;
    }
}

void Ncp::deviceReported(const Indication &indication) {
    if (stack_ != Stack::up) {
        return;
    }
    const Eui64 eui64 = base::reversed(indication.eui64);
    EzspTrustCenterJoin join;
    join.node_id = indication.node_id;
    join.eui64 = base::reversed(eui64);
    join.update = static_cast<uint8_t>(indication.status);
    join.decision = static_cast<uint8_t>(indication.decision);
    join.parent = indication.parent;
    if (indication.decision != ORU_ZB_HAL_DENY_JOIN && indication.parent == mesh::kCoordinatorNode) {
        childJoined(indication, eui64);
    }
    tell(EzspId::trust_center_join, join);
}

void Ncp::childJoined(const Indication &indication, const Eui64 &eui64) {
    constexpr uint8_t ROUTER = 2;
    constexpr uint8_t END_DEVICE = 3;
    constexpr uint8_t SLEEPY = 4;
    const mesh::DeviceSpec *const device = radio_.deviceOf(eui64);
    const mesh::Role role = device == nullptr ? mesh::Role::router : device->role;
    EzspChildJoin child;
    child.joining = indication.status != ORU_ZB_HAL_DEVICE_LEFT;
    child.node_id = indication.node_id;
    child.eui64 = base::reversed(eui64);
    child.type = role == mesh::Role::router ? ROUTER : role == mesh::Role::end_device ? END_DEVICE : SLEEPY;
    std::array<oruZbHal_childTableEntry_t, UINT8_MAX> children{};
    const auto known = std::span(children).first(radio_.children(children));
    const auto entry = std::ranges::find(known, indication.node_id, &oruZbHal_childTableEntry_t::short_id);
    child.index = entry == known.end() ? UINT8_MAX : static_cast<uint8_t>(entry - known.begin());
    ++(child.joining ? counts_.joined : counts_.left);
    tell(EzspId::child_join, child);
}

// A device that has announced itself asks the trust centre for a link key of its own; the stack sees to that.
void Ncp::keyEstablished(const Eui64 &eui64) {
    const EzspKey key = radio_.linkKey(eui64);
    const LinkKeyEntry *const known = linkKey(eui64);
    if (key == EzspKey{} || (known != nullptr && known->key == key)) {
        return;
    }
    (void)storeLinkKey(eui64, key); // a full table is no reason to refuse the device
    callback(EzspId::key_established, [&](FieldWriter &out) {
        out(base::reversed(eui64));
        out(LINK_KEY_VERIFIED);
    });
}

// ---- incoming messages

void Ncp::incoming(const Indication &indication) {
    if (stack_ != Stack::up) {
        return;
    }
    ++counts_.received;
    const oruZbHal_apsFrame_t &aps = indication.aps_frame;
    const auto message = std::span(indication.payload).first(indication.length);
    std::array<uint8_t, zbhal::serial::EZSP_MAX_MESSAGE> room;
    base::ByteWriter answer(room);
    const bool request = aps.profile_id == ZDO_PROFILE && aps.destination_endpoint == 0 &&
                         (aps.cluster_id & ZDO_RESPONSE) == 0 && indication.message_type == 0;
    if (request && answerZdo(aps.cluster_id, message, answer)) {
        EzspAps reply;
        reply.cluster_id = aps.cluster_id | ZDO_RESPONSE;
        (void)transmit(OWN, indication.node_id, reply, 0, answer.written());
        return;
    }
    routeRecord(indication);
    tellIncoming(indication);
    if (aps.profile_id == ZDO_PROFILE && aps.cluster_id == ZDO_DEVICE_ANNOUNCE) {
        if (const Eui64 *const eui64 = radio_.eui64Of(indication.node_id); eui64 != nullptr) {
            keyEstablished(*eui64);
        }
    }
}

void Ncp::tellIncoming(const Indication &indication) {
    EzspIncomingMessage incoming;
    incoming.type = indication.message_type;
    incoming.aps = toAps(indication.aps_frame);
    incoming.sender = indication.node_id;
    const Eui64 *const sender =
        indication.node_id == mesh::kCoordinatorNode ? &eui64_ : radio_.eui64Of(indication.node_id);
    incoming.sender_eui64 = sender == nullptr ? EzspEui64{} : base::reversed(*sender);
    incoming.lqi = indication.lqi;
    incoming.rssi_dbm = indication.rssi;
    incoming.message = std::span(indication.payload).first(indication.length);
    tell(EzspId::incoming_message, incoming);
}

// To a concentrator every device tells the way to it, when there is a new one.
void Ncp::routeRecord(const Indication &indication) {
    if (!session_.concentrator || indication.message_type != 0) {
        return;
    }
    std::array<uint16_t, MAX_RELAYS> room{};
    const auto relays = std::span(room).first(radio_.relays(indication.node_id, room));
    std::vector<uint16_t> &told = session_.route_records[indication.node_id];
    const Eui64 *const source = radio_.eui64Of(indication.node_id);
    if (source == nullptr || std::ranges::equal(told, relays)) {
        return;
    }
    told.assign(relays.begin(), relays.end());
    callback(EzspId::route_record, [&](FieldWriter &out) {
        out(indication.node_id);
        out(base::reversed(*source));
        out(indication.lqi);
        out(indication.rssi);
        out(static_cast<uint8_t>(relays.size()));
        std::ranges::for_each(relays, [&](uint16_t relay) { out(relay); });
    });
}

// ---- outgoing messages

void Ncp::messageSent(uint8_t type, uint16_t destination, const EzspAps &aps, uint16_t tag, EzspStatus status,
                      std::span<const uint8_t> message) {
    const bool with_contents = session_.policy[SENT_CONTENTS_POLICY] == WITH_CONTENTS;
    tell(EzspId::message_sent,
         EzspMessageSent{status, type, destination, aps, tag, with_contents ? message : std::span<const uint8_t>{}});
}

EzspStatus Ncp::sendable(const EzspAps &aps, std::span<const uint8_t> message) const {
    if (stack_ != Stack::up) {
        return EzspStatus::network_down;
    }
    const bool fits = message.size() <= MAX_PAYLOAD || (aps.options & FRAGMENTED) != 0;
    return fits && message.size() <= zbhal::serial::EZSP_MAX_MESSAGE ? EzspStatus::ok : EzspStatus::message_too_long;
}

void Ncp::countSent() {
    ++counts_.sent;
    if (++memory_.frame_counter >= counter_limit_) {
        remember();
    }
}

EzspStatus Ncp::transmit(uint8_t type, uint16_t destination, EzspAps &aps, uint16_t tag,
                         std::span<const uint8_t> message) {
    if (const EzspStatus problem = sendable(aps, message); problem != EzspStatus::ok) {
        return problem;
    }
    if (destination == mesh::kCoordinatorNode) {
        aps.sequence = ++loop_sequence_;
        messageSent(type, destination, aps, tag, EzspStatus::ok, message);
        toItself(aps, message);
        return EzspStatus::ok;
    }
    zbhal::SendRequest request;
    request.destination = destination;
    request.aps_frame = fromAps(aps);
    request.payload = message;
    request.request_id = requestId(type, tag);
    const EzspStatus status = refusal(radio_.send(request));
    aps.sequence = request.aps_frame.sequence;
    if (status == EzspStatus::ok) {
        countSent();
    }
    return status;
}

// Nobody acknowledges a frame to a group: the host hears that it is on the air.
EzspStatus Ncp::transmitToGroup(EzspAps &aps, uint16_t tag, std::span<const uint8_t> message) {
    if (const EzspStatus problem = sendable(aps, message); problem != EzspStatus::ok) {
        return problem;
    }
    oruZbHal_apsFrame_t frame = fromAps(aps);
    const EzspStatus status = aps.group_id == 0 ? EzspStatus::bad_argument : refusal(radio_.sendGroup(frame, message));
    aps.sequence = frame.sequence;
    if (status == EzspStatus::ok) {
        countSent();
        messageSent(MULTICAST, ALL_AWAKE, aps, tag, status, message);
    }
    return status;
}

// A ZDO request to the stack's own node is answered like one to another node.
void Ncp::toItself(const EzspAps &aps, std::span<const uint8_t> message) {
    Indication answer;
    base::ByteWriter writer(answer.payload);
    if (aps.profile_id != ZDO_PROFILE || !answerZdo(aps.cluster_id, message, writer)) {
        return;
    }
    answer.kind = IndicationKind::incoming_message;
    answer.node_id = mesh::kCoordinatorNode;
    answer.aps_frame.cluster_id = aps.cluster_id | ZDO_RESPONSE;
    answer.aps_frame.sequence = ++loop_sequence_;
    answer.lqi = OWN_LQI;
    answer.rssi = OWN_RSSI_DBM;
    answer.length = static_cast<uint16_t>(writer.size());
    tellIncoming(answer);
}

bool Ncp::sendUnicast(FieldReader &in, FieldWriter &out) {
    EzspUnicast unicast;
    if (!get(in, unicast)) {
        return false;
    }
    out.status(unicast.type != DIRECT
                   ? EzspStatus::bad_argument // no tables of bindings and addresses
                   : transmit(DIRECT, unicast.destination, unicast.aps, unicast.tag, unicast.message));
    out(unicast.aps.sequence);
    return true;
}

bool Ncp::sendBroadcast(FieldReader &in, FieldWriter &out) {
    EzspBroadcast broadcast;
    if (!get(in, broadcast)) {
        return false;
    }
    out.status(broadcast.destination < mesh::kFirstBroadcast
                   ? EzspStatus::bad_argument
                   : transmit(BROADCAST, broadcast.destination, broadcast.aps, broadcast.tag, broadcast.message));
    out(broadcast.aps.sequence);
    return true;
}

bool Ncp::sendMulticast(FieldReader &in, FieldWriter &out) {
    EzspMulticast multicast;
    if (!get(in, multicast)) {
        return false;
    }
    out.status(transmitToGroup(multicast.aps, multicast.tag, multicast.message));
    out(multicast.aps.sequence);
    return true;
}

bool Ncp::maximumPayloadLength(FieldReader & /*in*/, FieldWriter &out) {
    out(static_cast<uint8_t>(MAX_PAYLOAD));
    return true;
}

bool Ncp::sendRawMessage(FieldReader &in, FieldWriter &out) {
    std::span<const uint8_t> frame;
    in.counted(frame); // priority and clear-channel assessment may follow
    if (!in.ok()) {
        return false;
    }
    const oru_status_t status = radio_.sendInterpan(channel(), frame);
    out.status(status == ORU_STATUS_BUSY ? EzspStatus::busy : refusal(status));
    return true;
}

// ---- telling devices to leave

EzspStatus Ncp::tellToLeave(uint16_t node_id, const EzspEui64 &eui64, uint8_t flags) {
    std::array<uint8_t, 10> message{};
    message[0] = ++zdo_sequence_;
    std::ranges::copy(eui64, message.begin() + 1);
    message[9] = flags;
    EzspAps aps;
    aps.cluster_id = ZDO_LEAVE;
    aps.options = ORU_ZB_HAL_APS_OPTION_RETRY;
    return transmit(OWN, node_id, aps, 0, message);
}

bool Ncp::removeDevice(FieldReader &in, FieldWriter &out) {
    uint16_t parent = 0;
    EzspEui64 parent_eui64{};
    EzspEui64 target{};
    if (!read(in, parent, parent_eui64, target)) {
        return false;
    }
    const uint16_t node_id = radio_.nodeIdOf(base::reversed(target));
    out.status(node_id == mesh::kNoNode ? EzspStatus::not_found : tellToLeave(node_id, target, 0));
    return true;
}

bool Ncp::sendZigbeeLeave(FieldReader &in, FieldWriter &out) {
    uint16_t node_id = 0;
    uint8_t flags = 0;
    if (!read(in, node_id, flags)) {
        return false;
    }
    out.wideStatus(tellToLeave(node_id, {}, flags));
    return true;
}

} // namespace corvane::coprocessor
