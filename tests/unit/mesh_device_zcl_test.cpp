// SPDX-License-Identifier: Apache-2.0
#include "mesh_device_support.h"
#include <random>

namespace corvane::mesh {
namespace {

// Endpoint 1 has everything, endpoint 2 is the client of On/Off only.
const char *const kEverything = R"(
[[device]]
name = "all"
eui64 = "02:11:22:33:44:55:66:77"
manufacturer_code = 0xABCD
manufacturer_name = "Maker"
model = "All in one"
[[device.endpoint]]
id = 1
input_clusters = ["basic", "power_configuration", "identify", "groups", "scenes", "on_off", "level", "temperature",
                  "humidity", "occupancy", "ias_zone", "metering", "electrical_measurement", 0xFC01]
output_clusters = ["ota_upgrade"]
[[device.endpoint]]
id = 2
output_clusters = ["on_off"]
[[device.report]]
cluster = "on_off"
attribute = "on_off"
[[device.report]]
cluster = "level"
attribute = "current_level"
[[device.report]]
cluster = "temperature"
attribute = "measured_value"
interval_ms = 5000
[[device.report]]
cluster = "metering"
attribute = "instantaneous_demand"
[[device.report]]
cluster = "metering"
attribute = "current_summation_delivered"
interval_ms = 60000
)";

struct ZclCase {
    const char *what;
    uint16_t cluster_id;
    const char *request;
    const char *answers;
};

class MeshDeviceZcl : public testing::Test {
protected:
    std::string send(uint16_t cluster_id, const std::string &request, bool broadcast = false, uint8_t endpoint = 1,
                     uint16_t profile_id = 0x0104) {
        return hex(device.receive({profile_id, cluster_id, 0x0A, endpoint, bytes(request)}, broadcast).answers);
    }
    void run(std::span<const ZclCase> cases) {
        for (const ZclCase &test : cases) {
            EXPECT_EQ(send(test.cluster_id, test.request), test.answers) << test.what;
        }
    }
    Device device = deviceFrom(kEverything);
};

// Each answer: frame control 18 (server to client, no default response), the request's sequence number, command.
TEST_F(MeshDeviceZcl, ReadsAndWritesAttributes) {
    constexpr ZclCase kCases[] = {
        {"model and power source", 0x0000, "00 11 00 05 00 07 00",
         "18 11 01 05 00 00 42 0a 41 6c 6c 20 69 6e 20 6f 6e 65 07 00 00 30 01"},
        {"one unknown, one good", 0x0006, "00 12 00 99 99 00 00", "18 12 01 99 99 86 00 00 00 10 00"},
        {"cluster revision of a cluster without attributes", 0xFC01, "00 13 00 fd ff", "18 13 01 fd ff 00 21 01 00"},
        {"signed, 24 and 48 bits", 0x0702, "00 14 00 00 04 00 00",
         "18 14 01 00 04 00 2a 00 00 00 00 00 00 25 39 30 00 00 00 00"},
        {"odd length", 0x0006, "00 15 00 00 00 01", "18 15 0b 00 80"},
        {"no attribute at all", 0x0006, "00 16 00", "18 16 0b 00 80"},
        {"manufacturer specific", 0x0006, "04 cd ab 17 00 00 00", "1c cd ab 17 01 00 00 86"},
        {"to the client side", 0x0019, "08 18 00 00 00", "10 18 01 00 00 86"},
        {"write", 0x0003, "00 20 02 00 00 21 3c 00", "18 20 04 00"},
        {"written", 0x0003, "00 21 00 00 00", "18 21 01 00 00 00 21 3c 00"},
        {"write: unknown, read only, wrong type, good", 0x0006,
         "00 22 02 99 99 42 01 41 00 00 10 01 03 40 20 00 01 40 21 05 00", "18 22 04 86 99 99 88 00 00 8d 03 40"},
        {"the good one was written", 0x0006, "00 23 00 01 40", "18 23 01 01 40 00 21 05 00"},
        {"undivided: all or nothing", 0x0006, "00 24 03 01 40 21 09 00 00 00 10 01", "18 24 04 88 00 00"},
        {"nothing", 0x0006, "00 25 00 01 40", "18 25 01 01 40 00 21 05 00"},
        {"write without response", 0x0006, "00 26 05 01 40 21 07 00", ""},
        {"written silently", 0x0006, "00 27 00 01 40", "18 27 01 01 40 00 21 07 00"},
        {"write: value cut", 0x0003, "00 28 02 00 00 21 3c", "18 28 0b 02 80"},
        {"write: text longer than the frame", 0x0000, "00 29 02 05 00 42 ff 41", "18 29 0b 02 80"},
        {"write: type of unknown extent", 0x0000, "00 2a 02 05 00 48 01", "18 2a 0b 02 80"},
        {"discover two", 0x0006, "00 30 0c 00 00 02", "18 30 0d 00 00 00 10 01 40 21"},
        {"discover the rest", 0x0006, "00 31 0c 02 40 ff", "18 31 0d 01 02 40 21 03 40 30 fd ff 21"},
        {"discover cut", 0x0006, "00 32 0c 00 00", "18 32 0b 0c 80"},
    };
    run(kCases);
}

TEST_F(MeshDeviceZcl, ConfiguresReporting) {
    constexpr ZclCase kCases[] = {
        {"battery every 10 to 20 s, change 2", 0x0001, "00 40 06 00 21 00 20 0a 00 14 00 02", "18 40 07 00"},
        {"read back", 0x0001, "00 41 08 00 21 00 00 20 00", "18 41 09 00 00 21 00 20 0a 00 14 00 02 8b 00 20 00"},
        {"unreportable, unknown, wrong type, minimum above maximum", 0x0006,
         "00 42 06 00 01 40 21 00 00 01 00 01 00 00 99 99 10 00 00 01 00 00 00 00 20 00 00 01 00 01 00 00 00 10 02 00 "
         "01 00",
         "18 42 07 8c 00 01 40 86 00 99 99 8d 00 00 00 87 00 00 00"},
        {"reports to be received", 0x0006, "00 43 06 01 00 00 10 00", "18 43 07 86 01 00 00"},
        {"cut", 0x0001, "00 44 06 00 21 00 20 0a 00 14 00", "18 44 0b 06 80"},
        {"no such direction", 0x0001, "00 45 06 02 21 00 20 0a 00 14 00 02", "18 45 0b 06 80"},
    };
    const size_t before = device.spec().reports.size();
    run(kCases);
    ASSERT_EQ(device.spec().reports.size(), before + 1);
    EXPECT_EQ(device.spec().reports.back().interval_ms, 20000U);

    EXPECT_TRUE(device.setAttribute(1, 0x0001, 0x0021, 199)); // less than the reportable change
    EXPECT_EQ(hex(device.takePending()), "");
    EXPECT_TRUE(device.setAttribute(1, 0x0001, 0x0021, 198));
    EXPECT_EQ(hex(device.takePending()), "18 00 0a 21 00 20 c6");

    const auto stop = device.receive({0x0104, 0x0001, 1, 1, bytes("00 46 06 00 21 00 20 00 00 ff ff 01")}, false);
    EXPECT_TRUE(stop.reports_changed);
    EXPECT_EQ(device.spec().reports.back().interval_ms, kNoPeriodicReport);
    EXPECT_TRUE(device.setAttribute(1, 0x0001, 0x0021, 100));
    EXPECT_EQ(hex(device.takePending()), "");
}

// In the order in which they are sent; a change is reported behind the Default Response.
TEST_F(MeshDeviceZcl, ObeysClusterCommands) {
    constexpr ZclCase kCases[] = {
        {"on, with demand of the load", 0x0006, "01 01 01",
         "18 01 0b 01 00 | 18 00 0a 00 00 10 01 | 18 01 0a 00 04 2a 3c 00 00"},
        {"on again changes nothing", 0x0006, "01 02 01", "18 02 0b 01 00"},
        {"toggle without default response", 0x0006, "11 03 02", "18 02 0a 00 00 10 00 | 18 03 0a 00 04 2a 00 00 00"},
        {"level alone leaves a lamp that is off", 0x0008, "01 04 00 80 0a 00", "18 04 0b 00 00"},
        {"unless the options say so", 0x0008, "01 05 00 80 0a 00 01 01", "18 05 0b 00 00 | 18 04 0a 00 00 20 80"},
        {"move to level with on/off", 0x0008, "01 06 04 40 0a 00",
         "18 06 0b 04 00 | 18 05 0a 00 00 20 40 | 18 06 0a 00 00 10 01 | 18 07 0a 00 04 2a 3c 00 00"},
        {"step down", 0x0008, "01 07 02 01 10 00 00", "18 07 0b 02 00 | 18 08 0a 00 00 20 30"},
        {"move up", 0x0008, "01 08 01 00 ff", "18 08 0b 01 00 | 18 09 0a 00 00 20 fe"},
        {"level 255", 0x0008, "01 09 00 ff 00 00", "18 09 0b 00 87"},
        {"level 0 with on/off switches off", 0x0008, "11 0a 04 00 00 00",
         "18 0a 0a 00 00 20 01 | 18 0b 0a 00 00 10 00 | 18 0c 0a 00 04 2a 00 00 00"},
        {"identify query of one that does not", 0x0003, "01 0b 01", "18 0b 0b 01 00"},
        {"identify", 0x0003, "01 0c 00 05 00", "18 0c 0b 00 00"},
        {"identify query", 0x0003, "01 0d 01", "19 0d 00 05 00"},
        {"add group 7", 0x0004, "01 0e 00 07 00 02 61 62", "19 0e 00 00 07 00"},
        {"add group, name cut", 0x0004, "01 0f 00 08 00 02 61", "18 0f 0b 00 80"},
        {"add group 9 if identifying", 0x0004, "01 10 05 09 00 00", "18 10 0b 05 00"},
        {"view group", 0x0004, "01 11 01 08 00", "19 11 01 8b 08 00 00"},
        {"membership", 0x0004, "01 12 02 00", "19 12 02 0e 02 07 00 09 00"},
        {"membership in one of two", 0x0004, "01 13 02 02 08 00 09 00", "19 13 02 0e 01 09 00"},
        {"remove group", 0x0004, "01 14 03 07 00", "19 14 03 00 07 00"},
        {"remove all groups", 0x0004, "01 15 04", "18 15 0b 04 00"},
        {"membership in none", 0x0004, "01 16 02 00", "19 16 02 10 00"},
        {"a control panel makes itself known", 0x0500, "00 17 02 10 00 f0 01 00 00 fe ff c0 00 02",
         "18 17 04 00 | 09 0d 01 15 00 cd ab"},
        {"enrolled as zone 3", 0x0500, "01 18 00 00 03", "18 18 0b 00 00"},
    };
    run(kCases);
    EXPECT_TRUE(device.setAttribute(1, 0x0500, 0x0002, 1));
    EXPECT_EQ(hex(device.takePending()), "09 0e 00 01 00 00 03 00 00");
}

TEST_F(MeshDeviceZcl, DefaultResponseRules) {
    struct {
        const char *what;
        uint16_t cluster_id;
        const char *request;
        bool broadcast;
        uint8_t endpoint;
        uint16_t profile_id;
        const char *answers;
    } const cases[] = {
        {"unknown command", 0x0008, "01 01 77", false, 1, 0x0104, "18 01 0b 77 81"},
        {"error in spite of disabled default response", 0x0008, "11 01 77", false, 1, 0x0104, "18 01 0b 77 81"},
        {"unknown command, broadcast", 0x0008, "01 01 77", true, 1, 0x0104, ""},
        {"command to the server of a cluster it is client of", 0x0006, "01 01 01", false, 2, 0x0104, "18 01 0b 01 c3"},
        {"command to the client", 0x0006, "09 01 01", false, 2, 0x0104, "10 01 0b 01 81"},
        {"report to the client", 0x0006, "08 01 0a 00 00 10 01", false, 2, 0x0104, "10 01 0b 0a 00"},
        {"cluster that is not there", 0x0101, "01 01 00", false, 1, 0x0104, "18 01 0b 00 c3"},
        {"unknown general command", 0x0006, "00 01 55", false, 1, 0x0104, "18 01 0b 55 82"},
        {"manufacturer's general command", 0x0006, "04 34 12 01 55", false, 1, 0x0104, "1c 34 12 01 0b 55 84"},
        {"manufacturer's cluster command", 0x0006, "05 34 12 01 01", false, 1, 0x0104, "1c 34 12 01 0b 01 83"},
        {"payload cut", 0x0008, "01 01 00 80", false, 1, 0x0104, "18 01 0b 00 80"},
        {"a default response is never answered", 0x0006, "00 01 0b 01 00", false, 1, 0x0104, ""},
        {"a read response neither", 0x0006, "00 01 01", false, 1, 0x0104, ""},
        {"reserved frame type", 0x0006, "02 01 01", false, 1, 0x0104, ""},
        {"header cut", 0x0006, "01 01", false, 1, 0x0104, ""},
        {"header cut at the manufacturer code", 0x0006, "05 01", false, 1, 0x0104, ""},
        {"endpoint that is not there", 0x0006, "01 01 01", false, 7, 0x0104, ""},
        {"another profile", 0x0006, "01 01 01", false, 1, 0x0109, ""},
        {"any profile", 0x0006, "01 01 00", false, 1, 0xFFFF, "18 01 0b 00 00"},
        {"all endpoints: obeyed, no default response", 0x0006, "01 01 01", false, 0xFF, 0x0104,
         "18 00 0a 00 00 10 01 | 18 01 0a 00 04 2a 3c 00 00"},
        {"broadcast: obeyed, no default response", 0x0006, "01 01 00", true, 1, 0x0104,
         "18 02 0a 00 00 10 00 | 18 03 0a 00 04 2a 00 00 00"},
    };
    for (const auto &test : cases) {
        EXPECT_EQ(send(test.cluster_id, test.request, test.broadcast, test.endpoint, test.profile_id), test.answers)
            << test.what;
    }
    const auto answers = device.receive({0x0104, 6, 0x0A, 1, bytes("01 01 02")}, false).answers;
    ASSERT_EQ(answers.size(), 3U); // the answer goes back to where the command came from, reports to the coordinator
    EXPECT_EQ(answers[0].destination_endpoint, 0x0A);
    EXPECT_EQ(answers[1].destination_endpoint, 1);
    EXPECT_EQ(answers[1].source_endpoint, 1);
}

TEST_F(MeshDeviceZcl, SensorsWanderAndMetersCount) {
    const auto &reports = device.spec().reports;
    int64_t last = 2150;
    std::mt19937_64 random(1);
    for (int i = 0; i < 200; i++) {
        const auto payload = device.report(reports[2], random()).payload;
        ASSERT_EQ(payload.size(), 8U);
        ASSERT_EQ(payload[5], 0x29);
        const auto now = static_cast<int16_t>(payload[6] | payload[7] << 8);
        EXPECT_LE(std::abs(now - last), 12);
        last = now;
    }
    EXPECT_EQ(hex({device.report(reports[4], 0)}).substr(9), "00 00 25 39 30 00 00 00 00") << "off: counts nothing";
    EXPECT_TRUE(device.setAttribute(1, 0x0006, 0, 1));
    EXPECT_TRUE(device.setAttribute(1, 0x0702, 0x0400, 90)); // 90 W for two minutes: 3 Wh
    (void)device.report(reports[4], 0);
    EXPECT_EQ(hex({device.report(reports[4], 0)}).substr(9), "00 00 25 3c 30 00 00 00 00");
}

TEST_F(MeshDeviceZcl, AttributesSetByHandAreChecked) {
    EXPECT_FALSE(device.setAttribute(3, 0x0006, 0, 1)) << "no such endpoint";
    EXPECT_FALSE(device.setAttribute(2, 0x0006, 0, 1)) << "client side only";
    EXPECT_FALSE(device.setAttribute(1, 0x0006, 0, 2)) << "out of range";
    EXPECT_FALSE(device.setAttribute(1, 0x0402, 0, 12501)) << "out of range";
    EXPECT_FALSE(device.setAttribute(1, 0x0000, 5, 1)) << "a text";
    EXPECT_TRUE(device.setAttribute(1, 0x0402, 0, -1234));
    EXPECT_EQ(hex(device.takePending()), "18 00 0a 00 00 29 2e fb");
    EXPECT_EQ(device.describe(), "1: off, level 254, closed, clear, -12.3 C, 45 %, 0 W, 12.345 kWh, battery 100 %");
}

// Every command of every cluster with payloads of every length, and then noise: answers stay within a frame, and the
// sanitizers see reads beyond the end because each frame has a buffer of exactly its size.
TEST_F(MeshDeviceZcl, NoFrameIsTooStrange) {
    const auto check = [&](const ApsMessage &frame) {
        for (const ApsMessage &answer : device.receive(frame, (frame.payload.size() & 1) != 0).answers) {
            ASSERT_LE(answer.payload.size(), 100U);
        }
        (void)device.takePending();
    };
    for (const uint16_t cluster_id : device.spec().endpoints[0].input_clusters) {
        for (unsigned command = 0; command < 64; command++) {
            for (size_t length = 0; length < 40; length++) {
                std::vector<uint8_t> payload{static_cast<uint8_t>(command & 1), 1, static_cast<uint8_t>(command >> 1)};
                payload.resize(length, static_cast<uint8_t>(length));
                check({0x0104, cluster_id, 1, 1, payload});
            }
        }
    }
    std::mt19937 random(7);
    for (int i = 0; i < 30000; i++) {
        std::vector<uint8_t> payload(random() % 130);
        for (uint8_t &byte : payload) { // small numbers reach more of the parsers
            byte = static_cast<uint8_t>(random() % ((i & 1) != 0 ? 256 : 8));
        }
        const auto &clusters = device.spec().endpoints[0].input_clusters;
        check({0x0104, clusters[random() % clusters.size()], 1, 1, payload});
        (void)device.receive({0, static_cast<uint16_t>(random() % 0x40), 0, 0, payload}, false);
    }
    EXPECT_LE(device.spec().reports.size(), Device::kMaxReports);
}

} // namespace
} // namespace corvane::mesh
