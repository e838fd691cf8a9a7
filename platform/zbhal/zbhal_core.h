// SPDX-License-Identifier: Apache-2.0
//
// The layer behind the entry points: one adapter, one queue of indications, and who delivers them.
//
//   descriptor mode   processAction/runEvents on the caller's thread advance the adapter and deliver
//   thread mode       a clock thread advances the adapter, a dispatcher thread delivers
//
// Invariants: no lock is held while an operation of the adapter or a callback runs, so an operation that takes its time
// holds up its caller only; in descriptor mode only one thread delivers, and a processAction or runEvents from inside a
// callback delivers nothing.
// Locks: those of the adapter source, the ledger, the queue and the clock guard their own members. An adapter may hold
// its own lock when it calls the layer, so none of them is held while the adapter is called.
#pragma once
#include "zbhal_backends.h"
#include "zbhal_ledger.h"
#include <atomic>
#include <chrono>
#include <new>
#include <thread>

namespace corvane::zbhal {

struct HalSetup {
    bool descriptor_mode = true;
    uint32_t watchdog_seconds = 0;
    bool wait_for_adapter = false; // a missing adapter does not fail the enabling
    std::vector<Backend> backends;
};

class Hal final : public AdapterHost {
public:
    explicit Hal(std::function<HalSetup()> setup) : setup_(std::move(setup)) {} // asked by init
    ~Hal() override { stop(); }
    Hal(const Hal &) = delete;
    Hal &operator=(const Hal &) = delete;

    oru_status_t init(const oruZbHal_callbacks_t *callbacks, int32_t *event_descriptor);
    oru_status_t setAdapterName(const char *name);
    oru_status_t enable();
    oru_status_t setRegion(oruZbHal_region_t region);
    oru_status_t processAction();
    oru_status_t runEvents(uint32_t max_wait_ms);

    // Runs one operation on the adapter, on the caller's thread.
    template <typename Work>
    oru_status_t run(Work work);
    oru_status_t send(SendRequest &request); // request receives the APS counter used
    oru_status_t sendInterpan(InterpanRequest &request, oruZbHal_interpanSentCallback_t callback);
    oru_status_t sendGroup(oruZbHal_apsFrame_t &aps_frame, std::span<const uint8_t> payload);

    void stop();     // ends the threads; at exit
    uint64_t pump(); // advances the adapter; returns the time of its next event
    size_t undelivered() const { return queue_.undelivered(); } // indications whose callback has not returned

    bool indicate(const Indication &indication) override;
    bool hasRoom() override { return queue_.hasRoom(); }
    void conclude(Ticket ticket, int32_t status) override;
    void concludeAll(int32_t send_status, oru_status_t interpan_status) override;
    void changed() override;

private:
    bool startThreads(uint32_t watchdog_seconds);
    bool startLoop(std::thread &thread, const char *name, void (Hal::*loop)());
    void shutDown();
    // Does work on the adapter, which may run out of memory: then the rest of the work is lost and counted, and the
    // result is ORU_STATUS_OUT_OF_MEMORY.
    template <typename Work>
    oru_status_t guarded(Work work);
    void clockLoop();
    void dispatchLoop();
    void deliverNext();
    void deliverSome();
    bool sleep(uint64_t due_us, std::chrono::steady_clock::time_point deadline);
    void wakeLoop();
    void reportShortages();

    const std::function<HalSetup()> setup_;
    const oruZbHal_callbacks_t *callbacks_ = nullptr; // these two are set once by init
    bool descriptor_mode_ = true;
    std::atomic<bool> initialized_{false};
    EventQueue queue_;
    Ledger ledger_{queue_};
    std::atomic<uint32_t> shortages_{0}; // of memory, not reported yet

    WakePipe pipe_;
    std::atomic<bool> waiting_{false};    // descriptor mode: the loop thread sleeps or is about to
    std::atomic<bool> stirred_{false};    // descriptor mode: there is something to look at since the last pump
    std::atomic<bool> delivering_{false}; // descriptor mode: inside a callback
    Indication current_;                  // the one being delivered; by the delivering thread only

    std::mutex clock_mutex_; // guards due_changed_; a leaf
    std::condition_variable clock_changed_;
    bool due_changed_ = false;
    std::atomic<bool> stopping_{false};
    std::thread clock_thread_;
    std::thread dispatch_thread_;
    std::atomic<int> running_threads_{0};

    AdapterSource source_; // the last: an adapter that goes may still call
};

// The one instance; never destroyed, because exit() runs while threads of the process may still be inside.
Hal &hal();

template <typename Work>
oru_status_t Hal::run(Work work) {
    Adapter *const adapter = source_.adapter();
    if (adapter == nullptr) {
        return ORU_STATUS_UNINITIALIZED;
    }
    const oru_status_t status = guarded([&] { return work(*adapter); });
    changed();
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
