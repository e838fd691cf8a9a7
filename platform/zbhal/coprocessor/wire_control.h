// SPDX-License-Identifier: Apache-2.0
//
// The line's part of the control socket, beside the mesh's. One line of JSON each:
//
//   {"command":"wire"}                              what the line does wrong
//   {"command":"wire","wire":{"lost":0.01}}         changes it
//   {"command":"line","event":"reset"}              also "error", "silence", "unplug", "replug"
//
// "value" of an event: the code of a reset (3) or an error (6), the milliseconds of a silence (1000).
#pragma once
#include "wire.h"
#include <optional>
#include <string>

namespace corvane::coprocessor {

enum class LineEvent : uint8_t { reset, error, silence, unplug, replug };

// What the control socket can ask of the line. Implementations are thread-safe.
class WireTarget {
public:
    virtual ~WireTarget() = default;
    virtual WireFaults wireFaults() = 0;
    virtual void setWireFaults(const WireFaults &faults) = 0;
    // value: as above. Empty text on success, else one clear sentence.
    virtual std::string lineEvent(LineEvent event, uint32_t value) = 0;
};

// The answer without line feed; empty when the request is none of these, for the mesh's part to answer. Any thread.
std::optional<std::string> handleWireLine(const std::string &line, WireTarget &target);

// "lost=0.01" of a command line. Empty text on success, else one clear sentence, and nothing is changed.
std::string setWireFault(WireFaults &faults, const std::string &setting);

} // namespace corvane::coprocessor
