// SPDX-License-Identifier: Apache-2.0
#include "zbhal_core.h"
#include "oru_config.h"
#include "oru_log.h"
#include "oru_time.h"
#include "supervise.h"
#include "virtual/virtual_adapter.h"
#include "zbhal_thread.h"
#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <unistd.h>

namespace corvane::zbhal {

namespace {

constexpr char kTag[] = "zbhal";
constexpr std::string_view kVirtualPrefix = "virtual:";
constexpr uint64_t kOwnLimitUs = 500000; // longest wait of runEvents when the caller names none
constexpr uint64_t kLongestSleepUs = 60ull * 1000000;
constexpr uint64_t kNextAttemptUs = 2 * 1000000; // to find an adapter that was not there
constexpr size_t kDeliverAtOnce = 32;            // indications per call when the service has nothing queued

constexpr std::array<std::string_view, static_cast<size_t>(Operation::count)> kOperationNames = {
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
static_assert(!kOperationNames.back().empty(), "every operation has a name");

} // namespace

Hal &hal() {
    static auto *instance = new Hal;
    return *instance;
}

uint64_t nowUs() {
    oruTime_timespec_t now{};
    if (oruTime_clockTime(ORUTIME_CLOCK_MONOTONIC, &now) != ORU_STATUS_OK || now.seconds < 0) {
        return 0; // the timeline never runs backwards, so nothing happens until the clock is back
    }
    return static_cast<uint64_t>(now.seconds) * 1000000 + static_cast<uint64_t>(now.nanoseconds) / 1000;
}

// ---------------------------------------------------------------- start and stop

oru_status_t Hal::init(const oruZbHal_callbacks_t *callbacks, int32_t *event_descriptor) {
    {
        const std::lock_guard lock(mutex_);
        if (const auto refusal = takeRefusal(Operation::init)) {
            return *refusal;
        }
    }
    if (initialized_) {
        return ORU_STATUS_ALREADY_INITIALIZED;
    }
    descriptor_mode_ = options_.mode == testing::Mode::configured ? oruConfig_get().radio_event_descriptor
                                                                  : options_.mode == testing::Mode::descriptor;
    if (descriptor_mode_ && !pipe_.open()) {
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, kTag, "cannot create the event pipe: %s", std::strerror(errno));
        return ORU_STATUS_GENERAL_ERROR;
    }
    callbacks_ = callbacks;
    stopping_ = false;
    initialized_ = true;
    static const int registered = std::atexit([] { hal().stop(); });
    if (registered != 0) {
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_WARN, kTag, "no exit handler: threads of the layer end with the process");
    }
    if (!startThreads()) {
        shutDown();
        return ORU_STATUS_GENERAL_ERROR;
    }
    if (descriptor_mode_) {
        *event_descriptor = pipe_.writeEnd();
    }
    return ORU_STATUS_OK;
}

bool Hal::startThreads() {
    if (!supervise::start(options_.in_force ? options_.watchdog_seconds : oruConfig_get().watchdog_seconds)) {
        return false;
    }
    return descriptor_mode_ || (startLoop(clock_thread_, "zbhal-clock", &Hal::clockLoop) &&
                                startLoop(dispatch_thread_, "zbhal-dispatch", &Hal::dispatchLoop));
}

bool Hal::startLoop(std::thread &thread, const char *name, void (Hal::*loop)()) {
    ++running_threads_;
    thread = startThread(name, [this, loop] {
        (this->*loop)();
        --running_threads_;
    });
    running_threads_ -= thread.joinable() ? 0 : 1;
    return thread.joinable();
}

