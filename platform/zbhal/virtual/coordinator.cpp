// SPDX-License-Identifier: Apache-2.0
// States of the stack, the network, radio power and region.
#include "coordinator.h"
#include "../zbhal_policy.h"
#include "oru_log.h"
#include "zigbee/mac_capabilities.h"
#include <algorithm>

namespace corvane::mesh {

namespace {

constexpr char kTag[] = "zbhal";
constexpr uint64_t kMs = 1000;
constexpr uint64_t kDisableUs = 20 * kMs;
constexpr uint64_t kLeaveUs = 60 * kMs;
constexpr uint64_t kRecoverUs = 1000 * kMs; // a crashed stack until it is back

} // namespace

CoordinatorRadio::CoordinatorRadio(const Scenario &scenario, const VirtualSettings &settings, AdapterHost &host,
                                   AdapterFaults &faults)
    : scenario_(scenario), host_(host), faults_(faults), random_(settings.seed.value_or(scenario.seed)),
      air_(scenario.air, scenario.devices.size() + 1, timeline_, random_),
      mesh_(scenario_, timeline_, random_, air_, *this), power_dbm_(zbhal::DEFAULT_POWER_DBM) {
    if (!settings.state_directory.empty() && scenario_.coordinator.remembers_network) {
        memory_path_ = memoryPath(settings.state_directory, scenario_.coordinator.eui64);
    }
    kept_.reserve(kUsuallyKept);
    transient_keys_.reserve(scenario_.coordinator.key_table_capacity);
    std::reverse_copy(scenario_.coordinator.eui64.begin(), scenario_.coordinator.eui64.end(), info_.eui64);
    info_.capabilities = zigbee::MAC_COORDINATOR;
    oruSecret_keepOutOfDumps(&network_, sizeof network_);
    oruSecret_keepOutOfDumps(&planned_, sizeof planned_);
    CoordinatorRadio::addEndpoint(zbhal::DEFAULT_ENDPOINT);
}

// Frames that are still under way are nobody's any more.
CoordinatorRadio::~CoordinatorRadio() {
    for (Pending &pending : pending_) {
        pending.ticket = 0;
    }
    timeline_.clear();
}

uint64_t CoordinatorRadio::advance(uint64_t now_us) {
    const uint64_t next_us = mayGoOn() ? timeline_.advance(now_us, [this] { return mayGoOn(); }) : zbhal::kNever;
    if (timeline_.shortages() != shortages_) {
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_WARN, kTag, "virtual mesh: out of memory, %llu events put off or dropped",
                   static_cast<unsigned long long>(timeline_.shortages() - shortages_));
        shortages_ = timeline_.shortages();
    }
    return next_us;
}

// What finds no room is kept, and everything stands still until it has been taken.
void CoordinatorRadio::tell(const Indication &indication) {
    if (!kept_.empty() || !host_.indicate(indication)) {
        kept_.push_back(indication);
    }
}

// Whether there is room for what an event reports. If not, the service works on what it has been told, so that has to
// be in the file by now.
bool CoordinatorRadio::mayGoOn() {
    size_t taken = 0;
    while (taken < kept_.size() && host_.indicate(kept_[taken])) {
        ++taken;
    }
    kept_.erase(kept_.begin(), kept_.begin() + static_cast<std::ptrdiff_t>(taken));
    const bool room = kept_.empty() && host_.hasRoom();
    if (!room && remember_due_) {
        remember();
    }
    return room;
}

// ---------------------------------------------------------------- states

void CoordinatorRadio::transition(Stack stack, uint64_t delay_us, Step step) {
    timeline_.surely(delay_us, [this, number = step_ + 1, step] {
        if (number == step_) {
            (this->*step)();
        }
    });
    ++step_;
    stack_ = stack;
}

void CoordinatorRadio::report(oruZbHal_stackStatus_t status) {
    scratch_ = {};
    scratch_.kind = IndicationKind::stack_status;
    scratch_.status = status;
    tell(scratch_);
}

oru_status_t CoordinatorRadio::enable() {
    if (stack_ != Stack::off) {
        return ORU_STATUS_ALREADY_EXISTS;
    }
    transition(Stack::enabling, scenario_.coordinator.startup_ms * kMs, &CoordinatorRadio::resume);
    report(ORU_ZB_HAL_STACK_ENABLING);
    return ORU_STATUS_OK;
}

// The stack is ready: with the network it remembers, or without one.
void CoordinatorRadio::resume() {
    const std::vector<Member> members = recalled_ ? std::vector<Member>{} : recall();
    recalled_ = true;
    stack_ = network_ ? Stack::network_up : Stack::no_network;
    if (network_) {
        const size_t strangers = mesh_.networkStarted(members);
        if (strangers > 0 && !members.empty()) {
            oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_WARN, kTag,
                       "%zu devices of the network are not in the scenario any more", strangers);
        }
    }
    report(network_ ? ORU_ZB_HAL_STACK_ENABLED_NETWORK_UP : ORU_ZB_HAL_STACK_ENABLED_NO_NETWORK);
    if (network_ && (join_open_ || join_zts_)) {
        mesh_.joiningOpened();
    }
}

