// SPDX-License-Identifier: Apache-2.0
#include "corvanectl_names.h"
#include "corvanectl_parse.h"
#include "corvanectl_zcl.h"
#include <gtest/gtest.h>
#include <string>
#include <vector>

namespace corvane::ctl {
namespace {

struct Case {
    uint16_t cluster;
    const char *hex;
    const char *text;
    std::vector<std::size_t> whole; // shorter lengths that are well-formed frames as well
};

// One frame of each kind that devices send, and what people read.
const Case CASES[] = {
    {0x0006, "18010a0000 1001", "report attributes: on/off: on", {3}},
    {0x0402, "18020a0000 295f08", "report attributes: temperature: 21.43 C", {3}},
    {0x0402, "18020a0000 29cefe", "report attributes: temperature: -3.06 C", {3}},
    {0x0402, "18020a0000 290080", "report attributes: temperature: unknown", {3}},
    {0x0405, "18020a0000 219411", "report attributes: humidity: 45.00%", {3}},
    {0x0001, "18020a2100 20a5 2000 201e", "report attributes: battery: 82.5%, battery voltage: 3.0 V", {3, 7}},
    {0x0500, "090300 0100 00 00 0000", "zone status change notification: contact: open", {3, 5, 6, 7}},
    {0x0500, "18030a0200 190800", "report attributes: contact: closed, battery low", {3}},
    {0x0006, "18050b01 00", "default response: SUCCESS 0x00", {}},
    {0x0006, "18050b02 c3", "default response: UNSUPPORTED_CLUSTER 0xc3", {}},
    {0x0000,
     "1806010500 00 42 02 4869 0600 86",
     "read attributes response: model: Hi, date code: UNSUPPORTED_ATTRIBUTE 0x86",
     {3, 10}},
    {0x0008, "010704 80 0000", "move to level with on/off: level 128, transition_time 0", {3, 4}},
    {0x0004, "190802 0d 02 0100 0200", "get group membership response: capacity 13, groups [1,2]", {3, 4}},
    {0x0003, "180904 00", "write attributes response: SUCCESS 0x00", {3}},
    {0xFC01, "1c22110a0a0100 48 20 0300 010203", "report attributes: attribute 0x0001: [1,2,3]", {5}},
};

TEST(CtlZcl, DecodesFramesAndSurvivesEveryTruncation) {
    for (const Case &test : CASES) {
        std::string compact = test.hex;
        std::erase(compact, ' ');
        const auto frame = parseHex(compact, "frame", 100);
        const Json whole = decodeZcl(test.cluster, frame);
        EXPECT_EQ(whole["text"], test.text);
        EXPECT_FALSE(whole.contains("malformed")) << test.text;
        for (std::size_t length = 0; length < frame.size(); ++length) {
            const std::vector<uint8_t> cut(frame.begin(),
                                           frame.begin() + static_cast<std::ptrdiff_t>(length)); // ASan sees over-reads
            const bool legal = std::ranges::find(test.whole, length) != test.whole.end();
            const Json part = decodeZcl(test.cluster, cut);
            EXPECT_EQ(part.contains("malformed"), !legal) << test.text << " cut to " << length << ": " << part.dump();
            EXPECT_TRUE(part["text"].is_string());
        }
    }
}

TEST(CtlZcl, EveryTypeNeedsItsWholeValue) {
    for (unsigned type = 0; type < 256; ++type) {
        std::vector<uint8_t> frame{0x18, 1, ZCL_REPORT_ATTRIBUTES, 0x34, 0x12, static_cast<uint8_t>(type)};
        const std::size_t header = frame.size();
        frame.resize(header + 40, 0x01);
        bool complete = false;
        for (std::size_t length = header; length <= frame.size() && !complete; ++length) {
            complete = !decodeZcl(0xFC00, Bytes(frame).first(length)).contains("malformed");
        }
        const bool bounded = (type >= 0x08 && type <= 0x0F) || type == 0x10 || (type >= 0x18 && type <= 0x31) ||
                             (type >= 0x38 && type <= 0x3A);
        EXPECT_TRUE(complete || !bounded) << type;
    }
}

TEST(CtlZcl, NestedAndCountedValuesAreBounded) {
    const struct {
        const char *what;
        const char *hex;
    } cases[] = {
        {"array of arrays without end", "18010a0100 48480100 480100 480100 480100 480100 480100 2001"},
        {"array that claims 65534 elements", "18010a0100 4820feff 0102"},
        {"array of elements without bytes", "18010a0100 4800feff"},
        {"string longer than the frame", "18010a0100 42ff00 4290 41"},
        {"type nobody knows", "18010a0100 7f01"},
        {"group list longer than the frame", "190802 0d ff 0100"},
    };
    for (const auto &test : cases) {
        std::string compact = test.hex;
        std::erase(compact, ' ');
        const auto cluster = static_cast<uint16_t>(compact.starts_with("19") ? 0x0004 : 0xFC00);
        EXPECT_TRUE(decodeZcl(cluster, parseHex(compact, "frame", 100)).contains("malformed")) << test.what;
    }
}

TEST(CtlZcl, FailureStatusOfAnswers) {
    const auto status = [](uint16_t cluster, const char *hex) {
        return failureStatus(decodeZcl(cluster, parseHex(hex, "frame", 100)));
    };
    EXPECT_EQ(status(0x0006, "18050b0100"), std::nullopt);
    EXPECT_EQ(status(0x0006, "18050b0281"), 0x81);
    EXPECT_EQ(status(0x0000, "180601040086"), 0x86);
    EXPECT_EQ(status(0x0000, "18060104000020010500008b"), std::nullopt); // malformed rest: what was read counts
    EXPECT_EQ(status(0x0004, "1907008b0100"), 0x8B);                     // add group response
}

TEST(CtlZcl, ControlCharactersOfDevicesDoNotReachTheTerminal) {
    const Json zcl = decodeZcl(0x0000, parseHex("1806010500004204"
                                                "1b5b4a07",
                                                "frame", 100));
    EXPECT_EQ(zcl["text"], "read attributes response: model: ?[J?");
    EXPECT_EQ(printable("a\xC2\x9B"
                        "b\xC3\xA9\xFF"),
              "a??b\xC3\xA9?");
}

TEST(CtlZcl, EncodesWhatItDecodes) {
    const Json read = decodeZcl(0x0402, encodeReadAttribute(7, 0x0000));
    EXPECT_EQ(read["text"], "read attributes: temperature");
    EXPECT_EQ(read["sequence"], 7);
    const uint8_t level[] = {10, 0, 0};
    EXPECT_EQ(decodeZcl(CLUSTER_LEVEL, encodeClusterCommand(8, 4, level))["text"],
              "move to level with on/off: level 10, transition_time 0");
}

TEST(CtlNames, ClustersAndAttributesByAnySpelling) {
    for (const char *name : {"on_off", "on/off", "On-Off", "6", "0x0006"}) {
        EXPECT_EQ(parseCluster(name), CLUSTER_ON_OFF) << name;
    }
    EXPECT_EQ(parseAttribute(0x0402, "measured-value"), 0x0000);
    EXPECT_EQ(parseAttribute(0xFC01, "cluster_revision"), 0xFFFD);
    EXPECT_THROW(parseCluster("nonsense"), UsageError);
    EXPECT_THROW(parseCluster("0x10000"), UsageError);
    EXPECT_THROW(parseAttribute(0x0402, "on_off"), UsageError);
}

} // namespace
} // namespace corvane::ctl