void Hal::stop() {
    stopping_ = true;
    {
        const std::lock_guard lock(hang_mutex_);
        hang_until_ = {};
        hang_changed_.notify_all();
    }
    queue_.stop();
    {
        const std::lock_guard lock(mutex_);
        clock_changed_.notify_all();
    }
    supervise::stop();
    // A callback may be stuck in the service while the process exits; it must not keep the process alive.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(1);
    while (running_threads_ > 0 && std::chrono::steady_clock::now() < deadline) {
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    for (std::thread *thread : {&clock_thread_, &dispatch_thread_}) {
        if (thread->joinable() && running_threads_ == 0) {
            thread->join();
        } else if (thread->joinable()) {
            thread->detach();
        }
    }
    if (adapter_ != nullptr) {
        adapter_->stop();
    }
}

void Hal::restart(const testing::Options &options) {
    shutDown();
    const std::lock_guard lock(mutex_);
    adapter_.reset();
    places_ = {};
    name_.clear();
    adapter_name_.clear();
    next_attempt_us_ = kNever;
    reported_problem_.clear();
    awaited_region_.reset();
    refusals_ = {};
    calls_ = refused_call_ = 0;
    options_ = options;
    options_.in_force = true;
}

// As before init.
void Hal::shutDown() {
    stop();
    queue_.restart();
    reported_drops_ = 0;
    pipe_.close();
    callbacks_ = nullptr;
    stopping_ = false;
    initialized_ = false;
}

// ---------------------------------------------------------------- the adapter

AdapterSettings Hal::adapterSettings() const {
    AdapterSettings settings;
    if (options_.in_force) {
        settings.state_directory = options_.state_directory;
        settings.runtime_directory = options_.runtime_directory;
        settings.seed = options_.seed;
        settings.remember = !options_.state_directory.empty();
        settings.simulation_control = !options_.runtime_directory.empty();
        return settings;
    }
    const oruConfig_t &config = oruConfig_get();
    settings.state_directory = config.state_directory;
    settings.runtime_directory = config.runtime_directory;
    if (config.radio_seed_set) {
        settings.seed = config.radio_seed;
    }
    settings.simulation_control = config.simulation_control;
    return settings;
}

namespace {

oru_status_t explainDevicePath(const std::string &path, std::string &problem) {
    const char *advice = "use -p virtual:<scenario.toml> for the virtual mesh";
    if (path.empty()) {
        problem = std::string("no radio adapter is named: ") + advice;
        return ORU_STATUS_BAD_PARAM;
    }
    const int descriptor = open(path.c_str(), O_RDWR | O_NOCTTY | O_NONBLOCK | O_CLOEXEC);
    if (descriptor < 0) {
        problem =
            "cannot open the radio adapter " + path + ": " + std::strerror(errno) + "; check the path or " + advice;
        return ORU_STATUS_NOT_FOUND;
    }
    close(descriptor);
    problem = "cannot use the radio adapter " + path + ": this version has no backend for serial adapters; " + advice;
    return ORU_STATUS_NOT_SUPPORTED;
}

} // namespace

oru_status_t Hal::createAdapter(std::string &problem) {
    if (adapter_ != nullptr && adapter_name_ == name_) {
        return ORU_STATUS_OK;
    }
    if (adapter_ != nullptr) {
        return ORU_STATUS_BUSY; // the name may change only until the first enable
    }
    if (!std::string_view(name_).starts_with(kVirtualPrefix)) {
        return explainDevicePath(name_, problem);
    }
    std::string error;
    std::string name = name_; // no step may fail once there is an adapter
    adapter_ =
        makeVirtualAdapter(name_.substr(kVirtualPrefix.size()), options_.scenario, adapterSettings(), *this, error);
    if (adapter_ == nullptr) {
        problem = "the virtual mesh cannot start: " + error;
        return ORU_STATUS_BAD_PARAM;
    }
    adapter_name_ = std::move(name);
    return ORU_STATUS_OK;
}

// Says so once, and again when the reason changes. A serial adapter that is there and of no use is left alone.
void Hal::awaitAdapter(oru_status_t status, const std::string &problem) {
    const bool again = status != ORU_STATUS_NOT_SUPPORTED;
    next_attempt_us_ = again ? nowUs() + kNextAttemptUs : kNever;
    clock_changed_.notify_all();
    if (problem != reported_problem_) {
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, kTag, "%s (%s)", problem.c_str(),
                   again ? "waiting for it" : "running without a radio");
        reported_problem_ = problem;
    }
}

void Hal::lookForAdapter() {
    std::string problem;
    const oru_status_t status = createAdapter(problem);
    if (status != ORU_STATUS_OK) {
        awaitAdapter(status, problem);
        return;
    }
    next_attempt_us_ = kNever;
    reported_problem_.clear();
    oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_INFO, kTag, "the radio adapter %s is there now", name_.c_str());
    (void)adapter_->enable(); // reports by itself how it goes on
    if (awaited_region_) {
        (void)adapter_->setRegion(*awaited_region_);
    }
}

oru_status_t Hal::setRegion(oruZbHal_region_t region) {
    {
        const std::lock_guard lock(mutex_);
        if (adapter_ == nullptr && !reported_problem_.empty()) {
            awaited_region_ = region;
            return ORU_STATUS_OK;
        }
    }
    return run(Operation::set_region, [region](Adapter &adapter) { return adapter.setRegion(region); });
}

