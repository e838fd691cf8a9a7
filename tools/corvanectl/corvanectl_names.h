// SPDX-License-Identifier: Apache-2.0
//
// Names of clusters, attributes and device types as the tool prints and takes them; what is known of them is in
// lib/zigbee. Unknown numbers have no name; callers then show the number alone.
#pragma once
#include "zigbee/words.h"
#include <cstdint>
#include <string>
#include <string_view>

namespace corvane::ctl {

using zigbee::CLUSTER_BASIC;
using zigbee::CLUSTER_LEVEL;
using zigbee::CLUSTER_ON_OFF;
using zigbee::clusterText;
using zigbee::deviceTypeName;
using zigbee::PROFILE_HOME_AUTOMATION;
using zigbee::PROFILE_ZDO;
using zigbee::profileName;

std::string deviceTypeText(uint16_t profile, uint16_t device_id); // "dimmable light 0x0101", "0x0afe" without a name

// By number or by name ("on_off", "on/off", "temperature"); UsageError with the known names otherwise.
uint16_t parseCluster(std::string_view text);
uint16_t parseAttribute(uint16_t cluster, std::string_view text);

} // namespace corvane::ctl
