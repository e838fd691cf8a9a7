// SPDX-License-Identifier: Apache-2.0
//
// The HAL layer on a virtual clock, in either mode, with everything it reports recorded. advance() jumps from event to
// event of the mesh, so hours pass in milliseconds; nothing here sleeps for a fixed time.
#pragma once
#include "oru_zbhal.h"
#include "oru_zbhal_testing.h"
#include "test_platform.h"
#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <iterator>
#include <map>
#include <regex>
#include <sstream>
#include <thread>
#include <utility>

namespace zbhal_test {

namespace hal = corvane::zbhal::testing;
namespace mesh = corvane::mesh;

// Two sound install codes; the first is the test vector of the Base Device Behavior specification.
inline constexpr mesh::InstallCode kCode = {0x83, 0xFE, 0xD3, 0x40, 0x7A, 0x93, 0x97, 0x23, 0xA5,
                                            0xC6, 0x39, 0xB2, 0x69, 0x16, 0xD5, 0x05, 0xC3, 0xB5};
inline constexpr mesh::InstallCode kOther = {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xA9, 0xAF};

struct Confirmation {
    uint32_t request_id;
    uint16_t destination;
    uint8_t sequence;
    std::vector<uint8_t> message;
    auto operator<=>(const Confirmation &) const = default;
};

// Written by the one thread that delivers, read when nothing is being delivered.
struct Record {
    std::string trace;              // every report in words, but for energies: "stack up, 3 joined, "
    std::vector<uint16_t> node_ids; // in the trace
    std::vector<Confirmation> confirmations;
    std::map<uint8_t, int8_t> energy; // by channel
    size_t interpan = 0;              // completions
};
inline Record record;
inline std::function<void()> in_callback;      // called from inside the callbacks; empty: nothing
inline thread_local bool in_operation = false; // inside a HAL operation other than processAction and runEvents
inline std::atomic<int> pumping{0};            // more than 0: callbacks may come

// What must hold in every callback: never from inside an operation, and in descriptor mode only while the loop pumps.
inline void enter(uint16_t node_id, const std::string &text) {
    EXPECT_FALSE(in_operation) << text;
    EXPECT_GT(pumping, 0) << text;
    record.trace += text + ", ";
    record.node_ids.push_back(node_id);
    if (in_callback) {
        in_callback();
    }
}

// Runs one of the two operations that may deliver.
inline void pump(const std::function<void()> &operation) {
    ++pumping;
    operation();
    --pumping;
}

// number: last byte of its EUI-64, and its name in the trace.
inline mesh::DeviceSpec device(const std::string &name, uint8_t number, mesh::Role role = mesh::Role::router,
                               const std::string &parent = {}) {
    mesh::DeviceSpec spec;
    spec.name = name;
    spec.eui64 = {0x00, 0x12, 0x4B, 0x00, 0x00, 0x00, 0x01, number};
    spec.role = role;
    spec.parent = parent;
    spec.endpoints = {{1, 0x0104, 0x0100, 1, {0x0000, 0x0006}, {}}};
    return spec;
}

class HalTest : public ::testing::TestWithParam<hal::Mode> {
protected:
    void SetUp() override {
        char pattern[] = "/tmp/zbhal-test-XXXXXX";
        folder_ = mkdtemp(pattern);
        testplat::resetAll();
        pumping = GetParam() == hal::Mode::thread ? 1 : 0;
        scenario_.air.jitter_ms = 0; // so that the order of reports is that of their causes
    }
    void TearDown() override {
        hal::reset({});
        in_callback = nullptr;
        std::filesystem::remove_all(folder_);
    }

