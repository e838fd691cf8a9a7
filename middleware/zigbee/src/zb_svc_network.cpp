// SPDX-License-Identifier: Apache-2.0
//
// Network formation and the two ways of opening it to new devices. Joining for everybody and joining by install code
// are separate switches of the adapter; zb_pjoin_state remembers the last change only:
//
//   any state --permit join start--> PJOIN_OPEN        [oruZb_doPermitJoin]
//   any state --permit join stop---> PJOIN_CLOSED      [oruZb_doPermitJoin]
//   any state --ZTS enable---------> ZTS_PJOIN_OPEN    [oruZb_doZtsEnable]
//   any state --ZTS disable--------> PJOIN_CLOSED      [oruZb_doZtsDisable]
//
// A refusal by the adapter leaves the state as it was. No timer closes joining again.
#include "zb_svc_network.h"
#include "zb_discovery_list.h"
#include "zb_region_info.h"
#include "zb_reply.h"
#include "zb_state.h"
#include "zb_svc_pwr.h"
#include "zb_zts.h"
#include <array>

// Zigbee 3.0 channel sets.
static constexpr uint32_t DEFAULT_PRIMARY_MASK = 0x02108800;   // 11, 15, 20, 25
static constexpr uint32_t DEFAULT_SECONDARY_MASK = 0x05EF7000; // the other twelve
static constexpr uint8_t DEFAULT_FINAL_CHANNEL = 25;
static_assert((DEFAULT_PRIMARY_MASK | DEFAULT_SECONDARY_MASK) == 0x07FFF800, "channels 11 to 26");
static_assert((DEFAULT_PRIMARY_MASK & DEFAULT_SECONDARY_MASK) == 0);

static constexpr uint8_t FORMATION_MODE = 1; // the only mode in use

struct channelChoice {
    uint32_t primary_mask;
    uint32_t secondary_mask;
    uint8_t final_channel;
};

// 0 for numbers no mask can hold: the adapter refuses an empty mask.
static constexpr uint32_t channelBit(uint8_t channel) {
    return channel < 32 ? uint32_t{1} << channel : 0;
}

bool oruZb_isValidZBChannel(uint8_t channel) {
    return channel >= 11 && channel <= 26;
}

uint32_t oruZb_createChannelMask(const uint32_t low_channel_to_mask, const uint32_t high_channel_to_mask,
                                 uint32_t channel_mask) {
    const auto low = static_cast<uint8_t>(low_channel_to_mask);
    const auto high = static_cast<uint8_t>(high_channel_to_mask);
    if (!oruZb_isValidZBChannel(low) || !oruZb_isValidZBChannel(high)) {
        return channel_mask;
    }
    uint32_t bits = 0;
    for (uint8_t channel = low; channel <= high; ++channel) {
        bits |= channelBit(channel);
    }
    const uint32_t final_mask = channel_mask & ~bits;
    ZB_LOG_INFO("%s: oruZb_createChannelMask() low:%d high:%d incoming mask:%x final_mask:%x", ZB_SVC,
                low_channel_to_mask, high_channel_to_mask, channel_mask, final_mask);
    return final_mask;
}

static void logChannelChoice(const channelChoice &choice) {
    ZB_LOG_INFO("%s: Furthest zigbee channel:%d\n", ZB_SVC, choice.final_channel);
    ZB_LOG_INFO("%s: primary_channel_mask:%x\n", ZB_SVC, choice.primary_mask);
    ZB_LOG_INFO("%s: secondary_channel_mask:%x\n", ZB_SVC, choice.secondary_mask);
}

static void applyCoexParams(const oruZb_coexParams_t &coex, channelChoice &choice) {
    if (coex.radio802154_inuse != 0) {
        choice.primary_mask = channelBit(coex.radio802154_inuse);
        choice.secondary_mask = choice.primary_mask;
        choice.final_channel = coex.radio802154_inuse;
        ZB_LOG_INFO("%s: Force primary_channel_mask: %x, final_channel: %d\n", ZB_SVC, choice.primary_mask,
                    choice.final_channel);
    } else {
        choice.primary_mask = oruZb_createChannelMask(coex.primary_start, coex.primary_end, choice.primary_mask);
        choice.secondary_mask =
            oruZb_createChannelMask(coex.secondary_start, coex.secondary_end, choice.secondary_mask);
        choice.final_channel = coex.furthest_zb_chnl;
    }
    ZB_LOG_INFO("%s: oruZb_doFormZ3Network() coex parameters:\n", ZB_SVC);
    ZB_LOG_INFO("%s: Avoidance range:[%d,%d,%d,%d]\n", ZB_SVC, coex.primary_start, coex.primary_end,
                coex.secondary_start, coex.secondary_end);
    logChannelChoice(choice);
}