oru_status_t Hal::setAdapterName(const char *name) {
    waitWhileHung();
    const std::lock_guard lock(mutex_);
    if (const auto refusal = takeRefusal(Operation::set_adapter_name)) {
        return *refusal;
    }
    return guarded([&] {
        name_ = name;
        return ORU_STATUS_OK;
    });
}

oru_status_t Hal::enable() {
    {
        const std::lock_guard lock(mutex_);
        std::string problem;
        const oru_status_t status =
            initialized_ ? guarded([&] { return createAdapter(problem); }) : oru_status_t{ORU_STATUS_UNINITIALIZED};
        if (!problem.empty() && !options_.in_force && oruConfig_get().radio_wait_for_adapter) {
            awaitAdapter(status, problem);
            return ORU_STATUS_OK;
        }
        if (!problem.empty()) {
            oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, kTag, "%s", problem.c_str());
        }
        if (status != ORU_STATUS_OK) {
            return status;
        }
    }
    return run(Operation::enable, [](Adapter &adapter) { return adapter.enable(); });
}

oru_status_t Hal::send(Operation operation, SendRequest &request) {
    return run(operation, [&](Adapter &adapter) -> oru_status_t {
        if (!places_.take(request.destination, operation == Operation::send_zdo_message, adapter.sendCapacity())) {
            return ORU_ZB_HAL_MAC_TRANSACTION_OVERFLOW;
        }
        const oru_status_t status = guarded([&] { return adapter.send(request); });
        if (status != ORU_STATUS_OK) {
            places_.release(request.destination);
        }
        return status;
    });
}

// ---------------------------------------------------------------- advancing and delivering

uint64_t Hal::pump() {
    const std::lock_guard lock(mutex_);
    return advance();
}

uint64_t Hal::advance() {
    const uint64_t now_us = nowUs();
    uint64_t due_us = now_us; // goes on with the next event when memory runs out in one
    (void)guarded([&] {
        if (now_us >= next_attempt_us_) {
            lookForAdapter();
        }
        due_us = adapter_ == nullptr ? next_attempt_us_ : adapter_->advance(now_us);
        return ORU_STATUS_OK;
    });
    return due_us;
}

// One indication in any case. More only while the service has nothing queued: each of its messages has a wake byte in
// the pipe, and its queue is bounded.
void Hal::deliverSome() {
    delivering_ = true;
    for (size_t delivered = 0; delivered < kDeliverAtOnce && queue_.pop(current_); ++delivered) {
        deliver(*callbacks_, current_);
        queue_.done();
        if (pipe_.byteWaiting()) {
            break;
        }
    }
    delivering_ = false;
    reportDrops();
}

void Hal::reportDrops() {
    const uint32_t dropped = queue_.dropped();
    if (dropped != reported_drops_) {
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_WARN, kTag, "%u reports of the radio lost: the queue was full",
                   dropped - reported_drops_);
        reported_drops_ = dropped;
    }
}

void Hal::reportShortages() {
    if (const uint32_t count = shortages_ == 0 ? 0 : shortages_.exchange(0); count != 0) {
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, kTag, "memory is short: the radio has lost %u steps of its work",
                   count);
    }
}

oru_status_t Hal::processAction() {
    if (!initialized_) {
        return ORU_STATUS_UNINITIALIZED;
    }
    supervise::beat(supervise::Pulse::main_loop);
    reportShortages();
    waitWhileHung();
    if (!descriptor_mode_ || delivering_) {
        return ORU_STATUS_OK;
    }
    pump();
    deliverSome();
    return ORU_STATUS_OK;
}

oru_status_t Hal::runEvents(uint32_t max_wait_ms) {
    if (!initialized_) {
        return ORU_STATUS_UNINITIALIZED;
    }
    if (!descriptor_mode_) {
        return ORU_STATUS_NOT_SUPPORTED;
    }
    waitWhileHung();
    if (delivering_ || pipe_.takeByte()) {
        return ORU_STATUS_OK;
    }
    const uint64_t limit_us = max_wait_ms == 0 ? kOwnLimitUs : uint64_t{max_wait_ms} * 1000;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::microseconds(limit_us);
    for (;;) {
        waiting_ = true; // before pump: whoever changes the mesh after pump looks at it
        const uint64_t due_us = pump();
        if (queue_.size() > 0) {
            waiting_ = false;
            deliverSome();
            (void)pipe_.takeByte(); // the byte of a message that a callback has posted
            return ORU_STATUS_OK;
        }
        const auto left =
            std::chrono::duration_cast<std::chrono::microseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0) {
            break;
        }
        const uint64_t now_us = nowUs();
        const uint64_t until_due_us = due_us == kNever ? kNever : due_us - std::min(due_us, now_us);
        // A due time of "now" with nothing to deliver is work left over: 1 ms keeps it from spinning.
        const uint64_t wait_us = std::max<uint64_t>(until_due_us, 1000);
        const auto result = pipe_.wait(std::min<uint64_t>(static_cast<uint64_t>(left.count()), wait_us));
        if (result == WakePipe::Wait::interrupted || pipe_.takeByte()) {
            break;
        }
    }
    waiting_ = false;
    return ORU_STATUS_OK;
}

