// SPDX-License-Identifier: Apache-2.0
//
// Adapter state machine.
//
//   OFF -----------> TURNING_ON       bring-up, enable radio, stack ENABLING; after a fatal error
//   TURNING_ON ----> SERVICE_READY    stack up with a network
//   TURNING_ON ----> ON               stack up without a network
//   ON <-----------> SERVICE_READY    network formed / gone
//   ON, SERVICE_READY <--> INTERPAN_IN_PROGRESS    inter-PAN send begun / ended
//   any -----------> TURNING_OFF      disable radio, stack DISABLED or fatal
//   TURNING_OFF ---> OFF              stack DISABLED or fatal
//
// ON: stack up, no network. SERVICE_READY: stack up, network formed. INTERPAN_IN_PROGRESS: the radio is lent out and
// client messages that need the network are refused. oruZb_setAdapterState is the only writer and logs every change.
#include "zb_callbacks.h"
#include "zb_server.h"
#include "zb_svc.h"
#include <algorithm>
#include <array>
#include <cerrno>
#include <initializer_list>
#include <unistd.h>

std::atomic<oruZb_adapterState_t> adapter_state{ORU_ZB_ADAPTER_OFF};
oruZb_adapterState_t adapter_state_before_interpan = ORU_ZB_ADAPTER_OFF;
std::atomic<oruZbHal_pjoinState_t> zb_pjoin_state{ORU_ZB_HAL_STATE_PJOIN_CLOSED};
std::atomic<int32_t> zb_hal_signal{-1};
oruZbHal_callbacks_t zb_hal_callbacks;

namespace {

struct StateInfo {
    oruZb_adapterState_t state;
    const char *name;
    oruOipc_eventId_t event;
};

// The states with a name of their own, ascending; every other number is an unknown state and a critical error.
constexpr std::array<StateInfo, 8> state_infos = {{
    {ORU_ZB_ADAPTER_OFF, "ORU_ZB_ADAPTER_OFF", ORU_ZB_SVC_ADAPTER_OFF},
    {ORU_ZB_ADAPTER_ON, "ORU_ZB_ADAPTER_ON", ORU_ZB_SVC_ADAPTER_ON},
    {ORU_ZB_ADAPTER_TURNING_ON, "ORU_ZB_ADAPTER_TURNING_ON", ORU_ZB_SVC_ADAPTER_ENABLING},
    {ORU_ZB_ADAPTER_TURNING_OFF, "ORU_ZB_ADAPTER_TURNING_OFF", ORU_ZB_SVC_ADAPTER_DISABLING},
    {ORU_ZB_ADAPTER_UPGRADING, "ORU_ZB_ADAPTER_UPGRADING", ORU_ZB_SVC_ADAPTER_CRITICAL_ERROR},
    {ORU_ZB_ADAPTER_INTERPAN_IN_PROGRESS, "ORU_ZB_ADAPTER_INTERPAN_IN_PROGRESS", ORU_ZB_SVC_ADAPTER_CRITICAL_ERROR},
    {ORU_ZB_ADAPTER_SERVICE_READY, "ORU_ZB_ADAPTER_SERVICE_READY", ORU_ZB_SVC_ADAPTER_SERVICE_READY},
    {ORU_ZB_ADAPTER_STATE_ERROR, "ORU_ZB_ADAPTER_STATE_ERROR", ORU_ZB_SVC_ADAPTER_CRITICAL_ERROR},
}};
static_assert(std::is_sorted(state_infos.begin(), state_infos.end(),
                             [](const StateInfo &a, const StateInfo &b) { return a.state < b.state; }));

constexpr StateInfo stateInfo(oruZb_adapterState_t state) {
    for (const StateInfo &info : state_infos) {
        if (info.state == state) {
            return info;
        }
    }
    return {state, "ORUZB_ADAPTER_STATE_UNKNOWN", ORU_ZB_SVC_ADAPTER_CRITICAL_ERROR};
}

constexpr uint32_t setOf(std::initializer_list<oruZb_adapterState_t> states) {
    uint32_t set = 0;
    for (const oruZb_adapterState_t state : states) {
        set |= 1U << static_cast<uint32_t>(state);
    }
    return set;
}

struct Transition {
    oruZb_adapterState_t target;
    uint32_t from; // set of states
};

constexpr uint32_t EVERY_STATE = ~0U;

constexpr std::array<Transition, 6> transitions = {{
    {ORU_ZB_ADAPTER_OFF, setOf({ORU_ZB_ADAPTER_TURNING_OFF})},
    {ORU_ZB_ADAPTER_ON,
     setOf({ORU_ZB_ADAPTER_TURNING_ON, ORU_ZB_ADAPTER_INTERPAN_IN_PROGRESS, ORU_ZB_ADAPTER_SERVICE_READY})},
    {ORU_ZB_ADAPTER_TURNING_ON, setOf({ORU_ZB_ADAPTER_OFF})},
    {ORU_ZB_ADAPTER_TURNING_OFF, EVERY_STATE},
    {ORU_ZB_ADAPTER_INTERPAN_IN_PROGRESS, setOf({ORU_ZB_ADAPTER_ON, ORU_ZB_ADAPTER_SERVICE_READY})},
    {ORU_ZB_ADAPTER_SERVICE_READY,
     setOf({ORU_ZB_ADAPTER_TURNING_ON, ORU_ZB_ADAPTER_INTERPAN_IN_PROGRESS, ORU_ZB_ADAPTER_ON})},
}};
static_assert(std::is_sorted(transitions.begin(), transitions.end(),
                             [](const Transition &a, const Transition &b) { return a.target < b.target; }));

// Only targets of the table are ever held, so the present state always fits into a set.
static_assert(std::all_of(transitions.begin(), transitions.end(), [](const Transition &t) { return t.target < 32; }));

constexpr const Transition *transitionTo(oruZb_adapterState_t target) {
    for (const Transition &transition : transitions) {
        if (transition.target == target) {
            return &transition;
        }
    }
    return nullptr;
}

} // namespace