std::vector<Member> CoordinatorRadio::recall() {
    std::optional<Memory> memory = memory_path_.empty() ? std::nullopt : loadMemory(memory_path_);
    if (!memory) {
        return {};
    }
    network_ = memory->network;
    power_dbm_ = zbhal::allowedPowerDbm(memory->network.power_dbm, region_);
    return std::move(memory->members);
}

oru_status_t CoordinatorRadio::disable() {
    transition(Stack::disabling, kDisableUs, &CoordinatorRadio::disabled);
    abandonTraffic();
    return ORU_STATUS_OK;
}

void CoordinatorRadio::disabled() {
    stack_ = Stack::off;
    report(ORU_ZB_HAL_STACK_DISABLED);
}

void CoordinatorRadio::restartStack(Stack stack, oruZbHal_stackStatus_t announced, uint64_t delay_us) {
    transition(stack, delay_us, &CoordinatorRadio::resume);
    abandonTraffic();
    report(announced);
}

oru_status_t CoordinatorRadio::reset() {
    if (stack_ == Stack::off || stack_ == Stack::disabling) {
        return ORU_STATUS_DEVICE_STATE_INVALID;
    }
    restartStack(Stack::resetting, ORU_ZB_HAL_STACK_BUSY_RESETTING, scenario_.coordinator.startup_ms * kMs);
    return ORU_STATUS_OK;
}

oru_status_t CoordinatorRadio::factoryReset() {
    if (stack_ == Stack::off || stack_ == Stack::disabling) {
        return ORU_STATUS_DEVICE_STATE_INVALID;
    }
    restartStack(Stack::resetting, ORU_ZB_HAL_STACK_BUSY_RESETTING, scenario_.coordinator.startup_ms * kMs);
    dropNetwork();
    transient_keys_.clear();
    power_dbm_ = zbhal::allowedPowerDbm(zbhal::DEFAULT_POWER_DBM, region_);
    return ORU_STATUS_OK;
}

bool CoordinatorRadio::fatalError() {
    if (stack_ == Stack::off || stack_ == Stack::disabling) {
        return false;
    }
    restartStack(Stack::failed, ORU_ZB_HAL_STACK_FATAL_ERROR, kRecoverUs);
    return true;
}

oru_status_t CoordinatorRadio::echo(uint32_t count) {
    const bool answers = stack_ != Stack::off && stack_ != Stack::failed && stack_ != Stack::resetting;
    return answers && count > 0 ? ORU_STATUS_OK : ORU_STATUS_DEVICE_STATE_INVALID;
}

// ---------------------------------------------------------------- network

oru_status_t CoordinatorRadio::formNetwork(uint32_t primary_mask, uint32_t secondary_mask, uint8_t final_channel,
                                           oruZbHal_region_t region) {
    if (stack_ == Stack::network_up) {
        return ORU_STATUS_ALREADY_EXISTS;
    }
    if (stack_ != Stack::no_network) {
        return ORU_STATUS_DEVICE_STATE_INVALID;
    }
    setRegion(region);
    transition(Stack::forming, scenario_.coordinator.form_ms * kMs, &CoordinatorRadio::networkFormed);
    forming_ = makeNetwork(primary_mask, secondary_mask, final_channel);
    return ORU_STATUS_OK;
}

void CoordinatorRadio::networkFormed() {
    network_ = forming_;
    recalled_ = true; // whatever the file holds belongs to an earlier network
    stack_ = Stack::network_up;
    rememberSoon();
    oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_INFO, kTag, "virtual network up: channel %u, PAN id 0x%04x", network_->channel,
               network_->pan_id);
    report(ORU_ZB_HAL_STACK_ENABLED_NETWORK_UP);
}

// The final channel when the masks allow it, else the quietest of the primary mask.
Network CoordinatorRadio::makeNetwork(uint32_t primary_mask, uint32_t secondary_mask, uint8_t final_channel) {
    Network network;
    network.channel_mask = primary_mask | secondary_mask;
    const bool allowed = (network.channel_mask & (1U << final_channel)) != 0;
    network.channel = allowed ? final_channel : quietestChannel(primary_mask);
    network.pan_id = static_cast<uint16_t>(1 + random_.below(0xFFFD)); // 0xFFFF means all, 0xFFFE none
    std::generate(network.extended_pan_id.begin(), network.extended_pan_id.end(), [this] { return random_.byte(); });
    std::generate(network.key.begin(), network.key.end(), [this] { return random_.byte(); });
    if (planned_) {
        network.pan_id = planned_->pan_id;
        network.extended_pan_id = planned_->extended_pan_id;
        network.key = planned_->key;
        planned_.reset();
    }
    return network;
}

