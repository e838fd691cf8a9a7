// SPDX-License-Identifier: Apache-2.0
#pragma once
#include <unistd.h>
#include <utility>

namespace corvane::mesh {

// Closes a descriptor at the end of its life; negative: none.
class Descriptor {
public:
    explicit Descriptor(int fd = -1) : fd_(fd) {}
    Descriptor(Descriptor &&other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
    Descriptor &operator=(Descriptor &&) = delete;
    ~Descriptor() {
        if (fd_ >= 0) {
            close(fd_);
        }
    }
    int get() const { return fd_; }
    bool valid() const { return fd_ >= 0; }

private:
    int fd_;
};

} // namespace corvane::mesh
