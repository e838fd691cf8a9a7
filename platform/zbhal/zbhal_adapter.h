// SPDX-License-Identifier: Apache-2.0
//
// An adapter: one kind of radio behind the HAL. Backends implement Adapter and report through AdapterHost. The layer
// checks arguments before it calls, and calls every operation of an adapter with its lock held, so an adapter needs no
// lock of its own and never calls the service.
//
// Results are those of the HAL operation of the same name.
#pragma once
#include "zbhal_events.h"
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>

namespace corvane::zbhal {

inline constexpr uint64_t kNever = UINT64_MAX;

// Operations that can be refused on purpose, by their names without prefix. The last two name not operations but
// completions: "confirmation" gives the next confirmations the status asked for, "interpanCompletion" loses the next
// inter-PAN completions until the adapter is reset.
enum class Operation : uint8_t {
    init,
    set_adapter_name,
    enable,
    disable,
    reset,
    factory_reset,
    echo,
    form_network_auto,
    add_endpoint,
    leave_network,
    get_network_info,
    set_radio_power,
    set_region,
    permit_join_network,
    permit_join_zts,
    add_install_code,
    clear_transient_link_keys,
    get_key_table_entry,
    get_key,
    send_zcl_unicast,
    send_zdo_message,
    send_raw_interpan_message_on_channels,
    get_fw_version,
    get_adapter_info,
    start_scan,
    get_children,
    get_route_table_entries,
    get_neighbors,
    get_debug_counters,
    get_and_clear_debug_counters,
    confirmation,
    interpan_completion,
    count,
};

// What the layer offers to an adapter. indicate, reserve, confirm and takeRefusal are called with the layer's lock
// held, the others without it.
class AdapterHost {
public:
    virtual ~AdapterHost() = default;
    virtual void indicate(const Indication &indication) = 0;
    // A place for the confirmation of a send. False: refuse the send.
    [[nodiscard]] virtual bool reserve() = 0;
    // Delivers a confirmation into a place reserved before.
    virtual void confirm(const Indication &indication) = 0;
    // Status of a refusal ordered for the operation, used up by the call.
    virtual std::optional<int32_t> takeRefusal(Operation operation) = 0;

    // Runs work with the layer's lock held and mesh time up to date. For threads of the adapter.
    virtual void locked(const std::function<void()> &work) = 0;
    // Empty text on success, else what is wrong with the name.
    virtual std::string refuseNext(const std::string &operation, uint32_t count, int32_t status) = 0;
    virtual void hang(uint32_t milliseconds) = 0; // every operation called from now on blocks that long
};

struct AdapterSettings {
    std::string state_directory;
    std::string runtime_directory;
    std::optional<uint64_t> seed;   // replaces the scenario's
    bool remember = true;           // keep the network in a file of the state directory
    bool simulation_control = true; // listen on the control socket
};

struct SendRequest {
    oruZbHal_nodeId_t destination = 0;
    oruZbHal_apsFrame_t aps_frame = {}; // sequence and radius are filled in by the adapter
    std::span<const uint8_t> payload;
    oruZbHal_commandSentCallback_t callback = nullptr;
    uint32_t request_id = 0;
};

struct EndpointRequest {
    uint8_t endpoint = 0;
    uint16_t profile_id = 0;
    uint16_t device_id = 0;
    uint8_t device_version = 0;
    std::span<const uint16_t> input_clusters;
    std::span<const uint16_t> output_clusters;
};

class Adapter {
public:
    virtual ~Adapter() = default;

    // Does what is due at now_us (monotonic clock) and returns the time of the next event, kNever when there is none.
    virtual uint64_t advance(uint64_t now_us) = 0;
    // Called without the lock before the adapter is destroyed: ends the adapter's own threads.
    virtual void stop() = 0;

    virtual oru_status_t enable() = 0;
    virtual oru_status_t disable() = 0;
    virtual oru_status_t reset() = 0;
    virtual oru_status_t factoryReset() = 0;
    virtual oru_status_t echo(uint32_t count) = 0;

    virtual oru_status_t formNetwork(uint32_t primary_mask, uint32_t secondary_mask, uint8_t final_channel,
                                     oruZbHal_region_t region) = 0;
    virtual oru_status_t addEndpoint(const EndpointRequest &request) = 0;
    virtual oru_status_t leaveNetwork() = 0;
    virtual oru_status_t networkInfo(oruZbHal_networkParameters_t &parameters) = 0;
    virtual oru_status_t setRadioPower(int8_t power_dbm) = 0;
    virtual oru_status_t setRegion(oruZbHal_region_t region) = 0;

    virtual oru_status_t permitJoin(bool allow) = 0;
    virtual oru_status_t permitJoinZts(bool enable) = 0;
    virtual oru_status_t addInstallCode(std::span<const uint8_t, 8> eui64_lsb_first,
                                        std::span<const uint8_t, 18> code) = 0;
    virtual oru_status_t clearTransientLinkKeys() = 0;
    virtual oru_status_t keyTableEntry(uint8_t index, oruZbHal_keyStruct_t &entry) = 0;
    virtual oru_status_t key(oruZbHal_keyType_t type, oruZbHal_keyStruct_t &entry) = 0;

    // Sends that the adapter holds at once. The layer calls send() while there is room, and shares the places fairly.
    virtual size_t sendCapacity() const = 0;
    // On success the frame's sequence has been filled in and the send will be confirmed exactly once.
    virtual oru_status_t send(SendRequest &request) = 0;
    virtual oru_status_t sendInterpan(uint32_t channel_mask, const oruZbHal_interpanHeader_t &header,
                                      std::span<const uint8_t> frame, oruZbHal_interpanSentCallback_t callback) = 0;

    virtual oru_status_t fwVersion(std::span<uint8_t> version, uint8_t &count) = 0;
    virtual oru_status_t adapterInfo(oruZbHal_adapterInfo_t &info) = 0;
    virtual oru_status_t startScan(uint8_t type, uint32_t channel_mask, uint8_t duration) = 0;
    // Fill at most as many entries as there is room for; count receives how many.
    virtual oru_status_t children(std::span<oruZbHal_childTableEntry_t> entries, uint8_t &count) = 0;
    virtual oru_status_t routes(std::span<oruZbHal_routeTableEntry_t> entries, uint8_t &count) = 0;
    virtual oru_status_t neighbors(std::span<oruZbHal_neighborTableEntry_t> entries, uint8_t &count) = 0;
    virtual oru_status_t debugCounters(oruZbHal_counters_t &counters, bool clear) = 0;

    // For the layer's tests; an adapter without a simulation ignores it.
    virtual void holdConfirmations(bool hold) = 0;
};

} // namespace corvane::zbhal
