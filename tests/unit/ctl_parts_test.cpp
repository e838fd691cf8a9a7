// SPDX-License-Identifier: Apache-2.0
// The parts of the tool that need no service: arguments, ZCL frames in words, the map of the network.
#include "corvanectl_map.h"
#include "corvanectl_names.h"
#include "corvanectl_parse.h"
#include "corvanectl_zcl.h"
#include "drawing.h"
#include <array>
#include <functional>
#include <gtest/gtest.h>
#include <regex>
#include <sstream>

namespace corvane::ctl {
namespace {

using namespace map;

TEST(CtlParse, AcceptsWhatPeopleWrite) {
    EXPECT_EQ(tryNumber(protectNegativeNumber("-15")), -15);
    EXPECT_EQ(protectNegativeNumber("-x"), "-x");
    EXPECT_EQ(protectNegativeNumber("--5"), "--5");
    EXPECT_EQ(parseAs<int8_t>("-128", "power"), -128);

    EXPECT_EQ(std::get<uint16_t>(parseDevice("0x1A2b")), 0x1A2B);
    EXPECT_EQ(std::get<uint16_t>(parseDevice("6699")), 6699);
    EXPECT_EQ(std::get<uint32_t>(parseDevice("#3")), 3U);
    const Eui64 eui64{0x00, 0x12, 0x4B, 0, 1, 2, 3, 0xFF};
    for (const char *text : {"00:12:4b:00:01:02:03:ff", "00-12-4B-00-01-02-03-FF", "00124b00010203ff"}) {
        EXPECT_EQ(std::get<Eui64>(parseDevice(text)), eui64) << text;
    }
    EXPECT_EQ(parseDeviceEndpoint("00:12:4b:00:01:02:03:ff/11").endpoint, 11);
    EXPECT_FALSE(parseDeviceEndpoint("#0").endpoint);

    EXPECT_EQ(parseChannelMask("all"), 0x07FFF800U);
    EXPECT_EQ(parseChannelMask("11-13,26"), 1U << 11 | 1U << 12 | 1U << 13 | 1U << 26);
    EXPECT_EQ(parseChannelMask("0x00008000"), 1U << 15);
    EXPECT_EQ(parseHex("01 00:2a", "frame", 3), (std::vector<uint8_t>{1, 0, 0x2A}));
    EXPECT_TRUE(parseHex("", "frame", 3).empty());

    // The example of the Zigbee base device behaviour, whose CRC is 0xB5C3.
    const auto computed = parseInstallCode("83FE D340 7A93 9723 A5C6 39B2 6916 D505");
    EXPECT_EQ(computed[16], 0xC3);
    EXPECT_EQ(computed[17], 0xB5);
    EXPECT_EQ(parseInstallCode("83fed3407a939723a5c639b26916d505c3b5"), computed);

    for (const char *name : {"on_off", "on/off", "On-Off", "6", "0x0006"}) {
        EXPECT_EQ(parseCluster(name), CLUSTER_ON_OFF) << name;
    }
    EXPECT_EQ(parseAttribute(0x0402, "measured-value"), 0x0000);
    EXPECT_EQ(parseAttribute(0xFC01, "cluster_revision"), 0xFFFD);
    EXPECT_EQ(printable("a\xC2\x9B\xC3\xA9\xFF"), "a??\xC3\xA9?");
}

TEST(CtlParse, RefusesTheRest) {
    const std::pair<std::function<void(const char *)>, std::vector<const char *>> cases[] = {
        {[](auto text) { parseNumber(text, "number", INT64_MIN, INT64_MAX); },
         {"", "-", "--1", "0x", "0x-1", "1a", " 1", "1 ", "99999999999999999999", "+1", "1.5"}},
        {[](auto text) { parseAs<int8_t>(text, "power"); }, {"128", "-129"}},
        {[](auto text) { parseDeviceEndpoint(text); },
         {"", "#", "#-1", "#x", "0x10000", "-1", "lamp", "00:12:4b:00:01:02:03",
          "00:12:4b:00:01:02:03:ff:", "00::12:4b:00:01:02:03:f", "#0/256", "#0/"}},
        {[](auto text) { parseInstallCode(text); },
         {"83fed3407a939723a5c639b26916d505b5c3", "83fed3407a939723a5c639b26916d505c3",
          "x3fed3407a939723a5c639b26916d505", ""}},
        {[](auto text) { parseChannelMask(text); },
         {"", "10", "27", "11-", "-12", "14-11", "11,", "11,,12", "0x0", "0x400", "0x08000000"}},
        {[](auto text) { parseCluster(text); }, {"nonsense", "0x10000"}},
        {[](auto text) { parseAttribute(0x0402, text); }, {"on_off"}},
        {[](auto text) { parseHex(text, "frame", 3); }, {"01002a0b", "010", "zz"}},
    };
    for (const auto &[parse, texts] : cases) {
        for (const char *text : texts) {
            EXPECT_THROW(parse(text), UsageError) << text;
        }
    }
}

// "profile/cluster frame -> what people read ; shorter lengths that are well-formed as well ; first failure status".
// One frame of each kind that devices send, then frames that do not hold what they announce.
const char *const kFrames = R"(104/6 18010a 0000 10 01 -> report attributes: on/off: on ; 3
104/402 18020a 0000 29 5f08 -> report attributes: temperature: 21.43 C ; 3
104/402 18020a 0000 29 0080 -> report attributes: temperature: unknown ; 3
104/405 18020a 0000 21 9411 -> report attributes: humidity: 45.00% ; 3
104/1 18020a 2100 20 a5 2000 20 1e -> report attributes: battery: 82.5%, battery voltage: 3.0 V ; 3 7
104/500 090300 0100 00 00 0000 -> zone status change notification: contact: open ; 3 5 6 7
104/6 18050b 02 c3 -> default response: UNSUPPORTED_CLUSTER 0xc3 ; ; c3
104/0 180601 0500 00 42 02 4869 0600 86 -> read attributes response: model: Hi, date code: UNSUPPORTED_AT ; 3 10 ; 86
104/0 180601 0500 00 42 04 1b5b4a07 -> read attributes response: model: ?[J? ; 3
104/8 010704 80 0000 -> move to level with on/off: level 128, transition_time 0 ; 3 4
104/4 190802 0d 02 0100 0200 -> get group membership response: capacity 13, groups [1,2] ; 3 4
104/4 190700 8b 0100 -> add group response: NOT_FOUND 0x8b, group 1 ; 3 4 ; 8b
104/6 180907 8c 00 0000 -> configure reporting response: on/off: UNREPORTABLE_ATTRIBUTE 0x8c ; 3 4 ; 8c
104/6 18090d 01 0000 10 -> discover attributes response: on/off (bool) ; 4
104/fc01 1c22110a0a 0100 48 20 0300 010203 -> report attributes: attribute 0x0001: [1,2,3] ; 5
104/fc01 18010a 0100 38 003c 0200 39 0000803f -> report attributes: attribute 0x0001: 1.0, attribute 0x0002: 1.0 ; 3 8
104/fc01 18010a 0100 4c 0200 10 01 41 02 abcd -> report attributes: attribute 0x0001: [true,"abcd"] ; 3
104/fc01 18010a 0100 f0 0807060504030201 -> report attributes: attribute 0x0001: 01:02:03:04:05:06:07:08 ; 3
0/8005 2a 00 3412 01 01 -> Active_EP_rsp 0x8005 ; 2 3 4 5
104/0 180601 0400 00 20 01 0500 00 8b -> read attributes response: manufacturer: 1 (malformed
104/fc01 18010a 0100 48 48 0100 48 0100 48 0100 48 0100 48 0100 48 0100 20 01 -> report attributes (malformed
104/fc01 18010a 0100 48 20 feff 0102 -> report attributes (malformed
104/fc01 18010a 0100 48 00 feff -> report attributes (malformed
104/fc01 18010a 0100 42 ff 00 4290 41 -> report attributes: attribute 0x0001: none (malformed
104/fc01 18010a 0100 7f 01 -> report attributes (malformed
104/4 190802 0d ff 0100 -> get group membership response: capacity 13 (malformed)";

TEST(CtlZcl, DecodesFramesAndSurvivesEveryTruncation) {
    const std::regex format(R"((\w+)/(\w+) (.*) -> (.*?)(?: ;(.*?))?(?: ; (\w+))?)");
    std::istringstream lines(kFrames);
    for (std::string line; std::getline(lines, line);) {
        SCOPED_TRACE(line);
        std::smatch parts;
        ASSERT_TRUE(std::regex_match(line, parts, format));
        const auto number = [&](std::size_t i) { return static_cast<uint16_t>(std::stoul(parts[i], nullptr, 16)); };
        const auto frame = parseHex(std::regex_replace(parts[3].str(), std::regex(" "), ""), "frame", 100);
        const auto decode = [&](std::size_t length) { // from a buffer of that size: ASan sees over-reads
            const std::vector<uint8_t> cut(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(length));
            return decodeFrame(number(1), number(2), cut);
        };
        const Json whole = decode(frame.size());
        const bool malformed = parts[4].str().ends_with("(malformed");
        EXPECT_EQ(whole["text"].get<std::string>().find(parts[4]), 0U) << whole;
        EXPECT_EQ(whole.contains("malformed"), malformed);
        EXPECT_EQ(failureStatus(whole).value_or(0), parts[6].matched ? number(6) : 0);
        for (std::size_t length = 0; length < frame.size(); ++length) {
            const std::string lengths = parts[5].str() + " ";
            const bool legal = lengths.find(" " + std::to_string(length) + " ") != lengths.npos;
            EXPECT_TRUE(decode(length).contains("malformed") != legal || malformed) << length;
        }
    }
}

struct Network {
    MapInput input{"channel 15", {0x02, 0x00, 0xC0, 0xFF, 0xFE, 0x00, 0x00, 0x01}, {}, {}, {}, {}};

    void device(uint16_t id, bool router) {
        const Eui64 eui64{0, 0, 0, 0, 0, 0, 0, static_cast<uint8_t>(id)};
        input.devices.push_back({id, eui64, router, router ? "color temperature light" : "temperature sensor"});
    }
    void child(uint16_t id) { input.children.emplace_back().id = id; }
    void neighbor(uint16_t id, uint8_t lqi, uint8_t out_cost = 1) {
        auto &entry = input.neighbors.emplace_back();
        entry.id = id;
        entry.average_lqi = lqi;
        entry.out_cost = out_cost;
    }
    void route(uint16_t destination, uint16_t next_hop, uint8_t status = 0) {
        auto &entry = input.routes.emplace_back();
        entry.destination = destination;
        entry.next_hop = next_hop;
        entry.status = status;
    }
};

TEST(CtlMap, TreeFollowsTheTables) {
    Network network;
    for (uint16_t id = 1; id <= 5; ++id) { // 5 in no table
        network.device(id, id % 2 == 1);
    }
    network.child(2);
    network.neighbor(1, 200);
    network.neighbor(3, 90, 0); // heard no more, and reached over 1: its quality is that of a link that is not used
    network.route(3, 1);
    network.route(4, 3, 3);
    network.route(6, 1); // stranger
    EXPECT_EQ(mapText(buildMap(network.input)), R"(channel 15
0x0000 coordinator                      02:00:c0:ff:fe:00:00:01  coordinator
├── 0x0001 color temperature light      00:00:00:00:00:00:00:01  router       ▮▮▮▮▯ LQI 200
│   ├── 0x0003 color temperature light  00:00:00:00:00:00:00:03  router
│   │   └── 0x0004 temperature sensor   00:00:00:00:00:00:00:04  end device   not reached
│   └── 0x0006 unknown device                                    end device
└── 0x0002 temperature sensor           00:00:00:00:00:00:00:02  end device
in no table:
    0x0005 color temperature light      00:00:00:00:00:00:00:05  router
)");
}

TEST(CtlMap, ContradictoryTablesEndInATree) {
    Network network;
    for (uint16_t id = 1; id <= 3; ++id) {
        network.device(id, id < 3);
    }
    const std::pair<uint16_t, uint16_t> routes[] = {{1, 2}, {2, 1}, {3, 1}, {3, 3}, {0, 1}, {0xFFFC, 1}};
    for (const auto &[destination, next_hop] : routes) {
        network.route(destination, next_hop);
    }
    network.child(0);
    network.neighbor(0, 10);
    const NetworkMap map = buildMap(network.input);
    EXPECT_EQ(map.detached.size(), 3U); // the circle and what hangs on it
    EXPECT_EQ(layOut(map).nodes.size(), map.nodes.size());
    EXPECT_NE(mapSvg(map).find("</svg>"), std::string::npos);
}

TEST(CtlMap, TextsInDrawingsAreEscaped) {
    EXPECT_EQ(escapeXml("<a & \"b\">\x01"), "&lt;a &amp; &quot;b&quot;&gt;?");
    const std::string svg = latencySvg({{"<lamp>", {1, 2, 300}}, {"silent", {}}});
    EXPECT_NE(svg.find("&lt;lamp&gt;"), std::string::npos);
    EXPECT_EQ(svg.find("<lamp>"), std::string::npos);
}

} // namespace
} // namespace corvane::ctl
