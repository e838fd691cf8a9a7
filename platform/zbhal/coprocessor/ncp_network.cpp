// SPDX-License-Identifier: Apache-2.0
// The network: forming, resuming, leaving, joining, scans, addresses.
#include "ncp.h"
#include <algorithm>
#include <bit>

namespace corvane::coprocessor {

using zbhal::serial::EzspNetwork;

namespace {

constexpr uint8_t TRUST_CENTER_POLICY = 0;
constexpr uint8_t ALLOW_JOINS = 0x01;
constexpr uint8_t INSTALL_CODES_ONLY = 0x10;
constexpr uint8_t FOR_EVER = 0xFF;
constexpr uint64_t SECOND_US = 1'000'000;
constexpr uint64_t SUPERFRAME_US = 15'360;
constexpr uint32_t ALL_CHANNELS = 0x07FFF800;
constexpr uint8_t LONGEST_SCAN = 14; // exponent of its duration
constexpr uint8_t USUAL_CHANNEL = 11;
constexpr int8_t USUAL_POWER_DBM = 8;
constexpr uint8_t COORDINATOR = 1;
constexpr uint8_t NO_NETWORK = 0;
constexpr uint8_t JOINED = 2;
constexpr uint16_t HAS_LINK_KEY = 0x0100; // bits of the security state
constexpr uint16_t HAS_NETWORK_KEY = 0x0200;
constexpr uint16_t KEEPS_COUNTER = 0x1000;

constexpr bool isChannel(uint8_t channel) {
    return channel >= 11 && channel <= 26;
}

} // namespace

// ---- up and down

bool Ncp::networkState(FieldReader & /*in*/, FieldWriter &out) {
    out(stack_ == Stack::up ? JOINED : NO_NETWORK);
    return true;
}

// Hosts send a word of options or leave it out.
bool Ncp::networkInit(FieldReader & /*in*/, FieldWriter &out) {
    session_.sized = true;
    if (stack_ != Stack::no_network) {
        out.status(EzspStatus::invalid_state);
    } else if (!memory_.network) {
        out.status(EzspStatus::not_joined);
    } else {
        out.status(EzspStatus::ok);
        bringUp();
    }
    return true;
}

void Ncp::bringUp() {
    const NcpNetwork &stored = *memory_.network;
    mesh::Network network;
    network.pan_id = stored.parameters.pan_id;
    network.channel = stored.parameters.channel;
    network.extended_pan_id = stored.parameters.extended_pan_id;
    network.key = stored.network_key;
    remember(); // the frame counter, before the first frame
    stack_ = Stack::starting;
    radio_.bringUp(network);
}

void Ncp::networkUp() {
    stack_ = Stack::up;
    stackStatus(EzspStatus::network_up);
    applyJoining();
}

bool Ncp::formNetwork(FieldReader &in, FieldWriter &out) {
    EzspNetwork parameters;
    if (!get(in, parameters)) {
        return false;
    }
    session_.sized = true;
    if (stack_ != Stack::no_network || memory_.network) {
        out.status(EzspStatus::invalid_state);
    } else if (!session_.security) {
        out.status(EzspStatus::security_state_not_set);
    } else if (!isChannel(parameters.channel)) {
        out.status(EzspStatus::bad_argument);
    } else {
        out.status(EzspStatus::ok);
        memory_.network = planned(parameters, *session_.security);
        bringUp();
    }
    return true;
}

// What the host leaves open is up to chance.
NcpNetwork Ncp::planned(const EzspNetwork &parameters, const EzspSecurity &security) {
    NcpNetwork network;
    network.parameters = parameters;
    network.security_bitmask = security.bitmask;
    network.key_sequence = security.key_sequence;
    network.network_key = security.network_key;
    network.link_key = security.preconfigured_key;
    if ((security.bitmask & HAS_NETWORK_KEY) == 0) {
        std::ranges::generate(network.network_key, [this] { return random_.byte(); });
    }
    if ((security.bitmask & HAS_LINK_KEY) == 0) {
        std::ranges::generate(network.link_key, [this] { return random_.byte(); });
    }
    if ((security.bitmask & KEEPS_COUNTER) == 0) {
        memory_.frame_counter = counter_limit_ = 0;
    }
    return network;
}

bool Ncp::leaveNetwork(FieldReader & /*in*/, FieldWriter &out) {
    if (stack_ != Stack::up) {
        out.status(EzspStatus::not_joined);
        return true;
    }
    out.status(EzspStatus::ok);
    leave();
    remember();
    return true;
}

// From the memory at once, from the air as soon as it has been left.
void Ncp::leave() {
    const bool was_up = stack_ == Stack::up;
    closeJoining();
    memory_.network.reset();
    stack_ = Stack::leaving;
    if (!was_up || !radio_.leave()) {
        stack_ = Stack::no_network;
    }
}

void Ncp::networkDown() {
    if (stack_ == Stack::leaving) {
        stack_ = Stack::no_network;
        stackStatus(EzspStatus::network_down);
    }
}

bool Ncp::networkParameters(FieldReader & /*in*/, FieldWriter &out) {
    const bool up = stack_ == Stack::up;
    out.status(up ? EzspStatus::ok : EzspStatus::not_joined);
    out(up ? COORDINATOR : uint8_t{0});
    put(out, up ? memory_.network->parameters : EzspNetwork{});
    return true;
}

// ---- joining

void Ncp::applyJoining() {
    const uint8_t policy = session_.policy[TRUST_CENTER_POLICY];
    if (stack_ != Stack::up || !session_.permitted || (policy & ALLOW_JOINS) == 0) {
        radio_.setJoining(Joining::closed);
    } else {
        radio_.setJoining((policy & INSTALL_CODES_ONLY) != 0 ? Joining::install_codes_only : Joining::open);
    }
}

void Ncp::closeJoining() {
    session_.permit_until_us = UINT64_MAX;
    if (std::exchange(session_.permitted, false) && stack_ == Stack::up) {
        stackStatus(EzspStatus::network_closed);
    }
}

bool Ncp::permitJoining(FieldReader &in, FieldWriter &out) {
    uint8_t seconds = 0;
    if (!read(in, seconds)) {
        return false;
    }
    out.status(stack_ == Stack::up ? EzspStatus::ok : EzspStatus::not_joined);
    if (stack_ != Stack::up) {
        return true;
    }
    if (seconds == 0) {
        closeJoining();
    } else {
        session_.permit_until_us = seconds == FOR_EVER ? UINT64_MAX : now_us_ + seconds * SECOND_US;
        if (!std::exchange(session_.permitted, true)) {
            stackStatus(EzspStatus::network_opened);
        }
    }
    applyJoining();
    return true;
}

// ---- scans

bool Ncp::startScan(FieldReader &in, FieldWriter &out) {
    uint8_t type = 0;
    uint32_t channels = 0;
    uint8_t duration = 0;
    if (!read(in, type, channels, duration)) {
        return false;
    }
    if (type > 1 || channels == 0 || (channels & ~ALL_CHANNELS) != 0 || duration > LONGEST_SCAN) {
        out.wideStatus(EzspStatus::bad_argument);
        return true;
    }
    const oru_status_t status = radio_.startScan(type, channels, duration);
    out.wideStatus(status == ORU_STATUS_OK     ? EzspStatus::ok
                   : status == ORU_STATUS_BUSY ? EzspStatus::busy
                                               : EzspStatus::invalid_state);
    return true;
}

// The mesh's scans run to their end.
bool Ncp::stopScan(FieldReader & /*in*/, FieldWriter &out) {
    out.status(EzspStatus::ok);
    return true;
}

bool Ncp::findUnusedPanId(FieldReader &in, FieldWriter &out) {
    uint32_t channels = 0;
    uint8_t duration = 0;
    if (!read(in, channels, duration)) {
        return false;
    }
    if ((channels & ALL_CHANNELS) == 0 || duration > LONGEST_SCAN) {
        out.status(EzspStatus::bad_argument);
        return true;
    }
    const auto count = static_cast<uint64_t>(std::popcount(channels & ALL_CHANNELS));
    session_.unused_pan_channel = static_cast<uint8_t>(std::countr_zero(channels & ALL_CHANNELS));
    session_.unused_pan_due_us = now_us_ + count * SUPERFRAME_US * ((1ULL << duration) + 1);
    out.status(EzspStatus::ok);
    return true;
}

// ---- radio

uint8_t Ncp::channel() const {
    if (session_.radio_channel != 0) {
        return session_.radio_channel;
    }
    return memory_.network ? memory_.network->parameters.channel : USUAL_CHANNEL;
}

int8_t Ncp::powerDbm() const {
    return memory_.network ? memory_.network->parameters.power_dbm : USUAL_POWER_DBM;
}

bool Ncp::setChannel(FieldReader &in, FieldWriter &out) {
    uint8_t wanted = 0;
    if (!read(in, wanted)) {
        return false;
    }
    session_.radio_channel = isChannel(wanted) ? wanted : session_.radio_channel;
    out.status(isChannel(wanted) ? EzspStatus::ok : EzspStatus::bad_argument);
    return true;
}

bool Ncp::getRadioChannel(FieldReader & /*in*/, FieldWriter &out) {
    out(channel());
    return true;
}

bool Ncp::radioParameters(FieldReader &in, FieldWriter &out) {
    uint8_t phy = 0;
    if (!read(in, phy)) {
        return false;
    }
    out.status(phy == 0 ? EzspStatus::ok : EzspStatus::bad_argument);
    out(powerDbm());
    out(uint8_t{0}); // page
    out(channel());
    return true;
}

bool Ncp::setRadioPower(FieldReader &in, FieldWriter &out) {
    constexpr int8_t LOWEST_DBM = -43;
    constexpr int8_t HIGHEST_DBM = 20;
    int8_t power_dbm = 0;
    if (!read(in, power_dbm)) {
        return false;
    }
    const bool legal = power_dbm >= LOWEST_DBM && power_dbm <= HIGHEST_DBM;
    if (legal && memory_.network && memory_.network->parameters.power_dbm != power_dbm) {
        memory_.network->parameters.power_dbm = power_dbm;
        remember();
    }
    out.status(legal ? EzspStatus::ok : EzspStatus::bad_argument);
    return true;
}

// ---- addresses

bool Ncp::getEui64(FieldReader & /*in*/, FieldWriter &out) {
    out(base::reversed(eui64_));
    return true;
}

bool Ncp::getNodeId(FieldReader & /*in*/, FieldWriter &out) {
    out(stack_ == Stack::up ? mesh::kCoordinatorNode : mesh::kNoNode);
    return true;
}

bool Ncp::lookupNodeId(FieldReader &in, FieldWriter &out) {
    EzspEui64 wanted{};
    if (!read(in, wanted)) {
        return false;
    }
    const Eui64 eui64 = base::reversed(wanted);
    out(eui64 == eui64_ ? mesh::kCoordinatorNode : radio_.nodeIdOf(eui64));
    return true;
}

bool Ncp::lookupEui64(FieldReader &in, FieldWriter &out) {
    uint16_t node_id = 0;
    if (!read(in, node_id)) {
        return false;
    }
    const Eui64 *const found = node_id == mesh::kCoordinatorNode ? &eui64_ : radio_.eui64Of(node_id);
    out.status(found == nullptr ? EzspStatus::not_found : EzspStatus::ok);
    out(found == nullptr ? Eui64{} : base::reversed(*found));
    return true;
}

} // namespace corvane::coprocessor