    // Starts the layer over with scenario_. The network is remembered when state_directory is set.
    void start(const std::string &state_directory = {}, uint64_t seed = 1) {
        hal::Options options;
        options.mode = GetParam();
        options.scenario = &scenario_;
        options.state_directory = state_directory;
        options.seed = seed;
        options.backends = backends_;
        hal::reset(options);
        record = {};
        char name[] = "virtual:given.toml";
        descriptor_ = -1;
        ASSERT_EQ(oruZbHal_enable(), ORU_STATUS_UNINITIALIZED);
        ASSERT_EQ(oruZbHal_init(callbacks(), &descriptor_), 0);
        ASSERT_EQ(descriptor_ != -1, GetParam() == hal::Mode::descriptor);
        ASSERT_EQ(oruZbHal_setAdapterName(name), 0);
        ASSERT_EQ(oruZbHal_enable(), 0);
    }
    void startWithNetwork(const std::string &state_directory = {}) {
        start(state_directory);
        play("wait @100 | stack enabling, stack without network\nform @300 | stack up");
    }
    static void advance(uint64_t milliseconds) {
        const uint64_t end_ms = testplat::time::nowMs() + milliseconds;
        for (;;) {
            const uint64_t next_ms = hal::nextEventUs() / 1000 + 1; // runs what is due
            const uint64_t now_ms = testplat::time::nowMs();
            if (hal::pendingIndications() > 0) {
                pump(oruZbHal_processAction);
                std::this_thread::yield();
            } else if (now_ms < end_ms) {
                testplat::time::advance(std::min(next_ms, end_ms) - now_ms);
            } else {
                return;
            }
        }
    }
    // Lines of "command @milliseconds => result | reports # why". Commands are those of run(), and requests of the
    // control socket, whose result is "ok" and a part of the answer, or the beginning of an error. So many milliseconds
    // go by then, 2000 unless told; the result is 0 unless told.
    void play(const std::string &transcript) {
        static const std::regex format(R"((.*?)(?: @(\d+))?(?: => (.*?))?(?: \| (.*?))?(?: #.*)?)");
        std::istringstream lines(transcript);
        for (std::string line; std::getline(lines, line);) {
            SCOPED_TRACE(line);
            std::smatch parts;
            ASSERT_TRUE(std::regex_match(line, parts, format));
            const std::string command = parts[1];
            const std::string expected = parts[3].matched ? parts[3].str() : "0";
            if (command.starts_with('{') || command.starts_with('[')) {
                const bool ok = expected.starts_with("ok");
                const std::string answer = mesh::handleControlLine(command, sim());
                EXPECT_NE(answer.find(ok ? expected.substr(2) : "{\"error\":\"" + expected), std::string::npos)
                    << answer;
                EXPECT_TRUE(answer.ends_with(ok ? "\"ok\":true}" : ",\"ok\":false}")) << answer;
            } else {
                EXPECT_EQ(run(command), expected);
            }
            advance(parts[2].matched ? std::stoull(parts[2]) : 2000);
            EXPECT_EQ(std::exchange(record.trace, ""), parts[4].matched ? parts[4].str() + ", " : "");
        }
    }
    std::string run(const std::string &command) {
        std::istringstream in(command);
        const std::vector<std::string> words{std::istream_iterator<std::string>(in), {}};
        const auto arg = [&words](size_t i) { return Number{std::stoll(words.at(i), nullptr, 0)}; };
        oruZbHal_networkParameters_t network{};
        (void)oruZbHal_getNetworkInfo(&network);
        const std::map<std::string, std::function<int64_t()>> commands = {
            {"wait", [] { return 0; }},
            {"enable", oruZbHal_enable},
            {"disable", oruZbHal_disable},
            {"reset", oruZbHal_reset},
            {"factory-reset", oruZbHal_factoryReset},
            {"form", form},
            {"form-as", [&] { return oruZbHal_formNetworkAuto(arg(1), arg(2), arg(3), arg(4), arg(5)); }},
            {"leave-network", oruZbHal_leaveNetwork},
            {"channel", [&] { return network.radio_channel; }},
            {"region", [&] { return oruZbHal_setRegion(arg(1)); }},
            {"power", [&] { return oruZbHal_setRadioPower(arg(1)); }},
            {"dbm", [&] { return network.radio_tx_power; }},
            {"permit", [&] { return oruZbHal_permitJoinNetwork(arg(1)); }},
            {"zts", [&] { return oruZbHal_permitJoinZts(arg(1)); }},
            {"code", [&] { return addInstallCode(spec(words.at(1)).eui64, words.at(2) == "right" ? kCode : kOther); }},
            {"send", [&] { return sendZcl(nodeId(words.at(1)), arg(2)); }}, // with the request id
            {"leave", [&] { return sendLeave(words.at(1), arg(2)); }},      // with the flags
            {"clear-codes", oruZbHal_clearTransientLinkKeys},
            {"interpan", [&] { return sendInterpan(arg(1)); }},
            {"scan", [&] { return oruZbHal_startScan(arg(1), arg(2), arg(3)); }},
            {"echo", [&] { return oruZbHal_echo(1); }},
        };
        return words.at(0) == "counters" ? counters() : std::to_string(commands.at(words.at(0))());
    }
    // Retries/failures of APS, MAC and clear-channel assessment, and the share denied, since the last time.
    static std::string counters() {
        oruZbHal_counters_t now{};
        EXPECT_EQ(oruZbHal_getDebugCounters(&now), 0);
        std::ostringstream text;
        text << now.aps_tx_ucast_retry << "/" << now.aps_tx_ucast_fail << " " << now.mac_tx_ucast_retry << "/"
             << now.mac_tx_ucast_fail << " " << now.cca_retries << "/" << now.cca_failures << " "
             << now.pta_denied_rate;
        EXPECT_EQ(oruZbHal_getAndClearDebugCounters(&now), 0);
        return text.str();
    }
    static oru_status_t form() { return oruZbHal_formNetworkAuto(1, 0x02108800, 0, 15, ORU_ZB_HAL_REGION_WORLD_WIDE); }

