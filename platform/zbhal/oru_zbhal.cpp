// SPDX-License-Identifier: Apache-2.0
//
// Entry points of the Zigbee HAL: check the arguments, then hand over to the adapter.
#include "oru_zbhal.h"
#include "zbhal_core.h"

using corvane::zbhal::Adapter;
using corvane::zbhal::hal;

namespace {

constexpr uint32_t kChannelMask = 0x07FFF800; // channels 11 to 26
constexpr uint8_t kMaxInterpanPayload = 102;  // what a MAC frame leaves beside the inter-PAN headers
constexpr uint8_t kInstallCodeLength = 18;
constexpr uint8_t kMaxScanDuration = 14;

bool channelValid(uint8_t channel) {
    return channel >= 11 && channel <= 26;
}

bool regionValid(oruZbHal_region_t region) {
    return region >= ORU_ZB_HAL_REGION_UNITED_STATES && region < ORU_ZB_HAL_REGION_MAX &&
           region != ORU_ZB_HAL_REGION_UNIFIED;
}

oru_status_t send(bool zdo, oruZbHal_nodeId_t node_id, oruZbHal_apsFrame_t *aps_frame, const uint8_t *payload,
                  uint16_t length, oruZbHal_commandSentCallback_t callback, uint32_t request_id) {
    if (aps_frame == nullptr || (payload == nullptr && length != 0)) {
        return ORU_STATUS_NULL_POINTER;
    }
    if (length > corvane::zbhal::MAX_APS_PAYLOAD) {
        return ORU_ZB_HAL_APS_ASDU_TOO_LONG;
    }
    corvane::zbhal::SendRequest request{node_id, *aps_frame, {payload, length}, zdo, callback, request_id};
    const oru_status_t status = hal().send(request);
    if (status == ORU_STATUS_OK) {
        aps_frame->sequence = request.aps_frame.sequence;
    }
    return status;
}

// Common form of the three table queries: 8-bit count, capacity in and entries out.
template <typename Entry>
oru_status_t table(Entry *entries, uint8_t *count, oru_status_t (Adapter::*query)(std::span<Entry>, uint8_t &)) {
    if (entries == nullptr || count == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    return hal().run([&](Adapter &adapter) {
        uint8_t written = 0;
        const oru_status_t status = (adapter.*query)(std::span<Entry>(entries, *count), written);
        if (status == ORU_STATUS_OK) {
            *count = written;
        }
        return status;
    });
}

} // namespace

// ---------------------------------------------------------------- life cycle

oru_status_t oruZbHal_init(oruZbHal_callbacks_t *callbacks, int32_t *event_descriptor) {
    if (callbacks == nullptr || event_descriptor == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    return hal().init(callbacks, event_descriptor);
}

oru_status_t oruZbHal_setAdapterName(char *device) {
    return device == nullptr ? ORU_STATUS_NULL_POINTER : hal().setAdapterName(device);
}

oru_status_t oruZbHal_enable(void) {
    return hal().enable();
}

oru_status_t oruZbHal_disable(void) {
    return hal().run([](Adapter &adapter) { return adapter.disable(); });
}

oru_status_t oruZbHal_reset(void) {
    return hal().run([](Adapter &adapter) { return adapter.reset(); });
}

oru_status_t oruZbHal_factoryReset(void) {
    return hal().run([](Adapter &adapter) { return adapter.factoryReset(); });
}

oru_status_t oruZbHal_processAction(void) {
    return hal().processAction();
}

oru_status_t oruZbHal_runEvents(uint32_t max_wait_ms) {
    return hal().runEvents(max_wait_ms);
}

oru_status_t oruZbHal_echo(uint32_t count) {
    return hal().run([count](Adapter &adapter) { return adapter.echo(count); });
}

// ---------------------------------------------------------------- network

oru_status_t oruZbHal_formNetworkAuto(uint8_t mode, uint32_t primary_channel_mask, uint32_t secondary_channel_mask,
                                      uint8_t final_channel, oruZbHal_region_t region) {
    if (mode != 1) {
        return ORU_STATUS_BAD_PARAM;
    }
    const uint32_t primary = primary_channel_mask & kChannelMask;
    if (primary == 0 || !channelValid(final_channel) || !regionValid(region)) {
        return ORU_STATUS_PARAM_OUT_OF_RANGE;
    }
    return hal().run([=](Adapter &adapter) {
        return adapter.formNetwork(primary, secondary_channel_mask & kChannelMask, final_channel, region);
    });
}

oru_status_t oruZbHal_addEndpoint(uint8_t endpoint, uint16_t profile_id, uint16_t device_id, uint8_t device_version,
                                  uint8_t input_cluster_count, uint8_t output_cluster_count,
                                  const uint16_t *input_clusters, const uint16_t *output_clusters) {
    if ((input_clusters == nullptr && input_cluster_count != 0) ||
        (output_clusters == nullptr && output_cluster_count != 0)) {
        return ORU_STATUS_NULL_POINTER;
    }
    if (endpoint == 0 || endpoint > 240 || input_cluster_count + output_cluster_count > ORU_ZB_HAL_MAX_CLUSTERS) {
        return ORU_STATUS_PARAM_OUT_OF_RANGE;
    }
    return hal().run([&](Adapter &adapter) {
        return adapter.addEndpoint({endpoint,
                                    profile_id,
                                    device_id,
                                    device_version,
                                    {input_clusters, input_cluster_count},
                                    {output_clusters, output_cluster_count}});
    });
}

oru_status_t oruZbHal_leaveNetwork(void) {
    return hal().run([](Adapter &adapter) { return adapter.leaveNetwork(); });
}

oru_status_t oruZbHal_getNetworkInfo(oruZbHal_networkParameters_t *params) {
    if (params == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    return hal().run([params](Adapter &adapter) { return adapter.networkInfo(*params); });
}

oru_status_t oruZbHal_setRadioPower(int8_t power) {
    return hal().run([power](Adapter &adapter) { return adapter.setRadioPower(power); });
}

oru_status_t oruZbHal_setRegion(oruZbHal_region_t region) {
    if (!regionValid(region)) {
        return ORU_STATUS_PARAM_OUT_OF_RANGE;
    }
    return hal().setRegion(region);
}

// ---------------------------------------------------------------- joining and keys

oru_status_t oruZbHal_permitJoinNetwork(bool allow) {
    return hal().run([allow](Adapter &adapter) { return adapter.permitJoin(allow); });
}

oru_status_t oruZbHal_permitJoinZts(bool enable) {
    return hal().run([enable](Adapter &adapter) { return adapter.permitJoinZts(enable); });
}

oru_status_t oruZbHal_addInstallCode(uint8_t *eui64_little_endian, uint8_t *install_code, uint8_t length) {
    if (eui64_little_endian == nullptr || install_code == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    if (length != kInstallCodeLength) {
        return ORU_STATUS_DATA_LEN_INVALID;
    }
    return hal().run([&](Adapter &adapter) {
        return adapter.addInstallCode(std::span<const uint8_t, 8>(eui64_little_endian, 8),
                                      std::span<const uint8_t, kInstallCodeLength>(install_code, kInstallCodeLength));
    });
}

oru_status_t oruZbHal_clearTransientLinkKeys(void) {
    return hal().run([](Adapter &adapter) { return adapter.clearTransientLinkKeys(); });
}

oru_status_t oruZbHal_getKeyTableEntry(uint8_t index, oruZbHal_keyStruct_t *entry) {
    if (entry == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    return hal().run([=](Adapter &adapter) { return adapter.keyTableEntry(index, *entry); });
}

oru_status_t oruZbHal_getKey(oruZbHal_keyType_t type, oruZbHal_keyStruct_t *key) {
    if (key == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    return hal().run([=](Adapter &adapter) { return adapter.key(type, *key); });
}

// ---------------------------------------------------------------- sending

oru_status_t oruZbHal_sendZclUnicast(oruZbHal_nodeId_t node_id, oruZbHal_apsFrame_t *aps_frame, uint8_t *payload,
                                     uint16_t payload_len, oruZbHal_commandSentCallback_t callback,
                                     uint32_t *request_id) {
    return send(false, node_id, aps_frame, payload, payload_len, callback, request_id == nullptr ? 0 : *request_id);
}

oru_status_t oruZbHal_sendZdoMessage(oruZbHal_nodeId_t node_id, oruZbHal_apsFrame_t *aps_frame, uint8_t *frame,
                                     uint16_t frame_len, oruZbHal_commandSentCallback_t callback, uint32_t request_id) {
    return send(true, node_id, aps_frame, frame, frame_len, callback, request_id);
}

oru_status_t oruZbHal_sendRawInterpanMessageOnChannels(uint32_t channel_mask, oruZbHal_interpanHeader_t *header,
                                                       uint8_t *zcl_frame, uint8_t zcl_frame_len,
                                                       oruZbHal_interpanSentCallback_t callback) {
    if (header == nullptr || (zcl_frame == nullptr && zcl_frame_len != 0)) {
        return ORU_STATUS_NULL_POINTER;
    }
    if ((channel_mask & kChannelMask) == 0) {
        return ORU_STATUS_PARAM_OUT_OF_RANGE;
    }
    if (zcl_frame_len > kMaxInterpanPayload) {
        return ORU_ZB_HAL_MAC_FRAME_TOO_LONG;
    }
    corvane::zbhal::InterpanRequest request{channel_mask & kChannelMask, *header, {zcl_frame, zcl_frame_len}};
    return hal().sendInterpan(request, callback);
}

// ---------------------------------------------------------------- queries and counters

oru_status_t oruZbHal_getFwVersion(uint8_t *version, uint8_t *count) {
    if (version == nullptr || count == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    return hal().run([=](Adapter &adapter) { return adapter.fwVersion(std::span<uint8_t>(version, *count), *count); });
}

oru_status_t oruZbHal_getAdapterInfo(oruZbHal_adapterInfo_t *info) {
    if (info == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    return hal().run([info](Adapter &adapter) { return adapter.adapterInfo(*info); });
}

oru_status_t oruZbHal_startScan(uint8_t type, uint32_t channel_mask, uint8_t duration) {
    if (type > 1 || (channel_mask & kChannelMask) == 0 || duration > kMaxScanDuration) {
        return ORU_STATUS_PARAM_OUT_OF_RANGE;
    }
    return hal().run([=](Adapter &adapter) { return adapter.startScan(type, channel_mask & kChannelMask, duration); });
}

oru_status_t oruZbHal_getChildren(oruZbHal_childTableEntry_t *entries, uint8_t *count) {
    return table(entries, count, &Adapter::children);
}

oru_status_t oruZbHal_getRouteTableEntries(oruZbHal_routeTableEntry_t *entries, uint8_t *count) {
    return table(entries, count, &Adapter::routes);
}

oru_status_t oruZbHal_getNeighbors(oruZbHal_neighborTableEntry_t *entries, uint8_t *count) {
    return table(entries, count, &Adapter::neighbors);
}

oru_status_t oruZbHal_getDebugCounters(oruZbHal_counters_t *counters) {
    if (counters == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    return hal().run([=](Adapter &adapter) { return adapter.debugCounters(*counters, false); });
}

oru_status_t oruZbHal_getAndClearDebugCounters(oruZbHal_counters_t *counters) {
    if (counters == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    return hal().run([=](Adapter &adapter) { return adapter.debugCounters(*counters, true); });
}
