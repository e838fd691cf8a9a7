// SPDX-License-Identifier: Apache-2.0
//
// A scenario: the virtual mesh as a TOML file describes it. Plain values, checked once by the parser; the rest of the
// mesh relies on the stated ranges.
#pragma once
#include "base/eui64.h"
#include "zigbee/install_code.h"
#include <array>
#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace corvane::mesh {

using base::Eui64;
using zigbee::InstallCode; // code and its CRC
using Key = zigbee::LinkKey;

enum class Role : uint8_t { router, end_device, sleepy_end_device };

// What a device does wrong. All off by default; settable by scenario and at run time.
struct Faults {
    bool silent = false;             // takes frames, never answers
    bool deaf = false;               // does not even acknowledge: sends to it fail
    uint32_t answer_delay_ms = 0;    // added to every answer
    uint8_t zdo_error_status = 0;    // status byte of ZDO responses when not 0
    int16_t zdo_length_delta = 0;    // bytes cut off (negative) or appended (positive) to ZDO responses
    bool duplicate_answers = false;  // every answer arrives twice
    uint8_t send_status = 0;         // confirmation status of sends to the device when not 0 (APS/NWK/MAC code)
    bool hold_confirmations = false; // confirmations are kept back until the adapter is reset
};

struct EndpointSpec {
    uint8_t id = 1;               // 1 to 240
    uint16_t profile_id = 0x0104; // Home Automation
    uint16_t device_id = 0;
    uint8_t device_version = 1;
    std::vector<uint16_t> input_clusters;  // server side on the device
    std::vector<uint16_t> output_clusters; // client side on the device
};

// An attribute that the device reports on its own.
struct ReportSpec {
    uint8_t endpoint = 1;
    uint16_t cluster_id = 0;
    uint16_t attribute_id = 0;
    uint32_t interval_ms = 60000; // at least 100
};
inline constexpr uint32_t kNoPeriodicReport = UINT32_MAX; // interval_ms of a report on change only

struct DeviceSpec {
    std::string name; // unique, used by the control socket
    Eui64 eui64{};    // unique
    Role role = Role::router;
    std::string parent;               // name of a router; empty: the coordinator
    uint8_t link_quality = 200;       // LQI of the link to the parent, 1 to 255
    uint16_t manufacturer_code = 0;   // node descriptor
    std::string manufacturer_name;    // Basic cluster, at most 32 characters
    std::string model;                // Basic cluster, at most 32 characters
    uint8_t mac_capabilities = 0;     // node descriptor and Device_annce
    uint8_t stack_revision = 22;      // node descriptor, server mask bits 9 to 15
    uint32_t poll_interval_ms = 1000; // sleepy end devices: how often the parent is asked for frames
    std::optional<InstallCode> install_code;
    bool install_code_only = false;     // joins only a network that knows its install code
    std::optional<uint32_t> join_at_ms; // after the network is open for joining; empty: only on request
    std::vector<EndpointSpec> endpoints;
    std::vector<ReportSpec> reports;
    Faults faults;
};

inline constexpr uint32_t kMaxInFlight = 64;

// The shared medium. Probabilities are 0.0 to 1.0.
struct AirSpec {
    uint32_t delay_ms = 8;              // one hop, its airtime included
    uint32_t jitter_ms = 6;             // random, added
    double loss = 0.0;                  // a frame is lost on one MAC attempt
    double interference = 0.0;          // clear-channel assessment fails on one attempt
    double pta_denial = 0.0;            // the local radio arbiter denies one request
    uint32_t max_in_flight = 32;        // sends the adapter holds at once; more are refused
    bool shared_medium = true;          // neighbours send one after the other, at 250 kbit/s
    uint32_t aps_ack_wait_ms = 1600;    // before an unacknowledged frame is sent again, or given up after three times
    uint32_t route_discovery_ms = 1500; // before a destination counts as unknown
    uint32_t indirect_queue_ms = 7680;  // a parent keeps a frame for a sleeping child that long
};

struct ForeignNetwork { // what an active scan finds
    uint16_t pan_id = 0;
    uint8_t channel = 11;
    bool permit_joining = false;
    Eui64 extended_pan_id{};
    uint8_t link_quality = 100;
};

struct CoordinatorSpec {
    Eui64 eui64{0x02, 0x00, 0xC0, 0xFF, 0xFE, 0x00, 0x00, 0x01};
    std::vector<uint8_t> firmware_version{7, 4, 1, 0};
    uint8_t child_capacity = 32;     // direct end-device children
    uint8_t key_table_capacity = 24; // install-code and application link keys
    uint32_t startup_ms = 50;        // enabling until the stack reports
    uint32_t form_ms = 150;          // forming until the network is up
    bool remembers_network = true;   // across a restart of the daemon, by a file in the state folder
};

struct Scenario {
    std::string name;
    uint64_t seed = 1;
    double speed = 1.0; // mesh time per real time for schedules and reports, 0.1 to 100
    CoordinatorSpec coordinator;
    AirSpec air;
    std::array<int8_t, 16> energy_dbm{}; // energy scan, channels 11 to 26; 0 means -90 plus noise
    std::vector<ForeignNetwork> foreign_networks;
    std::vector<DeviceSpec> devices;
};

// Position and reason of the first fault in a scenario text.
struct ScenarioError {
    std::string message; // "<file>:<line>:<column>: what is wrong and what is allowed"; no position if unreadable
};

// Reads and checks a scenario file. On failure the scenario is left as it was. Any thread.
[[nodiscard]] bool loadScenario(const std::string &path, Scenario &scenario, ScenarioError &error);

// The same from text; file is used in messages only.
[[nodiscard]] bool parseScenario(const std::string &text, const std::string &file, Scenario &scenario,
                                 ScenarioError &error);

} // namespace corvane::mesh
