// SPDX-License-Identifier: Apache-2.0
//
// ZCL server of one endpoint of a virtual device: takes one frame apart, answers it and carries it out. Lives for one
// frame. A frame too short for its header is ignored, as there is no sequence number to answer with; everything else
// that can't be carried out gets a Default Response with the reason (not if broadcast).
#pragma once
#include "bytes.h"
#include "clusters.h"
#include "device.h"
#include <optional>
#include <vector>

namespace corvane::mesh {

enum class ZclStatus : uint8_t {
    success = 0x00,
    malformed_command = 0x80,
    unsup_cluster_command = 0x81,
    unsup_general_command = 0x82,
    unsup_manuf_cluster_command = 0x83,
    unsup_manuf_general_command = 0x84,
    unsupported_attribute = 0x86,
    invalid_value = 0x87,
    read_only = 0x88,
    insufficient_space = 0x89,
    not_found = 0x8B,
    unreportable_attribute = 0x8C,
    invalid_data_type = 0x8D,
    unsupported_cluster = 0xC3,
};

inline constexpr size_t kZclMaxFrame = 100; // application payload that every path of the network carries unfragmented
inline constexpr uint8_t kZclReportAttributes = 0x0A;
inline constexpr uint8_t kZclFrameTypeMask = 0x03;
inline constexpr uint8_t kZclClusterSpecific = 0x01;
inline constexpr uint8_t kZclManufacturerSpecific = 0x04;
inline constexpr uint8_t kZclServerToClient = 0x08;
inline constexpr uint8_t kZclDisableDefaultResponse = 0x10;

// Appends an attribute value as it goes over the air, without its type byte.
void appendAttribute(std::vector<uint8_t> &bytes, const AttributeInfo &info, int64_t value);

class ZclServer {
public:
    ZclServer(Device &device, const EndpointSpec &endpoint, const ApsMessage &frame, bool broadcast,
              DeviceActions &actions)
        : device_(device), endpoint_(endpoint), frame_(frame), broadcast_(broadcast), actions_(actions) {}

    void serve();

private:
    // A command handler returns the status for the Default Response, or nothing when it has answered by itself.
    using Result = std::optional<ZclStatus>;
    using Handler = Result (ZclServer::*)(ByteReader &);
    struct GeneralCommand {
        uint8_t id;
        Handler handler;
    };
    struct ClusterCommand {
        uint16_t cluster_id;
        uint8_t id;
        uint8_t minimum_length; // of the payload behind the header; longer payloads are legal
        Handler handler;
    };
    struct WriteRecord;
    static const GeneralCommand kGeneralCommands[];
    static const ClusterCommand kClusterCommands[];

    Result general(ByteReader &in);
    Result cluster(ByteReader &in);
    Result readAttributes(ByteReader &in);
    Result writeAttributes(ByteReader &in);
    Result configureReporting(ByteReader &in);
    Result readReporting(ByteReader &in);
    Result discoverAttributes(ByteReader &in);
    Result reportAttributes(ByteReader &in);

    Result identify(ByteReader &in);
    Result identifyQuery(ByteReader &in);
    Result addGroup(ByteReader &in);
    Result addGroupIfIdentifying(ByteReader &in);
    Result viewGroup(ByteReader &in);
    Result getGroupMembership(ByteReader &in);
    Result removeGroup(ByteReader &in);
    Result removeAllGroups(ByteReader &in);
    Result switchOff(ByteReader &in);
    Result switchOn(ByteReader &in);
    Result toggle(ByteReader &in);
    Result moveToLevel(ByteReader &in);
    Result moveLevel(ByteReader &in);
    Result stepLevel(ByteReader &in);
    Result stopLevel(ByteReader &in);
    Result zoneEnrollResponse(ByteReader &in);

    const AttributeInfo *lookUp(uint16_t attribute_id) const;
    bool parseWrite(ByteReader &in, WriteRecord &record);
    void writeCieAddress();
    ZclStatus configureReport(ByteReader &in, uint16_t attribute_id, bool &readable);
    ZclStatus applyReport(const AttributeInfo &info, uint16_t minimum_s, uint16_t maximum_s, int64_t change);
    ZclStatus storeGroup(uint16_t group_id);
    void setLevel(int64_t level, ByteReader &options, bool with_on_off);
    int64_t current(uint16_t cluster_id, uint16_t attribute_id) const;
    void change(uint16_t cluster_id, uint16_t attribute_id, int64_t value);

    bool withOnOff() const { return command_ >= 0x04; } // Level Control: the second half of its commands
    std::vector<uint8_t> begin(uint8_t type, uint8_t command) const;
    void answer(std::vector<uint8_t> payload);
    void defaultResponse(ZclStatus status);

    Device &device_;
    const EndpointSpec &endpoint_;
    const ApsMessage &frame_;
    const bool broadcast_;
    DeviceActions &actions_;
    uint8_t control_ = 0;
    uint16_t manufacturer_ = 0;
    uint8_t sequence_ = 0;
    uint8_t command_ = 0;
    std::vector<ApsMessage> caused_; // reports and notifications, sent behind the answer
};

} // namespace corvane::mesh
