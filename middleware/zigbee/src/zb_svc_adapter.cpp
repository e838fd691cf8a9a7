// SPDX-License-Identifier: Apache-2.0
//
// Bring-up of the HAL, and what the reports of its stack mean for the adapter state and for clients.
#include "zb_svc_adapter.h"
#include "zb_callbacks.h"
#include "zb_queue.h"
#include "zb_reply.h"
#include "zb_state.h"

oruZbHal_callbacks_t zb_hal_callbacks;

// --------------------------------------------------------------------------------------------------------- bring-up

oru_status_t oruZb_halInit(char *device) {
    if (device == nullptr) {
        return ORU_STATUS_NULL_POINTER;
    }
    if (adapter_state.load() != ORU_ZB_ADAPTER_OFF) {
        return ORU_STATUS_GENERAL_ERROR;
    }
    oruZb_halInitCallbacks(&zb_hal_callbacks);
    // IPC threads read zb_hal_signal whenever they post: they must see either no descriptor or the whole one.
    int32_t descriptor = zb_hal_signal.load();
    if (oruZbHal_init(&zb_hal_callbacks, &descriptor) != ORU_STATUS_OK) {
        return ORU_STATUS_GENERAL_ERROR;
    }
    zb_hal_signal.store(descriptor);
    if (oruZbHal_setAdapterName(device) != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: Failed to set adapter device %s", ZB_SVC, device);
    }
    oru_status_t status = oruZbHal_enable();
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s(): oruZbHal_enable return status = %d", ZB_SVC, __func__, status);
        return ORU_STATUS_GENERAL_ERROR;
    }
    status = oruZb_setAdapterState(ORU_ZB_ADAPTER_TURNING_ON);
    if (status == ORU_STATUS_OK) {
        oruZb_publishEvent(ORU_ZB_SVC_ADAPTER_ENABLING, nullptr, 0);
    } else if (status == ORU_STATUS_ALREADY_EXISTS) {
        ZB_LOG_INFO("%s: %s(): adapter_state = ORU_ZB_ADAPTER_TURNING_ON !", ZB_SVC, __func__);
    } else {
        ZB_LOG_WARN("%s: %s(): oruZb_setAdapterState return status = %d", ZB_SVC, __func__, status);
    }
    return ORU_STATUS_OK;
}

// ----------------------------------------------------------------------------------------------------- stack status

// Operation printed by the parts of the stack-status handling.
static constexpr char STACK_STATUS_CHANGE[] = "oruZb_handleStackStatusChange";

// Goes to the state and gives the event that announces it: 0 when the change was refused or unnecessary.
static oruOipc_eventId_t changeTo(oruZb_adapterState_t state) {
    return oruZb_setAdapterState(state) == ORU_STATUS_OK ? oruZb_adapterStateToEventID(state) : oruOipc_eventId_t{0};
}

static void logFormedNetwork() {
    oruZbHal_networkParameters_t params{};
    const oru_status_t status = oruZbHal_getNetworkInfo(&params);
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s(): Failed to get network info from adapter, status:%d", ZB_SVC, STACK_STATUS_CHANGE,
                     status);
        return;
    }
    ZB_LOG_INFO("%s: Network formed with zb_radio_channel: %d and zb_tx_power: %d", ZB_METRICS, params.radio_channel,
                params.radio_tx_power);
}

static oruOipc_eventId_t turnOff() {
    if (oruZb_setAdapterState(ORU_ZB_ADAPTER_TURNING_OFF) != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s(): set adapter state failed", ZB_SVC, STACK_STATUS_CHANGE);
    }
    return changeTo(ORU_ZB_ADAPTER_OFF);
}

static oruOipc_eventId_t becomeReady() {
    const oruOipc_eventId_t event = changeTo(ORU_ZB_ADAPTER_SERVICE_READY);
    if (event != 0) {
        logFormedNetwork();
    }
    return event;
}

// The HAL restarts a crashed stack by itself; the service only passes through OFF to wait for it.
static oruOipc_eventId_t restartAfterCrash() {
    ZB_LOG_INFO("%s: ****** zb_driver_crash detected! *******", ZB_METRICS);
    const oruOipc_eventId_t off = turnOff();
    const oruOipc_eventId_t enabling = changeTo(ORU_ZB_ADAPTER_TURNING_ON);
    return enabling != 0 ? enabling : off;
}

// State changes of one stack status; gives the adapter event to publish, 0 for none.
static oruOipc_eventId_t followStack(oruZbHal_stackStatus_t status) {
    switch (status) {
    case ORU_ZB_HAL_STACK_NOT_INITIALIZED:
    case ORU_ZB_HAL_STACK_BUSY_UPGRADING:
        return 0;
    case ORU_ZB_HAL_STACK_ENABLING:
        return changeTo(ORU_ZB_ADAPTER_TURNING_ON);
    case ORU_ZB_HAL_STACK_BUSY_RESETTING:
        ZB_LOG_INFO("%s: ****** zb_driver resetting! *******", ZB_METRICS);
        return 0;
    case ORU_ZB_HAL_STACK_ENABLED_NETWORK_UP:
        return becomeReady();
    case ORU_ZB_HAL_STACK_ENABLED_NO_NETWORK:
        return changeTo(ORU_ZB_ADAPTER_ON);
    case ORU_ZB_HAL_STACK_DISABLED:
        return turnOff();
    case ORU_ZB_HAL_STACK_FATAL_ERROR:
        return restartAfterCrash();
    }
    ZB_LOG_WARN("%s: %s(): unknown hal status callback status %d !", ZB_SVC, STACK_STATUS_CHANGE, status);
    return 0;
}

// The network event goes out whatever became of the state changes; 0 for none.
static oruOipc_eventId_t networkEventOf(oruZbHal_stackStatus_t status) {
    switch (status) {
    case ORU_ZB_HAL_STACK_ENABLED_NETWORK_UP:
        return ORU_ZB_SVC_NETWORK_FORMED;
    case ORU_ZB_HAL_STACK_ENABLED_NO_NETWORK:
        return ORU_ZB_SVC_NETWORK_DOWN;
    case ORU_ZB_HAL_STACK_DISABLED:
    case ORU_ZB_HAL_STACK_FATAL_ERROR:
        return ORU_ZB_SVC_NETWORK_NOT_INITIALIZED;
    case ORU_ZB_HAL_STACK_NOT_INITIALIZED:
    case ORU_ZB_HAL_STACK_ENABLING:
    case ORU_ZB_HAL_STACK_BUSY_UPGRADING:
    case ORU_ZB_HAL_STACK_BUSY_RESETTING:
        break;
    }
    return 0;
}

oru_status_t oruZb_handleStackStatusChange(oruZbHal_stackStatus_t status) {
    ZB_LOG_INFO("^N|^^^ %s: %s(): status %d stack status: %d", ZB_SVC, __func__, 0, status);
    for (const oruOipc_eventId_t event : {followStack(status), networkEventOf(status)}) {
        if (event != 0) {
            oruZb_publishEvent(event, nullptr, 0);
        }
    }
    return ORU_STATUS_OK;
}
