// SPDX-License-Identifier: Apache-2.0
#include "adapter_faults.h"
#include <algorithm>
#include <string_view>

namespace corvane::zbhal {

namespace {

constexpr std::array<std::string_view, static_cast<size_t>(Operation::count)> OPERATION_NAMES = {
    "init",
    "setAdapterName",
    "enable",
    "disable",
    "reset",
    "factoryReset",
    "echo",
    "formNetworkAuto",
    "addEndpoint",
    "leaveNetwork",
    "getNetworkInfo",
    "setRadioPower",
    "setRegion",
    "permitJoinNetwork",
    "permitJoinZts",
    "addInstallCode",
    "clearTransientLinkKeys",
    "getKeyTableEntry",
    "getKey",
    "sendZclUnicast",
    "sendZdoMessage",
    "sendRawInterpanMessageOnChannels",
    "sendGroup",
    "getFwVersion",
    "getAdapterInfo",
    "startScan",
    "getChildren",
    "getRouteTableEntries",
    "getNeighbors",
    "getDebugCounters",
    "getAndClearDebugCounters",
    "confirmation",
    "interpanCompletion",
};
static_assert(!OPERATION_NAMES.back().empty(), "every operation has a name");

} // namespace

std::string AdapterFaults::refuseNext(const std::string &operation, uint32_t count, int32_t status) {
    const auto *const found = std::ranges::find(OPERATION_NAMES, operation);
    if (found == OPERATION_NAMES.end()) {
        return "no operation is named \"" + operation + "\"";
    }
    if (status == 0) {
        return "a refusal needs a status other than 0";
    }
    const std::lock_guard lock(mutex_);
    refusals_[static_cast<size_t>(found - OPERATION_NAMES.begin())] = {count, status};
    return {};
}

void AdapterFaults::refuseCall(uint64_t nth, int32_t status) {
    const std::lock_guard lock(mutex_);
    calls_ = 0;
    refused_call_ = nth;
    call_refusal_ = status;
}

uint64_t AdapterFaults::calls() {
    const std::lock_guard lock(mutex_);
    return calls_;
}

std::optional<int32_t> AdapterFaults::take(Operation operation) {
    const std::lock_guard lock(mutex_);
    if (operation < Operation::confirmation && ++calls_ == refused_call_) {
        return call_refusal_;
    }
    Refusal &refusal = refusals_[static_cast<size_t>(operation)];
    if (refusal.count == 0) {
        return std::nullopt;
    }
    --refusal.count;
    return refusal.status;
}

void AdapterFaults::hang(uint32_t milliseconds) {
    const std::lock_guard lock(mutex_);
    hang_until_ = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    hang_changed_.notify_all();
}

void AdapterFaults::waitWhileHung() {
    std::unique_lock lock(mutex_);
    while (std::chrono::steady_clock::now() < hang_until_) {
        hang_changed_.wait_until(lock, hang_until_);
    }
}

void AdapterFaults::letGo() {
    const std::lock_guard lock(mutex_);
    hang_until_ = {};
    hang_changed_.notify_all();
}

} // namespace corvane::zbhal
