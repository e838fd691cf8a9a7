// SPDX-License-Identifier: Apache-2.0
// The link, the commands as a table, and the way out for callbacks.
#include "ncp.h"
#include "oru_log.h"
#include <algorithm>
#include <cerrno>
#include <cstring>

namespace corvane::coprocessor {

using zbhal::serial::ASH_MAX_DATA;

namespace {

constexpr char TAG[] = "radio";
constexpr uint8_t UNKNOWN_COMMAND = 0x31;  // parameter of the answer to a command that is unknown or malformed
constexpr size_t ROOM_FOR_RESPONSES = 8;   // of the link, left by callbacks: more than a host can send at once
constexpr uint64_t HOST_BUSY_US = 100'000; // looked at again when the host has no room
constexpr uint32_t COUNTER_STEP = 4096;    // frames between two writes of the frame counter

} // namespace

struct Ncp::Commands {
    static constexpr auto ALL = std::to_array<Command>({
        {EzspId::version, &Ncp::version},
        {EzspId::add_endpoint, &Ncp::addEndpoint},
        {EzspId::get_extended_value, &Ncp::getExtendedValue},
        {EzspId::nop, &Ncp::nop},
        {EzspId::get_mfg_token, &Ncp::getMfgToken},
        {EzspId::set_concentrator, &Ncp::setConcentrator},
        {EzspId::set_manufacturer_code, &Ncp::setManufacturerCode},
        {EzspId::network_init, &Ncp::networkInit},
        {EzspId::network_state, &Ncp::networkState},
        {EzspId::start_scan, &Ncp::startScan},
        {EzspId::stop_scan, &Ncp::stopScan},
        {EzspId::form_network, &Ncp::formNetwork},
        {EzspId::leave_network, &Ncp::leaveNetwork},
        {EzspId::permit_joining, &Ncp::permitJoining},
        {EzspId::get_eui64, &Ncp::getEui64},
        {EzspId::get_node_id, &Ncp::getNodeId},
        {EzspId::get_network_parameters, &Ncp::networkParameters},
        {EzspId::get_parent_child_parameters, &Ncp::parentChildParameters},
        {EzspId::maximum_payload_length, &Ncp::maximumPayloadLength},
        {EzspId::send_unicast, &Ncp::sendUnicast},
        {EzspId::send_broadcast, &Ncp::sendBroadcast},
        {EzspId::send_multicast, &Ncp::sendMulticast},
        {EzspId::get_random_number, &Ncp::randomNumber},
        {EzspId::get_child_data, &Ncp::getChildData},
        {EzspId::send_raw_message, &Ncp::sendRawMessage},
        {EzspId::get_configuration_value, &Ncp::getConfig},
        {EzspId::set_configuration_value, &Ncp::setConfig},
        {EzspId::set_policy, &Ncp::setPolicy},
        {EzspId::get_policy, &Ncp::getPolicy},
        {EzspId::set_source_route_mode, &Ncp::setSourceRouteMode},
        {EzspId::lookup_node_id, &Ncp::lookupNodeId},
        {EzspId::lookup_eui64, &Ncp::lookupEui64},
        {EzspId::get_multicast_entry, &Ncp::getMulticastEntry},
        {EzspId::set_multicast_entry, &Ncp::setMulticastEntry},
        {EzspId::read_and_clear_counters, &Ncp::readAndClearCounters},
        {EzspId::set_initial_security_state, &Ncp::setSecurity},
        {EzspId::get_current_security_state, &Ncp::getSecurity},
        {EzspId::clear_transient_link_keys, &Ncp::clearTransientKeys},
        {EzspId::aes_mmo_hash, &Ncp::aesMmoHash},
        {EzspId::find_key_table_entry, &Ncp::findKeyTableEntry},
        {EzspId::erase_key_table_entry, &Ncp::eraseKeyTableEntry},
        {EzspId::token_factory_reset, &Ncp::tokenFactoryReset},
        {EzspId::get_neighbor, &Ncp::getNeighbor},
        {EzspId::neighbor_count, &Ncp::neighborCount},
        {EzspId::get_route_table_entry, &Ncp::getRoute},
        {EzspId::set_extended_timeout, &Ncp::setExtendedTimeout},
        {EzspId::get_extended_timeout, &Ncp::getExtendedTimeout},
        {EzspId::echo, &Ncp::echo},
        {EzspId::set_radio_power, &Ncp::setRadioPower},
        {EzspId::set_radio_channel, &Ncp::setChannel},
        {EzspId::remove_device, &Ncp::removeDevice},
        {EzspId::get_value, &Ncp::getValue},
        {EzspId::set_value, &Ncp::setValue},
        {EzspId::clear_key_table, &Ncp::clearKeyTable},
        {EzspId::set_logical_and_radio_channel, &Ncp::setChannel},
        {EzspId::find_unused_pan_id, &Ncp::findUnusedPanId},
        {EzspId::read_counters, &Ncp::readCounters},
        {EzspId::get_radio_parameters, &Ncp::radioParameters},
        {EzspId::get_radio_channel, &Ncp::getRadioChannel},
        {EzspId::get_token_data, &Ncp::getTokenData},
        {EzspId::reset_node, &Ncp::resetNode},
        {EzspId::aps_key_info, &Ncp::apsKeyInfo},
        {EzspId::import_link_key, &Ncp::importLinkKey},
        {EzspId::export_link_key_by_index, &Ncp::exportLinkKey},
        {EzspId::import_transient_key, &Ncp::importTransientKey},
        {EzspId::export_transient_key_by_index, &Ncp::exportTransientKey},
        {EzspId::export_key, &Ncp::exportKey},
        {EzspId::import_key, &Ncp::importKey},
        {EzspId::network_key_info, &Ncp::networkKeyInfo},
        {EzspId::send_zigbee_leave, &Ncp::sendZigbeeLeave},
    });
    static_assert(std::ranges::is_sorted(ALL, {}, &Command::id));
};

Ncp::Ncp(const NcpSettings &settings, NcpMemory memory, MeshRadio &radio)
    : settings_(settings), eui64_(settings.eui64.value_or(radio.scenario().coordinator.eui64)), radio_(radio),
      memory_(std::move(memory)), wire_(settings.seed), link_(AshLink::Role::coprocessor, *this),
      random_(settings.seed ^ radio.scenario().seed), counter_limit_(memory_.frame_counter) {}

void Ncp::start(uint64_t now_us) {
    now_us_ = now_us;
    radio_.start(*this);
    tick(now_us);
}

// ---- the link

void Ncp::feed(std::span<const uint8_t> bytes, uint64_t now_us) {
    now_us_ = now_us;
    if (!silent()) {
        link_.feed(wire_.receive(bytes), now_us);
    }
    tick(now_us);
}

void Ncp::tick(uint64_t now_us) {
    now_us_ = now_us;
    if (silent()) {
        return;
    }
    link_.tick(now_us);
    if (now_us >= session_.permit_until_us) {
        closeJoining();
        applyJoining();
    }
    if (now_us >= session_.unused_pan_due_us) {
        session_.unused_pan_due_us = UINT64_MAX;
        callback(EzspId::unused_pan_id_found, [this](FieldWriter &out) {
            out(static_cast<uint16_t>(1 + random_.below(0xFFFD)));
            out(session_.unused_pan_channel);
        });
    }
    if (!congested()) {
        radio_due_us_ = radio_.advance(now_us);
    }
    if (error_code_ || reset_code_) {
        const std::optional<uint8_t> error = std::exchange(error_code_, std::nullopt);
        const std::optional<uint8_t> reset = std::exchange(reset_code_, std::nullopt);
        error ? fail(*error) : resetByItself(*reset);
    }
    pump();
}

uint64_t Ncp::nextDeadlineUs() const {
    if (silent()) {
        return silent_until_us_;
    }
    uint64_t next_us = std::min({link_.nextDeadlineUs(), session_.permit_until_us, session_.unused_pan_due_us,
                                 congested() ? UINT64_MAX : radio_due_us_});
    if (!callbacks_.empty() && !link_.peerReady(now_us_)) {
        next_us = std::min(next_us, now_us_ + HOST_BUSY_US);
    }
    return next_us;
}

void Ncp::up(uint8_t /*reset_code*/) {
    startOver();
}

// Everything but the memory is forgotten.
void Ncp::startOver() {
    callbacks_.clear();
    session_ = {};
    stack_ = Stack::no_network;
    radio_.abandon();
    reset_code_.reset(); // of what has just been ended
}

void Ncp::failed(AshFailure /*failure*/, uint8_t code) {
    oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_INFO, TAG, "the host does not answer any more, error 0x%02x", code);
    callbacks_.clear();
    session_.spoken = false;
}

