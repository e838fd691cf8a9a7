// SPDX-License-Identifier: Apache-2.0
//
// The sends and inter-PAN sends that an adapter has been given and has not concluded.
//
//   free --accept--> open --conclude, concludeAll, expire--> free    exactly one confirmation
//                    open --withdraw--> free                         the adapter has refused: none
//
// Who may have places. A device that does not answer keeps each frame for seconds, until its last repetition is given
// up: whoever commands it quickly would fill all places and stop everybody else, and every interview of a new device.
// So one destination gets at most MAX_PER_DESTINATION, and the last places are for ZDO.
//
// Invariants: an open entry has a place reserved in the queue; the low eight bits of open tickets differ and are not 0.
#pragma once
#include "zbhal_adapter.h"
#include <array>
#include <mutex>

namespace corvane::zbhal {

class Ledger {
public:
    static constexpr size_t MAX_PER_DESTINATION = 16;
    static constexpr size_t KEPT_FOR_ZDO = 4; // at most an eighth of the capacity

    explicit Ledger(EventQueue &queue) : queue_(queue) {}

    // Opens an entry with a copy of what the confirmation needs, and fills in ticket and APS sequence. capacity: of the
    // adapter. False: no place, the send must be refused.
    [[nodiscard]] bool accept(SendRequest &request, size_t capacity, uint64_t now_us);
    // The ticket of an inter-PAN send; 0: no place.
    [[nodiscard]] Ticket accept(oruZbHal_interpanSentCallback_t callback, uint64_t now_us);
    void withdraw(Ticket ticket);

    void conclude(Ticket ticket, int32_t status);
    void concludeAll(int32_t send_status, oru_status_t interpan_status);
    // Concludes what has been open for limit_us. Returns when to look again, kNever when nothing is open.
    uint64_t expire(uint64_t now_us, uint64_t limit_us);

    uint8_t nextSequence(); // APS counter of a frame that gets no confirmation

private:
    struct Entry {
        Ticket ticket = 0; // 0: free
        uint64_t accepted_us = 0;
        bool interpan = false;
        oruZbHal_interpanSentCallback_t interpan_callback = nullptr;
        oruZbHal_commandSentCallback_t callback = nullptr;
        oruZbHal_nodeId_t destination = 0;
        oruZbHal_apsFrame_t aps_frame = {};
        uint32_t request_id = 0;
        uint16_t length = 0;
        std::array<uint8_t, MAX_APS_PAYLOAD> payload;
    };

    // With mutex_ held.
    bool mayTake(oruZbHal_nodeId_t destination, bool zdo, size_t capacity) const;
    Entry *open(uint64_t now_us);
    Entry *find(Ticket ticket);
    Entry *oldest();
    static Entry close(Entry &entry);

    void confirm(const Entry &entry, int32_t status);

    EventQueue &queue_;
    std::mutex mutex_; // guards what follows; then only the queue's own lock
    std::array<Entry, EventQueue::kMaxReserved> entries_;
    Ticket last_ticket_ = 0;
    uint8_t sequence_ = 0;
};

} // namespace corvane::zbhal
