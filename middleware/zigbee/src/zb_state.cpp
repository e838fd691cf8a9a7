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
// client messages that need the network are refused. oruZb_setAdapterState is the only writer (checkAdapterState) and
// logs every change.
#include "zb_state.h"
#include "zb_invariant.h"
#include <algorithm>
#include <array>
#include <initializer_list>

std::atomic<oruZb_adapterState_t> adapter_state{ORU_ZB_ADAPTER_OFF};
oruZb_adapterState_t adapter_state_before_interpan = ORU_ZB_ADAPTER_OFF;
std::atomic<oruZbHal_pjoinState_t> zb_pjoin_state{ORU_ZB_HAL_STATE_PJOIN_CLOSED};
volatile int terminated = 0;

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

// Somebody else may have written it: a state that no transition leads to.
void checkAdapterState(oruZb_adapterState_t state) {
    if (check_invariants) {
        mustHold(transitionTo(state) != nullptr, "the adapter is in a state of the table");
    }
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
    checkAdapterState(current);
    ZB_LOG_INFO("%s: Successfully changed adapter_state to %s", ZB_SVC, oruZb_adapterStateName(next_state));
    return ORU_STATUS_OK;
}
