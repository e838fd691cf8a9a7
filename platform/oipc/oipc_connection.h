// SPDX-License-Identifier: Apache-2.0
//
// One client: its socket, the payload buffer of the call under way and the frames that wait for the client to read.
// Shared by the client's handler thread, the server's io thread and every thread that sends to the client; the last one
// to let go closes the socket. All memory is taken when the client connects, none per frame.
#pragma once
#include "oipc_socket.h"
#include "oipc_wire.h"
#include "oru_secret.h"
#include <atomic>
#include <memory>
#include <mutex>
#include <thread>

namespace oipc {

using Bytes = std::span<const uint8_t>;

constexpr std::size_t QUEUE_BYTES = 64 * MAX_FRAME; // 257 KiB

// Frames that the kernel did not take yet, first in, first out, one behind the other in a ring of bytes.
class OutgoingQueue {
public:
    // The system gives the memory as it is used: a client that reads in time never costs it.
    OutgoingQueue() : ring_(std::make_unique_for_overwrite<std::array<uint8_t, QUEUE_BYTES>>()) {
        oruSecret_keepOutOfDumps(ring_.get(), QUEUE_BYTES); // the network key may wait in it
    }

    bool empty() const { return used_ == 0; }
    std::size_t room() const { return QUEUE_BYTES - used_; } // bytes
    void push(const FrameHeader &header, Bytes payload);     // where there is room for both
    std::array<Bytes, 2> front() const;                      // of the first frame; the second part may be empty
    void pop();
    void clear() { used_ = 0; }

private:
    void append(Bytes bytes);
    std::size_t frontSize() const;

    std::unique_ptr<std::array<uint8_t, QUEUE_BYTES>> ring_;
    std::size_t first_ = 0;
    std::size_t used_ = 0;
};

enum class SendResult : uint8_t {
    Sent,
    Queued,      // behind other frames; somebody already waits for room
    QueuedFirst, // the first one that waits: the caller has the socket watched for room
    Full,        // the client does not read; it has been disconnected
    Closed,
};

class Connection {
public:
    // Takes the socket only when there is memory for the queue.
    Connection(Descriptor &&socket, uint16_t client_id, Peer credentials)
        : id(client_id), peer(std::move(credentials)), fd_(std::move(socket)) {}

    int fd() const { return fd_.get(); }

    // Never waits. Frames leave in the order of the calls.
    SendResult send(const FrameHeader &header, Bytes payload);
    // Writes what the kernel takes now. True when frames are left.
    bool flush();

    enum class Received : uint8_t { Frame, Closed, Malformed };
    // Waits for a call of the client; its payload is then in payload(), zero-filled behind its end. Handler thread
    // only.
    Received receive(FrameHeader &header, Reason &reason);
    std::span<uint8_t> payload() { return payload_; }

    // Makes the handler thread see the end of the connection; nothing is sent any more.
    void disconnect();
    // The same, but the result of the call under way is still sent.
    void endCalls();
    // The client has closed its end.
    bool peerGone() const;

    const uint16_t id;
    const Peer peer;
    std::thread thread;                // set and joined by the server
    std::atomic<bool> finished{false}; // the handler thread is about to end
    std::atomic<bool> overflowed{false};
    std::atomic<uint32_t> subscriptions{0}; // mask of platform events

private:
    OutgoingQueue queue_;
    Descriptor fd_;
    std::mutex mutex_; // guards queue_ and closed_; nothing is called under it that takes another lock
    bool closed_ = false;
    alignas(8) oruSecret_bytes_t<MAX_PAYLOAD> payload_; // install codes come in by it, the network key goes out
};

// The last frame of a connection.
struct Refusal {
    FrameHeader header;
    Bytes text;
};
Refusal refusalOf(Reason reason);
// For a peer that got no connection: needs no memory and never waits.
void turnAway(int fd, Reason reason);

} // namespace oipc
