// SPDX-License-Identifier: Apache-2.0
//
// The virtual mesh as an adapter of the HAL, and what only a simulator has.
#pragma once
#include "../zbhal_backends.h"
#include "adapter_faults.h"
#include "control.h"
#include <functional>

namespace corvane::mesh {
class CoordinatorRadio;
}

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

// What a simulation needs of the one who owns its coordinator. Any thread.
class SimulationOwner {
public:
    virtual ~SimulationOwner() = default;
    // Runs work while nobody else uses the coordinator, with mesh time up to date.
    virtual void locked(const std::function<void()> &work) = 0;
    virtual std::string refuseNext(const std::string &operation, uint32_t count, int32_t status) = 0; // as SimTarget
    virtual void hang(uint32_t milliseconds) = 0;
};

// What the control socket drives. Both outlive it.
std::unique_ptr<mesh::SimTarget> makeSimulation(mesh::CoordinatorRadio &radio, SimulationOwner &owner);

} // namespace corvane::zbhal
