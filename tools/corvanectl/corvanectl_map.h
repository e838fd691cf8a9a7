// SPDX-License-Identifier: Apache-2.0
//
// The map of the network for terminals and scripts.
#pragma once
#include "corvanectl_output.h"
#include "network_map.h"

namespace corvane::ctl {

std::string mapText(const map::NetworkMap &map);
Json mapJson(const map::NetworkMap &map);

} // namespace corvane::ctl
