// SPDX-License-Identifier: Apache-2.0
//
// What goes wrong with a simulated adapter because somebody has ordered it: operations that are refused or hang. For
// the virtual backend and for tests; no other adapter has any.
#pragma once
#include "oru_status.h"
#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>

namespace corvane::zbhal {

// What can be refused, by the names of the HAL operations without prefix. The last two name not operations but
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
    send_group,
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

// Any thread.
class AdapterFaults {
public:
    // The next count calls of the operation are refused with status. Empty text on success, else what is wrong.
    std::string refuseNext(const std::string &operation, uint32_t count, int32_t status);
    // Call number nth of all operations from now on (from 1, 0: none) is refused with status.
    void refuseCall(uint64_t nth, int32_t status);
    uint64_t calls(); // since refuseCall
    // Status of a refusal ordered for the operation, used up by the call.
    std::optional<int32_t> take(Operation operation);

    void hang(uint32_t milliseconds); // whoever calls from now on is held for so long
    void waitWhileHung();
    void letGo(); // ends the hang

private:
    struct Refusal {
        uint32_t count = 0;
        int32_t status = 0;
    };

    std::mutex mutex_; // guards what follows; a leaf
    std::array<Refusal, static_cast<size_t>(Operation::count)> refusals_{};
    uint64_t calls_ = 0;
    uint64_t refused_call_ = 0; // number of the call to refuse; 0: none
    int32_t call_refusal_ = 0;
    std::condition_variable hang_changed_;
    std::chrono::steady_clock::time_point hang_until_{};
};

} // namespace corvane::zbhal
