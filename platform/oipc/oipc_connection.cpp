// SPDX-License-Identifier: Apache-2.0
#include "oipc_connection.h"
#include <algorithm>
#include <cerrno>
#include <cstring>
#include <poll.h>
#include <sys/socket.h>

namespace oipc {

void OutgoingQueue::push(const FrameHeader &header, Bytes payload) {
    append(encodeHeader(header));
    append(payload);
}

void OutgoingQueue::append(Bytes bytes) {
    const std::size_t begin = (first_ + used_) % QUEUE_BYTES;
    const std::size_t fit = std::min(bytes.size(), QUEUE_BYTES - begin);
    std::ranges::copy(bytes.first(fit), ring_->begin() + static_cast<std::ptrdiff_t>(begin));
    std::ranges::copy(bytes.subspan(fit), ring_->begin());
    used_ += bytes.size();
}

std::size_t OutgoingQueue::frontSize() const {
    std::array<uint8_t, HEADER_SIZE> header{};
    for (std::size_t i = 0; i < header.size(); ++i) {
        header[i] = (*ring_)[(first_ + i) % QUEUE_BYTES];
    }
    return HEADER_SIZE + base::ByteReader(Bytes(header).subspan(PAYLOAD_LENGTH_OFFSET)).u32();
}

std::array<Bytes, 2> OutgoingQueue::front() const {
    const std::size_t size = frontSize();
    const std::size_t fit = std::min(size, QUEUE_BYTES - first_);
    return {Bytes(*ring_).subspan(first_, fit), Bytes(*ring_).first(size - fit)};
}

void OutgoingQueue::pop() {
    const std::size_t size = frontSize();
    first_ = (first_ + size) % QUEUE_BYTES;
    used_ -= size;
}

namespace {

enum class Written : uint8_t { Done, NoRoom, Broken };

Written writeMessage(int fd, std::span<iovec> parts) {
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    for (;;) {
        if (::sendmsg(fd, &message, MSG_DONTWAIT | MSG_NOSIGNAL) >= 0) {
            return Written::Done;
        }
        if (errno != EINTR) {
            return errno == EAGAIN || errno == ENOBUFS ? Written::NoRoom : Written::Broken;
        }
    }
}

iovec part(Bytes bytes) {
    return {const_cast<uint8_t *>(bytes.data()), bytes.size()};
}

} // namespace

SendResult Connection::send(const FrameHeader &header, Bytes payload) {
    const std::lock_guard lock(mutex_);
    if (closed_) {
        return SendResult::Closed;
    }
    const bool first = queue_.empty();
    if (first) {
        const auto encoded = encodeHeader(header);
        std::array parts{part(encoded), part(payload)};
        const auto written = writeMessage(fd(), parts);
        if (written == Written::Done) {
            return SendResult::Sent;
        }
        if (written == Written::Broken) {
            closed_ = true;
            return SendResult::Closed;
        }
    }
    if (queue_.room() < HEADER_SIZE + payload.size()) {
        closed_ = true;
        queue_.clear();
        overflowed = true;
        ::shutdown(fd(), SHUT_RDWR);
        return SendResult::Full;
    }
    queue_.push(header, payload);
    return first ? SendResult::QueuedFirst : SendResult::Queued;
}

bool Connection::flush() {
    const std::lock_guard lock(mutex_);
    while (!queue_.empty()) {
        const auto [front, rest] = queue_.front();
        std::array parts{part(front), part(rest)};
        const auto written = writeMessage(fd(), parts);
        if (written == Written::NoRoom) {
            return true;
        }
        if (written == Written::Broken) {
            closed_ = true;
            queue_.clear();
            return false;
        }
        queue_.pop();
    }
    return false;
}

Connection::Received Connection::receive(FrameHeader &header, Reason &reason) {
    std::array<uint8_t, HEADER_SIZE> encoded{};
    std::array parts{iovec{encoded.data(), encoded.size()}, iovec{payload_.data(), payload_.size()}};
    msghdr message{};
    message.msg_iov = parts.data();
    message.msg_iovlen = parts.size();
    ssize_t count = 0;
    do {
        // MSG_TRUNC: the length of the whole message, also when it is longer than the buffer.
        count = ::recvmsg(fd(), &message, MSG_TRUNC | MSG_CMSG_CLOEXEC);
    } while (count < 0 && errno == EINTR);
    if (count <= 0) {
        return Received::Closed;
    }
    const auto size = static_cast<std::size_t>(count);
    reason = decodeHeader(Bytes(encoded).first(std::min(size, encoded.size())), size, header);
    if (reason == Reason::None && !isClientFrame(header.type)) {
        reason = Reason::UnknownType;
    }
    if (reason != Reason::None) {
        return Received::Malformed;
    }
    std::fill(payload_.begin() + header.payload_length, payload_.end(), uint8_t{0});
    return Received::Frame;
}

void Connection::disconnect() {
    const std::lock_guard lock(mutex_);
    closed_ = true;
    queue_.clear();
    shutdownAndDrain(fd());
}

void Connection::endCalls() {
    ::shutdown(fd(), SHUT_RD);
}

bool Connection::peerGone() const {
    pollfd entry{fd(), 0, 0}; // hang-up is reported without being asked for
    return ::poll(&entry, 1, 0) > 0 && (entry.revents & (POLLHUP | POLLERR)) != 0;
}

Refusal refusalOf(Reason reason) {
    const auto &info = reasonInfo(reason);
    const Bytes text(reinterpret_cast<const uint8_t *>(info.text), std::strlen(info.text));
    return {{.type = FrameType::Refusal,
             .id = static_cast<uint16_t>(reason),
             .status = info.status,
             .payload_length = static_cast<uint32_t>(text.size())},
            text};
}

void turnAway(int fd, Reason reason) {
    const auto [header, text] = refusalOf(reason);
    const auto encoded = encodeHeader(header);
    std::array parts{part(encoded), part(text)};
    (void)writeMessage(fd, parts);
    shutdownAndDrain(fd);
}

} // namespace oipc
