// SPDX-License-Identifier: Apache-2.0
//
// State of a virtual device and what follows from a change of it: reports, the demand of a plug that is switched, the
// description for people. Frames are taken apart in zdo.cpp and zcl.cpp.
#include "device.h"
#include "clusters.h"
#include "zcl.h"
#include "zdo.h"
#include "zigbee/mac_capabilities.h"
#include <algorithm>
#include <charconv>
#include <utility>

namespace corvane::mesh {
namespace {

constexpr uint8_t kCoordinatorEndpoint = 1; // where reports go
constexpr uint8_t kAllEndpoints = 0xFF;
constexpr uint16_t kWildcardProfile = 0xFFFF;
constexpr uint16_t kPowerSource = 0x0007;
constexpr uint16_t kZoneStatus = 0x0002;
constexpr uint16_t kZoneId = 0x0011;
constexpr uint16_t kSummation = 0x0000;
constexpr uint16_t kDemand = 0x0400;
constexpr uint16_t kRmsCurrent = 0x0508;
constexpr uint16_t kActivePower = 0x050B;
constexpr uint64_t kWattMsPerWattHour = 3'600'000;

// Zero while the endpoint is switched off; what is stored is the load behind the switch.
bool followsOnOff(uint16_t cluster_id, uint16_t attribute_id) {
    return (cluster_id == kClusterMetering && attribute_id == kDemand) ||
           (cluster_id == kClusterElectrical && (attribute_id == kRmsCurrent || attribute_id == kActivePower));
}

std::string decimal(double value, int digits) {
    char text[40];
    const auto [end, error] = std::to_chars(text, text + sizeof text, value, std::chars_format::fixed, digits);
    return error == std::errc{} ? std::string(text, end) : std::string();
}

bool has(const std::vector<uint16_t> &clusters, uint16_t cluster_id) {
    return std::ranges::find(clusters, cluster_id) != clusters.end();
}

} // namespace

Device::Device(DeviceSpec spec) : spec_(std::move(spec)) {
    spec_.reports.reserve(std::max(kMaxReports, spec_.reports.size())); // entries never move
    for (const EndpointSpec &endpoint : spec_.endpoints) {
        for (const uint16_t cluster_id : endpoint.input_clusters) {
            for (const AttributeInfo &info : clusterAttributes(cluster_id)) {
                attributes_[key(endpoint.id, cluster_id, info.id)] = info.initial;
            }
            attributes_[key(endpoint.id, cluster_id, kAttributeClusterRevision)] = 1;
        }
        if (has(endpoint.input_clusters, kClusterBasic)) {
            const bool mains = zigbee::isMainsPowered(spec_.mac_capabilities);
            attributes_[key(endpoint.id, kClusterBasic, kPowerSource)] = mains ? 1 : 3; // single phase, battery
        }
    }
    for (const ReportSpec &report : spec_.reports) {
        const auto seconds = static_cast<uint16_t>(std::clamp<uint32_t>(report.interval_ms / 1000, 1, 0xFFFE));
        const int64_t last = value(report.endpoint, report.cluster_id, report.attribute_id).value_or(0);
        reporting_[key(report.endpoint, report.cluster_id, report.attribute_id)] = {0, seconds, 1, last};
    }
}

const EndpointSpec *Device::endpoint(uint8_t id) const {
    const auto found = std::ranges::find(spec_.endpoints, id, &EndpointSpec::id);
    return found == spec_.endpoints.end() ? nullptr : &*found;
}

bool Device::isOn(uint8_t endpoint) const {
    const auto found = attributes_.find(key(endpoint, kClusterOnOff, 0));
    return found == attributes_.end() || found->second != 0;
}

std::optional<int64_t> Device::value(uint8_t endpoint, uint16_t cluster_id, uint16_t attribute_id) const {
    const auto found = attributes_.find(key(endpoint, cluster_id, attribute_id));
    if (found == attributes_.end()) {
        return std::nullopt;
    }
    return followsOnOff(cluster_id, attribute_id) && !isOn(endpoint) ? 0 : found->second;
}

std::string Device::text(uint16_t attribute_id) const {
    switch (attribute_id) {
    case 0x0004:
        return spec_.manufacturer_name;
    case 0x0005:
        return spec_.model;
    case 0x0006:
        return "20240101";
    default: // software build
        return "1.0.0";
    }
}

DeviceActions Device::receive(const ApsMessage &frame, bool broadcast) {
    DeviceActions actions;
    const bool zdo = frame.profile_id == 0 && frame.destination_endpoint == 0;
    if (zdo) {
        ZdoServer(*this, frame, broadcast, actions).serve();
    }
    const bool all = frame.destination_endpoint == kAllEndpoints;
    for (const EndpointSpec &endpoint : spec_.endpoints) {
        // The APS layer of a device drops frames of other profiles and for endpoints that it does not have.
        const bool profile = frame.profile_id == endpoint.profile_id || frame.profile_id == kWildcardProfile;
        if (!zdo && profile && (all || frame.destination_endpoint == endpoint.id)) {
            ZclServer(*this, endpoint, frame, broadcast || all, actions).serve();
        }
    }
    applyFaults(actions, zdo);
    return actions;
}

void Device::applyFaults(DeviceActions &actions, bool zdo) const {
    const Faults &faults = spec_.faults;
    if (faults.silent) {
        actions.answers.clear();
        return;
    }
    for (ApsMessage &answer : actions.answers) {
        if (!zdo) {
            break;
        }
        if (faults.zdo_error_status != 0 && answer.payload.size() > 1) {
            answer.payload.resize(std::min<size_t>(answer.payload.size(), 4)); // address, but no descriptor
            answer.payload[1] = faults.zdo_error_status;
        }
        const auto length = static_cast<int64_t>(answer.payload.size()) + faults.zdo_length_delta;
        answer.payload.resize(static_cast<size_t>(std::max<int64_t>(length, 0)));
    }
    if (faults.duplicate_answers) {
        std::vector<ApsMessage> twice;
        for (const ApsMessage &answer : actions.answers) {
            twice.insert(twice.end(), 2, answer);
        }
        actions.answers = std::move(twice);
    }
}

ApsMessage Device::announce() {
    ApsMessage message{0, kZdoDeviceAnnce, 0, 0, {}};
    message.payload.push_back(zdo_sequence_++);
    append(message.payload, node_id_, 2);
    message.payload.insert(message.payload.end(), spec_.eui64.rbegin(), spec_.eui64.rend());
    message.payload.push_back(spec_.mac_capabilities);
    return message;
}

// Sensors wander by a little between two reports; a meter counts what the load has consumed in the interval.
void Device::drift(const ReportSpec &spec, uint64_t random) {
    const AttributeInfo *const info = findAttribute(spec.cluster_id, spec.attribute_id);
    const auto found = attributes_.find(key(spec.endpoint, spec.cluster_id, spec.attribute_id));
    if (info == nullptr || found == attributes_.end()) {
        return;
    }
    if (info->drift > 0) {
        const auto step = static_cast<int64_t>(random % (2U * static_cast<uint64_t>(info->drift) + 1)) - info->drift;
        found->second = std::clamp(found->second + step, info->minimum, info->maximum);
    }
    if (spec.cluster_id == kClusterMetering && spec.attribute_id == kSummation &&
        spec.interval_ms != kNoPeriodicReport) {
        const int64_t load = value(spec.endpoint, kClusterMetering, kDemand).value_or(0);
        energy_rest_ += static_cast<uint64_t>(std::max<int64_t>(load, 0)) * spec.interval_ms;
        found->second += static_cast<int64_t>(energy_rest_ / kWattMsPerWattHour);
        found->second = std::min(found->second, info->maximum);
        energy_rest_ %= kWattMsPerWattHour;
    }
}

ApsMessage Device::report(const ReportSpec &spec, uint64_t random) {
    drift(spec, random);
    const int64_t now = value(spec.endpoint, spec.cluster_id, spec.attribute_id).value_or(0);
    const auto found = reporting_.find(key(spec.endpoint, spec.cluster_id, spec.attribute_id));
    if (found != reporting_.end()) {
        found->second.last = now;
    }
    return reportFrame(spec.endpoint, spec.cluster_id, spec.attribute_id, now);
}

// The status of a zone travels as a notification of its own and not as a report.
ApsMessage Device::reportFrame(uint8_t endpoint_id, uint16_t cluster_id, uint16_t attribute_id, int64_t value_now) {
    const EndpointSpec *const from = endpoint(endpoint_id);
    const AttributeInfo *const info = findAttribute(cluster_id, attribute_id);
    ApsMessage message{
        from == nullptr ? uint16_t{0x0104} : from->profile_id, cluster_id, endpoint_id, kCoordinatorEndpoint, {}};
    std::vector<uint8_t> &out = message.payload;
    if (cluster_id == kClusterIasZone && attribute_id == kZoneStatus) {
        out = {kZclClusterSpecific | kZclServerToClient, zcl_sequence_++, 0x00};
        append(out, static_cast<uint64_t>(value_now), 2);
        out.push_back(0); // extended status
        out.push_back(static_cast<uint8_t>(value(endpoint_id, kClusterIasZone, kZoneId).value_or(0xFF)));
        append(out, 0, 2); // delay
        return message;
    }
    out = {kZclServerToClient | kZclDisableDefaultResponse, zcl_sequence_++, kZclReportAttributes};
    append(out, attribute_id, 2);
    if (info != nullptr) {
        out.push_back(static_cast<uint8_t>(info->type));
        appendAttribute(out, *info, value_now);
    }
    return message;
}

void Device::reportIfDue(uint8_t endpoint_id, uint16_t cluster_id, uint16_t attribute_id,
                         std::vector<ApsMessage> &frames) {
    const auto now = value(endpoint_id, cluster_id, attribute_id);
    const auto found = reporting_.find(key(endpoint_id, cluster_id, attribute_id));
    const AttributeInfo *const info = findAttribute(cluster_id, attribute_id);
    if (!now || found == reporting_.end() || info == nullptr) {
        return;
    }
    Reporting &reporting = found->second;
    const bool analog = typeIsAnalog(static_cast<uint8_t>(info->type));
    const uint64_t difference = *now > reporting.last
                                    ? static_cast<uint64_t>(*now) - static_cast<uint64_t>(reporting.last)
                                    : static_cast<uint64_t>(reporting.last) - static_cast<uint64_t>(*now);
    if (difference >= (analog ? static_cast<uint64_t>(reporting.change) : 1)) {
        reporting.last = *now;
        frames.push_back(reportFrame(endpoint_id, cluster_id, attribute_id, *now));
    }
}

void Device::change(uint8_t endpoint_id, uint16_t cluster_id, uint16_t attribute_id, int64_t new_value,
                    std::vector<ApsMessage> &frames) {
    const auto found = attributes_.find(key(endpoint_id, cluster_id, attribute_id));
    if (found == attributes_.end() || found->second == new_value) {
        return;
    }
    found->second = new_value;
    if (cluster_id == kClusterIasZone && attribute_id == kZoneStatus) {
        // Also without enrollment, so that a client need not act as a control panel to see a door open.
        frames.push_back(reportFrame(endpoint_id, cluster_id, attribute_id, new_value));
        return;
    }
    reportIfDue(endpoint_id, cluster_id, attribute_id, frames);
    if (cluster_id == kClusterOnOff && attribute_id == 0) {
        reportIfDue(endpoint_id, kClusterMetering, kDemand, frames);
        reportIfDue(endpoint_id, kClusterElectrical, kRmsCurrent, frames);
        reportIfDue(endpoint_id, kClusterElectrical, kActivePower, frames);
    }
}

bool Device::setAttribute(uint8_t endpoint_id, uint16_t cluster_id, uint16_t attribute_id, int64_t new_value) {
    const AttributeInfo *const info = findAttribute(cluster_id, attribute_id);
    const bool numeric = info != nullptr && info->type != ZclType::character_string;
    if (!numeric || !attributes_.contains(key(endpoint_id, cluster_id, attribute_id)) || new_value < info->minimum ||
        new_value > info->maximum) {
        return false;
    }
    change(endpoint_id, cluster_id, attribute_id, new_value, pending_);
    return true;
}

std::vector<ApsMessage> Device::takePending() {
    return std::exchange(pending_, {});
}

std::string Device::describeEndpoint(uint8_t endpoint_id) const {
    std::string text;
    const auto add = [&](uint16_t cluster_id, uint16_t attribute_id, auto &&words) {
        if (const auto now = value(endpoint_id, cluster_id, attribute_id)) {
            text += (text.empty() ? "" : ", ") + words(*now);
        }
    };
    const auto either = [](const char *yes, const char *no) {
        return [=](int64_t now) { return std::string((now & 1) != 0 ? yes : no); };
    };
    const auto number = [](double divisor, int digits, const char *unit) {
        return [=](int64_t now) { return decimal(static_cast<double>(now) / divisor, digits) + unit; };
    };
    add(kClusterOnOff, 0, either("on", "off"));
    add(kClusterLevel, 0, [](int64_t now) { return "level " + std::to_string(now); });
    add(kClusterIasZone, kZoneStatus, either("open", "closed"));
    add(kClusterOccupancy, 0, either("occupied", "clear"));
    add(kClusterTemperature, 0, number(100, 1, " C"));
    add(kClusterHumidity, 0, number(100, 0, " %"));
    add(kClusterMetering, kDemand, number(1, 0, " W"));
    add(kClusterMetering, kSummation, number(1000, 3, " kWh"));
    add(kClusterPowerConfiguration, 0x0021,
        [](int64_t now) { return "battery " + decimal(static_cast<double>(now) / 2, 0) + " %"; });
    return text;
}

std::string Device::describe() const {
    std::string text;
    for (const EndpointSpec &endpoint : spec_.endpoints) {
        const std::string part = describeEndpoint(endpoint.id);
        if (part.empty()) {
            continue;
        }
        text += text.empty() ? "" : "; ";
        if (spec_.endpoints.size() > 1) {
            text += std::to_string(endpoint.id) + ": ";
        }
        text += part;
    }
    return text;
}

} // namespace corvane::mesh
