// SPDX-License-Identifier: Apache-2.0
//
// Frame header, Default Response and the general commands; the commands of single clusters are in zcl_clusters.cpp.
#include "zcl.h"
#include "zigbee/value.h"
#include <algorithm>
#include <utility>

namespace corvane::mesh {
namespace {

constexpr uint8_t kReadAttributes = 0x00;
constexpr uint8_t kReadAttributesResponse = 0x01;
constexpr uint8_t kWriteAttributes = 0x02;
constexpr uint8_t kWriteAttributesUndivided = 0x03;
constexpr uint8_t kWriteAttributesResponse = 0x04;
constexpr uint8_t kWriteAttributesNoResponse = 0x05;
constexpr uint8_t kConfigureReporting = 0x06;
constexpr uint8_t kConfigureReportingResponse = 0x07;
constexpr uint8_t kReadReporting = 0x08;
constexpr uint8_t kReadReportingResponse = 0x09;
constexpr uint8_t kDefaultResponse = 0x0B;
constexpr uint8_t kDiscoverAttributes = 0x0C;
constexpr uint8_t kDiscoverAttributesResponse = 0x0D;

constexpr uint16_t kStopReporting = 0xFFFF; // maximum interval
constexpr uint16_t kIasCieAddress = 0x0010;

// Answers to questions that the device never asked: nothing to do, nothing to answer.
bool isGeneralResponse(uint8_t command) {
    return command == kReadAttributesResponse || command == kWriteAttributesResponse ||
           command == kConfigureReportingResponse || command == kReadReportingResponse || command == kDefaultResponse ||
           command == kDiscoverAttributesResponse;
}

int64_t signExtend(uint64_t raw, ZclType type) {
    return zigbee::numberValue(static_cast<uint8_t>(type), static_cast<int64_t>(raw)).integer();
}

// Steps over a value of any type; false when its extent can't be known or it is not all there.
bool readValue(ByteReader &in, uint8_t type, uint64_t &raw) {
    zigbee::Value value;
    if (!zigbee::readValue(in, type, value)) {
        return false;
    }
    raw = value.raw;
    return true;
}

void appendRecord(std::vector<uint8_t> &out, const std::vector<uint8_t> &record) {
    out.insert(out.end(), record.begin(), record.end());
}

} // namespace

void appendAttribute(std::vector<uint8_t> &bytes, const AttributeInfo &info, int64_t value) {
    append(bytes, static_cast<uint64_t>(value), typeWidth(static_cast<uint8_t>(info.type)).value_or(0));
}

const ZclServer::GeneralCommand ZclServer::kGeneralCommands[] = {
    {kReadAttributes, &ZclServer::readAttributes},
    {kWriteAttributes, &ZclServer::writeAttributes},
    {kWriteAttributesUndivided, &ZclServer::writeAttributes},
    {kWriteAttributesNoResponse, &ZclServer::writeAttributes},
    {kConfigureReporting, &ZclServer::configureReporting},
    {kReadReporting, &ZclServer::readReporting},
    {kZclReportAttributes, &ZclServer::reportAttributes},
    {kDiscoverAttributes, &ZclServer::discoverAttributes},
};

void ZclServer::serve() {
    ByteReader in(frame_.payload);
    control_ = in.u8();
    if ((control_ & kZclManufacturerSpecific) != 0) {
        manufacturer_ = in.u16();
    }
    sequence_ = in.u8();
    command_ = in.u8();
    const uint8_t type = control_ & kZclFrameTypeMask;
    if (!in.ok() || type > kZclClusterSpecific || (type == 0 && isGeneralResponse(command_))) {
        return;
    }
    const bool to_client = (control_ & kZclServerToClient) != 0;
    const auto &clusters = to_client ? endpoint_.output_clusters : endpoint_.input_clusters;
    Result result;
    if (std::ranges::find(clusters, frame_.cluster_id) == clusters.end()) {
        result = ZclStatus::unsupported_cluster;
    } else {
        result = type == kZclClusterSpecific ? cluster(in) : general(in);
    }
    if (result) {
        defaultResponse(*result);
    }
    for (ApsMessage &message : caused_) {
        actions_.answers.push_back(std::move(message));
    }
}

ZclServer::Result ZclServer::general(ByteReader &in) {
    const auto *const found = std::ranges::find(kGeneralCommands, command_, &GeneralCommand::id);
    if (found == std::end(kGeneralCommands)) {
        return (control_ & kZclManufacturerSpecific) != 0 ? ZclStatus::unsup_manuf_general_command
                                                          : ZclStatus::unsup_general_command;
    }
    return (this->*found->handler)(in);
}

ZclServer::Result ZclServer::cluster(ByteReader &in) {
    if ((control_ & kZclManufacturerSpecific) != 0) {
        return ZclStatus::unsup_manuf_cluster_command;
    }
    for (const ClusterCommand *command = kClusterCommands; command->handler != nullptr; command++) {
        if (command->cluster_id != frame_.cluster_id || command->id != command_) {
            continue;
        }
        if ((control_ & kZclServerToClient) != 0) {
            break;
        }
        return in.left() < command->minimum_length ? ZclStatus::malformed_command : (this->*command->handler)(in);
    }
    return ZclStatus::unsup_cluster_command;
}

// The virtual devices have no manufacturer-specific attributes and no attributes on the client side.
const AttributeInfo *ZclServer::lookUp(uint16_t attribute_id) const {
    if ((control_ & (kZclManufacturerSpecific | kZclServerToClient)) != 0) {
        return nullptr;
    }
    return findAttribute(frame_.cluster_id, attribute_id);
}

// As many records as fit into one frame, like a device whose buffers are no larger than that.
ZclServer::Result ZclServer::readAttributes(ByteReader &in) {
    if (in.left() == 0 || in.left() % 2 != 0) {
        return ZclStatus::malformed_command;
    }
    auto out = begin(0, kReadAttributesResponse);
    while (in.left() > 0) {
        const uint16_t id = in.u16();
        std::vector<uint8_t> record;
        append(record, id, 2);
        const AttributeInfo *const info = lookUp(id);
        if (info == nullptr) {
            append(record, static_cast<uint8_t>(ZclStatus::unsupported_attribute), 1);
        } else {
            append(record, static_cast<uint8_t>(ZclStatus::success), 1);
            append(record, static_cast<uint8_t>(info->type), 1);
            if (info->type == ZclType::character_string) {
                const std::string text = device_.text(id);
                append(record, text.size(), 1);
                record.insert(record.end(), text.begin(), text.end());
            } else {
                appendAttribute(record, *info, current(frame_.cluster_id, id));
            }
        }
        if (out.size() + record.size() > kZclMaxFrame) {
            break;
        }
        appendRecord(out, record);
    }
    answer(std::move(out));
    return std::nullopt;
}

struct ZclServer::WriteRecord {
    const AttributeInfo *info = nullptr;
    uint16_t id = 0;
    ZclStatus status = ZclStatus::success;
    int64_t value = 0;
};

// False when the rest of the frame can't be understood.
bool ZclServer::parseWrite(ByteReader &in, WriteRecord &record) {
    record.id = in.u16();
    const uint8_t type = in.u8();
    uint64_t raw = 0;
    if (!readValue(in, type, raw)) {
        return false;
    }
    record.info = lookUp(record.id);
    if (record.info == nullptr) {
        record.status = ZclStatus::unsupported_attribute;
    } else if (!record.info->can(WRITE)) {
        record.status = ZclStatus::read_only;
    } else if (static_cast<uint8_t>(record.info->type) != type) {
        record.status = ZclStatus::invalid_data_type;
    } else {
        record.value = signExtend(raw, record.info->type);
        const bool in_range = record.value >= record.info->minimum && record.value <= record.info->maximum;
        record.status = in_range ? ZclStatus::success : ZclStatus::invalid_value;
    }
    return true;
}

ZclServer::Result ZclServer::writeAttributes(ByteReader &in) {
    std::vector<WriteRecord> records;
    while (in.left() > 0) {
        if (!parseWrite(in, records.emplace_back())) {
            return ZclStatus::malformed_command;
        }
    }
    if (records.empty()) {
        return ZclStatus::malformed_command;
    }
    const auto failed = [](const WriteRecord &record) { return record.status != ZclStatus::success; };
    const bool any_failed = std::ranges::any_of(records, failed);
    auto out = begin(0, kWriteAttributesResponse);
    for (const WriteRecord &record : records) {
        if (failed(record)) {
            if (out.size() + 3 <= kZclMaxFrame) {
                append(out, static_cast<uint8_t>(record.status), 1);
                append(out, record.id, 2);
            }
        } else if (command_ != kWriteAttributesUndivided || !any_failed) {
            change(frame_.cluster_id, record.id, record.value);
            if (frame_.cluster_id == kClusterIasZone && record.id == kIasCieAddress) {
                writeCieAddress();
            }
        }
    }
    if (command_ == kWriteAttributesNoResponse) {
        return std::nullopt;
    }
    if (!any_failed) {
        append(out, static_cast<uint8_t>(ZclStatus::success), 1);
    }
    answer(std::move(out));
    return std::nullopt;
}

ZclServer::Result ZclServer::configureReporting(ByteReader &in) {
    if (in.left() == 0) {
        return ZclStatus::malformed_command;
    }
    auto out = begin(0, kConfigureReportingResponse);
    const size_t empty = out.size();
    while (in.left() > 0) {
        const uint8_t direction = in.u8();
        const uint16_t id = in.u16();
        bool readable = true;
        ZclStatus status = ZclStatus::unsupported_attribute;
        if (direction == 0) {
            status = configureReport(in, id, readable);
        } else {
            in.u16(); // the device shall expect reports; it never does
        }
        if (!in.ok() || direction > 1) {
            return ZclStatus::malformed_command;
        }
        if (status != ZclStatus::success && out.size() + 4 <= kZclMaxFrame) {
            append(out, static_cast<uint8_t>(status), 1);
            append(out, direction, 1);
            append(out, id, 2);
        }
        if (!readable) {
            break;
        }
    }
    if (out.size() == empty) {
        append(out, static_cast<uint8_t>(ZclStatus::success), 1);
    }
    answer(std::move(out));
    return std::nullopt;
}

// readable becomes false when the type gives no clue where the next record begins.
ZclStatus ZclServer::configureReport(ByteReader &in, uint16_t attribute_id, bool &readable) {
    const uint8_t type = in.u8();
    const uint16_t minimum_s = in.u16();
    const uint16_t maximum_s = in.u16();
    uint64_t reportable_change = 0;
    if (typeIsAnalog(type)) {
        readable = readValue(in, type, reportable_change);
    } else if (!typeWidth(type)) {
        readable = false;
    }
    const AttributeInfo *const info = lookUp(attribute_id);
    if (info == nullptr) {
        return ZclStatus::unsupported_attribute;
    }
    if (!info->can(REPORT)) {
        return ZclStatus::unreportable_attribute;
    }
    if (static_cast<uint8_t>(info->type) != type) {
        return ZclStatus::invalid_data_type;
    }
    if (maximum_s != 0 && maximum_s != kStopReporting && minimum_s > maximum_s) {
        return ZclStatus::invalid_value;
    }
    if (!in.ok()) {
        return ZclStatus::malformed_command; // the caller answers for the whole frame
    }
    return applyReport(*info, minimum_s, maximum_s, signExtend(reportable_change, info->type));
}

ZclStatus ZclServer::applyReport(const AttributeInfo &info, uint16_t minimum_s, uint16_t maximum_s, int64_t change) {
    auto &reports = device_.spec_.reports;
    const auto found = std::ranges::find_if(reports, [&](const ReportSpec &report) {
        return report.endpoint == endpoint_.id && report.cluster_id == frame_.cluster_id &&
               report.attribute_id == info.id;
    });
    const uint64_t key = Device::key(endpoint_.id, frame_.cluster_id, info.id);
    if (maximum_s == kStopReporting) {
        device_.reporting_.erase(key);
        if (found != reports.end()) {
            found->interval_ms = kNoPeriodicReport;
            actions_.reports_changed = true;
        }
        return ZclStatus::success;
    }
    const uint32_t interval_ms = maximum_s == 0 ? kNoPeriodicReport : maximum_s * 1000U;
    if (found != reports.end()) {
        found->interval_ms = interval_ms;
    } else if (reports.size() < Device::kMaxReports) {
        reports.push_back({endpoint_.id, frame_.cluster_id, info.id, interval_ms});
    } else {
        return ZclStatus::insufficient_space;
    }
    device_.reporting_[key] = {minimum_s, maximum_s, std::max<int64_t>(change, 1), current(frame_.cluster_id, info.id)};
    actions_.reports_changed = true;
    return ZclStatus::success;
}

ZclServer::Result ZclServer::readReporting(ByteReader &in) {
    if (in.left() == 0 || in.left() % 3 != 0) {
        return ZclStatus::malformed_command;
    }
    auto out = begin(0, kReadReportingResponse);
    while (in.left() > 0) {
        const uint8_t direction = in.u8();
        const uint16_t id = in.u16();
        const AttributeInfo *const info = lookUp(id);
        const auto found = device_.reporting_.find(Device::key(endpoint_.id, frame_.cluster_id, id));
        std::vector<uint8_t> record;
        if (info == nullptr || found == device_.reporting_.end() || direction != 0) {
            const ZclStatus status = info == nullptr ? ZclStatus::unsupported_attribute : ZclStatus::not_found;
            record = {static_cast<uint8_t>(status), direction};
            append(record, id, 2);
        } else {
            record = {static_cast<uint8_t>(ZclStatus::success), direction};
            append(record, id, 2);
            append(record, static_cast<uint8_t>(info->type), 1);
            append(record, found->second.minimum_s, 2);
            append(record, found->second.maximum_s, 2);
            if (typeIsAnalog(static_cast<uint8_t>(info->type))) {
                appendAttribute(record, *info, found->second.change);
            }
        }
        if (out.size() + record.size() > kZclMaxFrame) {
            break;
        }
        appendRecord(out, record);
    }
    answer(std::move(out));
    return std::nullopt;
}

ZclServer::Result ZclServer::discoverAttributes(ByteReader &in) {
    const uint16_t first = in.u16();
    size_t room = in.u8();
    if (!in.ok()) {
        return ZclStatus::malformed_command;
    }
    auto out = begin(0, kDiscoverAttributesResponse);
    const size_t complete_at = out.size();
    out.push_back(1);
    const auto offer = [&](uint16_t id) {
        const AttributeInfo *const info = lookUp(id);
        if (id < first || info == nullptr) {
            return;
        }
        if (room == 0 || out.size() + 3 > kZclMaxFrame) {
            out[complete_at] = 0;
            return;
        }
        room--;
        append(out, id, 2);
        append(out, static_cast<uint8_t>(info->type), 1);
    };
    for (const AttributeInfo &info : clusterAttributes(frame_.cluster_id)) {
        offer(info.id);
    }
    offer(kAttributeClusterRevision);
    answer(std::move(out));
    return std::nullopt;
}

ZclServer::Result ZclServer::reportAttributes(ByteReader &) {
    return ZclStatus::success;
}

int64_t ZclServer::current(uint16_t cluster_id, uint16_t attribute_id) const {
    return device_.value(endpoint_.id, cluster_id, attribute_id).value_or(0);
}

void ZclServer::change(uint16_t cluster_id, uint16_t attribute_id, int64_t value) {
    device_.change(endpoint_.id, cluster_id, attribute_id, value, caused_);
}

// Header of an answer: same sequence number and manufacturer code, opposite direction, wants no Default Response.
std::vector<uint8_t> ZclServer::begin(uint8_t type, uint8_t command) const {
    std::vector<uint8_t> out;
    const uint8_t manufacturer_bit = control_ & kZclManufacturerSpecific;
    const uint8_t direction = (control_ & kZclServerToClient) ^ kZclServerToClient;
    out.push_back(type | manufacturer_bit | direction | kZclDisableDefaultResponse);
    if (manufacturer_bit != 0) {
        append(out, manufacturer_, 2);
    }
    out.push_back(sequence_);
    out.push_back(command);
    return out;
}

void ZclServer::answer(std::vector<uint8_t> payload) {
    actions_.answers.push_back(
        {endpoint_.profile_id, frame_.cluster_id, endpoint_.id, frame_.source_endpoint, std::move(payload)});
}

void ZclServer::defaultResponse(ZclStatus status) {
    const bool unwanted = (control_ & kZclDisableDefaultResponse) != 0 && status == ZclStatus::success;
    if (broadcast_ || unwanted) {
        return;
    }
    auto out = begin(0, kDefaultResponse);
    out.push_back(command_);
    out.push_back(static_cast<uint8_t>(status));
    answer(std::move(out));
}

} // namespace corvane::mesh
