// SPDX-License-Identifier: Apache-2.0
//
// One end of a connection that speaks raw frames. Nothing here allocates but frameOf() and RawFrame::payload(), so that
// a forked child of a process with threads may use the rest.
#pragma once
#include "oipc_wire.h"
#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <span>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>
#include <vector>

namespace testplat {

constexpr int PATIENCE_MS = 60'000;                         // far beyond what anything takes
constexpr oipc::FrameType ENDED{};                          // the type of a frame that did not come: no connection
constexpr auto NOTHING = static_cast<oipc::FrameType>(255); // no whole frame in time

struct RawFrame {
    oipc::FrameHeader header{.type = NOTHING};
    std::array<uint8_t, oipc::MAX_FRAME> bytes{};

    explicit operator bool() const { return header.type != ENDED && header.type != NOTHING; }
    std::vector<uint8_t> payload() const {
        const auto *begin = bytes.data() + oipc::HEADER_SIZE;
        return {begin, begin + header.payload_length};
    }
};

inline std::vector<uint8_t> frameOf(oipc::FrameHeader header, const std::vector<uint8_t> &payload = {}) {
    header.payload_length = static_cast<uint32_t>(payload.size());
    const auto encoded = oipc::encodeHeader(header);
    std::vector<uint8_t> frame(encoded.size() + payload.size());
    std::ranges::copy(payload, std::ranges::copy(encoded, frame.begin()).out);
    return frame;
}

// A socket on which ::bind or ::connect has succeeded, or -1.
template <class Join>
int openSocket(const std::string &path, Join join, int type = SOCK_SEQPACKET) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    const int fd = ::socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
    if (join(fd, reinterpret_cast<const sockaddr *>(&address), socklen_t{sizeof address}) != 0) {
        ::close(fd);
        return -1;
    }
    return fd;
}

class RawClient {
public:
    explicit RawClient(int fd) : fd_(fd) {}
    explicit RawClient(const std::string &path) : fd_(openSocket(path, ::connect)) {}
    ~RawClient() {
        if (fd_ >= 0) {
            ::close(fd_);
        }
    }
    RawClient(const RawClient &) = delete;
    RawClient &operator=(const RawClient &) = delete;

    int fd() const { return fd_; }
    bool connected() const { return fd_ >= 0; }
    bool send(std::span<const uint8_t> frame, int flags = 0) const {
        return ::send(fd_, frame.data(), frame.size(), MSG_NOSIGNAL | flags) == std::ssize(frame);
    }
    RawFrame receive(int timeout_ms = PATIENCE_MS) const {
        RawFrame frame;
        pollfd entry{fd_, POLLIN, 0};
        int ready = 0;
        do { // a fuzzer's clock interrupts
            ready = ::poll(&entry, 1, timeout_ms);
        } while (ready < 0 && errno == EINTR);
        const ssize_t size = ready == 1 ? ::recv(fd_, frame.bytes.data(), frame.bytes.size(), MSG_DONTWAIT) : -1;
        const auto bytes = std::span(frame.bytes).first(static_cast<std::size_t>(std::max<ssize_t>(size, 0)));
        if (size == 0) {
            frame.header.type = ENDED;
        } else if (oipc::decodeHeader(bytes, bytes.size(), frame.header) != oipc::Reason::None) {
            frame.header = {.type = NOTHING}; // nor is its length to be believed
        }
        return frame;
    }
    bool ended() const { return receive().header.type == ENDED; }

private:
    int fd_;
};

} // namespace testplat
