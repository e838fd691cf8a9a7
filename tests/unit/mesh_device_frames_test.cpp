// SPDX-License-Identifier: Apache-2.0
// A device of the virtual mesh: what it answers to ZDO and ZCL frames, byte for byte, and what it says by itself.
#include "virtual/device.h"
#include "virtual/text_formats.h"
#include <algorithm>
#include <gtest/gtest.h>
#include <random>
#include <regex>
#include <sstream>

namespace corvane::mesh {
namespace {

// Endpoint 1 has everything, endpoint 2 is the client of On/Off, endpoint 9 is of another profile.
DeviceSpec specification() {
    DeviceSpec spec;
    spec.eui64 = {0x02, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77};
    spec.role = Role::end_device;
    spec.mac_capabilities = 0x8C;
    spec.manufacturer_code = 0xABCD;
    spec.model = "All in one";
    spec.endpoints = {
        {1, 0x0104, 0, 1, {0, 1, 3, 4, 5, 6, 8, 0x402, 0x405, 0x406, 0x500, 0x702, 0xB04, 0xFC01}, {0x19}},
        {2, 0x0104, 0x0104, 1, {3}, {6}},
        {9, 0xC05E, 0, 2, {}, {}}};
    spec.reports = {{1, 0x0006, 0}, {1, 0x0008, 0}, {1, 0x0402, 0}, {1, 0x0702, 0x0400}, {1, 0x0702, 0}};
    return spec;
}

std::vector<uint8_t> bytes(const std::string &hex) {
    return parseHex(hex, static_cast<size_t>(std::ranges::count_if(hex, isxdigit)) / 2).value();
}

// The payloads one behind the other: "18010b|0802".
std::string hex(const std::vector<ApsMessage> &messages) {
    std::string text;
    for (const ApsMessage &message : messages) {
        text += text.empty() ? "" : "|";
        for (const uint8_t byte : message.payload) {
            char digits[3];
            std::snprintf(digits, sizeof digits, "%02x", byte);
            text += digits;
        }
    }
    return text;
}

class MeshDevice : public testing::Test {
protected:
    MeshDevice() { device.setNodeId(0x1234); }
    DeviceActions receive(uint16_t profile_id, uint16_t cluster_id, const std::string &request, bool broadcast = false,
                          uint8_t endpoint = 1) {
        return device.receive({profile_id, cluster_id, 0x0A, endpoint, bytes(request)}, broadcast);
    }
    // Lines of "profile/endpoint/cluster request -> answers ; what it is about"; a broadcast begins with *.
    void play(const std::string &transcript) {
        static const std::regex format(R"([ *](\w+)/(\w+)/(\w+) (.*?) ?-> (.*?) ?;.*)");
        std::istringstream lines(transcript);
        for (std::string line; std::getline(lines, line);) {
            SCOPED_TRACE(line);
            std::smatch parts;
            ASSERT_TRUE(std::regex_match(line, parts, format));
            const auto number = [&](size_t i) { return static_cast<uint16_t>(std::stoul(parts[i], nullptr, 16)); };
            const auto actions =
                receive(number(1), number(3), parts[4], line[0] == '*', static_cast<uint8_t>(number(2)));
            const char *leaving = actions.rejoin ? "rejoin" : actions.leave ? "leave" : "";
            EXPECT_EQ(hex(actions.answers) + leaving, std::regex_replace(parts[5].str(), std::regex(" "), ""));
            for (const ApsMessage &answer : actions.answers) {
                EXPECT_EQ(answer.profile_id, number(1) == 0xFFFF ? 0x0104 : number(1));
                EXPECT_TRUE(number(1) != 0 || answer.cluster_id == (number(3) | 0x8000));
            }
        }
    }
    std::string set(uint16_t cluster_id, uint16_t attribute_id, int64_t value) {
        EXPECT_TRUE(device.setAttribute(1, cluster_id, attribute_id, value));
        return hex(device.takePending());
    }
    Device device{specification()};
};

// Own node id 0x1234, low byte first; EUI-64s least significant byte first.
TEST_F(MeshDevice, AnswersZdoRequests) {
    play(R"( 0000/00/0005 2a 3412 -> 2a 00 3412 03 01 02 09 ; Active_EP_req
 0000/00/0005 2a 3512 -> 2a 80 3512 ; Active_EP_req about another
 0000/00/0005 2a 34 -> ; cut
 0000/00/0004 2a 3412 02 -> 2a 00 3412 0c 02 0401 0401 01 01 0300 01 0600 ; Simple_Desc_req
 0000/00/0004 2a 3412 09 -> 2a 00 3412 08 09 5ec0 0000 02 00 00 ; an endpoint without clusters
 0000/00/0004 2a 3412 03 -> 2a 83 3412 00 ; not active
 0000/00/0004 2a 3412 00 -> 2a 82 3412 00 ; no such number
 0000/00/0002 2a 3412 -> 2a 00 3412 02 40 8c cdab 52 5200 002c 5200 00 ; Node_Desc_req
 0000/00/0000 2a 7766554433221102 00 00 -> 2a 00 7766554433221102 3412 ; NWK_addr_req
*0000/00/0000 2a 7766554433221102 01 00 -> 2a 00 7766554433221102 3412 00 ; extended
*0000/00/0000 2a 7866554433221102 00 00 -> ; of another
 0000/00/0001 2a 3412 00 00 -> 2a 00 7766554433221102 3412 ; IEEE_addr_req
*0000/00/0006 2a fdff 0401 00 01 0600 -> 2a 00 3412 01 02 ; Match_Desc_req for on/off clients
*0000/00/0006 2a fdff 0401 01 0101 00 -> ; nobody matches
 0000/00/0021 2a 7766554433221102 01 0600 03 010000feffc00002 01 -> 2a 00 ; Bind_req
 0000/00/0021 2a 7766554433221102 01 0600 01 0500 -> 2a 00 ; to a group
 0000/00/0021 2a 7866554433221102 01 0600 01 0500 -> 2a 84 ; for another source
 0000/00/0022 2a 7766554433221102 01 0600 01 0500 -> 2a 00 ; Unbind_req
 0000/00/0022 2a 7766554433221102 01 0600 01 0500 -> 2a 88 ; without binding
 0000/00/0034 2a 7766554433221102 00 -> 2a 00 leave ; Mgmt_Leave_req
 0000/00/0034 2a 7766554433221102 80 -> 2a 00 rejoin ; with rejoin
*0000/00/0034 2a 0000000000000000 00 -> leave ; to all
 0000/00/0034 2a 0100000000000000 00 -> 2a 81 ; to another
 0000/00/0034 2a 7766554433221102 -> ; cut
 0000/00/0036 2a 3c 01 -> 2a 84 ; Mgmt_Permit_Joining_req is for routers
 0000/00/0031 2a 00 -> 2a 84 ; unknown request
 0000/00/8005 2a 00 3412 00 -> ; a response)");
}

// Each answer: frame control 18 (server to client, no default response), the request's sequence number, command.
TEST_F(MeshDevice, ReadsAndWritesAttributes) {
    play(R"( 0104/01/0000 00 11 00 0500 0700 -> 18 11 01 0500 00 42 0a 416c6c20696e206f6e65 0700 00 30 01 ; model, power
 0104/01/0006 00 12 00 9999 0000 -> 18 12 01 9999 86 0000 00 10 00 ; one unknown, one good
 0104/01/fc01 00 13 00 fdff -> 18 13 01 fdff 00 21 0100 ; cluster revision of a cluster without attributes
 0104/01/0702 00 14 00 0004 0000 -> 18 14 01 0004 00 2a 000000 0000 00 25 393000000000 ; signed, 24 and 48 bits
 0104/01/0006 00 15 00 0000 01 -> 18 15 0b 00 80 ; odd length
 0104/01/0006 04 cdab 17 00 0000 -> 1c cdab 17 01 0000 86 ; manufacturer specific
 0104/01/0006 00 22 02 9999 42 01 41 0000 10 01 0340 20 00 0140 21 0500 -> 18 22 04 86 9999 88 0000 8d 0340 ; write
 0104/01/0006 00 23 00 0140 -> 18 23 01 0140 00 21 0500 ; beside unknown, read only and wrong type: the good one
 0104/01/0006 00 26 05 0140 21 0700 -> ; write without response
 0104/01/0006 00 24 03 0140 21 0900 0000 10 01 -> 18 24 04 88 0000 ; undivided: all or nothing
 0104/01/0006 00 27 00 0140 -> 18 27 01 0140 00 21 0700 ; written silently, and nothing undivided
 0104/01/0003 00 28 02 0000 21 3c -> 18 28 0b 02 80 ; value cut
 0104/01/0000 00 29 02 0500 42 ff 41 -> 18 29 0b 02 80 ; text without a value, then a record cut
 0104/01/0000 00 2a 02 0500 48 01 -> 18 2a 0b 02 80 ; type of unknown extent
 0104/01/0006 00 30 0c 0000 02 -> 18 30 0d 00 0000 10 0140 21 ; discover two
 0104/01/0006 00 32 0c 0000 -> 18 32 0b 0c 80 ; cut)");
}

TEST_F(MeshDevice, ConfiguresReporting) {
    play(R"( 0104/01/0001 00 40 06 00 2100 20 0a00 1400 02 -> 18 40 07 00 ; battery every 10 to 20 s, change 2
 0104/01/0001 00 41 08 00 2100 00 2000 -> 18 41 09 00 00 2100 20 0a00 1400 02 8b 00 2000 ; read back
 0104/01/0006 00 42 06 00 0140 21 0000 0100 0100 00 9999 10 0000 0100 -> 18 42 07 8c 00 0140 86 00 9999 ; none there
 0104/01/0006 00 42 06 00 0000 20 0000 0100 01 00 0000 10 0200 0100 -> 18 42 07 8d 00 0000 87 00 0000 ; type, times
 0104/01/0001 00 44 06 00 2100 20 0a00 1400 -> 18 44 0b 06 80 ; cut
 0104/01/0001 00 45 06 02 2100 20 0a00 1400 02 -> 18 45 0b 06 80 ; no such direction)");
    ASSERT_EQ(device.spec().reports.size(), 6U);
    EXPECT_EQ(device.spec().reports.back().interval_ms, 20000U);
    EXPECT_EQ(set(0x0001, 0x0021, 199), "") << "less than the reportable change";
    EXPECT_EQ(set(0x0001, 0x0021, 198), "18000a210020c6");
    EXPECT_TRUE(receive(0x0104, 0x0001, "00 46 06 00 2100 20 0000 ffff 01").reports_changed);
    EXPECT_EQ(device.spec().reports.back().interval_ms, kNoPeriodicReport);
    EXPECT_EQ(set(0x0001, 0x0021, 100), "");
}

// In the order in which they are sent; a change is reported behind the Default Response.
TEST_F(MeshDevice, ObeysClusterCommands) {
    play(R"( 0104/01/0006 01 01 01 -> 18 01 0b 01 00 | 18 00 0a 0000 10 01 | 18 01 0a 0004 2a 3c0000 ; on, its load
 0104/01/0006 01 02 01 -> 18 02 0b 01 00 ; on again changes nothing
 0104/01/0006 11 03 02 -> 18 02 0a 0000 10 00 | 18 03 0a 0004 2a 000000 ; toggle without default response
 0104/01/0008 01 04 00 80 0a00 -> 18 04 0b 00 00 ; level alone leaves a lamp that is off
 0104/01/0008 01 05 00 80 0a00 01 01 -> 18 05 0b 00 00 | 18 04 0a 0000 20 80 ; unless the options say so
 0104/01/0008 01 06 04 40 0a00 -> 18 06 0b 04 00 | 18 05 0a 0000 20 40 | 18 06 0a 0000 10 01 | 18 07 0a 0004 2a 3c0000;
 0104/01/0008 01 07 02 01 10 0000 -> 18 07 0b 02 00 | 18 08 0a 0000 20 30 ; step down
 0104/01/0008 01 08 01 00 ff -> 18 08 0b 01 00 | 18 09 0a 0000 20 fe ; move up
 0104/01/0008 11 0a 04 00 0000 -> 18 0a 0a 0000 20 01 | 18 0b 0a 0000 10 00 | 18 0c 0a 0004 2a 000000 ; level 0: off
 0104/01/0003 01 0c 00 0500 -> 18 0c 0b 00 00 ; identify
 0104/01/0003 01 0d 01 -> 19 0d 00 0500 ; identify query
 0104/01/0004 01 0e 00 0700 02 6162 -> 19 0e 00 00 0700 ; add group 7
 0104/01/0004 01 0f 00 0000 00 -> 19 0f 00 87 0000 ; no group
 0104/01/0004 01 10 05 0900 00 -> 18 10 0b 05 00 ; add group 9 if identifying
 0104/01/0004 01 11 01 0800 -> 19 11 01 8b 0800 00 ; view group
 0104/01/0004 01 12 02 00 -> 19 12 02 0e 02 0700 0900 ; membership
 0104/01/0004 01 15 04 -> 18 15 0b 04 00 ; remove all groups
 0104/01/0500 00 17 02 1000 f0 010000feffc00002 -> 18 17 04 00 | 09 0d 01 1500 cdab ; a control panel makes itself known
 0104/01/0500 01 18 00 00 03 -> 18 18 0b 00 00 ; enrolled as zone 3)");
    EXPECT_EQ(set(0x0500, 0x0002, 1), "090e00010000030000");
}

TEST_F(MeshDevice, GivesDefaultResponsesWhereDue) {
    play(R"( 0104/01/0008 01 01 77 -> 18 01 0b 77 81 ; unknown command
 0104/01/0008 11 01 77 -> 18 01 0b 77 81 ; error in spite of disabled default response
*0104/01/0008 01 01 77 -> ; unknown command, broadcast
 0104/02/0006 01 01 01 -> 18 01 0b 01 c3 ; command to the server of a cluster it is client of
 0104/02/0006 08 01 0a 0000 10 01 -> 10 01 0b 0a 00 ; report to the client
 0104/01/0101 01 01 00 -> 18 01 0b 00 c3 ; cluster that is not there
 0104/01/0006 00 01 55 -> 18 01 0b 55 82 ; unknown general command
 0104/01/0006 04 3412 01 55 -> 1c 3412 01 0b 55 84 ; manufacturer's general command
 0104/01/0006 05 3412 01 01 -> 1c 3412 01 0b 01 83 ; manufacturer's cluster command
 0104/01/0006 00 01 0b 01 00 -> ; a default response is never answered
 0104/01/0006 02 01 01 -> ; reserved frame type
 0104/01/0006 01 01 -> ; header cut
 0104/07/0006 01 01 01 -> ; endpoint that is not there
 ffff/01/0006 01 01 00 -> 18 01 0b 00 00 ; any profile
 0104/ff/0006 01 01 01 -> 18 00 0a 0000 10 01 | 18 01 0a 0004 2a 3c0000 ; all endpoints: no default response
*0104/01/0006 01 01 00 -> 18 02 0a 0000 10 00 | 18 03 0a 0004 2a 000000 ; broadcast: neither)");
    const auto answers = receive(0x0104, 0x0006, "01 01 02").answers;
    ASSERT_EQ(answers.size(), 3U); // the answer goes back to where the command came from, reports to the coordinator
    EXPECT_EQ(answers[0].destination_endpoint, 0x0A);
    EXPECT_EQ(answers[1].destination_endpoint, 1);
    EXPECT_EQ(answers[1].source_endpoint, 1);
}

TEST_F(MeshDevice, TablesAndAnswersAreBounded) {
    // As many records as fit into a frame of 100 bytes, of forty asked for.
    const std::tuple<uint16_t, const char *, const char *, size_t> cases[] = {
        {0x0000, "00 01 00", "0500", 93},                 // read
        {0x0006, "00 01 02", "0000 10 01", 99},           // write
        {0x0006, "00 01 06", "00 9999 10 0000 0100", 99}, // configure reporting
        {0x0006, "00 01 08", "00 0000", 93},              // read reporting
    };
    for (const auto &[cluster_id, header, entry, size] : cases) {
        std::string request = header;
        for (int i = 0; i < 40; ++i) {
            request += entry;
        }
        const auto answers = receive(0x0104, cluster_id, request).answers;
        ASSERT_EQ(answers.size(), 1U) << header;
        EXPECT_EQ(answers[0].payload.size(), size) << header;
    }
    // Sixteen bindings and sixteen groups of an endpoint.
    for (int number = 1; number <= 17; ++number) {
        char group[8];
        std::snprintf(group, sizeof group, "%02x00", number);
        const auto bound = receive(0, 0x0021, std::string("01 7766554433221102 01 0600 01") + group, false, 0).answers;
        EXPECT_EQ(hex(bound), number <= 16 ? "0100" : "018c");
        const auto added = receive(0x0104, 0x0004, std::string("01 01 00") + group + "00").answers;
        EXPECT_EQ(hex(added), (number <= 16 ? "19010000" : "19010089") + std::string(group));
    }
}

TEST_F(MeshDevice, FaultsSpoilResponses) {
    const std::pair<Faults, const char *> cases[] = {
        {{.zdo_error_status = 0xB3}, "05b33412"},
        {{.zdo_length_delta = -1}, "05003412030102"},
        {{.zdo_length_delta = 2}, "05003412030102090000"},
        {{.zdo_length_delta = -100}, ""},
        {{.duplicate_answers = true}, "0500341203010209|0500341203010209"},
        {{.silent = true}, ""},
    };
    for (const auto &[faults, response] : cases) {
        device.faults() = faults;
        EXPECT_EQ(hex(receive(0, 0x0005, "05 3412", false, 0).answers), response);
    }
    EXPECT_TRUE(receive(0, 0x0034, "05 0000000000000000 00", true, 0).leave) << "a silent device obeys all the same";
}

TEST_F(MeshDevice, SpeaksForItself) {
    EXPECT_EQ(hex({device.announce()}), "00341277665544332211028c");
    device.setNodeId(0xBEEF);
    EXPECT_EQ(hex({device.announce()}), "01efbe77665544332211028c") << "with its own sequence";
    EXPECT_EQ(device.announce().cluster_id, 0x0013);

    const auto &reports = device.spec().reports;
    int64_t last = 2150;
    std::mt19937_64 random(1);
    for (int i = 0; i < 200; i++) {
        const auto payload = device.report(reports[2], random()).payload;
        ASSERT_EQ(payload.size(), 8U);
        const auto now = static_cast<int16_t>(payload[6] | payload[7] << 8);
        EXPECT_LE(std::abs(now - last), 12) << "the temperature wanders";
        last = now;
    }
    const auto summation = [&] { return hex({device.report(reports[4], 0)}).substr(6); };
    EXPECT_EQ(summation(), "000025393000000000") << "off: counts nothing";
    EXPECT_NE(set(0x0006, 0, 1), "");
    EXPECT_NE(set(0x0702, 0x0400, 90), ""); // 90 W for two minutes: 3 Wh
    (void)summation();
    EXPECT_EQ(summation(), "0000253c3000000000");
}

} // namespace
} // namespace corvane::mesh
