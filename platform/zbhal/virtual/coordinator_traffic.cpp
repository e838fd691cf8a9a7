// SPDX-License-Identifier: Apache-2.0
// Sends and their confirmations, received frames, inter-PAN, scans, queries.
#include "coordinator.h"
#include "oru_log.h"
#include <algorithm>

namespace corvane::mesh {

namespace {

constexpr char kTag[] = "zbhal";
constexpr uint64_t kMs = 1000;
constexpr int kApsRetries = 3;
constexpr uint8_t kIncomingUnicast = 0;
constexpr uint8_t kIncomingBroadcast = 4;
constexpr uint64_t kInterpanChannelUs = 40 * kMs; // tune, send, wait for the acknowledgement
constexpr uint64_t kSuperframeUs = 15360;         // a scan dwells (2^duration + 1) of them on a channel
constexpr int8_t kQuietDbm = -90;
constexpr uint8_t kScanActive = 1;

// LQI 0 to 255 over the receiver's range of -100 to -40 dBm.
int8_t rssiOf(uint8_t link_quality) {
    return static_cast<int8_t>(-100 + link_quality * 60 / 255);
}

} // namespace

// ---------------------------------------------------------------- sends

CoordinatorRadio::Pending *CoordinatorRadio::freePending() {
    size_t in_flight = 0;
    Pending *free = nullptr;
    for (Pending &pending : pending_) {
        if (pending.ticket != 0) {
            ++in_flight;
        } else if (free == nullptr) {
            free = &pending;
        }
    }
    return in_flight < air_.spec().max_in_flight ? free : nullptr;
}

oru_status_t CoordinatorRadio::send(const zbhal::SendRequest &request) {
    if (stack_ != Stack::network_up) {
        return ORU_STATUS_DEVICE_STATE_INVALID;
    }
    if (request.destination == kCoordinatorNode) {
        return ORU_ZB_HAL_NWK_INVALID_REQUEST;
    }
    Pending *pending = freePending();
    const std::shared_ptr<Flight> flight =
        pending == nullptr ? nullptr : makeFlight(request.destination, request.aps_frame, request.payload);
    if (flight == nullptr) {
        return ORU_ZB_HAL_MAC_TRANSACTION_OVERFLOW;
    }
    *pending = {request.ticket};
    flight->ticket = request.ticket;
    mesh_.send(flight);
    return ORU_STATUS_OK;
}

// Null when there is no memory for the frame.
std::shared_ptr<Flight> CoordinatorRadio::makeFlight(uint16_t destination, const oruZbHal_apsFrame_t &aps_frame,
                                                     std::span<const uint8_t> payload) {
    try {
        auto flight = std::make_shared<Flight>(static_cast<Coordinator &>(*this));
        flight->destination = destination;
        flight->acknowledged =
            (aps_frame.options & (ORU_ZB_HAL_APS_OPTION_RETRY | ORU_ZB_HAL_APS_OPTION_ACKNOWLEDGED)) != 0;
        flight->retries_left = flight->acknowledged ? kApsRetries : 0;
        flight->message = {aps_frame.profile_id,
                           aps_frame.cluster_id,
                           aps_frame.source_endpoint,
                           aps_frame.destination_endpoint,
                           {payload.begin(), payload.end()}};
        return flight;
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

oru_status_t CoordinatorRadio::sendGroup(const oruZbHal_apsFrame_t &aps_frame, std::span<const uint8_t> payload) {
    if (stack_ != Stack::network_up) {
        return ORU_STATUS_DEVICE_STATE_INVALID;
    }
    const std::shared_ptr<Flight> flight = makeFlight(kAllAwake, aps_frame, payload);
    if (flight == nullptr) {
        return ORU_ZB_HAL_MAC_TRANSACTION_OVERFLOW;
    }
    flight->group_id = aps_frame.group_id;
    mesh_.send(flight);
    return ORU_STATUS_OK;
}

void CoordinatorRadio::conclude(Pending &pending, int32_t status) {
    const auto ordered = faults_.take(Operation::confirmation);
    host_.conclude(std::exchange(pending.ticket, 0), ordered.value_or(status));
}

void CoordinatorRadio::sendDone(uint64_t ticket, oruZbHal_clusterCommandStatus_t status, bool withheld) {
    const auto pending = std::ranges::find(pending_, ticket, &Pending::ticket);
    if (pending == pending_.end()) {
        return; // concluded when the stack's work was ended
    }
    if (withheld || hold_) {
        pending->withheld = true;
        pending->status = status;
        return;
    }
    conclude(*pending, status);
}

void CoordinatorRadio::holdConfirmations(bool hold) {
    hold_ = hold;
    for (Pending &pending : pending_) {
        if (!hold && pending.ticket != 0 && pending.withheld) {
            conclude(pending, pending.status);
        }
    }
}

// The stack stops working: everything accepted so far ends here, in the order in which it was sent.
void CoordinatorRadio::abandonTraffic() {
    for (;;) {
        Pending *oldest = nullptr;
        for (Pending &pending : pending_) {
            if (pending.ticket != 0 && (oldest == nullptr || pending.ticket < oldest->ticket)) {
                oldest = &pending;
            }
        }
        if (oldest == nullptr) {
            break;
        }
        conclude(*oldest, ORU_ZB_HAL_NWK_FRAME_NOT_BUFFERED);
    }
    for (Ticket &pending : pending_interpan_) {
        if (pending != 0) {
            concludeInterpan(pending, ORU_STATUS_CANCELED);
        }
    }
    if (scanning_) {
        endScan(scan_channel_, ORU_STATUS_CANCELED);
    }
}

void CoordinatorRadio::frameReceived(const ReceivedFrame &frame) {
    if (stack_ != Stack::network_up) {
        return;
    }
    const ApsMessage &message = *frame.message;
    if (message.payload.size() > zbhal::kMaxFrame) {
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_WARN, kTag, "frame of %zu bytes from 0x%04x dropped: too long",
                   message.payload.size(), frame.source);
        return;
    }
    scratch_ = {};
    scratch_.kind = IndicationKind::incoming_message;
    scratch_.message_type = frame.broadcast ? kIncomingBroadcast : kIncomingUnicast;
    scratch_.node_id = frame.source;
    scratch_.lqi = frame.link_quality;
    scratch_.rssi = rssiOf(frame.link_quality);
    scratch_.aps_frame.profile_id = message.profile_id;
    scratch_.aps_frame.cluster_id = message.cluster_id;
    scratch_.aps_frame.source_endpoint = message.source_endpoint;
    scratch_.aps_frame.destination_endpoint = message.destination_endpoint;
    scratch_.aps_frame.sequence = frame.aps_counter;
    scratch_.length = static_cast<uint16_t>(message.payload.size());
    std::copy(message.payload.begin(), message.payload.end(), scratch_.payload.begin());
    tell(scratch_);
}

// ---------------------------------------------------------------- inter-PAN

oru_status_t CoordinatorRadio::sendInterpan(const zbhal::InterpanRequest &request) {
    if (!running()) {
        return ORU_STATUS_DEVICE_STATE_INVALID;
    }
    const auto pending = std::ranges::find(pending_interpan_, Ticket{0});
    if (pending == pending_interpan_.end()) {
        return ORU_STATUS_BUSY;
    }
    if (!faults_.take(Operation::interpan_completion)) { // else only the end of the stack's work concludes it
        const auto channels = static_cast<uint64_t>(std::popcount(request.channel_mask));
        timeline_.surely(channels * kInterpanChannelUs, [this, ticket = request.ticket, entry = &*pending] {
            if (*entry == ticket) {
                const bool sent = air_.broadcast(0).outcome == Air::Outcome::delivered;
                concludeInterpan(*entry, sent ? oru_status_t{ORU_STATUS_OK}
                                              : oru_status_t{ORU_ZB_HAL_MAC_CHANNEL_ACCESSS_FAILURE});
            }
        });
    }
    *pending = request.ticket;
    return ORU_STATUS_OK;
}

void CoordinatorRadio::concludeInterpan(Ticket &pending, oru_status_t status) {
    host_.conclude(std::exchange(pending, 0), status);
}

// ---------------------------------------------------------------- scans

int8_t CoordinatorRadio::energyOf(uint8_t channel) {
    const int8_t configured = scenario_.energy_dbm[channel - 11U];
    const int level = configured != 0 ? int{configured} : kQuietDbm; // NOLINT(bugprone-signed-char-misuse,cert-str34-c)
    const int interference = static_cast<int>(air_.spec().interference * 30.0);
    return static_cast<int8_t>(level + interference + static_cast<int>(random_.below(5)));
}

oru_status_t CoordinatorRadio::startScan(uint8_t type, uint32_t channel_mask, uint8_t duration) {
    if (!running()) {
        return ORU_STATUS_DEVICE_STATE_INVALID;
    }
    if (scanning_) {
        return ORU_STATUS_BUSY;
    }
    scanning_ = true;
    ++scan_;
    const uint64_t dwell_us = kSuperframeUs * ((1ULL << duration) + 1);
    const auto first = static_cast<uint8_t>(std::countr_zero(channel_mask));
    scan_channel_ = first;
    timeline_.surely(dwell_us, [this, type, channel_mask, first, dwell_us, scan = scan_] {
        scanChannel(type, channel_mask, first, dwell_us, scan);
    });
    return ORU_STATUS_OK;
}

// The time on a channel is over: its results, then the next channel.
void CoordinatorRadio::scanChannel(uint8_t type, uint32_t channel_mask, uint8_t channel, uint64_t dwell_us,
                                   uint32_t scan) {
    if (!scanning_ || scan != scan_) {
        return;
    }
    if (type == kScanActive) {
        reportNetworks(channel);
    } else {
        scratch_ = {};
        scratch_.kind = IndicationKind::energy_result;
        scratch_.channel = channel;
        scratch_.rssi = energyOf(channel);
        tell(scratch_);
    }
    const uint32_t rest = channel_mask & ~((2U << channel) - 1);
    if (rest == 0) {
        endScan(channel, ORU_STATUS_OK);
        return;
    }
    scan_channel_ = static_cast<uint8_t>(std::countr_zero(rest));
    timeline_.surely(dwell_us, [this, type, rest, dwell_us, scan, next = scan_channel_] {
        scanChannel(type, rest, next, dwell_us, scan);
    });
}

void CoordinatorRadio::reportNetworks(uint8_t channel) {
    const auto found = [&](uint16_t pan_id, bool joinable, const Eui64 &extended_pan_id, uint8_t link_quality) {
        scratch_ = {};
        scratch_.kind = IndicationKind::network_found;
        scratch_.lqi = link_quality;
        scratch_.rssi = rssiOf(link_quality);
        scratch_.network.pan_id = pan_id;
        scratch_.network.channel = channel;
        scratch_.network.allowing_join = joinable;
        std::copy(extended_pan_id.begin(), extended_pan_id.end(), scratch_.network.extended_pan_id);
        scratch_.network.stack_profile = 2; // Zigbee PRO
        tell(scratch_);
    };
    if (network_ && network_->channel == channel) { // heard through our own routers
        found(network_->pan_id, join_open_ || join_zts_, network_->extended_pan_id, UINT8_MAX);
    }
    for (const ForeignNetwork &network : scenario_.foreign_networks) {
        if (network.channel == channel) {
            found(network.pan_id, network.permit_joining, network.extended_pan_id, network.link_quality);
        }
    }
}

void CoordinatorRadio::endScan(uint8_t channel, oru_status_t status) {
    scanning_ = false;
    scratch_ = {};
    scratch_.kind = IndicationKind::scan_complete;
    scratch_.channel = channel;
    scratch_.status = status;
    tell(scratch_);
}

// ---------------------------------------------------------------- queries

oru_status_t CoordinatorRadio::fwVersion(std::span<uint8_t> version, uint8_t &count) {
    const std::vector<uint8_t> &firmware = scenario_.coordinator.firmware_version;
    const size_t written = std::min(version.size(), firmware.size());
    std::copy_n(firmware.begin(), written, version.begin());
    count = static_cast<uint8_t>(written);
    return ORU_STATUS_OK;
}

oru_status_t CoordinatorRadio::adapterInfo(oruZbHal_adapterInfo_t &info) {
    info = info_;
    info.node_id = network_ ? kCoordinatorNode : kNoNode;
    return ORU_STATUS_OK;
}

oru_status_t CoordinatorRadio::children(std::span<oruZbHal_childTableEntry_t> entries, uint8_t &count) {
    count = static_cast<uint8_t>(networkUp() ? mesh_.children(entries) : 0);
    return ORU_STATUS_OK;
}

oru_status_t CoordinatorRadio::routes(std::span<oruZbHal_routeTableEntry_t> entries, uint8_t &count) {
    count = static_cast<uint8_t>(networkUp() ? mesh_.routes(entries) : 0);
    return ORU_STATUS_OK;
}

oru_status_t CoordinatorRadio::neighbors(std::span<oruZbHal_neighborTableEntry_t> entries, uint8_t &count) {
    count = static_cast<uint8_t>(networkUp() ? mesh_.neighbors(entries) : 0);
    return ORU_STATUS_OK;
}

oru_status_t CoordinatorRadio::debugCounters(oruZbHal_counters_t &counters, bool clear) {
    if (stack_ == Stack::off) {
        return ORU_STATUS_DEVICE_STATE_INVALID;
    }
    counters = air_.counters();
    if (clear) {
        air_.clearCounters();
    }
    return ORU_STATUS_OK;
}

} // namespace corvane::mesh