void Ncp::hostGone() {
    link_.stop();
    wire_.clear();
    callbacks_.clear();
    session_.spoken = false;
}

void Ncp::resetByItself(uint8_t reset_code) {
    startOver();
    link_.announceReset(reset_code);
}

void Ncp::fail(uint8_t error_code) {
    startOver();
    link_.stop();
    zbhal::serial::AshFrame frame;
    frame.kind = zbhal::serial::AshKind::error;
    frame.code = error_code;
    std::array<uint8_t, zbhal::serial::ASH_MAX_ENCODED> bytes;
    wire_.write(std::span(bytes).first(encodeAsh(frame, bytes)), now_us_);
}

void Ncp::silence(uint32_t milliseconds) {
    silent_until_us_ = now_us_ + uint64_t{milliseconds} * 1000;
}

// ---- commands

void Ncp::received(std::span<const uint8_t> payload) {
    EzspHeader header;
    std::span<const uint8_t> parameters;
    if (!decodeHeader(payload, header, parameters) || header.kind != EzspHeader::Kind::command) {
        return;
    }
    session_.spoken = true;
    session_.sequence = header.sequence;
    header.kind = EzspHeader::Kind::response;
    header.pending = !callbacks_.empty();
    std::array<uint8_t, ASH_MAX_DATA> room;
    FieldWriter out(room, settings_.version);
    encodeHeader(header, out.writer());
    if (!run(header, parameters, out)) {
        out = FieldWriter(room, settings_.version);
        header.id = EzspId::invalid_command;
        encodeHeader(header, out.writer());
        out(UNKNOWN_COMMAND);
    }
    if (!reset_code_) {                                               // a reset leaves no time for an answer
        (void)link_.send(std::span(room).first(out.size()), now_us_); // callbacks have left room for it
    }
}