uint8_t CoordinatorRadio::quietestChannel(uint32_t mask) {
    uint8_t quietest = 0;
    int8_t lowest = INT8_MAX;
    for (uint8_t channel = 11; channel <= 26; ++channel) {
        const int8_t energy = energyOf(channel);
        if ((mask & (1U << channel)) != 0 && (quietest == 0 || energy < lowest)) {
            quietest = channel;
            lowest = energy;
        }
    }
    return quietest;
}

oru_status_t CoordinatorRadio::leaveNetwork() {
    if (stack_ != Stack::network_up) {
        return ORU_STATUS_DEVICE_STATE_INVALID;
    }
    transition(Stack::leaving, kLeaveUs, &CoordinatorRadio::networkLeft);
    abandonTraffic();
    dropNetwork();
    return ORU_STATUS_OK;
}

void CoordinatorRadio::networkLeft() {
    stack_ = Stack::no_network;
    report(ORU_ZB_HAL_STACK_ENABLED_NO_NETWORK);
}

void CoordinatorRadio::dropNetwork() {
    network_.reset();
    recalled_ = true;
    join_open_ = join_zts_ = false;
    mesh_.networkGone();
    rememberSoon();
}

oru_status_t CoordinatorRadio::networkInfo(oruZbHal_networkParameters_t &parameters) {
    if (stack_ != Stack::network_up) {
        return ORU_STATUS_DEVICE_STATE_INVALID;
    }
    parameters = {};
    std::copy(network_->extended_pan_id.begin(), network_->extended_pan_id.end(), parameters.extended_pan_id);
    parameters.pan_id = network_->pan_id;
    parameters.radio_tx_power = power_dbm_;
    parameters.radio_channel = network_->channel;
    parameters.channel_mask = network_->channel_mask;
    return ORU_STATUS_OK;
}

oru_status_t CoordinatorRadio::setRadioPower(int8_t power_dbm) {
    if (stack_ == Stack::off) {
        return ORU_STATUS_DEVICE_STATE_INVALID;
    }
    if (power_dbm != zbhal::allowedPowerDbm(power_dbm, region_)) {
        return ORU_STATUS_PARAM_OUT_OF_RANGE;
    }
    power_dbm_ = power_dbm;
    rememberSoon();
    return ORU_STATUS_OK;
}

oru_status_t CoordinatorRadio::setRegion(oruZbHal_region_t region) {
    region_ = region;
    const int8_t highest = zbhal::highestPowerDbm(region);
    if (power_dbm_ > highest) {
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_INFO, kTag, "transmit power lowered from %d to %d dBm by the region",
                   power_dbm_, highest);
        power_dbm_ = highest;
        rememberSoon();
    }
    return ORU_STATUS_OK;
}

oru_status_t CoordinatorRadio::addEndpoint(const zbhal::EndpointRequest &request) {
    auto *const end = info_.endpoints + info_.endpoint_count;
    auto *entry = std::find_if(info_.endpoints, end, [&](const oruZbHal_adapterEndpointInfo_t &known) {
        return known.endpoint == request.endpoint;
    });
    if (entry == end) {
        if (info_.endpoint_count == ORU_ZB_HAL_MAX_ADAPTER_ENDPOINTS) {
            return ORU_STATUS_OUT_OF_MEMORY;
        }
        ++info_.endpoint_count;
    }
    *entry = {};
    entry->profile_id = request.profile_id;
    entry->device_id = request.device_id;
    entry->endpoint = request.endpoint;
    for (const uint16_t cluster_id : request.input_clusters) {
        entry->clusters[entry->cluster_count++] = {cluster_id, 1, 0};
    }
    for (const uint16_t cluster_id : request.output_clusters) {
        entry->clusters[entry->cluster_count++] = {cluster_id, 0, 0};
    }
    return ORU_STATUS_OK;
}

// ---------------------------------------------------------------- memory

// At the end of the running event, and before anything of it is delivered: what the service has been told about is in
// the file.
void CoordinatorRadio::rememberSoon() {
    if (memory_path_.empty() || remember_due_) {
        return;
    }
    timeline_.surely(0, [this] {
        if (remember_due_) {
            remember();
        }
    });
    remember_due_ = true;
}

void CoordinatorRadio::remember() {
    std::optional<Memory> memory;
    if (network_) {
        memory = Memory{*network_, mesh_.members()};
        memory->network.power_dbm = power_dbm_;
    }
    (void)saveMemory(memory_path_, memory);
    remember_due_ = false;
}

} // namespace corvane::mesh
