// SPDX-License-Identifier: Apache-2.0
#include "zbhal_ledger.h"
#include "zbhal_policy.h"
#include <algorithm>

namespace corvane::zbhal {

bool Ledger::mayTake(oruZbHal_nodeId_t destination, bool zdo, size_t capacity) const {
    size_t sends = 0;
    size_t same = 0;
    for (const Entry &entry : entries_) {
        const bool send = entry.ticket != 0 && !entry.interpan;
        sends += send ? 1 : 0;
        same += send && entry.destination == destination ? 1 : 0;
    }
    const size_t kept = zdo ? 0 : std::min(KEPT_FOR_ZDO, capacity / 8);
    return sends + kept < capacity && same < MAX_PER_DESTINATION;
}

Ledger::Entry *Ledger::find(Ticket ticket) {
    const auto entry = std::ranges::find(entries_, ticket, &Entry::ticket);
    return ticket == 0 || entry == entries_.end() ? nullptr : &*entry;
}

Ledger::Entry *Ledger::oldest() {
    Entry *oldest = nullptr;
    for (Entry &entry : entries_) {
        if (entry.ticket != 0 && (oldest == nullptr || entry.ticket < oldest->ticket)) {
            oldest = &entry;
        }
    }
    return oldest;
}

Ledger::Entry *Ledger::open(uint64_t now_us) {
    const auto entry = std::ranges::find(entries_, Ticket{0}, &Entry::ticket);
    if (entry == entries_.end() || !queue_.reserve()) {
        return nullptr;
    }
    const auto tagTaken = [this](Ticket ticket) {
        return ticket % 256 == 0 || std::ranges::any_of(entries_, [ticket](const Entry &known) {
                   return known.ticket != 0 && known.ticket % 256 == ticket % 256;
               });
    };
    do { // there are fewer entries than tags
        ++last_ticket_;
    } while (tagTaken(last_ticket_));
    entry->ticket = last_ticket_;
    entry->accepted_us = now_us;
    return &*entry;
}

Ledger::Entry Ledger::close(Entry &entry) {
    const Entry closed = entry;
    entry.ticket = 0;
    return closed;
}

bool Ledger::accept(SendRequest &request, size_t capacity, uint64_t now_us) {
    const std::lock_guard lock(mutex_);
    Entry *const entry = mayTake(request.destination, request.zdo, capacity) ? open(now_us) : nullptr;
    if (entry == nullptr) {
        return false;
    }
    request.ticket = entry->ticket;
    request.aps_frame.sequence = ++sequence_;
    entry->interpan = false;
    entry->callback = request.callback;
    entry->destination = request.destination;
    entry->aps_frame = request.aps_frame;
    if (entry->aps_frame.radius == 0) {
        entry->aps_frame.radius = DEFAULT_RADIUS;
    }
    entry->request_id = request.request_id;
    entry->length = static_cast<uint16_t>(request.payload.size());
    std::ranges::copy(request.payload, entry->payload.begin());
    return true;
}

Ticket Ledger::accept(oruZbHal_interpanSentCallback_t callback, uint64_t now_us) {
    const std::lock_guard lock(mutex_);
    Entry *const entry = open(now_us);
    if (entry == nullptr) {
        return 0;
    }
    entry->interpan = true;
    entry->interpan_callback = callback;
    return entry->ticket;
}

void Ledger::withdraw(Ticket ticket) {
    const std::lock_guard lock(mutex_);
    if (Entry *const entry = find(ticket)) {
        entry->ticket = 0;
        queue_.release();
    }
}

void Ledger::conclude(Ticket ticket, int32_t status) {
    Entry closed;
    {
        const std::lock_guard lock(mutex_);
        Entry *const entry = find(ticket);
        if (entry == nullptr) {
            return;
        }
        closed = close(*entry);
    }
    confirm(closed, status);
}

void Ledger::concludeAll(int32_t send_status, oru_status_t interpan_status) {
    const std::lock_guard lock(mutex_);
    while (Entry *const entry = oldest()) {
        confirm(close(*entry), entry->interpan ? int32_t{interpan_status} : send_status);
    }
}

uint64_t Ledger::expire(uint64_t now_us, uint64_t limit_us) {
    const std::lock_guard lock(mutex_);
    Entry *entry = limit_us == kNever ? nullptr : oldest();
    for (; entry != nullptr && now_us >= entry->accepted_us + limit_us; entry = oldest()) { // now may be the older time
        confirm(close(*entry), entry->interpan ? int32_t{ORU_STATUS_CANCELED} : int32_t{ORU_ZB_HAL_APS_NO_ACK});
    }
    return entry == nullptr ? kNever : entry->accepted_us + limit_us;
}

uint8_t Ledger::nextSequence() {
    const std::lock_guard lock(mutex_);
    return ++sequence_;
}

void Ledger::confirm(const Entry &entry, int32_t status) {
    Indication indication;
    indication.status = status;
    if (entry.interpan) {
        indication.kind = IndicationKind::interpan_sent;
        indication.interpan_callback = entry.interpan_callback;
    } else {
        indication.kind = IndicationKind::send_confirmed;
        indication.outgoing_type =
            entry.destination >= FIRST_BROADCAST ? ORU_ZB_HAL_OUTGOING_BROADCAST : ORU_ZB_HAL_OUTGOING_DIRECT;
        indication.node_id = entry.destination;
        indication.aps_frame = entry.aps_frame;
        indication.request_id = entry.request_id;
        indication.sent_callback = entry.callback;
        indication.length = entry.length;
        std::copy_n(entry.payload.begin(), entry.length, indication.payload.begin());
    }
    queue_.pushReserved(indication);
}

} // namespace corvane::zbhal
