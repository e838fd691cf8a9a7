// SPDX-License-Identifier: Apache-2.0
//
// The virtual mesh as an adapter of the HAL.
#pragma once
#include "../zbhal_adapter.h"
#include "control.h"

namespace corvane::zbhal {

// Reads the scenario (path, or the one given instead of a file) and sets up mesh and coordinator, disabled. Null on
// failure, with a sentence in error: "<file>:<line>:<column>: ...".
std::unique_ptr<Adapter> makeVirtualAdapter(const std::string &scenario_path, const mesh::Scenario *scenario,
                                            const AdapterSettings &settings, AdapterHost &host, std::string &error);

// The simulation behind an adapter; null when the adapter is another kind.
mesh::SimTarget *simulationOf(Adapter *adapter);

} // namespace corvane::zbhal
