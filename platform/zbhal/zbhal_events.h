// SPDX-License-Identifier: Apache-2.0
//
// Delivery of what the adapter reports. An adapter never calls the service: it appends indications to a bounded,
// preallocated queue, and the thread that owns delivery takes them out one by one and calls the callbacks with no lock
// of the layer held. So a callback may call any operation of the HAL, and no operation waits for a callback.
//
// Room for confirmations is reserved when a send is accepted, so the one confirmation of a send always fits. Another
// indication is not taken when the queue is full, received frames first: whoever has it keeps it until there is room.
#pragma once
#include "oru_zbhal.h"
#include <array>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <vector>

namespace corvane::zbhal {

// Longest frame that is handed up; a fragmented APS message of this length is beyond what devices send.
inline constexpr size_t kMaxFrame = 1024;

enum class IndicationKind : uint8_t {
    stack_status,
    incoming_message,
    energy_result,
    network_found,
    scan_complete,
    trust_center,
    send_confirmed,
    interpan_sent,
};

// One report on its way to the service. Which fields count depends on the kind.
struct Indication {
    IndicationKind kind = IndicationKind::stack_status;
    int32_t status = 0;                                                  // stack, scan, send, inter-PAN, device update
    oruZbHal_joinDecision_t decision = ORU_ZB_HAL_USE_PRECONFIGURED_KEY; // trust_center
    oruZbHal_nodeId_t node_id = 0;                                       // source, destination or the device reported
    oruZbHal_nodeId_t parent = 0;                                        // trust_center
    oruZbHal_eui64_t eui64 = {};                                         // trust_center, least significant byte first
    oruZbHal_outgoingMessageType_t outgoing_type = ORU_ZB_HAL_OUTGOING_DIRECT;
    uint8_t message_type = 0; // incoming_message
    uint8_t channel = 0;
    uint8_t lqi = 0;
    int8_t rssi = 0; // dBm
    uint32_t request_id = 0;
    oruZbHal_commandSentCallback_t sent_callback = nullptr;
    oruZbHal_interpanSentCallback_t interpan_callback = nullptr;
    oruZbHal_network_t network = {};
    oruZbHal_apsFrame_t aps_frame = {};
    uint16_t length = 0;
    std::array<uint8_t, kMaxFrame> payload; // the first length bytes
};

class EventQueue {
public:
    static constexpr size_t kCapacity = 256;
    static constexpr size_t kMaxReserved = 128;   // sends between acceptance and delivery of the confirmation
    static constexpr size_t kStatusHeadroom = 32; // received frames leave this much for status and join reports
    static constexpr size_t ROOM_TO_GO_ON = 32;   // for frames, before it is told that there is room again

    EventQueue() : ring_(kCapacity) {}

    // False: no room.
    [[nodiscard]] bool push(const Indication &indication);
    // For a received frame.
    [[nodiscard]] bool hasRoom();
    // Whether somebody has found no room, and a good part of the queue is free by now. Tells it once.
    [[nodiscard]] bool takeRoomMade();
    // A place for one confirmation. False: too many are outstanding, the send must be refused.
    [[nodiscard]] bool reserve();
    // Uses up one reserved place, or gives it back.
    void pushReserved(const Indication &indication);
    void release();

    // Taking one out and, when its callback has returned, done().
    [[nodiscard]] bool pop(Indication &indication);
    // Waits until there is something. False: the queue was stopped.
    [[nodiscard]] bool waitPop(Indication &indication);
    void done();
    [[nodiscard]] size_t size() const;
    [[nodiscard]] size_t undelivered() const; // waiting or inside their callback
    // Wakes waitPop for good. restart() empties the queue and opens it again.
    void stop();
    void restart();

private:
    void append(const Indication &indication);
    void takeFront(Indication &indication);
    bool fits(size_t spare);

    mutable std::mutex mutex_; // guards everything below; a leaf, nothing is called while it is held
    std::condition_variable filled_;
    std::vector<Indication> ring_;
    size_t head_ = 0;
    size_t count_ = 0;
    size_t reserved_ = 0;
    bool full_ = false;  // somebody has found no room
    bool taken_ = false; // one is inside its callback
    bool stopped_ = false;
};

// Calls the callback that belongs to the indication. No lock may be held.
void deliver(const oruZbHal_callbacks_t &callbacks, Indication &indication);

// The wake pipe of descriptor mode. The service writes bytes into writeEnd(); signal() is the layer's own wake-up and
// never turns into a byte of the service.
class WakePipe {
public:
    WakePipe() = default;
    ~WakePipe() { close(); }
    WakePipe(const WakePipe &) = delete;
    WakePipe &operator=(const WakePipe &) = delete;

    [[nodiscard]] bool open();
    void close();
    int writeEnd() const { return pipe_[1]; }
    void signal() const;
    // Takes one byte of the service if one is waiting.
    [[nodiscard]] bool takeByte() const;
    [[nodiscard]] bool byteWaiting() const;

    enum class Wait : uint8_t { woken, timeout, interrupted };
    // Waits for a byte or a signal(), at most max_wait_us. Takes the signal, leaves the byte.
    Wait wait(uint64_t max_wait_us) const;

private:
    int pipe_[2] = {-1, -1};
    int signal_ = -1;
};

} // namespace corvane::zbhal
