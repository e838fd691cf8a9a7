// SPDX-License-Identifier: Apache-2.0
//
// Adapters around an adapter: each operation of Decorator<Kind> goes through Kind::around(operation, work), where work
// calls the inner adapter. A simulation is kept in step by one and made to fail by another.
#pragma once
#include "../zbhal_adapter.h"
#include "adapter_faults.h"
#include <mutex>

namespace corvane::zbhal {

template <typename Kind>
class Decorator : public Adapter {
public:
    explicit Decorator(Adapter &inner) : inner_(inner) {} // which outlives it

    uint64_t advance(uint64_t now_us) override { return inner_.advance(now_us); }
    void roomMade() override { inner_.roomMade(); }
    void stop() override { inner_.stop(); }
    size_t sendCapacity() const override { return inner_.sendCapacity(); }
    uint64_t conclusionLimitUs() const override { return inner_.conclusionLimitUs(); }

    oru_status_t enable() override { return run(Operation::enable, &Adapter::enable); }
    oru_status_t disable() override { return run(Operation::disable, &Adapter::disable); }
    oru_status_t reset() override { return run(Operation::reset, &Adapter::reset); }
    oru_status_t factoryReset() override { return run(Operation::factory_reset, &Adapter::factoryReset); }
    oru_status_t echo(uint32_t count) override { return run(Operation::echo, &Adapter::echo, count); }

    oru_status_t formNetwork(uint32_t primary_mask, uint32_t secondary_mask, uint8_t final_channel,
                             oruZbHal_region_t region) override {
        return run(Operation::form_network_auto, &Adapter::formNetwork, primary_mask, secondary_mask, final_channel,
                   region);
    }
    oru_status_t addEndpoint(const EndpointRequest &request) override {
        return run(Operation::add_endpoint, &Adapter::addEndpoint, request);
    }
    oru_status_t leaveNetwork() override { return run(Operation::leave_network, &Adapter::leaveNetwork); }
    oru_status_t networkInfo(oruZbHal_networkParameters_t &parameters) override {
        return run(Operation::get_network_info, &Adapter::networkInfo, parameters);
    }
    oru_status_t setRadioPower(int8_t power_dbm) override {
        return run(Operation::set_radio_power, &Adapter::setRadioPower, power_dbm);
    }
    oru_status_t setRegion(oruZbHal_region_t region) override {
        return run(Operation::set_region, &Adapter::setRegion, region);
    }

    oru_status_t permitJoin(bool allow) override {
        return run(Operation::permit_join_network, &Adapter::permitJoin, allow);
    }
    oru_status_t permitJoinZts(bool enable) override {
        return run(Operation::permit_join_zts, &Adapter::permitJoinZts, enable);
    }
    oru_status_t addInstallCode(std::span<const uint8_t, 8> eui64_lsb_first,
                                std::span<const uint8_t, 18> code) override {
        return run(Operation::add_install_code, &Adapter::addInstallCode, eui64_lsb_first, code);
    }
    oru_status_t clearTransientLinkKeys() override {
        return run(Operation::clear_transient_link_keys, &Adapter::clearTransientLinkKeys);
    }
    oru_status_t keyTableEntry(uint8_t index, oruZbHal_keyStruct_t &entry) override {
        return run(Operation::get_key_table_entry, &Adapter::keyTableEntry, index, entry);
    }
    oru_status_t key(oruZbHal_keyType_t type, oruZbHal_keyStruct_t &entry) override {
        return run(Operation::get_key, &Adapter::key, type, entry);
    }

    oru_status_t send(const SendRequest &request) override {
        return run(request.zdo ? Operation::send_zdo_message : Operation::send_zcl_unicast, &Adapter::send, request);
    }
    oru_status_t sendInterpan(const InterpanRequest &request) override {
        return run(Operation::send_raw_interpan_message_on_channels, &Adapter::sendInterpan, request);
    }
    oru_status_t sendGroup(const oruZbHal_apsFrame_t &aps_frame, std::span<const uint8_t> payload) override {
        return run(Operation::send_group, &Adapter::sendGroup, aps_frame, payload);
    }

    oru_status_t fwVersion(std::span<uint8_t> version, uint8_t &count) override {
        return run(Operation::get_fw_version, &Adapter::fwVersion, version, count);
    }
    oru_status_t adapterInfo(oruZbHal_adapterInfo_t &info) override {
        return run(Operation::get_adapter_info, &Adapter::adapterInfo, info);
    }
    oru_status_t startScan(uint8_t type, uint32_t channel_mask, uint8_t duration) override {
        return run(Operation::start_scan, &Adapter::startScan, type, channel_mask, duration);
    }
    oru_status_t children(std::span<oruZbHal_childTableEntry_t> entries, uint8_t &count) override {
        return run(Operation::get_children, &Adapter::children, entries, count);
    }
    oru_status_t routes(std::span<oruZbHal_routeTableEntry_t> entries, uint8_t &count) override {
        return run(Operation::get_route_table_entries, &Adapter::routes, entries, count);
    }
    oru_status_t neighbors(std::span<oruZbHal_neighborTableEntry_t> entries, uint8_t &count) override {
        return run(Operation::get_neighbors, &Adapter::neighbors, entries, count);
    }
    oru_status_t debugCounters(oruZbHal_counters_t &counters, bool clear) override {
        return run(clear ? Operation::get_and_clear_debug_counters : Operation::get_debug_counters,
                   &Adapter::debugCounters, counters, clear);
    }

protected:
    Adapter &inner_;

private:
    template <typename Method, typename... Arguments>
    oru_status_t run(Operation operation, Method method, Arguments &...arguments) {
        return static_cast<Kind *>(this)->around(operation, [&] { return (inner_.*method)(arguments...); });
    }
};

// A simulation that lives by the clock and knows no threads: lock, advance, operation.
class SteppedAdapter final : public Decorator<SteppedAdapter> {
public:
    SteppedAdapter(Adapter &inner, AdapterHost &host) : Decorator(inner), host_(host) {}

    uint64_t advance(uint64_t now_us) override {
        const std::lock_guard lock(mutex_);
        return inner_.advance(now_us);
    }
    template <typename Work>
    auto around(Operation /*operation*/, Work work) {
        const std::lock_guard lock(mutex_);
        (void)inner_.advance(nowUs());
        return work();
    }
    // For those who work on the simulation beside the layer.
    template <typename Work>
    void locked(Work work) {
        around(Operation::count, work);
        host_.changed();
    }

private:
    AdapterHost &host_;
    std::mutex mutex_; // the adapter inside; then only what it calls back
};

// Refuses and hangs as ordered.
class FaultyAdapter : public Decorator<FaultyAdapter> {
public:
    FaultyAdapter(Adapter &inner, AdapterFaults &faults) : Decorator(inner), faults_(faults) {}

    uint64_t advance(uint64_t now_us) override {
        faults_.waitWhileHung();
        return inner_.advance(now_us);
    }
    void stop() override {
        faults_.letGo();
        inner_.stop();
    }
    template <typename Work>
    oru_status_t around(Operation operation, Work work) {
        faults_.waitWhileHung();
        const auto refusal = faults_.take(operation);
        return refusal ? oru_status_t{*refusal} : work();
    }

protected:
    AdapterFaults &faults_;
};

} // namespace corvane::zbhal
