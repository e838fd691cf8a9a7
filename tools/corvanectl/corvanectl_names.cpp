// SPDX-License-Identifier: Apache-2.0
#include "corvanectl_names.h"
#include "corvanectl_parse.h"
#include <fmt/format.h>

namespace corvane::ctl {

namespace {

template <class Rows>
std::string namesOf(const Rows &rows) {
    std::string names;
    for (const auto &row : rows) {
        names += (names.empty() ? "" : ", ") + std::string(row.name());
    }
    return names;
}

} // namespace

std::string deviceTypeText(uint16_t profile, uint16_t device_id) {
    const std::string_view name = deviceTypeName(profile, device_id);
    return name.empty() ? fmt::format("0x{:04x}", device_id) : fmt::format("{} 0x{:04x}", name, device_id);
}

uint16_t parseCluster(std::string_view text) {
    if (tryNumber(text)) {
        return static_cast<uint16_t>(parseNumber(text, "the cluster", 0, 0xFFFF));
    }
    if (const zigbee::ClusterInfo *const cluster = zigbee::clusterByName(text)) {
        return cluster->id;
    }
    throw UsageError(fmt::format("there is no cluster named \"{}\"; give its number (0x0006) or one of: {}", text,
                                 namesOf(zigbee::clusters())));
}

uint16_t parseAttribute(uint16_t cluster, std::string_view text) {
    if (tryNumber(text)) {
        return static_cast<uint16_t>(parseNumber(text, "the attribute", 0, 0xFFFF));
    }
    if (const zigbee::AttributeInfo *const attribute = zigbee::attributeByName(cluster, text)) {
        return attribute->id;
    }
    const zigbee::ClusterInfo *const info = zigbee::findCluster(cluster);
    const std::string known = info != nullptr ? namesOf(info->attributes()) : std::string();
    throw UsageError(fmt::format("the cluster {} has no attribute named \"{}\"; give its number{}{}",
                                 clusterText(PROFILE_HOME_AUTOMATION, cluster), text,
                                 known.empty() ? "" : " or one of: ", known));
}

} // namespace corvane::ctl
