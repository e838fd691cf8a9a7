// SPDX-License-Identifier: Apache-2.0
#include "client_link.h"
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

namespace corvane {

TimePoint after(Milliseconds timeout) {
    const auto now = Clock::now();
    const auto left = std::chrono::duration_cast<Milliseconds>(NEVER - now);
    return timeout >= left ? NEVER : now + std::max(timeout, Milliseconds::zero());
}

bool waitFor(int fd, short events, TimePoint deadline) {
    pollfd entry{fd, events, 0};
    for (;;) {
        const auto left = std::max(deadline - Clock::now(), Clock::duration::zero());
        const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(left);
        const timespec limit{static_cast<time_t>(seconds.count()),
                             static_cast<long>(std::chrono::nanoseconds(left - seconds).count())};
        const int count = ::ppoll(&entry, 1, deadline == NEVER ? nullptr : &limit, nullptr);
        if (count >= 0 || errno != EINTR) {
            return count > 0;
        }
    }
}

namespace {

bool setSendTimeout(int fd, Clock::duration timeout) {
    const auto bounded = std::clamp<Clock::duration>(timeout, Milliseconds(1), std::chrono::hours(24));
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(bounded);
    const timeval limit{
        static_cast<time_t>(seconds.count()),
        static_cast<suseconds_t>(std::chrono::duration_cast<std::chrono::microseconds>(bounded - seconds).count())};
    return ::setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit) == 0;
}

iovec part(Bytes bytes) {
    return {const_cast<uint8_t *>(bytes.data()), bytes.size()};
}

} // namespace

std::optional<sockaddr_un> socketAddress(const std::string &path) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path) {
        return std::nullopt;
    }
    std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
    return address;
}

Link::Link() : fd_(::socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0)) {}

Transport Link::connect(const sockaddr_un &address, TimePoint deadline) const {
    // The time limit of sending is that of connecting, too: it waits while the service's backlog is full.
    while (setSendTimeout(fd(), deadline - Clock::now())) {
        if (::connect(fd(), reinterpret_cast<const sockaddr *>(&address), sizeof address) == 0) {
            return Transport::Ok;
        }
        if (errno == EAGAIN || (errno == EINTR && Clock::now() >= deadline)) {
            return Transport::TimedOut;
        }
        if (errno != EINTR) {
            break;
        }
    }
    return Transport::NoService;
}

std::optional<Outcome> Link::greet(FrameBuffer &buffer) {
    Frame frame;
    switch (receive(buffer, frame)) {
    case Received::Nothing:
        return std::nullopt;
    case Received::OtherVersion:
        return OTHER_VERSION;
    case Received::Closed:
        return LOST;
    case Received::Frame:
        break;
    }
    oipc::Hello hello;
    if (frame.header.type == oipc::FrameType::Hello && oipc::decodeHello(frame.payload, hello)) {
        client_id_ = hello.client_id;
        platform_version_ = hello.platform_version;
        return Outcome{};
    }
    return frame.header.type == oipc::FrameType::Refusal ? refusal(frame.header) : LOST;
}

Outcome refusal(const oipc::FrameHeader &header) {
    const bool version = header.id == static_cast<uint16_t>(oipc::Reason::WrongVersion);
    return version ? OTHER_VERSION : Outcome{Transport::Refused, header.status};
}

Transport Link::send(const oipc::FrameHeader &header, Bytes payload, TimePoint deadline) const {
    const auto encoded = oipc::encodeHeader(header);
    std::array parts{part(encoded), part(payload)};
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    while (::sendmsg(fd(), &message, MSG_NOSIGNAL | MSG_DONTWAIT) < 0) {
        if (errno == EAGAIN) {
            if (!waitFor(fd(), POLLOUT, deadline)) {
                return Transport::TimedOut;
            }
        } else if (errno != EINTR) {
            return Transport::ConnectionLost;
        }
    }
    return Transport::Ok;
}

Link::Received Link::receive(FrameBuffer &buffer, Frame &frame) const {
    ssize_t count = 0;
    do {
        count = ::recv(fd(), buffer.data(), buffer.size(), MSG_DONTWAIT | MSG_TRUNC);
    } while (count < 0 && errno == EINTR);
    if (count < 0 && errno == EAGAIN) {
        return Received::Nothing;
    }
    if (count <= 0) {
        return Received::Closed;
    }
    const auto size = static_cast<std::size_t>(count);
    const Bytes bytes = Bytes(buffer).first(std::min(size, buffer.size()));
    const auto reason = oipc::decodeHeader(bytes, size, frame.header);
    if (reason != oipc::Reason::None) {
        return reason == oipc::Reason::WrongVersion ? Received::OtherVersion : Received::Closed;
    }
    frame.payload = bytes.subspan(oipc::HEADER_SIZE);
    return Received::Frame;
}

void Link::shutdown() const {
    ::shutdown(fd(), SHUT_RDWR);
}

} // namespace corvane
