// SPDX-License-Identifier: Apache-2.0
//
// Memory that keys and install codes stay in or pass through: left out of core dumps (also those that a program takes
// of the running process and that heed the kernel's mark), and cleared before it is given back.
#pragma once
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>
#include <sys/mman.h>
#include <unistd.h>

// Marks the pages of an area, with what else lies in them. Where that fails, nothing is lost but this.
inline void oruSecret_keepOutOfDumps(const void *memory, size_t size) {
    const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    const auto start = reinterpret_cast<uintptr_t>(memory);
    const uintptr_t first = start & ~(page - 1);
    const uintptr_t end = (start + size + page - 1) & ~(page - 1);
    (void)madvise(reinterpret_cast<void *>(first), end - first, MADV_DONTDUMP); // NOLINT(performance-no-int-to-ptr)
}

// The compiler does not leave it out, as it may a memset of what is not read any more.
inline void oruSecret_wipe(void *memory, size_t size) {
    explicit_bzero(memory, size);
}

// Clears what a function has on its stack when it returns.
class oruSecret_guard_t {
public:
    oruSecret_guard_t(void *memory, size_t size) : memory_(memory), size_(size) {}
    ~oruSecret_guard_t() { oruSecret_wipe(memory_, size_); }
    oruSecret_guard_t(const oruSecret_guard_t &) = delete;
    oruSecret_guard_t &operator=(const oruSecret_guard_t &) = delete;

private:
    void *memory_;
    size_t size_;
};

// Zero-filled bytes.
template <size_t Size>
class oruSecret_bytes_t : public std::array<uint8_t, Size> {
public:
    oruSecret_bytes_t() : std::array<uint8_t, Size>{} { oruSecret_keepOutOfDumps(this->data(), Size); }
    ~oruSecret_bytes_t() { oruSecret_wipe(this->data(), Size); }
    oruSecret_bytes_t(const oruSecret_bytes_t &) = delete;
    oruSecret_bytes_t &operator=(const oruSecret_bytes_t &) = delete;
};

// For containers.
template <typename T>
struct oruSecret_allocator_t {
    using value_type = T;

    oruSecret_allocator_t() = default;
    template <typename U>
    oruSecret_allocator_t(const oruSecret_allocator_t<U> &) {} // NOLINT(google-explicit-constructor): as any allocator

    T *allocate(size_t count) {
        T *const block = std::allocator<T>().allocate(count);
        oruSecret_keepOutOfDumps(block, count * sizeof(T));
        return block;
    }
    void deallocate(T *block, size_t count) {
        oruSecret_wipe(block, count * sizeof(T));
        std::allocator<T>().deallocate(block, count);
    }
    bool operator==(const oruSecret_allocator_t &) const { return true; }
};
