// SPDX-License-Identifier: Apache-2.0
//
// The application of one virtual device: its ZDO and its ZCL clusters. Pure state: no time source, no thread, no
// address book. The mesh decides when a frame arrives and when an answer goes out.
#pragma once
#include "oru_zbhal_types.h"
#include "scenario.h"
#include <cstdint>
#include <map>
#include <optional>
#include <set>
#include <span>
#include <string>
#include <vector>

namespace corvane::mesh {

// One APS frame on its way, in either direction, seen from the device.
struct ApsMessage {
    uint16_t profile_id = 0;
    uint16_t cluster_id = 0;
    uint8_t source_endpoint = 0;
    uint8_t destination_endpoint = 0;
    std::vector<uint8_t> payload; // ZDO or ZCL frame
};

// What a frame made the device do beside answering.
struct DeviceActions {
    std::vector<ApsMessage> answers; // to the sender, in order; faults already applied
    bool leave = false;              // Mgmt_Leave_req: leave the network after the answers
    bool rejoin = false;             // and come back
    bool reports_changed = false;    // Configure Reporting: look at spec().reports again
};

class Device {
public:
    static constexpr size_t kMaxReports = 64; // of the scenario and of Configure Reporting together

    explicit Device(DeviceSpec spec);

    // Configure Reporting changes intervals in spec().reports and appends to it; entries never move or vanish.
    const DeviceSpec &spec() const { return spec_; }
    Faults &faults() { return spec_.faults; }

    // The device has been given an address (on join, rejoin or address change).
    void setNodeId(uint16_t node_id) { node_id_ = node_id; }
    uint16_t nodeId() const { return node_id_; }

    bool isInGroup(uint8_t endpoint, uint16_t group_id) const { return groups_.contains({endpoint, group_id}); }

    // Handles one frame sent to it (unicast or broadcast). Frames of any length and content are legal input.
    DeviceActions receive(const ApsMessage &frame, bool broadcast);

    // ZDO Device_annce with the next ZDO sequence number (12 bytes after it: see the Zigbee specification).
    ApsMessage announce();

    // Report Attributes of one configured report with the current value (sensor values drift by seeded noise).
    ApsMessage report(const ReportSpec &spec, uint64_t random);

    // The state that a person would look at, for the control socket: "on", "level 128", "21.4 C", ...
    std::string describe() const;

    // Sets an attribute by hand (control socket), for example contact opened. False: no such attribute, or the value
    // is outside its range.
    bool setAttribute(uint8_t endpoint, uint16_t cluster_id, uint16_t attribute_id, int64_t value);

    // What setAttribute made the device want to send to the coordinator: a report of an attribute that has one
    // configured, or a Zone Status Change Notification. Empties the list; call it after setAttribute.
    std::vector<ApsMessage> takePending();

private:
    friend class ZclServer;
    friend class ZdoServer;

    struct Reporting { // configured report, by Configure Reporting or by the scenario
        uint16_t minimum_s = 0;
        uint16_t maximum_s = 0; // 0: on change only
        int64_t change = 1;     // analogue attributes: smallest difference worth a report
        int64_t last = 0;       // value in the last report
    };

    static uint64_t key(uint8_t endpoint, uint16_t cluster_id, uint16_t attribute_id) {
        return uint64_t{endpoint} << 32 | uint64_t{cluster_id} << 16 | attribute_id;
    }
    const EndpointSpec *endpoint(uint8_t id) const;
    bool isOn(uint8_t endpoint) const; // also true without On/Off cluster
    std::optional<int64_t> value(uint8_t endpoint, uint16_t cluster_id, uint16_t attribute_id) const;
    std::string text(uint16_t attribute_id) const; // Basic cluster character strings
    std::string describeEndpoint(uint8_t endpoint) const;
    // Stores a value and appends the frames that the change causes.
    void change(uint8_t endpoint, uint16_t cluster_id, uint16_t attribute_id, int64_t value,
                std::vector<ApsMessage> &frames);
    void reportIfDue(uint8_t endpoint, uint16_t cluster_id, uint16_t attribute_id, std::vector<ApsMessage> &frames);
    ApsMessage reportFrame(uint8_t endpoint, uint16_t cluster_id, uint16_t attribute_id, int64_t value);
    void drift(const ReportSpec &spec, uint64_t random);
    void applyFaults(DeviceActions &actions, bool zdo) const;

    DeviceSpec spec_;
    uint16_t node_id_ = 0xFFFF;
    uint8_t zdo_sequence_ = 0;
    uint8_t zcl_sequence_ = 0;
    std::map<uint64_t, int64_t> attributes_; // endpoint << 32 | cluster << 16 | attribute
    std::map<uint64_t, Reporting> reporting_;
    std::set<std::pair<uint8_t, uint16_t>> groups_; // endpoint, group id
    std::set<std::vector<uint8_t>> bindings_;       // as in Bind_req, without sequence number
    std::vector<ApsMessage> pending_;
    uint64_t energy_rest_ = 0; // metering: consumed but not yet a whole Wh, in W ms
};

} // namespace corvane::mesh