void Hal::wake() {
    if (!initialized_) {
        return;
    }
    if (!descriptor_mode_) {
        const std::lock_guard lock(mutex_);
        clock_changed_.notify_all();
    } else if (waiting_) {
        pipe_.signal();
    }
}

void Hal::clockLoop() {
    std::unique_lock lock(mutex_);
    while (!stopping_) {
        const uint64_t due_us = advance();
        const uint64_t now_us = nowUs();
        const uint64_t wait_us = due_us <= now_us ? 1000 : std::min(due_us - now_us, kLongestSleepUs);
        clock_changed_.wait_for(lock, std::chrono::microseconds(wait_us));
    }
}

void Hal::dispatchLoop() {
    while (queue_.waitPop(current_)) {
        supervise::beat(supervise::Pulse::dispatcher);
        deliver(*callbacks_, current_);
        supervise::rest(supervise::Pulse::dispatcher);
        queue_.done();
        reportDrops();
    }
}

bool Hal::inject(const Indication &indication) {
    const bool taken = report(indication);
    wake();
    return taken;
}

void Hal::withAdapter(const std::function<void(Adapter &)> &work) {
    locked([&] {
        if (adapter_ != nullptr) {
            work(*adapter_);
        }
    });
}

// ---------------------------------------------------------------- host of the adapter

namespace {

// Such a device is not in the network: to report it would start the interview of a ghost. Whoever rejoins with the
// network key or leaves is, or was, in the network.
bool joinRefused(const Indication &indication) {
    return indication.kind == IndicationKind::trust_center && indication.decision == ORU_ZB_HAL_DENY_JOIN &&
           (indication.status == ORU_ZB_HAL_STANDARD_SECURITY_UNSECURED_JOIN ||
            indication.status == ORU_ZB_HAL_STANDARD_SECURITY_UNSECURED_REJOIN);
}

} // namespace

void Hal::indicate(const Indication &indication) {
    (void)report(indication); // what does not fit is counted
}

// False: no room.
bool Hal::report(const Indication &indication) {
    if (!joinRefused(indication)) {
        return queue_.push(indication);
    }
    const uint8_t *const eui64 = indication.eui64;
    oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_INFO, kTag, "trust centre: join of %02x%02x%02x..%02x%02x denied", eui64[7],
               eui64[6], eui64[5], eui64[1], eui64[0]);
    return true;
}

void Hal::confirm(const Indication &indication) {
    if (indication.kind == IndicationKind::send_confirmed) {
        places_.release(indication.node_id);
    }
    queue_.pushReserved(indication);
}

std::optional<int32_t> Hal::takeRefusal(Operation operation) {
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

void Hal::locked(const std::function<void()> &work) {
    {
        const std::lock_guard lock(mutex_);
        (void)advance();
        work();
    }
    wake();
}

std::string Hal::refuseNext(const std::string &operation, uint32_t count, int32_t status) {
    const auto found = std::find(kOperationNames.begin(), kOperationNames.end(), operation);
    if (found == kOperationNames.end()) {
        return "no operation is named \"" + operation + "\"";
    }
    if (status == 0) {
        return "a refusal needs a status other than 0";
    }
    const std::lock_guard lock(mutex_);
    refusals_[static_cast<size_t>(found - kOperationNames.begin())] = {count, status};
    return {};
}

void Hal::refuseCall(uint64_t nth, int32_t status) {
    const std::lock_guard lock(mutex_);
    calls_ = 0;
    refused_call_ = nth;
    call_refusal_ = status;
}

uint64_t Hal::operationCalls() {
    const std::lock_guard lock(mutex_);
    return calls_;
}

void Hal::hang(uint32_t milliseconds) {
    const std::lock_guard lock(hang_mutex_);
    hang_until_ = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    hang_changed_.notify_all();
}

void Hal::waitWhileHung() {
    std::unique_lock lock(hang_mutex_);
    while (std::chrono::steady_clock::now() < hang_until_) {
        hang_changed_.wait_until(lock, hang_until_);
    }
}

} // namespace corvane::zbhal
