// SPDX-License-Identifier: Apache-2.0
//
// Table of objects known by ids that are never used twice.
//
//   id = generation << slot_bits | slot        generation counts from 1, so no id is 0
//
// A record is allocated when its slot is used first and never freed, so a thread with a stale id reads valid memory
// whatever happened meanwhile. A look-up pins the record (counts itself in `users`) and then compares the id. Deleting
// sets the id to 0; a record is given to a new object only while its id is 0 and nobody has it pinned. Both sides use
// the total order of their atomics: either the look-up sees the id gone, or the next creation sees the pin. A slot
// whose generations are used up is not used again.
#pragma once
#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <new>
#include <type_traits>

// Base of every record.
struct Handle_record {
    std::atomic<uint32_t> id{0};    // 0 = free
    std::atomic<uint32_t> users{0}; // pins
    uint32_t generation = 0;        // guarded by the lock of the table
};

template <typename Record>
class Handle_table {
public:
    // A new id, or 0 when there is no memory or no free slot. prepare(record) runs before the id becomes valid.
    template <typename Prepare>
    uint32_t create(Prepare prepare) {
        const std::lock_guard guard(lock_);
        for (uint32_t slot = 0; slot < slot_count; ++slot) {
            Record *record = recordOf(slot);
            if (record == nullptr) {
                return 0;
            }
            if (record->id != 0 || record->users != 0 || record->generation == last_generation) {
                continue;
            }
            prepare(*record);
            const uint32_t id = ++record->generation << slot_bits | slot;
            record->id = id;
            return id;
        }
        return 0;
    }

    Record *recordAt(uint32_t id) const { return slots_[id & (slot_count - 1)].load(std::memory_order_acquire); }

    size_t live() const {
        size_t count = 0;
        for (const auto &slot : slots_) {
            const Record *record = slot.load(std::memory_order_acquire);
            count += record != nullptr && record->id != 0 ? 1U : 0U;
        }
        return count;
    }

private:
    static constexpr uint32_t slot_bits = 12;
    static constexpr uint32_t slot_count = 1U << slot_bits;
    static constexpr uint32_t last_generation = UINT32_MAX >> slot_bits;

    Record *recordOf(uint32_t slot) {
        Record *record = slots_[slot].load(std::memory_order_relaxed);
        if (record == nullptr) {
            record = new (std::nothrow) Record;
            slots_[slot].store(record, std::memory_order_release);
        }
        return record;
    }

    std::mutex lock_; // serialises creation
    std::array<std::atomic<Record *>, slot_count> slots_{};
};

// Shared ownership of a record for the length of one operation.
template <typename Record>
class Pin {
public:
    Pin(const Handle_table<Record> &table, uint32_t id) : id_(id) {
        Record *record = id == 0 ? nullptr : table.recordAt(id);
        if (record == nullptr) {
            return;
        }
        ++record->users;
        if (record->id == id) {
            record_ = record;
        } else {
            --record->users;
        }
    }
    ~Pin() {
        if (record_ != nullptr) {
            --record_->users;
        }
    }
    Pin(const Pin &) = delete;
    Pin &operator=(const Pin &) = delete;

    explicit operator bool() const { return record_ != nullptr; }
    Record *operator->() const { return record_; }
    // False once the object was deleted. Decides only under the lock that deletion holds.
    bool exists() const { return record_->id == id_; }

private:
    Record *record_ = nullptr;
    uint32_t id_;
};