    static mesh::SimTarget &sim() { return *hal::simTarget(); }
    const mesh::DeviceSpec &spec(const std::string &name) {
        return *std::ranges::find(scenario_.devices, name, &mesh::DeviceSpec::name);
    }
    void join(const std::vector<std::string> &names) { // by hand, one after the other
        EXPECT_EQ(oruZbHal_permitJoinNetwork(true), 0);
        for (const std::string &name : names) {
            EXPECT_EQ(sim().join(name), "");
            advance(500);
            last_ids_[name] = nodeId(name);
        }
        EXPECT_EQ(oruZbHal_permitJoinNetwork(false), 0);
        record.trace.clear();
    }
    uint16_t nodeId(const std::string &name) { // of a device that is not there any more: the last one
        for (const mesh::SimDevice &device : sim().list()) {
            if (device.name == name && device.in_network) {
                return device.node_id;
            }
        }
        return last_ids_.at(name);
    }

    static oru_status_t addInstallCode(const mesh::Eui64 &eui64, mesh::InstallCode code) {
        uint8_t reversed[8];
        std::ranges::reverse_copy(eui64, reversed);
        return oruZbHal_addInstallCode(reversed, code.data(), code.size());
    }
    oru_status_t sendLeave(const std::string &name, uint8_t flags) {
        uint8_t frame[10] = {};
        if (name != "all") {
            std::ranges::reverse_copy(spec(name).eui64, frame + 1);
        }
        frame[9] = flags;
        oruZbHal_apsFrame_t aps_frame{0, 0x0034, 0, 0, ORU_ZB_HAL_APS_OPTION_RETRY, 0, 0, 0};
        return oruZbHal_sendZdoMessage(nodeId(name), &aps_frame, frame, sizeof frame, onSent, 0);
    }
    oru_status_t sendZcl(uint16_t node_id, uint32_t request_id) { // On/Off: toggle
        oruZbHal_apsFrame_t aps_frame{0x0104, 0x0006, 1, 1, ORU_ZB_HAL_APS_OPTION_RETRY, 0, 0, 0};
        uint8_t toggle[] = {0x01, 0x21, 0x02};
        in_operation = true;
        const oru_status_t status =
            oruZbHal_sendZclUnicast(node_id, &aps_frame, toggle, sizeof toggle, onSent, &request_id);
        in_operation = false;
        std::ranges::fill(toggle, uint8_t{0xEE}); // the caller's again
        sequence_ = aps_frame.sequence;
        return status;
    }
    static oru_status_t sendInterpan(uint32_t mask) {
        oruZbHal_interpanHeader_t header{};
        uint8_t frame[] = {0x11, 0x01, 0x00};
        return oruZbHal_sendRawInterpanMessageOnChannels(mask, &header, frame, sizeof frame, [](oru_status_t status) {
            ++record.interpan;
            enter(0, "interpan " + std::to_string(status));
        });
    }

