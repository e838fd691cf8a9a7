// SPDX-License-Identifier: Apache-2.0
//
// The line to a co-processor: a serial port ("/dev/ttyUSB0", "/dev/serial/by-id/...") or a network-attached adapter
// ("tcp:HOST:PORT"). Opened raw, exclusive and non-blocking; read and written with read() and write() by the owner.
#pragma once
#include "base/descriptor.h"
#include "oru_status.h"
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>

namespace corvane::zbhal::serial {

enum class FlowControl : uint8_t { none, hardware, software };

struct LineSettings {
    uint32_t speed = 115200; // bits a second: 115200, 230400 or 460800; nothing to a network line
    FlowControl flow = FlowControl::none;

    bool operator==(const LineSettings &) const = default;
};

// An open line, or none. Closing it opens a serial port for others even where somebody else keeps it open, as the
// program behind a pseudo terminal does.
class Line {
public:
    Line() = default;
    explicit Line(base::Descriptor line) : line_(std::move(line)) {}
    Line(Line &&) noexcept = default;
    Line &operator=(Line &&other) noexcept {
        close();
        line_ = std::move(other.line_);
        return *this;
    }
    ~Line() { close(); }

    int get() const { return line_.get(); }
    explicit operator bool() const { return static_cast<bool>(line_); }
    void close();

private:
    base::Descriptor line_;
};

struct LineResult {
    Line line; // none on failure
    // ORU_STATUS_NOT_FOUND: no such path or host, nobody listens. ORU_STATUS_BUSY: another program has it.
    // ORU_STATUS_NOT_SUPPORTED: not a serial port. ORU_STATUS_BAD_PARAM: not a name or setting of ours.
    // ORU_STATUS_GENERAL_ERROR: anything else, no permission among it.
    oru_status_t status = ORU_STATUS_OK;
    std::string problem; // on failure: what is wrong and what to do, one sentence for people
};

bool isTcpLine(std::string_view name);

// Opens a line. Takes at most 3 s, and so long only for a network line. Any thread.
// A serial port is locked (other programs that lock as well are kept out and told apart by their pid), is not hung up
// on close, and its DTR and RTS are left alone but for hardware flow control.
LineResult openLine(const std::string &name, const LineSettings &settings);

// Changes the settings of an open serial port; nothing to a network line. False with errno set.
bool applyLineSettings(int line, const LineSettings &settings);

// The process that has this file open, other than this one; 0 when none is seen (those of other users are not).
int holderOf(const std::string &path);

} // namespace corvane::zbhal::serial