const char *oruZb_adapterStateName(oruZb_adapterState_t state) {
    return stateInfo(state).name;
}

oruOipc_eventId_t oruZb_adapterStateToEventID(oruZb_adapterState_t state) {
    return stateInfo(state).event;
}

oruZbHal_pjoinState_t oruZb_getPjoinState() {
    return zb_pjoin_state.load();
}

oru_status_t oruZb_setAdapterState(oruZb_adapterState_t next_state) {
    const oruZb_adapterState_t current = adapter_state.load();
    if (next_state == current) {
        ZB_LOG_INFO("%s: adapter_state already %s. Nothing to do", ZB_SVC, oruZb_adapterStateName(current));
        return ORU_STATUS_ALREADY_EXISTS;
    }
    const Transition *const transition = transitionTo(next_state);
    if (transition == nullptr) {
        ZB_LOG_WARN("%s: Unsupported adapter_state %s", ZB_SVC, oruZb_adapterStateName(next_state));
    }
    if (transition == nullptr || (transition->from & setOf({current})) == 0) {
        ZB_LOG_ERROR("%s: Unable to change adapter_state to %s, Current adapter_state is %s", ZB_SVC,
                     oruZb_adapterStateName(next_state), oruZb_adapterStateName(current));
        return ORU_STATUS_GENERAL_ERROR;
    }
    adapter_state.store(next_state);
    ZB_LOG_INFO("%s: Successfully changed adapter_state to %s", ZB_SVC, oruZb_adapterStateName(next_state));
    return ORU_STATUS_OK;
}

void oruZb_asyncCallResultCallback(oru_status_t ret, oruOipc_nodeId_t client_id, oruOipc_functionId_t callback_id) {
    oruZb_oipcCallback(client_id, callback_id, &ret, sizeof ret);
}

// A full pipe refuses the byte; it holds enough wake-ups already.
void oruZb_signalHalEvent() {
    const int32_t descriptor = zb_hal_signal.load();
    if (descriptor == -1) {
        return;
    }
    const uint8_t wake = 0;
    while (::write(descriptor, &wake, sizeof wake) < 0 && errno == EINTR) {
    }
}

// --------------------------------------------------------------------------------------------------------- bring-up

static void announceTurningOn(const char *operation) {
    const oru_status_t status = oruZb_setAdapterState(ORU_ZB_ADAPTER_TURNING_ON);
    if (status == ORU_STATUS_OK) {
        oruZb_publishEvent(ORU_ZB_SVC_ADAPTER_ENABLING, nullptr, 0);
    } else if (status == ORU_STATUS_ALREADY_EXISTS) {
        ZB_LOG_INFO("%s: %s(): adapter_state = ORU_ZB_ADAPTER_TURNING_ON !", ZB_SVC, operation);
    } else {
        ZB_LOG_WARN("%s: %s(): oruZb_setAdapterState return status = %d", ZB_SVC, operation, status);
    }
}

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
    const oru_status_t status = oruZbHal_enable();
    if (status != ORU_STATUS_OK) {
        ZB_LOG_ERROR("%s: %s(): oruZbHal_enable return status = %d", ZB_SVC, __func__, status);
        return ORU_STATUS_GENERAL_ERROR;
    }
    announceTurningOn(__func__);
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