    mesh::Scenario scenario_;
    std::vector<corvane::zbhal::Backend> backends_; // before the mesh alone
    int32_t descriptor_ = -1;
    uint8_t sequence_ = 0; // APS counter that the last ZCL send was given
    std::string folder_;   // of this test, removed at its end

private:
    struct Number { // of whatever type is needed
        int64_t value;
        template <typename Type>
        operator Type() const {
            return static_cast<Type>(value);
        }
    };
    std::map<std::string, uint16_t> last_ids_ = {{"all", 0xFFFF}, {"coordinator", 0}, {"nobody", 0x1234}};

    static bool onFrame(const oruZbHal_incomingMessage_t *frame) {
        const bool announce = frame->aps_frame->cluster_id == 0x0013;
        if (announce) {
            EXPECT_EQ(frame->message[1] | frame->message[2] << 8, frame->source);
        }
        EXPECT_EQ(frame->type, announce ? 4 : 0);
        EXPECT_TRUE(frame->last_hop_lqi > 0 && frame->last_hop_rssi < 0 && frame->binding_table_index == 0xFF);
        enter(frame->source, announce ? "announced" : "frame of " + std::to_string(frame->msg_len));
        return true;
    }
    static void onSent(oruZbHal_outgoingMessageType_t type, uint16_t destination, oruZbHal_apsFrame_t *aps_frame,
                       uint16_t length, uint8_t *message, oruZbHal_clusterCommandStatus_t status, uint32_t request_id) {
        EXPECT_EQ(type == ORU_ZB_HAL_OUTGOING_BROADCAST, destination >= 0xFFF8);
        record.confirmations.push_back({request_id, destination, aps_frame->sequence, {message, message + length}});
        enter(destination, "sent " + std::to_string(request_id) + ": " + std::to_string(status));
    }
    static oruZbHal_callbacks_t *callbacks() {
        static oruZbHal_callbacks_t table{};
        table.stack_status_callback = [](oruZbHal_stackStatus_t status) {
            constexpr const char *states[] = {"?",  "enabling",        "upgrading", "resetting",
                                              "up", "without network", "off",       "failed"};
            enter(0, std::string("stack ") + states[status]);
        };
        table.incoming_message_callback = onFrame;
        table.energy_scan_result_callback = [](uint8_t channel, int8_t rssi) { record.energy[channel] = rssi; };
        table.network_found_callback = [](oruZbHal_network_t *network, uint8_t, int8_t) {
            enter(network->pan_id, network->allowing_join ? "open network" : "closed network");
        };
        table.scan_complete_callback = [](uint8_t channel, oru_status_t status) {
            enter(0, "scanned to " + std::to_string(channel) + " " + std::to_string(status));
        };
        table.trust_center_callback = [](oruZbHal_nodeId_t node_id, uint8_t *eui64, oruZbHal_nodeId_t,
                                         oruZbHal_deviceUpdate_t update, oruZbHal_joinDecision_t decision) {
            constexpr const char *updates[] = {"rejoined", "joined", "left", "rejoined unsecured"};
            const char *denied = decision == ORU_ZB_HAL_DENY_JOIN ? " denied" : "";
            enter(node_id, std::to_string(eui64[0]) + " " + updates[update] + denied);
        };
        return &table;
    }
};

} // namespace zbhal_test
