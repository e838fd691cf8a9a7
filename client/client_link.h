// SPDX-License-Identifier: Apache-2.0
//
// One connection to the service: frames in and out of its socket, nothing remembered about calls.
#pragma once
#include "base/descriptor.h"
#include "corvane_client.h"
#include "oipc_wire.h"
#include <sys/un.h>

namespace corvane {

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;

// A time so far away that nothing waits for it; added to without overflow by nobody.
constexpr TimePoint NEVER = TimePoint::max();

TimePoint after(Milliseconds timeout); // saturates at NEVER; negative counts as zero

// Waits until `fd` has one of the poll events or hangs up. False when the time was up first.
bool waitFor(int fd, short events, TimePoint deadline);

struct Frame {
    oipc::FrameHeader header;
    Bytes payload;
};
constexpr Outcome LOST{Transport::ConnectionLost, ORU_STATUS_OK};
constexpr Outcome TIMED_OUT{Transport::TimedOut, ORU_STATUS_OK};
constexpr Outcome OTHER_VERSION{Transport::OtherVersion, ORU_STATUS_NOT_SUPPORTED};
constexpr Outcome NO_PLATFORM{Transport::Invalid, ORU_STATUS_NOT_SUPPORTED};
constexpr Outcome NO_MEMORY{Transport::Invalid, ORU_STATUS_OUT_OF_MEMORY};
Outcome refusal(const oipc::FrameHeader &header); // what a frame of that type says

using FrameBuffer = std::array<uint8_t, oipc::MAX_FRAME>;

// Nothing when the path cannot be that of a socket.
std::optional<sockaddr_un> socketAddress(const std::string &path);

class Link {
public:
    Link();
    int fd() const { return fd_.get(); }

    // Ok, NoService, or TimedOut: the service's backlog was full until the deadline. Waits 1 ms at least.
    Transport connect(const sockaddr_un &address, TimePoint deadline) const;
    // What the service says first; nothing as long as it has said nothing. Never waits.
    std::optional<Outcome> greet(FrameBuffer &buffer);
    uint16_t clientId() const { return client_id_; } // once greeted
    uint16_t platformVersion() const { return platform_version_; }

    // One frame is one message, so threads may send at the same time. TimedOut when the socket stays full;
    // ConnectionLost when the service has closed its end (what it said last can still be received).
    Transport send(const oipc::FrameHeader &header, Bytes payload, TimePoint deadline) const;

    enum class Received : uint8_t { Frame, Nothing, Closed, OtherVersion };
    // Never waits. The frame's payload lies in `buffer`. A malformed frame counts as closed, unless it is that of
    // another protocol version.
    Received receive(FrameBuffer &buffer, Frame &frame) const;

    void shutdown() const; // wakes whoever waits for the socket

private:
    base::Descriptor fd_;
    uint16_t client_id_ = 0;
    uint16_t platform_version_ = 0;
};

} // namespace corvane
