// SPDX-License-Identifier: Apache-2.0
//
// Device records in words and as JSON.
#pragma once
#include "corvane_client.h"
#include "corvanectl_output.h"
#include <optional>
#include <span>
#include <string>

namespace corvane::ctl {

// Endpoints and clusters that the record claims, cut to what it can hold.
std::span<const oruZb_endpointInfo_t> endpointsOf(const oruZb_deviceInfo_t &info);
std::span<const oruZb_clusterInfo_t> clustersOf(const oruZb_endpointInfo_t &endpoint);

std::string deviceTypeOf(const oruZb_deviceInfo_t &info); // "dimmable light", by the first endpoint
std::string deviceTitle(const oruZb_device_t &device);    // "dimmable light 0x1A2B"
Json deviceJson(const oruZb_device_t &device, std::optional<uint32_t> index);

} // namespace corvane::ctl