static oru_status_t formNetwork(const channelChoice &choice, oruOipc_nodeId_t client_id,
                                oruOipc_functionId_t callback_id) {
    const oru_status_t status = oruZbHal_formNetworkAuto(FORMATION_MODE, choice.primary_mask, choice.secondary_mask,
                                                         choice.final_channel, oruZb_getRegionCode());
    oruZb_asyncCallResultCallback(status, client_id, callback_id);
    return status;
}

oru_status_t oruZb_doFormZ3Network(oruZb_coexParams_t *coex_params, oruOipc_nodeId_t client_id,
                                   oruOipc_functionId_t callback_id) {
    channelChoice choice{DEFAULT_PRIMARY_MASK, DEFAULT_SECONDARY_MASK, DEFAULT_FINAL_CHANNEL};
    if (coex_params != nullptr) {
        applyCoexParams(*coex_params, choice);
    }
    // The computed secondary set is for the log; the network is kept on the primary channels.
    choice.secondary_mask = 0;
    ZB_LOG_INFO("%s: Force secondary_channel_mask to %x\n", ZB_SVC, choice.secondary_mask);
    return formNetwork(choice, client_id, callback_id);
}

oru_status_t oruZb_doFormZ3NetworkManual(oruZb_channel_t *zigbee_channel, oruOipc_nodeId_t client_id,
                                         oruOipc_functionId_t callback_id) {
    if (zigbee_channel == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    const uint8_t channel = zigbee_channel->channel;
    if (!oruZb_isValidZBChannel(channel)) {
        return ORU_STATUS_PARAM_OUT_OF_RANGE;
    }
    const channelChoice choice{channelBit(channel), channelBit(channel), channel};
    ZB_LOG_INFO("%s: oruZb_doFormZ3NetworkManual() channel selection and masks:\n", ZB_SVC);
    logChannelChoice(choice);
    return formNetwork(choice, client_id, callback_id);
}

oru_status_t oruZb_addEndpoint() {
    static constexpr uint8_t endpoint = 1;
    static constexpr uint16_t home_automation_profile = 0x0104;
    static constexpr uint16_t combined_interface_device = 7;
    static constexpr uint8_t device_version = 1;
    static constexpr std::array<uint16_t, 6> server_clusters = {
        0x0000, // Basic
        0x0003, // Identify
        0x0006, // On/Off
        0x0008, // Level Control
        0x0019, // OTA Upgrade
        0x000A, // Time
    };
    static constexpr std::array<uint16_t, 17> client_clusters = {
        0x0000, // Basic
        0x0003, // Identify
        0x0006, // On/Off
        0x0008, // Level Control
        0x0300, // Color Control
        0x0004, // Groups
        0x0101, // Door Lock
        0x0020, // Poll Control
        0x0500, // IAS Zone
        0x0001, // Power Configuration
        0x0B05, // Diagnostics
        0x0201, // Thermostat
        0x0406, // Occupancy Sensing
        0x0400, // Illuminance Measurement
        0x0402, // Temperature Measurement
        0x0102, // Window Covering
        0xFC57, // manufacturer-specific
    };
    return oruZbHal_addEndpoint(endpoint, home_automation_profile, combined_interface_device, device_version,
                                static_cast<uint8_t>(server_clusters.size()),
                                static_cast<uint8_t>(client_clusters.size()), server_clusters.data(),
                                client_clusters.data());
}

oru_status_t oruZb_doPermitJoin(int allow) {
    const oru_status_t status = oruZbHal_permitJoinNetwork(allow != 0);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_WARN("%s: %s(): oruZbHal_permitJoinNetwork failed, status = %d", ZB_SVC, __func__, status);
        oruZb_pwrSvcRelease();
        return ORU_STATUS_GENERAL_ERROR;
    }
    if (allow != 0) {
        zb_pjoin_state = ORU_ZB_HAL_STATE_PJOIN_OPEN;
        oruZb_pwrSvcAcquire();
        ZB_LOG_INFO("%s: zb_permit_join", ZB_METRICS);
        device_fail_to_join_counter = 0;
        return ORU_STATUS_OK;
    }
    zb_pjoin_state = ORU_ZB_HAL_STATE_PJOIN_CLOSED;
    oruZb_pwrSvcRelease();
    const uint32_t failures = device_fail_to_join_counter.exchange(0);
    if (failures != 0) {
        ZB_LOG_INFO("%s: zb_device_join_failure, failure count:%d", ZB_METRICS, failures);
    }
    return ORU_STATUS_OK;
}

