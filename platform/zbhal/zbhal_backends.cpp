// SPDX-License-Identifier: Apache-2.0
#include "zbhal_backends.h"
#include "oru_log.h"
#include <algorithm>

namespace corvane::zbhal {

namespace {

constexpr char TAG[] = "zbhal";
constexpr uint64_t NEXT_ATTEMPT_US = 2 * 1000000; // to find an adapter that was not there

} // namespace

void AdapterSource::use(std::vector<Backend> backends, bool wait) {
    const std::lock_guard lock(mutex_);
    backends_ = std::move(backends);
    wait_ = wait;
}

void AdapterSource::setName(const char *name) {
    const std::lock_guard lock(mutex_);
    name_ = name;
}

Made AdapterSource::make(AdapterHost &host) {
    const auto backend =
        std::ranges::find_if(backends_, [this](const Backend &row) { return name_.starts_with(row.prefix); });
    if (backend == backends_.end()) {
        return {nullptr, ORU_STATUS_BAD_PARAM, "no radio adapter is named \"" + name_ + "\"", true};
    }
    return backend->make(name_.substr(backend->prefix.size()), host);
}

Adapter *AdapterSource::publish(std::unique_ptr<Adapter> adapter, std::string name) {
    adapter_ = std::move(adapter);
    adapter_name_ = std::move(name);
    published_.store(adapter_.get(), std::memory_order_release);
    return adapter_.get();
}

oru_status_t AdapterSource::open(AdapterHost &host) {
    const std::lock_guard lock(mutex_);
    if (adapter_ != nullptr) {
        return adapter_name_ == name_ ? ORU_STATUS_OK : ORU_STATUS_BUSY; // the name counts until the first enable
    }
    std::string name = name_; // no step may fail once there is an adapter
    Made made = make(host);
    if (made.adapter != nullptr) {
        publish(std::move(made.adapter), std::move(name));
        return ORU_STATUS_OK;
    }
    if (wait_) {
        await(made, nowUs());
        host.changed();
        return ORU_STATUS_OK;
    }
    oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, TAG, "%s", made.problem.c_str());
    return made.status;
}

// Says so once, and again when the reason changes. An adapter that is there and of no use is left alone.
void AdapterSource::await(const Made &failure, uint64_t now_us) {
    next_attempt_us_ = failure.hopeless ? kNever : now_us + NEXT_ATTEMPT_US;
    if (failure.problem != reported_problem_) {
        oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_ERROR, TAG, "%s (%s)", failure.problem.c_str(),
                   failure.hopeless ? "running without a radio" : "waiting for it");
        reported_problem_ = failure.problem;
    }
}

bool AdapterSource::keepRegion(oruZbHal_region_t region) {
    if (adapter() != nullptr) {
        return false;
    }
    const std::lock_guard lock(mutex_);
    if (adapter_ != nullptr || reported_problem_.empty()) {
        return false;
    }
    awaited_region_ = region;
    return true;
}

uint64_t AdapterSource::look(uint64_t now_us, AdapterHost &host) {
    if (now_us < next_attempt_us_) {
        return next_attempt_us_;
    }
    if (Adapter *const found = find(now_us, host)) {
        (void)found->enable(); // reports by itself how it goes on
        if (const auto region = awaitedRegion()) {
            (void)found->setRegion(*region);
        }
    }
    return next_attempt_us_;
}

std::optional<oruZbHal_region_t> AdapterSource::awaitedRegion() {
    const std::lock_guard lock(mutex_);
    return awaited_region_;
}

// Null: not there yet, or another thread has looked meanwhile.
Adapter *AdapterSource::find(uint64_t now_us, AdapterHost &host) {
    const std::lock_guard lock(mutex_);
    if (adapter_ != nullptr || now_us < next_attempt_us_) {
        return nullptr;
    }
    std::string name = name_;
    Made made = make(host);
    if (made.adapter == nullptr) {
        await(made, now_us);
        return nullptr;
    }
    next_attempt_us_ = kNever;
    reported_problem_.clear();
    oruLog_log(ORU_LOG_ID_MAIN, ORU_LOG_INFO, TAG, "the radio adapter %s is there now", name.c_str());
    return publish(std::move(made.adapter), std::move(name));
}

} // namespace corvane::zbhal
