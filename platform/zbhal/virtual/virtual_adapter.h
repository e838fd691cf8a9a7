// SPDX-License-Identifier: Apache-2.0
//
// The virtual mesh as an adapter of the HAL, and what only a simulator has.
#pragma once
#include "../zbhal_backends.h"
#include "adapter_faults.h"
#include "control.h"

namespace corvane::zbhal {

struct VirtualSettings {
    std::string state_directory;              // empty: nothing is remembered
    std::string control_directory;            // of the control socket; empty: there is none
    std::optional<uint64_t> seed;             // replaces the scenario's
    const mesh::Scenario *scenario = nullptr; // used instead of the file; copied
    std::shared_ptr<AdapterFaults> faults;    // null: the adapter's own
};

// What a simulated adapter can do beside the operations of all. Any thread.
class Simulator {
public:
    virtual ~Simulator() = default;
    virtual mesh::SimTarget &target() = 0;
    // Keeps confirmations back; releasing delivers the ones kept.
    virtual void holdConfirmations(bool hold) = 0;
};

// Reads the scenario and sets up mesh and coordinator, disabled. The problem of one that cannot be read is
// "...: <file>:<line>:<column>: ...".
Made makeVirtualAdapter(const std::string &scenario_path, const VirtualSettings &settings, AdapterHost &host);

// The simulator behind an adapter; null when the adapter is another kind.
Simulator *simulatorOf(Adapter *adapter);

} // namespace corvane::zbhal
