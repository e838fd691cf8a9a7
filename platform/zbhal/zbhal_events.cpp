// SPDX-License-Identifier: Apache-2.0
#include "zbhal_events.h"
#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <utility>

namespace corvane::zbhal {

namespace {

// Places that an indication must leave free: what is never repeated may use the last ones.
size_t headroomOf(IndicationKind kind) {
    if (kind == IndicationKind::stack_status) {
        return 0;
    }
    return kind == IndicationKind::incoming_message ? EventQueue::kStatusHeadroom : EventQueue::kStatusHeadroom / 4;
}

} // namespace

bool EventQueue::push(const Indication &indication) {
    const std::lock_guard lock(mutex_);
    if (!fits(headroomOf(indication.kind))) {
        return false;
    }
    append(indication);
    return true;
}

bool EventQueue::hasRoom() {
    const std::lock_guard lock(mutex_);
    return fits(kStatusHeadroom);
}

bool EventQueue::takeRoomMade() {
    const std::lock_guard lock(mutex_);
    const bool enough = count_ + reserved_ + kStatusHeadroom + ROOM_TO_GO_ON <= kCapacity;
    return enough && std::exchange(full_, false);
}

bool EventQueue::fits(size_t spare) {
    const bool room = count_ + reserved_ + spare < kCapacity;
    full_ = full_ || !room;
    return room;
}

bool EventQueue::reserve() {
    const std::lock_guard lock(mutex_);
    if (reserved_ >= kMaxReserved || count_ + reserved_ >= kCapacity) {
        return false;
    }
    ++reserved_;
    return true;
}

void EventQueue::pushReserved(const Indication &indication) {
    const std::lock_guard lock(mutex_);
    if (reserved_ == 0) {
        return; // the queue was restarted meanwhile
    }
    --reserved_;
    append(indication);
}

void EventQueue::release() {
    const std::lock_guard lock(mutex_);
    reserved_ -= reserved_ == 0 ? 0 : 1;
}

void EventQueue::append(const Indication &indication) {
    ring_[(head_ + count_) % kCapacity] = indication;
    ++count_;
    filled_.notify_one();
}

void EventQueue::takeFront(Indication &indication) {
    indication = ring_[head_];
    head_ = (head_ + 1) % kCapacity;
    --count_;
    taken_ = true;
}

void EventQueue::done() {
    const std::lock_guard lock(mutex_);
    taken_ = false;
}

bool EventQueue::pop(Indication &indication) {
    const std::lock_guard lock(mutex_);
    if (count_ == 0) {
        return false;
    }
    takeFront(indication);
    return true;
}

bool EventQueue::waitPop(Indication &indication) {
    std::unique_lock lock(mutex_);
    filled_.wait(lock, [this] { return stopped_ || count_ > 0; });
    if (stopped_) {
        return false;
    }
    takeFront(indication);
    return true;
}

size_t EventQueue::size() const {
    const std::lock_guard lock(mutex_);
    return count_;
}

size_t EventQueue::undelivered() const {
    const std::lock_guard lock(mutex_);
    return count_ + (taken_ ? 1 : 0);
}

void EventQueue::stop() {
    const std::lock_guard lock(mutex_);
    stopped_ = true;
    filled_.notify_all();
}

void EventQueue::restart() {
    const std::lock_guard lock(mutex_);
    head_ = count_ = reserved_ = 0;
    full_ = false;
    taken_ = false;
    stopped_ = false;
}

namespace {

void deliverIncoming(const oruZbHal_callbacks_t &callbacks, Indication &indication) {
    if (callbacks.incoming_message_callback == nullptr) {
        return;
    }
    oruZbHal_incomingMessage_t message{};
    message.type = indication.message_type;
    message.aps_frame = &indication.aps_frame;
    message.message = indication.payload.data();
    message.msg_len = indication.length;
    message.source = indication.node_id;
    message.last_hop_lqi = indication.lqi;
    message.last_hop_rssi = indication.rssi;
    message.binding_table_index = 0xFF; // no entry
    message.address_table_index = 0xFF;
    callbacks.incoming_message_callback(&message);
}

void deliverScan(const oruZbHal_callbacks_t &callbacks, Indication &indication) {
    if (indication.kind == IndicationKind::energy_result && callbacks.energy_scan_result_callback != nullptr) {
        callbacks.energy_scan_result_callback(indication.channel, indication.rssi);
    } else if (indication.kind == IndicationKind::network_found && callbacks.network_found_callback != nullptr) {
        callbacks.network_found_callback(&indication.network, indication.lqi, indication.rssi);
    } else if (indication.kind == IndicationKind::scan_complete && callbacks.scan_complete_callback != nullptr) {
        callbacks.scan_complete_callback(indication.channel, indication.status);
    }
}

} // namespace

void deliver(const oruZbHal_callbacks_t &callbacks, Indication &indication) {
    switch (indication.kind) {
    case IndicationKind::stack_status:
        if (callbacks.stack_status_callback != nullptr) {
            callbacks.stack_status_callback(static_cast<oruZbHal_stackStatus_t>(indication.status));
        }
        break;
    case IndicationKind::incoming_message:
        deliverIncoming(callbacks, indication);
        break;
    case IndicationKind::energy_result:
    case IndicationKind::network_found:
    case IndicationKind::scan_complete:
        deliverScan(callbacks, indication);
        break;
    case IndicationKind::trust_center:
        if (callbacks.trust_center_callback != nullptr) {
            callbacks.trust_center_callback(indication.node_id, indication.eui64, indication.parent,
                                            static_cast<oruZbHal_deviceUpdate_t>(indication.status),
                                            indication.decision);
        }
        break;
    case IndicationKind::send_confirmed:
        if (indication.sent_callback != nullptr) {
            indication.sent_callback(indication.outgoing_type, indication.node_id, &indication.aps_frame,
                                     indication.length, indication.payload.data(),
                                     static_cast<oruZbHal_clusterCommandStatus_t>(indication.status),
                                     indication.request_id);
        }
        break;
    case IndicationKind::interpan_sent:
        if (indication.interpan_callback != nullptr) {
            indication.interpan_callback(indication.status);
        }
        break;
    }
}

bool WakePipe::open() {
    if (pipe2(pipe_, O_CLOEXEC | O_NONBLOCK) != 0) {
        pipe_[0] = pipe_[1] = -1;
        return false;
    }
    signal_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (signal_ < 0) {
        close();
        return false;
    }
    return true;
}

void WakePipe::close() {
    for (int *descriptor : {&pipe_[0], &pipe_[1], &signal_}) {
        if (*descriptor >= 0) {
            ::close(*descriptor);
            *descriptor = -1;
        }
    }
}

void WakePipe::signal() const {
    const uint64_t one = 1;
    ssize_t result = 0;
    do {
        result = write(signal_, &one, sizeof one);
    } while (result < 0 && errno == EINTR); // a full counter is a pending signal all the same
}

bool WakePipe::takeByte() const {
    uint8_t byte = 0;
    ssize_t result = 0;
    do {
        result = read(pipe_[0], &byte, sizeof byte);
    } while (result < 0 && errno == EINTR);
    return result == 1;
}

bool WakePipe::byteWaiting() const {
    pollfd waiting{pipe_[0], POLLIN, 0};
    return poll(&waiting, 1, 0) > 0;
}

WakePipe::Wait WakePipe::wait(uint64_t max_wait_us) const {
    pollfd watched[2] = {{pipe_[0], POLLIN, 0}, {signal_, POLLIN, 0}};
    const timespec limit{static_cast<time_t>(max_wait_us / 1000000), static_cast<long>(max_wait_us % 1000000 * 1000)};
    const int ready = ppoll(watched, 2, &limit, nullptr);
    if (ready < 0) {
        return Wait::interrupted;
    }
    if ((watched[1].revents & POLLIN) != 0) {
        uint64_t count = 0;
        (void)!read(signal_, &count, sizeof count); // only empties the counter
    }
    return ready == 0 ? Wait::timeout : Wait::woken;
}

} // namespace corvane::zbhal
