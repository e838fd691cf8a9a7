// SPDX-License-Identifier: Apache-2.0
//
// Which adapter there is: a table from the beginning of an adapter's name to the backend that makes it, and the one
// adapter of the process, for which the layer can wait when it is not there yet.
#pragma once
#include "zbhal_adapter.h"
#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace corvane::zbhal {

// An adapter, or why there is none in a sentence that tells what to do.
struct Made {
    std::unique_ptr<Adapter> adapter;
    oru_status_t status = ORU_STATUS_OK;
    std::string problem = {};
    bool hopeless = false; // waiting cannot help
};

struct Backend {
    std::string_view prefix; // of the names that it is for
    std::function<Made(const std::string &rest, AdapterHost &host)> make;
};

// The backends of the product: "virtual:", and every other name is the path of a device.
std::vector<Backend> productBackends();

class AdapterSource {
public:
    void use(std::vector<Backend> backends, bool wait); // before the others; wait: for one that is missing
    void setName(const char *name);

    // Makes the adapter when there is none. OK also when it has to be waited for.
    oru_status_t open(AdapterHost &host);
    // The one adapter, from when it has been made until the end of the process; null before. Takes no lock.
    Adapter *adapter() const { return published_.load(std::memory_order_acquire); }
    // While an adapter is waited for: keeps the region for it. False: nothing is waited for.
    bool keepRegion(oruZbHal_region_t region);
    // Looks for the one that is waited for when it is time, and enables it. Returns the time of the next attempt.
    uint64_t look(uint64_t now_us, AdapterHost &host);

private:
    std::optional<oruZbHal_region_t> awaitedRegion();
    Adapter *find(uint64_t now_us, AdapterHost &host);
    // With mutex_ held.
    Made make(AdapterHost &host);
    Adapter *publish(std::unique_ptr<Adapter> adapter, std::string name);
    void await(const Made &failure, uint64_t now_us);

    std::mutex mutex_; // guards what follows, but for atomics; held while an adapter is made, never while it is used
    std::vector<Backend> backends_;
    bool wait_ = false;
    std::string name_;
    std::string adapter_name_; // the name that adapter_ was made for
    std::unique_ptr<Adapter> adapter_;
    std::string reported_problem_; // why it is waited for; empty: it is not
    std::optional<oruZbHal_region_t> awaited_region_;

    std::atomic<Adapter *> published_{nullptr};
    std::atomic<uint64_t> next_attempt_us_{kNever};
};

} // namespace corvane::zbhal
