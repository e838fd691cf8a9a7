// SPDX-License-Identifier: Apache-2.0
#pragma once
#include <unistd.h>
#include <utility>

namespace corvane::base {

// Owns a file descriptor, or none (-1), and closes it.
class Descriptor {
public:
    Descriptor() = default;
    explicit Descriptor(int fd) : fd_(fd) {}
    ~Descriptor() { reset(); }
    Descriptor(Descriptor &&other) noexcept : fd_(other.release()) {}
    Descriptor &operator=(Descriptor &&other) noexcept {
        reset(other.release());
        return *this;
    }
    Descriptor(const Descriptor &) = delete;
    Descriptor &operator=(const Descriptor &) = delete;

    int get() const { return fd_; }
    explicit operator bool() const { return fd_ >= 0; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1) {
        const int former = std::exchange(fd_, fd);
        if (former >= 0 && former != fd) {
            ::close(former);
        }
    }

private:
    int fd_ = -1;
};

} // namespace corvane::base
