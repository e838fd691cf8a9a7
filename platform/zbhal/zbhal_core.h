// SPDX-License-Identifier: Apache-2.0
//
// The layer behind the entry points: one adapter, one lock, one queue of indications.
//
//   descriptor mode   processAction/runEvents on the caller's thread advance the adapter and deliver
//   thread mode       a clock thread advances the adapter, a dispatcher thread delivers
//
// Invariants: the adapter is touched only with mutex_ held; callbacks run with no lock held; in descriptor mode only
// one thread delivers, and a processAction or runEvents from inside a callback delivers nothing.
// Lock order: mutex_, then the queue's own lock.
#pragma once
#include "oru_zbhal_testing.h"
#include "zbhal_adapter.h"
#include "zbhal_places.h"
#include <atomic>
#include <chrono>
#include <new>
#include <thread>

namespace corvane::zbhal {

class Hal final : public AdapterHost {
public:
    oru_status_t init(const oruZbHal_callbacks_t *callbacks, int32_t *event_descriptor);
    oru_status_t setAdapterName(const char *name);
    oru_status_t enable();
    oru_status_t setRegion(oruZbHal_region_t region);
    oru_status_t processAction();
    oru_status_t runEvents(uint32_t max_wait_ms);

    // Runs one operation on the adapter: refusals first, then with mesh time up to date.
    template <typename Work>
    oru_status_t run(Operation operation, Work work);
    oru_status_t send(Operation operation, SendRequest &request); // request receives the APS counter used

    void stop(); // ends the threads; at exit and before a test starts over
    void restart(const testing::Options &options);

    // For the test interface.
    void poke() { wake(); }
    uint64_t nextEventUs() { return pump(); }
    bool inject(const Indication &indication);
    void withAdapter(const std::function<void(Adapter &)> &work); // nothing when there is none
    size_t pendingIndications() const { return queue_.undelivered(); }
    uint32_t droppedIndications() const { return queue_.dropped(); }
    void refuseCall(uint64_t nth, int32_t status);
    uint64_t operationCalls();

    void indicate(const Indication &indication) override;
    bool reserve() override { return queue_.reserve(); }
    void confirm(const Indication &indication) override;
    std::optional<int32_t> takeRefusal(Operation operation) override;
    void locked(const std::function<void()> &work) override;
    std::string refuseNext(const std::string &operation, uint32_t count, int32_t status) override;
    void hang(uint32_t milliseconds) override;

private:
    struct Refusal {
        uint32_t count = 0;
        int32_t status = 0;
    };

    // These three with mutex_ held. `problem` tells people why there is no adapter.
    oru_status_t createAdapter(std::string &problem);
    void awaitAdapter(oru_status_t status, const std::string &problem);
    void lookForAdapter();
    bool startThreads();
    bool startLoop(std::thread &thread, const char *name, void (Hal::*loop)());
    void shutDown();
    // Does work on the adapter, which may run out of memory: then the rest of the work is lost and counted, and the
    // result is ORU_STATUS_OUT_OF_MEMORY. mutex_ held.
    template <typename Work>
    oru_status_t guarded(Work work);
    uint64_t advance(); // the adapter, up to now; time of its next event. mutex_ held
    void clockLoop();
    void dispatchLoop();
    uint64_t pump();
    bool report(const Indication &indication);
    void deliverSome();
    void wake();
    void waitWhileHung();
    AdapterSettings adapterSettings() const;
    void reportDrops();
    void reportShortages();

    std::mutex mutex_; // guards what follows, up to call_refusal_
    std::unique_ptr<Adapter> adapter_;
    SendPlaces places_; // of the sends between acceptance and confirmation
    std::string name_;
    std::string adapter_name_; // the name that adapter_ was made for
    // While an adapter that was enabled is not there; the problem is empty when all is well.
    uint64_t next_attempt_us_ = kNever;
    std::string reported_problem_;
    std::optional<oruZbHal_region_t> awaited_region_; // for the adapter when it comes
    std::array<Refusal, static_cast<size_t>(Operation::count)> refusals_{};
    uint64_t calls_ = 0;        // of all operations, since refuseCall
    uint64_t refused_call_ = 0; // number of the call to refuse; 0: none
    int32_t call_refusal_ = 0;
    testing::Options options_;

    const oruZbHal_callbacks_t *callbacks_ = nullptr; // set once by init
    std::atomic<bool> initialized_{false};
    bool descriptor_mode_ = true;
    EventQueue queue_;
    uint32_t reported_drops_ = 0;
    std::atomic<uint32_t> shortages_{0}; // of memory, not reported yet
    WakePipe pipe_;
    std::atomic<bool> waiting_{false};    // the loop thread sleeps or is about to
    std::atomic<bool> delivering_{false}; // descriptor mode: inside a callback
    Indication current_;                  // the one being delivered; by the delivering thread only

    std::condition_variable clock_changed_; // with mutex_
    std::atomic<bool> stopping_{false};
    std::thread clock_thread_;
    std::thread dispatch_thread_;
    std::atomic<int> running_threads_{0};

    std::mutex hang_mutex_; // guards hang_until_; a leaf
    std::condition_variable hang_changed_;
    std::chrono::steady_clock::time_point hang_until_{};
};

// The one instance; never destroyed, because exit() runs while threads of the process may still be inside.
Hal &hal();

// Monotonic time in microseconds.
uint64_t nowUs();

template <typename Work>
oru_status_t Hal::run(Operation operation, Work work) {
    waitWhileHung();
    oru_status_t status = ORU_STATUS_UNINITIALIZED;
    {
        const std::lock_guard lock(mutex_);
        if (const auto refusal = takeRefusal(operation)) {
            return *refusal;
        }
        if (adapter_ == nullptr) {
            return ORU_STATUS_UNINITIALIZED;
        }
        (void)advance();
        status = guarded([&] { return work(*adapter_); });
    }
    wake();
    return status;
}

template <typename Work>
oru_status_t Hal::guarded(Work work) {
    try {
        return work();
    } catch (const std::bad_alloc &) {
        ++shortages_;
        return ORU_STATUS_OUT_OF_MEMORY;
    }
}

} // namespace corvane::zbhal