// False: unknown, malformed, or refused on purpose.
bool Ncp::run(const EzspHeader &command, std::span<const uint8_t> parameters, FieldWriter &out) {
    const bool refused = wire_.faults().refuse_command == static_cast<int32_t>(command.id);
    if (refused || (command.legacy && command.id != EzspId::version)) {
        return false;
    }
    const auto *const found = std::ranges::lower_bound(Commands::ALL, command.id, {}, &Command::id);
    if (found == Commands::ALL.end() || found->id != command.id) {
        return false;
    }
    FieldReader in(parameters, settings_.version);
    return (this->*found->handler)(in, out) && out.ok();
}

// ---- callbacks

void Ncp::pump() {
    if (!session_.spoken || link_.state() != AshLink::State::up) {
        callbacks_.clear(); // nobody to tell
        return;
    }
    while (!callbacks_.empty() && link_.room() > ROOM_FOR_RESPONSES && link_.peerReady(now_us_)) {
        std::vector<uint8_t> &frame = callbacks_.front();
        frame[0] = session_.sequence;
        if (!link_.send(frame, now_us_)) {
            return;
        }
        callbacks_.pop_front();
    }
}

void Ncp::stackStatus(EzspStatus status) {
    callback(EzspId::stack_status, [status](FieldWriter &out) { out.status(status); });
}

// The frame counter in the memory stays ahead of the one in use.
void Ncp::remember() {
    if (counter_limit_ <= memory_.frame_counter || counter_limit_ - memory_.frame_counter > COUNTER_STEP) {
        counter_limit_ = memory_.frame_counter + COUNTER_STEP;
    }
    if (settings_.memory_path.empty()) {
        return;
    }
    NcpMemory stored = memory_;
    stored.frame_counter = counter_limit_;
    if (!saveNcpMemory(settings_.memory_path, stored)) {
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, TAG, "cannot write %s: %s", settings_.memory_path.c_str(),
                   std::strerror(errno));
    }
}

} // namespace corvane::coprocessor
