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
constexpr uint8_t kDefaultRadius = 30; // hops
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
        if (pending.handle != 0) {
            ++in_flight;
        } else if (free == nullptr) {
            free = &pending;
        }
    }
    return in_flight < air_.spec().max_in_flight ? free : nullptr;
}

oru_status_t CoordinatorRadio::send(zbhal::SendRequest &request) {
    if (stack_ != Stack::network_up) {
        return ORU_STATUS_DEVICE_STATE_INVALID;
    }
    if (request.destination == kCoordinatorNode) {
        return ORU_ZB_HAL_NWK_INVALID_REQUEST;
    }
    Pending *pending = freePending();
    const std::shared_ptr<Flight> flight = pending == nullptr ? nullptr : makeFlight(request);
    if (flight == nullptr || !host_.reserve()) {
        return ORU_ZB_HAL_MAC_TRANSACTION_OVERFLOW;
    }
    request.aps_frame.sequence = ++aps_counter_;
    const bool broadcast = request.destination >= kFirstBroadcast;

    pending->handle = next_handle_++;
    pending->withheld = false;
    Indication &confirmation = pending->confirmation;
    confirmation.kind = IndicationKind::send_confirmed;
    confirmation.outgoing_type = broadcast ? ORU_ZB_HAL_OUTGOING_BROADCAST : ORU_ZB_HAL_OUTGOING_DIRECT;
    confirmation.node_id = request.destination;
    confirmation.aps_frame = request.aps_frame;
    if (confirmation.aps_frame.radius == 0) {
        confirmation.aps_frame.radius = kDefaultRadius;
    }
    confirmation.request_id = request.request_id;
    confirmation.sent_callback = request.callback;
    confirmation.length = static_cast<uint16_t>(request.payload.size());
    std::copy(request.payload.begin(), request.payload.end(), confirmation.payload.begin());

    flight->handle = pending->handle;
    mesh_.send(flight);
    return ORU_STATUS_OK;
}

// Null when there is no memory for the frame.
std::shared_ptr<Flight> CoordinatorRadio::makeFlight(const zbhal::SendRequest &request) {
    const uint16_t options = request.aps_frame.options;
    try {
        auto flight = std::make_shared<Flight>(static_cast<Coordinator &>(*this));
        flight->destination = request.destination;
        flight->acknowledged = (options & (ORU_ZB_HAL_APS_OPTION_RETRY | ORU_ZB_HAL_APS_OPTION_ACKNOWLEDGED)) != 0;
        flight->retries_left = flight->acknowledged ? kApsRetries : 0;
        flight->message = {request.aps_frame.profile_id,
                           request.aps_frame.cluster_id,
                           request.aps_frame.source_endpoint,
                           request.aps_frame.destination_endpoint,
                           {request.payload.begin(), request.payload.end()}};
        return flight;
    } catch (const std::bad_alloc &) {
        return nullptr;
    }
}

void CoordinatorRadio::conclude(Pending &pending, int32_t status) {
    pending.handle = 0;
    pending.confirmation.status = status;
    if (const auto ordered = host_.takeRefusal(Operation::confirmation)) {
        pending.confirmation.status = *ordered;
    }
    host_.confirm(pending.confirmation);
}

void CoordinatorRadio::sendDone(uint64_t handle, oruZbHal_clusterCommandStatus_t status, bool withheld) {
    const auto pending = std::find_if(pending_.begin(), pending_.end(),
                                      [handle](const Pending &entry) { return entry.handle == handle; });
    if (pending == pending_.end()) {
        return; // concluded when the stack's work was ended
    }
    if (withheld || hold_) {
        pending->withheld = true;
        pending->confirmation.status = status;
        return;
    }
    conclude(*pending, status);
}

void CoordinatorRadio::holdConfirmations(bool hold) {
    hold_ = hold;
    for (Pending &pending : pending_) {
        if (!hold && pending.handle != 0 && pending.withheld) {
            conclude(pending, pending.confirmation.status);
        }
    }
}

// The stack stops working: everything accepted so far ends here, in the order in which it was sent.
void CoordinatorRadio::abandonTraffic() {
    for (;;) {
        Pending *oldest = nullptr;
        for (Pending &pending : pending_) {
            if (pending.handle != 0 && (oldest == nullptr || pending.handle < oldest->handle)) {
                oldest = &pending;
            }
        }
        if (oldest == nullptr) {
            break;
        }
        conclude(*oldest, ORU_ZB_HAL_NWK_FRAME_NOT_BUFFERED);
    }
    for (PendingInterpan &pending : pending_interpan_) {
        if (pending.handle != 0) {
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
    host_.indicate(scratch_);
}

// ---------------------------------------------------------------- inter-PAN

oru_status_t CoordinatorRadio::sendInterpan(uint32_t channel_mask, const oruZbHal_interpanHeader_t & /*header*/,
                                            std::span<const uint8_t> /*frame*/,
                                            oruZbHal_interpanSentCallback_t callback) {
    if (!running()) {
        return ORU_STATUS_DEVICE_STATE_INVALID;
    }
    const auto pending = std::find_if(pending_interpan_.begin(), pending_interpan_.end(),
                                      [](const PendingInterpan &entry) { return entry.handle == 0; });
    if (pending == pending_interpan_.end()) {
        return ORU_STATUS_BUSY;
    }
    if (!host_.reserve()) {
        return ORU_ZB_HAL_MAC_TRANSACTION_OVERFLOW;
    }
    *pending = {next_handle_++, callback};
    if (host_.takeRefusal(Operation::interpan_completion)) {
        return ORU_STATUS_OK; // its completion is lost: only the end of the stack's work concludes it
    }
    const auto channels = static_cast<uint64_t>(std::popcount(channel_mask));
    timeline_.surely(channels * kInterpanChannelUs, [this, handle = pending->handle, entry = &*pending] {
        if (entry->handle == handle) {
            const bool sent = air_.broadcast(0).outcome == Air::Outcome::delivered;
            concludeInterpan(*entry,
                             sent ? oru_status_t{ORU_STATUS_OK} : oru_status_t{ORU_ZB_HAL_MAC_CHANNEL_ACCESSS_FAILURE});
        }
    });
    return ORU_STATUS_OK;
}

void CoordinatorRadio::concludeInterpan(PendingInterpan &pending, oru_status_t status) {
    scratch_ = {};
    scratch_.kind = IndicationKind::interpan_sent;
    scratch_.status = status;
    scratch_.interpan_callback = pending.callback;
    pending.handle = 0;
    host_.confirm(scratch_);
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
        host_.indicate(scratch_);
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
        host_.indicate(scratch_);
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
    host_.indicate(scratch_);
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