oru_status_t oruZb_doZtsAddDevices(oruOipc_size_t data_len, oruZb_ztsDeviceInfoList_t *zts_device_info_list) {
    if (zts_device_info_list == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    if (data_len == 0) {
        return ORU_STATUS_PARAM_OUT_OF_RANGE;
    }
    const uint32_t count = static_cast<uint32_t>(data_len / sizeof(oruZb_ztsDeviceInfo_t));
    ZB_LOG_INFO("%s: %s: Adding %d devices to ztsList", ZB_SVC, __func__, count);
    oruZb_ztsDeviceInfo_t *devices = zts_device_info_list->dev_array;
    for (uint32_t i = 0; i < count; ++i) {
        const oru_status_t status = oruZb_ztsListAddDevice(&devices[i]);
        if (status != ORU_STATUS_OK) {
            ZB_LOG_ERROR("%s: %s(): Failed to add ZTS device to allowlist in Zigbee service: status=%d", ZB_SVC,
                         __func__, status);
            return status;
        }
    }
    return ORU_STATUS_OK;
}

oru_status_t oruZb_doZtsClearDevices() {
    ZB_LOG_INFO("%s: %s", ZB_SVC, __func__);
    oruZb_ztsListRemoveAllDevices();
    oruZbHal_clearTransientLinkKeys();
    return ORU_STATUS_OK;
}

// For the log only, and only four bytes of each key. The adapter refuses the first index past its table; an adapter
// that never refuses ends the dump after the last index of 8 bits.
static void logKeyTable() {
    ZB_LOG_INFO("%s: ZtsEnable: ZTS devices with link keys: \n", ZB_SVC);
    oruZbHal_keyStruct_t entry{};
    for (uint32_t index = 0; index <= UINT8_MAX; ++index) {
        if (oruZbHal_getKeyTableEntry(static_cast<uint8_t>(index), &entry) != ORU_STATUS_OK) {
            return;
        }
        const uint8_t *eui64 = entry.partner_eui64;
        const uint8_t *key = entry.key.contents;
        ZB_LOG_INFO("%s: ZtsEnable: Key %02d | Type: %02d | EUI: %02X%02X%02X%02X%02X%02X%02X%02X | Key: "
                    "%02X%02X..%02X%02X",
                    ZB_SVC, index, entry.type, eui64[7], eui64[6], eui64[5], eui64[4], eui64[3], eui64[2], eui64[1],
                    eui64[0], key[0], key[1], key[14], key[15]);
    }
}

oru_status_t oruZb_doZtsEnable(oruOipc_nodeId_t client_id, oruOipc_functionId_t callback_id) {
    ZB_LOG_INFO("%s: %s: Clearing and reloading transient ZTS keys", ZB_SVC, __func__);
    oruZbHal_clearTransientLinkKeys();
    oruZb_ztsLoadInstallCodes();
    const oru_status_t status = oruZbHal_permitJoinZts(true);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s(): Failed to enable permit join ZTS mode: status=%d", ZB_SVC, __func__, status);
    } else {
        zb_pjoin_state = ORU_ZB_HAL_STATE_ZTS_PJOIN_OPEN;
        logKeyTable();
    }
    oruZb_asyncCallResultCallback(status, client_id, callback_id);
    return status;
}

oru_status_t oruZb_doZtsDisable(oruOipc_nodeId_t client_id, oruOipc_functionId_t callback_id) {
    const oru_status_t status = oruZbHal_permitJoinZts(false);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s(): Failed to disable permit join ZTS mode: status=%d", ZB_SVC, __func__, status);
    } else {
        zb_pjoin_state = ORU_ZB_HAL_STATE_PJOIN_CLOSED;
    }
    ZB_LOG_INFO("%s: %s: Clearing transient ZTS keys", ZB_SVC, __func__);
    oruZbHal_clearTransientLinkKeys();
    oruZb_asyncCallResultCallback(status, client_id, callback_id);
    return status;
}
