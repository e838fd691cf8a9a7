// SPDX-License-Identifier: Apache-2.0
//
// Names of the numbers that clients meet. Each table is sorted, complete where its range is closed, and searched by
// value; all of that is checked while compiling.
#include "client_impl.h"
#include <algorithm>

namespace corvane {

namespace {

template <class Value>
struct Name {
    Value value;
    const char *name;
};

constexpr const char *UNKNOWN = "unknown";

// Upwards or downwards, and no value twice.
template <class Table>
constexpr bool isStrictlySorted(const Table &table) {
    const auto value = [](const auto &entry) { return static_cast<int32_t>(entry.value); };
    return std::ranges::adjacent_find(table, std::ranges::greater_equal{}, value) == table.end() ||
           std::ranges::adjacent_find(table, std::ranges::less_equal{}, value) == table.end();
}

template <class Table, class Value>
constexpr auto find(const Table &table, Value value) -> const typename Table::value_type * {
    const auto found = std::ranges::find_if(table, [value](const auto &entry) { return entry.value == value; });
    return found != table.end() ? &*found : nullptr;
}

template <class Table, class Value>
const char *nameOf(const Table &table, Value value) {
    const auto *entry = find(table, value);
    return entry != nullptr ? entry->name : UNKNOWN;
}

template <class Table>
constexpr auto valuesOf(const Table &table) {
    std::array<decltype(table.front().value), std::tuple_size_v<Table>> values{};
    std::ranges::transform(table, values.begin(), [](const auto &entry) { return entry.value; });
    return values;
}

struct StatusName {
    oru_status_t value;
    const char *name;
    const char *meaning;
};

constexpr auto STATUSES = std::to_array<StatusName>({
    {ORU_STATUS_OK, "OK", "Success."},
    {ORU_STATUS_GENERAL_ERROR, "GENERAL_ERROR", "The service refused or could not do it; its log says why."},
    {ORU_STATUS_TIMEOUT, "TIMEOUT",
     "The adapter or a device did not answer in time; try again, and check power and range if it persists."},
    {ORU_STATUS_OUT_OF_MEMORY, "OUT_OF_MEMORY",
     "The service has no free place for another call, or is starting or stopping; try again shortly."},
    {ORU_STATUS_NOT_SUPPORTED, "NOT_SUPPORTED", "This service or adapter does not offer the function."},
    {ORU_STATUS_NOT_FOUND, "NOT_FOUND", "No such device, list position or client; list the known devices first."},
    {ORU_STATUS_NULL_POINTER, "NULL_POINTER",
     "The call needs a payload and came without one, or the service had no memory for it."},
    {ORU_STATUS_PARAM_OUT_OF_RANGE, "PARAM_OUT_OF_RANGE",
     "A value is outside its range, for example a channel other than 11 to 26."},
    {ORU_STATUS_BAD_PARAM, "BAD_PARAM",
     "An argument makes no sense to the service, or this user is not allowed to connect."},
    {ORU_STATUS_TRY_AGAIN, "TRY_AGAIN", "Nothing available right now; try again."},
    {ORU_STATUS_BUSY, "BUSY",
     "An inter-PAN exchange is running, or too many clients are connected; try again when it is over."},
    {ORU_STATUS_CANCELED, "CANCELED", "The operation was given up, usually because the service is stopping."},
    {ORU_STATUS_UNRECOVERABLE, "UNRECOVERABLE",
     "Of a page of nodes: more nodes remain, ask again from the position returned. Otherwise a lasting failure."},
    {ORU_STATUS_UNINITIALIZED, "UNINITIALIZED",
     "The part of the service that is needed is not running; start the service or enable the radio."},
    {ORU_STATUS_ALREADY_INITIALIZED, "ALREADY_INITIALIZED", "It has been started before; nothing to do."},
    {ORU_STATUS_ALREADY_EXISTS, "ALREADY_EXISTS",
     "Already there, or the adapter is already in that state; nothing to do."},
    {ORU_STATUS_DATA_LEN_INVALID, "DATA_LEN_INVALID",
     "The payload is shorter or longer than the function takes; client and service may be of different versions."},
    {ORU_STATUS_DEVICE_STATE_INVALID, "DEVICE_STATE_INVALID",
     "Not possible in the present state of the device or adapter; look at the state first."},
});
static_assert(isStrictlySorted(STATUSES) && STATUSES.front().value == ORU_STATUS_OK);

constexpr auto FUNCTIONS = std::to_array<Name<uint16_t>>({
    {ORU_ZB_SVC_PING, "PING"},
    {ORU_ZB_SVC_SPING, "SPING"},
    {ORU_ZB_SVC_GETNET_INFO, "GETNET_INFO"},
    {ORU_ZB_SVC_PERMITJOIN_START, "PERMITJOIN_START"},
    {ORU_ZB_SVC_PERMITJOIN_STOP, "PERMITJOIN_STOP"},
    {ORU_ZB_SVC_ADAPTER_GET_STATE, "ADAPTER_GET_STATE"},
    {ORU_ZB_SVC_SEND_CLUSTER_CMD, "SEND_CLUSTER_CMD"},
    {ORU_ZB_SVC_GETDEVICE, "GETDEVICE"},
    {ORU_ZB_SVC_GETDEVICE_COUNT, "GETDEVICE_COUNT"},
    {ORU_ZB_SVC_ADAPTER_SET_RADIO_POWER, "ADAPTER_SET_RADIO_POWER"},
    {ORU_ZB_SVC_ENABLE_PTA, "ENABLE_PTA"},
    {ORU_ZB_SVC_DISABLE_PTA, "DISABLE_PTA"},
    {ORU_ZB_SVC_GET_PTA_OPTIONS, "GET_PTA_OPTIONS"},
    {ORU_ZB_SVC_SET_PTA_OPTIONS, "SET_PTA_OPTIONS"},
    {ORU_ZB_SVC_ZTS_ADD_DEVICES, "ZTS_ADD_DEVICES"},
    {ORU_ZB_SVC_ZTS_CLEAR_DEVICES, "ZTS_CLEAR_DEVICES"},
    {ORU_ZB_SVC_GET_ADAPTER_INFO, "GET_ADAPTER_INFO"},
    {ORU_ZB_SVC_GET_LOCAL_NODE_INFO, "GET_LOCAL_NODE_INFO"},
    {ORU_ZB_SVC_GET_CONN_NODES, "GET_CONN_NODES"},
    {ORU_ZB_SVC_ADAPTER_SET_REGION, "ADAPTER_SET_REGION"},
    {ORU_ZB_SVC_ADAPTER_SET_BURST_SIZE, "ADAPTER_SET_BURST_SIZE"},
    {ORU_ZB_SVC_ADAPTER_SET_THROTTLE_TIMEOUT, "ADAPTER_SET_THROTTLE_TIMEOUT"},
    {ORU_ZB_SVC_GET_PTA_COUNTERS, "GET_PTA_COUNTERS"},
    {ORU_ZB_SVC_GET_AND_CLEAR_PTA_COUNTERS, "GET_AND_CLEAR_PTA_COUNTERS"},
    {ORU_ZB_SVC_GET_CHILDREN, "GET_CHILDREN"},
    {ORU_ZB_SVC_GET_ROUTES, "GET_ROUTES"},
    {ORU_ZB_SVC_GET_NEIGHBORS, "GET_NEIGHBORS"},
    {ORU_ZB_SVC_BINDING, "BINDING"},
    {ORU_ZB_SVC_APING, "APING"},
    {ORU_ZB_SVC_FORMZ3NET_AUTO, "FORMZ3NET_AUTO"},
    {ORU_ZB_SVC_CLEAR_NETWORK, "CLEAR_NETWORK"},
    {ORU_ZB_SVC_ADAPTER_ENABLE_RADIO, "ADAPTER_ENABLE_RADIO"},
    {ORU_ZB_SVC_ADAPTER_DISABLE_RADIO, "ADAPTER_DISABLE_RADIO"},
    {ORU_ZB_SVC_ADAPTER_RESET, "ADAPTER_RESET"},
    {ORU_ZB_SVC_SEND_CLUSTER_CMD_ASYNC, "SEND_CLUSTER_CMD_ASYNC"},
    {ORU_ZB_SVC_SEND_NODE_LEAVE_REQUEST, "SEND_NODE_LEAVE_REQUEST"},
    {ORU_ZB_SVC_SEND_INTERPAN, "SEND_INTERPAN"},
    {ORU_ZB_SVC_ZTS_ENABLE, "ZTS_ENABLE"},
    {ORU_ZB_SVC_ZTS_DISABLE, "ZTS_DISABLE"},
    {ORU_ZB_SVC_START_SCAN, "START_SCAN"},
    {ORU_ZB_SVC_STOP_SCAN, "STOP_SCAN"},
    {ORU_ZB_SVC_FORMZ3NET_MANUAL, "FORMZ3NET_MANUAL"},
});
static_assert(isStrictlySorted(FUNCTIONS));
static_assert(
    [] {
        for (uint16_t id = 0; id < ORU_ZB_SVC_ASYNCFUNC_CALLBACK; ++id) {
            if ((isValidSyncFunc(id) || isValidAsyncFunc(id)) != (find(FUNCTIONS, id) != nullptr)) {
                return false;
            }
        }
        return true;
    }(),
    "every function has a name, nothing else has");

constexpr auto EVENTS = std::to_array<Name<uint16_t>>({
    {ORU_ZB_SVC_ADAPTER_SERVICE_READY, "ADAPTER_SERVICE_READY"},
    {ORU_ZB_SVC_ADAPTER_ON, "ADAPTER_ON"},
    {ORU_ZB_SVC_ADAPTER_OFF, "ADAPTER_OFF"},
    {ORU_ZB_SVC_ADAPTER_ENABLING, "ADAPTER_ENABLING"},
    {ORU_ZB_SVC_ADAPTER_DISABLING, "ADAPTER_DISABLING"},
    {ORU_ZB_SVC_ADAPTER_RESETTING, "ADAPTER_RESETTING"},
    {ORU_ZB_SVC_ADAPTER_CRITICAL_ERROR, "ADAPTER_CRITICAL_ERROR"},
    {ORU_ZB_SVC_NETWORK_FORMED, "NETWORK_FORMED"},
    {ORU_ZB_SVC_NETWORK_DOWN, "NETWORK_DOWN"},
    {ORU_ZB_SVC_DEVICE_JOINED, "DEVICE_JOINED"},
    {ORU_ZB_SVC_DEVICE_SECURED_REJOIN, "DEVICE_SECURED_REJOIN"},
    {ORU_ZB_SVC_DEVICE_UNSECURED_REJOIN, "DEVICE_UNSECURED_REJOIN"},
    {ORU_ZB_SVC_DEVICE_LEFT, "DEVICE_LEFT"},
    {ORU_ZB_SVC_DEVICE_DISCOVERED, "DEVICE_DISCOVERED"},
    {ORU_ZB_SVC_INTERPAN_COMPLETE, "INTERPAN_COMPLETE"},
    {ORU_ZB_SVC_NETWORK_NOT_INITIALIZED, "NETWORK_NOT_INITIALIZED"},
    {ORU_ZB_SVC_SENDCMD_SUCCESS, "SENDCMD_SUCCESS"},
    {ORU_ZB_SVC_SENDCMD_FAILURE, "SENDCMD_FAILURE"},
    {ORU_ZB_SVC_SENDCMD_PENDING, "SENDCMD_PENDING"},
    {ORU_ZB_SVC_INCOMING_MSG, "INCOMING_MSG"},
    {ORU_ZB_SVC_DEVICE_UNRESPONSIVE, "DEVICE_UNRESPONSIVE"},
    {ORU_ZB_SVC_CHANNEL_BUSY, "CHANNEL_BUSY"},
    {ORU_ZB_SVC_SECURITY_ERROR, "SECURITY_ERROR"},
});
static_assert(isStrictlySorted(EVENTS));
static_assert(EVENTS.size() == (ORU_ZB_SVC_ADAPTER_EVENT_END - ORU_ZB_SVC_ADAPTER_EVENT - 1) +
                                   (ORU_ZB_SVC_NETWORK_NOT_INITIALIZED - ORU_ZB_SVC_NETWORK_EVENT) +
                                   (ORU_ZB_SVC_EVENTS_END - ORU_ZB_SVC_CMD_EVENT - 1),
              "every event has a name");

constexpr auto COMMAND_STATUSES = std::to_array<Name<oruZb_clusterCommandStatus_t>>({
    {ORU_ZB_SUCCESS, "SUCCESS"},
    {ORU_ZB_APS_ASDU_TOO_LONG, "APS_ASDU_TOO_LONG"},
    {ORU_ZB_APS_DEFRAG_DEFERRED, "APS_DEFRAG_DEFERRED"},
    {ORU_ZB_APS_DEFRAG_UNSUPPORTED, "APS_DEFRAG_UNSUPPORTED"},
    {ORU_ZB_APS_ILLEGAL_REQUEST, "APS_ILLEGAL_REQUEST"},
    {ORU_ZB_APS_INVALID_BINDING, "APS_INVALID_BINDING"},
    {ORU_ZB_APS_INVALID_GROUP, "APS_INVALID_GROUP"},
    {ORU_ZB_APS_INVALID_PARAMETER, "APS_INVALID_PARAMETER"},
    {ORU_ZB_APS_NO_ACK, "APS_NO_ACK"},
    {ORU_ZB_APS_NO_BOUND_DEVICE, "APS_NO_BOUND_DEVICE"},
    {ORU_ZB_APS_NO_SHORT_ADDRESS, "APS_NO_SHORT_ADDRESS"},
    {ORU_ZB_APS_NOT_SUPPORTED, "APS_NOT_SUPPORTED"},
    {ORU_ZB_APS_SECURED_LINK_KEY, "APS_SECURED_LINK_KEY"},
    {ORU_ZB_APS_SECURED_NWK_KEY, "APS_SECURED_NWK_KEY"},
    {ORU_ZB_APS_SECURITY_FAIL, "APS_SECURITY_FAIL"},
    {ORU_ZB_APS_TABLE_FULL, "APS_TABLE_FULL"},
    {ORU_ZB_APS_UNSECURED, "APS_UNSECURED"},
    {ORU_ZB_APS_UNSUPPORTED_ATTRIBUTE, "APS_UNSUPPORTED_ATTRIBUTE"},
    {ORU_ZB_NWK_INVALID_PARAMETER, "NWK_INVALID_PARAMETER"},
    {ORU_ZB_NWK_INVALID_REQUEST, "NWK_INVALID_REQUEST"},
    {ORU_ZB_NWK_NOT_PERMITTED, "NWK_NOT_PERMITTED"},
    {ORU_ZB_NWK_STARTUP_FAILURE, "NWK_STARTUP_FAILURE"},
    {ORU_ZB_NWK_ALREADY_PRESENT, "NWK_ALREADY_PRESENT"},
    {ORU_ZB_NWK_SYNC_FAILURE, "NWK_SYNC_FAILURE"},
    {ORU_ZB_NWK_NEIGHBOR_TABLE_FULL, "NWK_NEIGHBOR_TABLE_FULL"},
    {ORU_ZB_NWK_UNKNOWN_DEVICE, "NWK_UNKNOWN_DEVICE"},
    {ORU_ZB_NWK_UNSUPPORTED_ATTRIBUTE, "NWK_UNSUPPORTED_ATTRIBUTE"},
    {ORU_ZB_NWK_NO_NETWORKS, "NWK_NO_NETWORKS"},
    {ORU_ZB_NWK_MAX_FRM_COUNTER, "NWK_MAX_FRM_COUNTER"},
    {ORU_ZB_NWK_NO_KEY, "NWK_NO_KEY"},
    {ORU_ZB_NWK_BAD_CCM_OUTPUT, "NWK_BAD_CCM_OUTPUT"},
    {ORU_ZB_NWK_ROUTE_DISCOVERY_FAILED, "NWK_ROUTE_DISCOVERY_FAILED"},
    {ORU_ZB_NWK_ROUTE_ERROR, "NWK_ROUTE_ERROR"},
    {ORU_ZB_NWK_BT_TABLE_FULL, "NWK_BT_TABLE_FULL"},
    {ORU_ZB_NWK_FRAME_NOT_BUFFERED, "NWK_FRAME_NOT_BUFFERED"},
    {ORU_ZB_NWK_INVALID_INTERFACE, "NWK_INVALID_INTERFACE"},
    {ORU_ZB_MAC_COUNTER_ERROR, "MAC_COUNTER_ERROR"},
    {ORU_ZB_MAC_IMPROPER_KEY_TYPE, "MAC_IMPROPER_KEY_TYPE"},
    {ORU_ZB_MAC_IMPROPER_SECURITY_LEVEL, "MAC_IMPROPER_SECURITY_LEVEL"},
    {ORU_ZB_MAC_UNSUPPORTED_LEGACY, "MAC_UNSUPPORTED_LEGACY"},
    {ORU_ZB_MAC_UNSUPPORTED_SECURITY, "MAC_UNSUPPORTED_SECURITY"},
    {ORU_ZB_MAC_BEACON_LOSS, "MAC_BEACON_LOSS"},
    {ORU_ZB_MAC_CHANNEL_ACCESSS_FAILURE, "MAC_CHANNEL_ACCESSS_FAILURE"},
    {ORU_ZB_MAC_RESULT_DENIED, "MAC_RESULT_DENIED"},
    {ORU_ZB_MAC_DISABLE_TRX_FAILURE, "MAC_DISABLE_TRX_FAILURE"},
    {ORU_ZB_MAC_SECURITY_ERROR, "MAC_SECURITY_ERROR"},
    {ORU_ZB_MAC_FRAME_TOO_LONG, "MAC_FRAME_TOO_LONG"},
    {ORU_ZB_MAC_INVALID_GTS, "MAC_INVALID_GTS"},
    {ORU_ZB_MAC_INVALID_HANDLE, "MAC_INVALID_HANDLE"},
    {ORU_ZB_MAC_INVALID_PARAMETER, "MAC_INVALID_PARAMETER"},
    {ORU_ZB_MAC_NO_ACK, "MAC_NO_ACK"},
    {ORU_ZB_MAC_NO_BEACON, "MAC_NO_BEACON"},
    {ORU_ZB_MAC_NO_DATA, "MAC_NO_DATA"},
    {ORU_ZB_MAC_NO_SHORT_ADDRESS, "MAC_NO_SHORT_ADDRESS"},
    {ORU_ZB_MAC_OUT_OF_CAP, "MAC_OUT_OF_CAP"},
    {ORU_ZB_MAC_PANID_CONFLICT, "MAC_PANID_CONFLICT"},
    {ORU_ZB_MAC_REALIGNMENT, "MAC_REALIGNMENT"},
    {ORU_ZB_MAC_TRANSACTION_EXPIRED, "MAC_TRANSACTION_EXPIRED"},
    {ORU_ZB_MAC_TRANSACTION_OVERFLOW, "MAC_TRANSACTION_OVERFLOW"},
    {ORU_ZB_MAC_TX_ACTIVE, "MAC_TX_ACTIVE"},
    {ORU_ZB_MAC_UNAVAILABLE_KEY, "MAC_UNAVAILABLE_KEY"},
    {ORU_ZB_MAC_UNSUPPORTED_ATTRIBUTE, "MAC_UNSUPPORTED_ATTRIBUTE"},
    {ORU_ZB_MAC_INVALID_ADDRESS, "MAC_INVALID_ADDRESS"},
    {ORU_ZB_MAC_ON_TIME_TOO_LONG, "MAC_ON_TIME_TOO_LONG"},
    {ORU_ZB_MAC_PAST_TIME, "MAC_PAST_TIME"},
    {ORU_ZB_MAC_TRACKING_OFF, "MAC_TRACKING_OFF"},
    {ORU_ZB_MAC_INVALID_INDEX, "MAC_INVALID_INDEX"},
    {ORU_ZB_MAC_LIMIT_REACHED, "MAC_LIMIT_REACHED"},
    {ORU_ZB_MAC_READ_ONLY, "MAC_READ_ONLY"},
    {ORU_ZB_MAC_SCAN_IN_PROGRESS, "MAC_SCAN_IN_PROGRESS"},
    {ORU_ZB_MAC_SUPERFRAME_OVERLAP, "MAC_SUPERFRAME_OVERLAP"},
});
static_assert(isStrictlySorted(COMMAND_STATUSES));

constexpr auto STATUS_VALUES = valuesOf(STATUSES);
constexpr auto FUNCTION_VALUES = valuesOf(FUNCTIONS);
constexpr auto EVENT_VALUES = valuesOf(EVENTS);

bool isCommandStatus(oru_status_t status) {
    return find(COMMAND_STATUSES, static_cast<oruZb_clusterCommandStatus_t>(status)) != nullptr;
}

} // namespace

const char *statusName(oru_status_t status) {
    return status > 0 ? clusterCommandStatusName(static_cast<oruZb_clusterCommandStatus_t>(status))
                      : nameOf(STATUSES, status);
}

const char *statusMeaning(oru_status_t status) {
    if (const auto *entry = find(STATUSES, status)) {
        return entry->meaning;
    }
    return isCommandStatus(status)
               ? "The radio or the network reports this for a frame; the device may be out of range "
                 "or asleep, or has left."
               : "Not a status that this version knows; look at the service's log.";
}

const char *functionName(uint16_t function_id) {
    return nameOf(FUNCTIONS, function_id);
}
const char *eventName(uint16_t event_id) {
    return nameOf(EVENTS, event_id);
}
const char *clusterCommandStatusName(oruZb_clusterCommandStatus_t status) {
    return nameOf(COMMAND_STATUSES, status);
}

const char *adapterStateName(oruZb_adapterState_t state) {
    switch (state) {
    case ORU_ZB_ADAPTER_OFF:
        return "OFF";
    case ORU_ZB_ADAPTER_ON:
        return "ON";
    case ORU_ZB_ADAPTER_TURNING_ON:
        return "TURNING_ON";
    case ORU_ZB_ADAPTER_TURNING_OFF:
        return "TURNING_OFF";
    case ORU_ZB_ADAPTER_UPGRADING:
        return "UPGRADING";
    case ORU_ZB_ADAPTER_INTERPAN_IN_PROGRESS:
        return "INTERPAN_IN_PROGRESS";
    case ORU_ZB_ADAPTER_SERVICE_READY:
        return "SERVICE_READY";
    case ORU_ZB_ADAPTER_ENABLE_CALLBACK:
        return "ENABLE_CALLBACK";
    case ORU_ZB_ADAPTER_DISABLE_CALLBACK:
        return "DISABLE_CALLBACK";
    case ORU_ZB_ADAPTER_RESET_CALLBACK:
        return "RESET_CALLBACK";
    case ORU_ZB_ADAPTER_STATE_ERROR:
        return "STATE_ERROR";
    }
    return UNKNOWN;
}

const char *nodeTypeName(oruZb_nodeType_t type) {
    switch (type) {
    case ORU_ZB_NODE_TYPE_COORDINATOR:
        return "coordinator";
    case ORU_ZB_NODE_TYPE_ROUTER:
        return "router";
    case ORU_ZB_NODE_TYPE_END_DEVICE:
        return "end device";
    case ORU_ZB_NODE_TYPE_SLEEPY_END_DEVICE:
        return "sleepy end device";
    case ORU_ZB_NODE_TYPE_UNDEFINED:
        return "undefined";
    }
    return UNKNOWN;
}

const char *storeConditionName(StoreCondition condition) {
    switch (condition) {
    case StoreCondition::not_opened:
        return "NOT_OPENED";
    case StoreCondition::sound:
        return "SOUND";
    case StoreCondition::in_memory:
        return "IN_MEMORY";
    case StoreCondition::copy:
        return "COPY";
    case StoreCondition::not_read_whole:
        return "NOT_READ_WHOLE";
    }
    return UNKNOWN;
}

const char *storeConditionMeaning(StoreCondition condition) {
    switch (condition) {
    case StoreCondition::not_opened:
        return "not opened yet";
    case StoreCondition::sound:
        return "sound, everything is on the medium";
    case StoreCondition::in_memory:
        return "the medium fails; changes wait in memory and are lost if the daemon ends before it works again";
    case StoreCondition::copy:
        return "nothing can be written; it is read from a copy, and changes are lost when the daemon ends";
    case StoreCondition::not_read_whole:
        return "not read whole; known devices may be missing until it can be read";
    }
    return UNKNOWN;
}

const char *transportName(Transport transport) {
    switch (transport) {
    case Transport::Ok:
        return "answered";
    case Transport::NoService:
        return "no service";
    case Transport::Refused:
        return "refused";
    case Transport::TimedOut:
        return "timed out";
    case Transport::ConnectionLost:
        return "connection lost";
    case Transport::Invalid:
        return "invalid argument";
    case Transport::OtherVersion:
        return "other protocol version";
    }
    return UNKNOWN;
}

std::string Outcome::describe() const try {
    const auto statusText = [this] {
        return std::string(statusName(status)) + " (" + std::to_string(status) + "): " + statusMeaning(status);
    };
    switch (transport) {
    case Transport::Ok:
        return status == ORU_STATUS_OK ? "ok" : statusText();
    case Transport::NoService:
        return "no service: nobody listens on the socket, or this user may not open it";
    case Transport::TimedOut:
        return "timed out: no answer from the service, which may still carry the call out";
    case Transport::ConnectionLost:
        return "connection lost: the service ended the connection before it answered";
    case Transport::OtherVersion:
        return "other protocol version: the service is of a release that this client does not understand";
    case Transport::Refused:
    case Transport::Invalid:
        return std::string(transportName(transport)) + ": " + statusText();
    }
    return UNKNOWN;
} catch (const std::bad_alloc &) {
    return {}; // no room for words
}

std::span<const oru_status_t> allStatuses() {
    return STATUS_VALUES;
}
std::span<const uint16_t> allFunctions() {
    return FUNCTION_VALUES;
}
std::span<const uint16_t> allEvents() {
    return EVENT_VALUES;
}

} // namespace corvane
