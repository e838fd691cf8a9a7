// SPDX-License-Identifier: Apache-2.0
//
// The simulated co-processor and a host in one process, in virtual time, over a line that may be bad.
#include "coprocessor/ncp.h"
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <sstream>

using namespace corvane;
using namespace corvane::coprocessor;
using namespace corvane::zbhal::serial;
using Bytes = std::vector<uint8_t>;

namespace {

constexpr char HOME[] = R"(
name = "bench"
seed = 3
[air]
delay_ms = 1
jitter_ms = 0
[[device]]
name = "lamp"
eui64 = "02:00:00:ff:fe:00:00:10"
role = "router"
join_at_ms = 100
[[device.endpoint]]
id = 1
device_id = 0x0101
input_clusters = ["basic", "groups", "on_off"]
[[device]]
name = "door"
eui64 = "02:00:00:ff:fe:00:00:11"
role = "sleepy_end_device"
install_code = "83:fe:d3:40:7a:93:97:23:a5:c6:39:b2:69:16:d5:05:c3:b5"
[[device.endpoint]]
id = 1
device_id = 0x0402
input_clusters = ["basic"]
)";
constexpr EzspKey NETWORK_KEY = {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
constexpr EzspEui64 LAMP = {0x10, 0, 0, 0xFE, 0xFF, 0, 0, 2};
constexpr EzspEui64 DOOR = {0x11, 0, 0, 0xFE, 0xFF, 0, 0, 2};

std::string hex(std::span<const uint8_t> bytes) {
    std::string text(2 * bytes.size(), ' ');
    (void)base::hexText(bytes, text);
    return text;
}

mesh::Scenario bench() {
    mesh::Scenario scenario;
    mesh::ScenarioError error;
    EXPECT_TRUE(mesh::parseScenario(HOME, "bench", scenario, error)) << error.message;
    return scenario;
}

// One co-processor and one host, from power on to power off.
class Bench final : private AshSink {
public:
    Bench(uint8_t version, const std::string &folder, const std::string &memory = "stick",
          const mesh::Scenario &scenario = bench())
        : version_(version), radio(scenario, folder, MeshRadio::Clock([this] { return now_us_; }), [] {}),
          ncp({version, {}, folder.empty() ? "" : folder + "/" + memory, 5}, load(folder + "/" + memory), radio) {
        ncp.start(now_us_);
        connect();
    }
    ~Bench() override = default;

    void connect() {
        link_.connect(now_us_);
        advance(10);
    }

    // Sends a command and returns the parameters of its response as digits, "58: " in front of those of a refusal.
    template <class... Field>
    std::string ask(EzspId id, const Field &...fields) {
        Bytes room(ASH_MAX_DATA);
        FieldWriter out(room, version_);
        encodeHeader({EzspHeader::Kind::command, 0, id, legacy}, out.writer());
        (add(out, fields), ...);
        room.resize(out.size());
        return exchange(room);
    }
    std::string exchange(Bytes frame) {
        frame[0] = ++sequence_;
        answer_ = "none";
        EXPECT_TRUE(link_.send(frame, now_us_));
        for (int step = 0; step < 20000 && answer_ == "none"; ++step) {
            advance(1);
        }
        return answer_;
    }
    void advance(uint64_t milliseconds) {
        for (const uint64_t end_us = now_us_ + milliseconds * 1000;; now_us_ += 500) {
            while (carry()) {
            }
            if (now_us_ >= end_us) {
                return;
            }
        }
    }
    AshLink &host() { return link_; }
    std::string told() { return std::exchange(told_, ""); }
    std::string errors() { return std::exchange(errors_, ""); }

    // As a host starts, up to the network if there is one.
    std::string start() {
        legacy = true;
        const std::string version = ask(EzspId::version, version_);
        legacy = false;
        EXPECT_EQ(ask(EzspId::version, version_), version);
        EXPECT_EQ(ask(EzspId::set_configuration_value, uint8_t{0x1E}, uint16_t{8}), ok());
        EXPECT_EQ(ask(EzspId::set_policy, uint8_t{0}, uint8_t{3}), ok());
        EXPECT_EQ(ask(EzspId::add_endpoint, uint8_t{1}, uint16_t{0x0104}, uint16_t{5}, uint8_t{0}, uint8_t{1},
                      uint8_t{2}, uint16_t{0}, uint16_t{6}, uint16_t{8}),
                  ok());
        const std::string answer = ask(EzspId::network_init, uint16_t{0});
        advance(100);
        return version + " " + answer;
    }
    std::string form(const EzspKey &key, uint16_t pan_id = 0x1A62) {
        EzspSecurity security;
        security.bitmask = 0x0B84;
        security.network_key = key;
        EXPECT_EQ(ask(EzspId::set_initial_security_state, security), ok());
        EzspNetwork network;
        network.extended_pan_id = {1, 1, 1, 1, 1, 1, 1, 1};
        network.pan_id = pan_id;
        network.channel = 15;
        const std::string answer = ask(EzspId::form_network, network);
        advance(1000);
        return answer;
    }
    std::string send(uint16_t node_id, EzspAps aps, const Bytes &message, uint64_t wait_ms = 9000) {
        EzspUnicast unicast;
        unicast.destination = node_id;
        aps.options = 0x0140;
        unicast.aps = aps;
        unicast.tag = 0x42;
        unicast.message = message;
        const std::string answer = ask(EzspId::send_unicast, unicast);
        advance(wait_ms);
        return answer;
    }
    std::string toggle(uint16_t node_id) { return send(node_id, {0x0104, 6, 1, 1, 0, 0, 0}, {0x01, 0x21, 0x02}); }
    std::string toggleGroup(uint16_t group_id) {
        const Bytes message = {0x01, 0x23, 0x02};
        const std::string answer =
            ask(EzspId::send_multicast, EzspMulticast{{0x0104, 6, 1, 1, 0, group_id, 0}, 0, 0x43, message});
        advance(1000);
        return answer;
    }
    uint16_t nodeOf(const EzspEui64 &eui64) {
        const std::string digits = ask(EzspId::lookup_node_id, eui64);
        return static_cast<uint16_t>(std::stoi(digits.substr(2) + digits.substr(0, 2), nullptr, 16));
    }
    std::string ok() const { return version_ < 14 ? "00" : "00000000"; }
    std::string status(const char *narrow, const char *wide) const { return version_ < 14 ? narrow : wide; }

    bool legacy = false;

private:
    static NcpMemory load(const std::string &path) {
        std::string problem;
        return loadNcpMemory(path, problem).value_or(NcpMemory{});
    }
    template <class Field>
    void add(FieldWriter &out, const Field &field) {
        if constexpr (requires { out(field); }) {
            out(field);
        } else {
            put(out, field);
        }
    }
    // What both ends have written, to the other; false: nothing.
    bool carry() {
        const Bytes to_ncp = std::exchange(out_, {});
        ncp.feed(to_ncp, now_us_);
        bool moved = !to_ncp.empty();
        for (auto due = ncp.wire().due(now_us_); !due.empty(); due = ncp.wire().due(now_us_)) {
            const Bytes bytes(due.begin(), due.end());
            ncp.wire().consumed(bytes.size());
            link_.feed(bytes, now_us_);
            moved = true;
        }
        link_.tick(now_us_);
        return moved;
    }
    void write(std::span<const uint8_t> bytes) override { out_.insert(out_.end(), bytes.begin(), bytes.end()); }
    void up(uint8_t code) override { errors_ += "up " + std::to_string(code) + ";"; }
    void failed(AshFailure failure, uint8_t code) override {
        errors_ += "failed " + std::to_string(static_cast<int>(failure)) + " " + std::to_string(code) + ";";
    }
    void received(std::span<const uint8_t> payload) override {
        EzspHeader header;
        std::span<const uint8_t> rest;
        ASSERT_TRUE(decodeHeader(payload, header, rest));
        EXPECT_EQ(header.sequence, sequence_);
        if (header.kind == EzspHeader::Kind::response) {
            EXPECT_EQ(answer_, "none") << "two responses";
            answer_ = (header.id == EzspId::invalid_command ? "58: " : "") + hex(rest);
            return;
        }
        EXPECT_NE(answer_, "none") << "a callback before the response";
        FieldReader in(rest, version_);
        told_ += describe(header.id, in) + ";";
    }
    static std::string describe(EzspId id, FieldReader &in) {
        std::ostringstream text;
        EzspTrustCenterJoin join;
        EzspIncomingMessage message;
        EzspMessageSent sent;
        EzspStatus status{};
        switch (id) {
        case EzspId::stack_status:
            in.status(status);
            text << "stack " << std::hex << static_cast<unsigned>(status);
            break;
        case EzspId::trust_center_join:
            EXPECT_TRUE(get(in, join));
            text << "trust centre " << +join.update << " " << +join.decision;
            break;
        case EzspId::incoming_message:
            EXPECT_TRUE(get(in, message));
            text << (message.type == 4 ? "broadcast " : "message ") << std::hex << message.aps.cluster_id << " "
                 << (message.message.empty() ? "" : hex(message.message.subspan(1)));
            break;
        case EzspId::message_sent:
            EXPECT_TRUE(get(in, sent));
            text << "sent " << std::hex << sent.tag << " " << static_cast<unsigned>(sent.status);
            break;
        default:
            text << "callback " << std::hex << static_cast<unsigned>(id);
            return text.str();
        }
        EXPECT_TRUE(in.ok() && in.rest().empty());
        return text.str();
    }

    const uint8_t version_;
    uint64_t now_us_ = 1'000'000;
    uint8_t sequence_ = 0;
    AshLink link_{AshLink::Role::host, *this};
    Bytes out_;
    std::string answer_, told_, errors_;

public:
    MeshRadio radio;
    Ncp ncp;
};

class CoprocessorTest : public ::testing::TestWithParam<uint8_t> {
protected:
    CoprocessorTest() {
        std::string path = (std::filesystem::temp_directory_path() / "radioXXXXXX").string();
        folder = ::mkdtemp(path.data());
    }
    ~CoprocessorTest() override { std::filesystem::remove_all(folder); }
    std::string folder;
};
INSTANTIATE_TEST_SUITE_P(Versions, CoprocessorTest, ::testing::Values(13, 14, 18, 19),
                         [](const auto &version) { return std::to_string(version.param); });

TEST_P(CoprocessorTest, CarriesANetworkFromFormingToARestart) {
    uint16_t lamp = 0;
    {
        Bench bench(GetParam(), folder);
        EXPECT_EQ(bench.start(),
                  hex(Bytes{GetParam()}) + "021074 " + bench.status("93", "17000000")); // firmware 7.4.1.0
        EXPECT_EQ(bench.form(NETWORK_KEY), bench.ok());
        EXPECT_EQ(bench.told(), "stack 15;");
        EXPECT_EQ(bench.ask(EzspId::get_node_id), "0000");
        EXPECT_EQ(bench.ask(EzspId::permit_joining, uint8_t{2}), bench.ok());
        bench.advance(1000);
        EXPECT_EQ(bench.told().substr(0, 57), "stack c18;callback 23;trust centre 1 0;broadcast 13 " +
                                                  bench.ask(EzspId::lookup_node_id, LAMP) + "1");
        bench.advance(2000);
        EXPECT_EQ(bench.told(), "stack c19;"); // two seconds are over
        EXPECT_NE(bench.ask(EzspId::find_key_table_entry, LAMP, true), "ff");
        lamp = bench.nodeOf(LAMP);
        EXPECT_EQ(bench.toggle(lamp).substr(0, 2), "00");
        EXPECT_EQ(bench.told(), "sent 42 0;message 6 210b0200;");
        EXPECT_EQ(bench.send(lamp, {0x0104, 4, 1, 1, 0, 0, 0}, {0x01, 0x22, 0x00, 5, 0, 0}).substr(0, 2), "00");
        EXPECT_EQ(bench.told(), "sent 42 0;message 4 2200000500;");
        EXPECT_NE(bench.toggleGroup(0).substr(0, 2), "00");
        EXPECT_EQ(bench.toggleGroup(6).substr(0, 2), "00"); // nobody is in it
        EXPECT_EQ(bench.toggleGroup(5).substr(0, 2), "00");
        EXPECT_EQ(bench.told(), "sent 43 0;sent 43 0;");
        EXPECT_EQ(bench.send(lamp, {0x0104, 6, 1, 1, 0, 0, 0}, {0x00, 0x24, 0x00, 0, 0}).substr(0, 2), "00");
        EXPECT_EQ(bench.told(), "sent 42 0;message 6 24010000001000;"); // off again
        EXPECT_NE(bench.radio.simulation().refuseNext("sendZclUnicast", 1, 1), "");
        EXPECT_EQ(bench.radio.simulation().refuseNext("confirmation", 1, 0xE9), "");
        EXPECT_EQ(bench.toggle(lamp).substr(0, 2), "00");
        EXPECT_EQ(bench.told(), "sent 42 c02;message 6 210b0200;");
        for (const char *told : {"", "callback 98;"}) { // of one that is lost, and of one that is not
            EXPECT_EQ(bench.radio.simulation().refuseNext("interpanCompletion", *told == 0 ? 1 : 0, 1), "");
            EXPECT_EQ(bench.ask(EzspId::send_raw_message, Bytes{3, 7, 8, 9}), bench.ok());
            bench.advance(1000);
            EXPECT_EQ(bench.told(), told);
        }
        EXPECT_EQ(bench.radio.simulation().report("lamp"), "the device has no reports");
        EXPECT_EQ(bench.radio.simulation().announce("lamp"), "");
        bench.advance(100);
        EXPECT_EQ(bench.told().substr(0, 13), "broadcast 13 ");
        EXPECT_EQ(bench.toggle(0x7777).substr(0, 2), "00"); // nobody
        EXPECT_EQ(bench.told(), "sent 42 c02;");
    }
    Bench bench(GetParam(), folder);
    EXPECT_EQ(bench.start().substr(9), bench.ok());
    EXPECT_EQ(bench.told(), "stack 15;");
    EXPECT_EQ(bench.nodeOf(LAMP), lamp);
    EXPECT_EQ(bench.toggle(lamp).substr(0, 2), "00");
    EXPECT_EQ(bench.told(), "sent 42 0;message 6 210b0200;");
    EXPECT_EQ(bench.radio.simulation().leave("lamp"), "");
    bench.advance(100);
    EXPECT_EQ(bench.told(), "callback 23;trust centre 2 3;");
    EXPECT_EQ(bench.ask(EzspId::leave_network), bench.ok());
    bench.advance(100);
    EXPECT_EQ(bench.told(), "stack 16;");
    EXPECT_EQ(bench.ask(EzspId::network_init), bench.status("93", "17000000"));
}

TEST_P(CoprocessorTest, AnswersEveryCommandUnknownOnesAndBrokenOnesToo) {
    Bench bench(GetParam(), "");
    bench.start();
    bench.form(NETWORK_KEY);
    for (uint16_t id = 0; id < 0x130; ++id) {
        for (const size_t size : {0, 1, 9, 40}) {
            Bytes frame{0, 0, 1, static_cast<uint8_t>(id), static_cast<uint8_t>(id >> 8)};
            frame.resize(frame.size() + size, 0x0B);
            if (static_cast<EzspId>(id) == EzspId::reset_node) {
                continue;
            }
            EXPECT_NE(bench.exchange(frame), "none") << id << " with " << size;
        }
    }
    for (const int id : {0x13, 0x57, 0x58, 0x19, 0x200, 0xFFFF}) {
        EXPECT_EQ(bench.ask(static_cast<EzspId>(id)), "58: 31") << id;
    }
    for (const EzspId id : {EzspId::send_unicast, EzspId::form_network, EzspId::set_policy, EzspId::echo}) {
        EXPECT_EQ(bench.ask(id), "58: 31");
    }
    EXPECT_EQ(bench.ask(EzspId::echo, Bytes{3, 7, 8, 9}), "03070809");
}

TEST_P(CoprocessorTest, AnswersZdoToItsOwnNode) {
    Bench bench(GetParam(), "");
    bench.start();
    bench.form(NETWORK_KEY);
    bench.told();
    const struct {
        uint16_t cluster_id;
        Bytes request;
        const char *answer;
    } rows[] = {
        {0x0000, {7, 1, 0, 0, 0xFE, 0xFF, 0xC0, 0, 2, 0}, "8000 0001000 0feffc000020000"},
        {0x0001, {7, 0, 0, 0}, "8001 00010000feffc000020000"},
        {0x0002, {7, 0, 0}, "8002 000000004"},
        {0x0004, {7, 0, 0, 1}, "8004 0000000e01040105000001000002060008 00"},
        {0x0004, {7, 0, 0, 9}, "8004 83000000"},
        {0x0004, {7, 0, 0, 0}, "8004 82000000"},
        {0x0005, {7, 0, 0}, "8005 0000000101"},
        {0x0006, {7, 0, 0, 4, 1, 1, 6, 0, 1, 8, 0}, "8006 0000000101"},
        {0x0005, {7, 4, 0}, "8005 81000000"},
        {0x0031, {7, 0}, "8031 84"},
    };
    for (const auto &[cluster_id, request, answer] : rows) {
        EXPECT_EQ(bench.send(0, {0, cluster_id, 0, 0, 0, 0, 0}, request).substr(0, 2), "00");
        std::string expected = answer;
        expected.erase(std::remove(expected.begin() + 5, expected.end(), ' '), expected.end());
        EXPECT_EQ(bench.told().substr(0, 18 + expected.size()), "sent 42 0;message " + expected) << answer;
    }
}

TEST_P(CoprocessorTest, LetsDevicesWithInstallCodesInAndNobodyElse) {
    const mesh::Key right = zigbee::installCodeKey(*bench().devices[1].install_code);
    Bench bench(GetParam(), "");
    bench.start();
    bench.form(NETWORK_KEY);
    EXPECT_EQ(bench.ask(EzspId::set_policy, uint8_t{0}, uint8_t{0x13}), bench.ok());
    EXPECT_EQ(bench.ask(EzspId::permit_joining, uint8_t{0xFF}), bench.ok());
    bench.told();
    mesh::SimTarget &sim = bench.radio.simulation();
    EXPECT_EQ(sim.join("door"), "no install code was added for the device");
    bench.advance(10);
    EXPECT_EQ(bench.told(), "trust centre 1 2;");
    EXPECT_EQ(bench.ask(EzspId::import_transient_key, DOOR, NETWORK_KEY, uint8_t{0}), "00000000");
    EXPECT_EQ(sim.join("door"), "the install code that was added is not the device's");
    EXPECT_EQ(bench.ask(EzspId::import_transient_key, DOOR, right, uint8_t{0}), "00000000");
    EXPECT_NE(bench.ask(EzspId::export_transient_key_by_index, uint8_t{0}).find(hex(right)), std::string::npos);
    bench.told();
    EXPECT_EQ(sim.join("door"), "");
    EXPECT_EQ(sim.join("lamp"), "no install code was added for the device");
    bench.advance(50);
    EXPECT_EQ(bench.told().substr(0, 46), "callback 23;trust centre 1 0;trust centre 1 2;");
    EXPECT_EQ(bench.ask(EzspId::get_child_data, uint8_t{0}).substr(bench.ok().size(), 18), hex(DOOR) + "04");
    EXPECT_EQ(bench.ask(EzspId::clear_transient_link_keys), "");
    EXPECT_EQ(bench.ask(EzspId::permit_joining, uint8_t{0}), bench.ok());
    EXPECT_EQ(sim.join("lamp"), "the network is closed for joining");
}

TEST_P(CoprocessorTest, FindsTheDevicesAgainThroughAnotherStickThatKnowsTheirKey) {
    const auto joined = [&](const std::string &stick, const EzspKey &key) {
        Bench bench(GetParam(), folder, stick);
        bench.start();
        if (stick != "stick") {
            bench.form(key);
        }
        bench.ask(EzspId::permit_joining, uint8_t{stick == "stick" ? uint8_t{1} : uint8_t{0}});
        bench.advance(1000);
        return bench.nodeOf(LAMP);
    };
    {
        Bench bench(GetParam(), folder);
        bench.start();
        bench.form(NETWORK_KEY);
    }
    const uint16_t lamp = joined("stick", NETWORK_KEY);
    EXPECT_NE(lamp, mesh::kNoNode);
    EXPECT_EQ(joined("second", NETWORK_KEY), lamp);
    EzspKey other = NETWORK_KEY;
    ++other[0];
    EXPECT_EQ(joined("third", other), mesh::kNoNode);
}

TEST_P(CoprocessorTest, GoesOnOverABadLineAndComesBackFromFailures) {
    Bench bench(GetParam(), "");
    bench.start();
    bench.form(NETWORK_KEY);
    const struct {
        const char *what;
        WireFaults faults;
    } rows[] = {
        {"lost", {.lost = 0.02}},          {"flipped", {.flipped = 0.01}},        {"inserted", {.inserted = 0.02}},
        {"XON", {.flow_bytes = 0.3}},      {"half frames", {.half_frames = 0.2}}, {"NAKs", {.naks = 0.3}},
        {"not ready", {.not_ready = 0.5}}, {"late ACKs", {.ack_delay_ms = 300}},  {"slow", {.bits_per_second = 9600}},
    };
    for (const auto &[what, faults] : rows) {
        bench.ncp.wire().setFaults(faults);
        for (uint8_t number = 0; number < 40; ++number) {
            EXPECT_EQ(bench.ask(EzspId::echo, Bytes{2, number, 0x7E}), hex(Bytes{2, number, 0x7E})) << what;
        }
    }
    bench.ncp.wire().setFaults({.refuse_config = 0x1C, .refuse_command = static_cast<int32_t>(EzspId::nop)});
    EXPECT_NE(bench.ask(EzspId::set_configuration_value, uint8_t{0x1C}, uint16_t{1}), bench.ok());
    EXPECT_EQ(bench.ask(EzspId::nop), "58: 31");
    bench.ncp.wire().setFaults({});
    EXPECT_EQ(bench.errors(), "up 11;");
    EXPECT_EQ(bench.told(), "stack 15;");
    const struct {
        std::function<void()> fault;
        const char *error;
    } failures[] = {
        {[&] { bench.ncp.resetByItself(2); }, "failed 2 2;"},
        {[&] { bench.ncp.fail(6); }, "failed 3 6;"},
        {[&] { EXPECT_EQ(bench.radio.simulation().adapterReset(), ""); }, "failed 2 3;"},
        {[&] { EXPECT_EQ(bench.radio.simulation().adapterFatalError(), ""); }, "failed 3 6;"},
    };
    for (const auto &[fault, error] : failures) {
        EXPECT_EQ(bench.ask(EzspId::network_state), "02");
        EXPECT_EQ(bench.send(0x7777, {}, {1}, 1).substr(0, 2), "00"); // its confirmation dies with the session
        EXPECT_EQ(bench.told(), "");
        fault();
        bench.advance(2000);
        EXPECT_EQ(bench.errors(), error);
        bench.told();
        bench.connect();
        EXPECT_EQ(bench.told(), ""); // nothing is said before the first command
        EXPECT_EQ(bench.ask(EzspId::network_state), "00");
        EXPECT_EQ(bench.start().substr(9), bench.ok());
        EXPECT_EQ(bench.told(), "stack 15;");
        EXPECT_EQ(bench.errors(), "up 11;");
    }
    EXPECT_EQ(bench.radio.simulation().adapterHang(1000), "");
    EXPECT_EQ(bench.ask(EzspId::nop), ""); // late, after the silence
    EXPECT_EQ(bench.errors(), "");
}

// A host without room, or a slow line, holds the mesh back instead of losing what it reports.
TEST_P(CoprocessorTest, LosesNobodyWhenManyJoinAtOnce) {
    constexpr size_t DEVICES = 200;
    mesh::Scenario many = bench();
    mesh::DeviceSpec lamp = many.devices[0];
    many.devices.clear();
    for (size_t i = 0; i < DEVICES; ++i) {
        lamp.name = "lamp" + std::to_string(i);
        lamp.eui64[7] = static_cast<uint8_t>(i);
        many.devices.push_back(lamp);
    }
    Bench bench(GetParam(), "", "", many);
    bench.start();
    bench.form(NETWORK_KEY);
    bench.ncp.wire().setFaults({.lost = 0.001, .bits_per_second = 115200});
    EXPECT_EQ(bench.ask(EzspId::permit_joining, uint8_t{0xFF}), bench.ok());
    bench.host().setReady(false, 0);
    bench.advance(2500);
    bench.host().setReady(true, 0);
    bench.advance(20000);
    std::istringstream told(bench.told());
    std::map<std::string, size_t> counts;
    for (std::string event; std::getline(told, event, ';');) {
        ++counts[event.substr(0, 11)];
    }
    EXPECT_EQ(counts["trust centr"], DEVICES);
    EXPECT_EQ(counts["broadcast 1"], DEVICES);
    EXPECT_EQ(bench.errors(), "up 11;");
}

TEST(NcpMemory, IsReadBackAndRefusedWhenDamaged) {
    NcpMemory memory;
    memory.network = NcpNetwork{};
    memory.network->parameters.channel = 26;
    memory.network->network_key = NETWORK_KEY;
    memory.frame_counter = UINT32_MAX;
    memory.link_keys = {{{1, 2, 3, 4, 5, 6, 7, 8}, NETWORK_KEY}};
    const std::string text = formatNcpMemory(memory);
    ASSERT_TRUE(parseNcpMemory(text));
    EXPECT_EQ(formatNcpMemory(*parseNcpMemory(text)), text);
    for (const auto &[from, to] : std::map<std::string, std::string>{{"26", "27"},
                                                                     {"0506", "05"},
                                                                     {"\"key\"", "\"k\""},
                                                                     {"{", "["},
                                                                     {"4294967295", "4294967296"},
                                                                     {"\"format\": 1", "\"format\": 2"}}) {
        std::string damaged = text;
        damaged.replace(damaged.find(from), from.size(), to);
        EXPECT_FALSE(parseNcpMemory(damaged)) << from;
    }
}

} // namespace
