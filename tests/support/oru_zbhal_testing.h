// SPDX-License-Identifier: Apache-2.0
//
// Test interface of the Zigbee HAL layer: choose mode and backend, drive the virtual mesh, inject what a radio could
// report, refuse operations. It takes the place of the layer's own instance. Any thread unless stated.
//
// Typical use:
//   testing::reset({.mode = testing::Mode::descriptor, .scenario = &scenario});
//   oruZbHal_init(&callbacks, &descriptor);
//   oruZbHal_setAdapterName(name);          // "virtual:<anything>" when a scenario is given in the options
//   oruZbHal_enable();
#pragma once
#include "oru_zbhal.h"
#include "virtual/control.h"
#include "virtual/scenario.h"
#include "zbhal_backends.h"
#include <cstdint>
#include <optional>
#include <span>
#include <string>

namespace corvane::zbhal::testing {

enum class Mode : uint8_t {
    configured, // as the configuration says
    descriptor,
    thread,
};

struct Options {
    Mode mode = Mode::configured;
    const mesh::Scenario *scenario = nullptr; // used instead of the file of the adapter name
    std::string state_directory;              // empty: nothing is remembered
    std::string runtime_directory;            // empty: no control socket
    std::optional<uint64_t> seed;
    uint32_t watchdog_seconds = 0;
    std::vector<Backend> backends; // before those of the product
};

// Ends the layer with its threads, adapter, queue, refusals and callbacks, and makes another with the options.
// Afterwards oruZbHal_init may be called again. No other thread may be inside the layer.
void reset(const Options &options);

// Reports as if they came from the radio. The state of the mesh does not change. EUI-64s least significant byte first.
// False: no room, or a frame longer than the layer hands up.
bool injectStackStatus(oruZbHal_stackStatus_t status);
void injectTrustCenter(oruZbHal_nodeId_t node_id, const oruZbHal_eui64_t &eui64, oruZbHal_nodeId_t parent,
                       oruZbHal_deviceUpdate_t update, oruZbHal_joinDecision_t decision);
void injectAnnounce(oruZbHal_nodeId_t node_id, const oruZbHal_eui64_t &eui64, uint8_t capabilities);
bool injectFrame(oruZbHal_nodeId_t source, const oruZbHal_apsFrame_t &aps_frame, std::span<const uint8_t> payload);

// The next count calls of an operation ("sendZclUnicast") are refused with status. "confirmation" gives the next
// count confirmations that status instead of their own; "interpanCompletion" loses the next count inter-PAN
// completions until the adapter is reset. Empty text on success.
std::string refuseNext(const std::string &operation, uint32_t count, int32_t status);

// Call number nth (from 1, 0: none) of all operations from now on is refused with status, a value other than 0. A
// reset() forgets it.
void refuseCall(uint64_t nth, int32_t status);
uint64_t operationCalls(); // since refuseCall or reset

// Keeps confirmations back; releasing delivers the ones kept.
void holdConfirmations(bool hold);

// Time of the next event of the mesh in microseconds of the monotonic clock, UINT64_MAX when there is none.
uint64_t nextEventUs();

// The clock has been moved: look again what is due. Needed in thread mode with a virtual clock only.
void poke();

// Runs the mesh by hand; null when there is no virtual adapter.
mesh::SimTarget *simTarget();

size_t pendingIndications(); // whose callback has not returned yet

} // namespace corvane::zbhal::testing
