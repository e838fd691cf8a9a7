// SPDX-License-Identifier: Apache-2.0
// Frames to records and words, and records to frames.
#include "zigbee/install_code.h"
#include "zigbee/mac_capabilities.h"
#include "zigbee/words.h"
#include "zigbee/zdo_frame.h"
#include <gtest/gtest.h>
#include <sstream>
#include <string>
#include <vector>

namespace corvane::zigbee {
namespace {

using Frame = std::vector<uint8_t>;

Frame bytesOf(const std::string &text) {
    Frame frame(text.size());
    frame.resize(base::parseHex(text, frame).value_or(0));
    return frame;
}

// "cluster frame -> what people read ; shorter lengths that are well-formed as well". One frame of each kind that
// devices send, then frames that do not hold what they announce.
const char *const kFrames = R"(6 18010a 0000 10 01 -> report attributes: on/off: on ; 3
402 18020a 0000 29 5f08 -> report attributes: temperature: 21.43 C ; 3
402 18020a 0000 29 0080 -> report attributes: temperature: unknown ; 3
405 18020a 0000 21 9411 -> report attributes: humidity: 45.00% ; 3
1 18020a 2100 20 a5 2000 20 1e -> report attributes: battery: 82.5%, battery voltage: 3.0 V ; 3 7
500 090300 0100 00 00 0000 -> zone status change notification: contact: open ; 3 5 6 7
500 18030a 0200 19 0c00 -> report attributes: contact: closed, tamper, battery low ; 3
6 18050b 02 c3 -> default response: UNSUPPORTED_CLUSTER 0xc3 ;
0 180601 0500 00 42 02 4869 0600 86 -> read attributes response: model: Hi, date code: UNSUPPORTED_ATTRIBUTE 0x86 ; 3 10
0 180601 0500 00 42 04 1b5b4a07 -> read attributes response: model: ?[J? ; 3
0 180601 0700 00 30 03 -> read attributes response: power source: battery ; 3
8 010704 80 0000 -> move to level with on/off: level 128, transition_time 0 ; 3 4
4 190802 0d 02 0100 0200 -> get group membership response: capacity 13, groups [1,2] ; 3 4
4 190700 8b 0100 -> add group response: NOT_FOUND 0x8b, group 1 ; 3 4
6 180907 8c 00 0000 -> configure reporting response: on/off: UNREPORTABLE_ATTRIBUTE 0x8c ; 3 4
6 180907 00 -> configure reporting response: SUCCESS 0x00 ; 3
6 100906 00 0000 10 0100 3c00 01 0000 3c00 -> configure reporting: on/off: 1 to 60 s, on/off ; 3 11
402 100906 00 0000 29 0100 3c00 3200 -> configure reporting: temperature: 1 to 60 s, change 50 ; 3
402 180909 00 00 0000 29 0100 3c00 3200 8b 00 0100 -> read reporting configuration response: temperature: 1 to 60 s ; 3 14
6 18090d 01 0000 10 -> discover attributes response: on/off (bool) ; 4
6 180916 00 0000 10 05 -> discover attributes extended response: on/off (bool) ; 4
fc01 1c22110a0a 0100 48 20 0300 010203 -> report attributes: attribute 0x0001: [1,2,3] ; 5
6 1c22110a0a 0000 20 01 -> report attributes: attribute 0x0000: 1 ; 5
fc01 18010a 0100 38 003c 0200 39 0000803f -> report attributes: attribute 0x0001: 1.0, attribute 0x0002: 1.0 ; 3 8
fc01 18010a 0100 4c 0200 10 01 41 02 abcd -> report attributes: attribute 0x0001: [true,"abcd"] ; 3
fc01 18010a 0100 f0 0807060504030201 -> report attributes: attribute 0x0001: 01:02:03:04:05:06:07:08 ; 3
101 0111 00 04 31323334 -> lock door: pin 1234 ; 3
0 180601 0400 00 20 01 0500 00 8b -> read attributes response: manufacturer: 1 (malformed
fc01 18010a 0100 48 48 0100 48 0100 48 0100 48 0100 48 0100 48 0100 20 01 -> report attributes (malformed
fc01 18010a 0100 48 20 feff 0102 -> report attributes (malformed
fc01 18010a 0100 48 00 feff -> report attributes (malformed
fc01 18010a 0100 42 ff 00 4290 41 -> report attributes: attribute 0x0001: none (malformed
fc01 18010a 0100 7f 01 -> report attributes (malformed
4 190802 0d ff 0100 -> get group membership response: capacity 13 (malformed)";

// Header and records of a general command, written from what was read.
Frame rewritten(const Frame &frame) {
    base::ByteReader in(frame);
    FrameHeader header;
    EXPECT_TRUE(readHeader(in, header));
    Frame again(frame.size() + 8);
    base::ByteWriter out(again);
    writeHeader(out, header);
    RecordReader records(header.command, in.rest());
    if (header.command == COMMAND_DISCOVER_ATTRIBUTES_RESPONSE || header.command == 0x16) {
        out.u8(records.isComplete() ? 1 : 0);
    }
    for (AttributeRecord record; records.next(record);) {
        EXPECT_TRUE(writeRecord(out, header.command, record));
    }
    again.resize(out.size());
    return again;
}

TEST(ZclFrame, IsReadTruncatedAnywhereAndWrittenBack) {
    std::istringstream lines(kFrames);
    for (std::string line; std::getline(lines, line);) {
        SCOPED_TRACE(line);
        const auto cluster = static_cast<uint16_t>(std::stoul(line, nullptr, 16));
        const auto arrow = line.find(" -> ");
        const auto semicolon = std::min(line.find(" ;"), line.size());
        const std::string words = line.substr(arrow + 4, semicolon - arrow - 4);
        const Frame frame = bytesOf(line.substr(line.find(' '), arrow - line.find(' ')));
        ASSERT_GT(frame.size(), 3U);
        EXPECT_EQ(frameText(cluster, frame).find(words), 0U) << frameText(cluster, frame);
        const bool malformed = words.ends_with("(malformed");
        EXPECT_EQ(frameText(cluster, frame).find("(malformed") != std::string::npos, malformed);
        if (!malformed && (frame[0] & 1) == 0) {
            EXPECT_EQ(rewritten(frame), frame);
        }
        const std::string lengths = (semicolon < line.size() ? line.substr(semicolon + 2) : "") + " ";
        for (std::size_t length = 0; length < frame.size(); ++length) {
            const Frame cut(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(length)); // ASan sees over-reads
            const std::string text = frameText(cluster, cut);
            const bool whole = !text.empty() && text.find("(malformed") == std::string::npos;
            EXPECT_TRUE(whole == (lengths.find(" " + std::to_string(length) + " ") != lengths.npos) || malformed)
                << length << ": " << text;
        }
    }
}

TEST(ZclFrame, RecordsThatDoNotFitAreLeftOut) {
    std::array<uint8_t, 11> room{};
    base::ByteWriter out(room);
    AttributeRecord record;
    record.type = TYPE_INT16;
    record.value = numberValue(TYPE_INT16, -1);
    EXPECT_TRUE(writeRecord(out, COMMAND_REPORT_ATTRIBUTES, record));
    EXPECT_TRUE(writeRecord(out, COMMAND_REPORT_ATTRIBUTES, record));
    EXPECT_FALSE(writeRecord(out, COMMAND_REPORT_ATTRIBUTES, record));
    EXPECT_FALSE(writeRecord(out, 0x42, record));
    EXPECT_TRUE(out.ok() && out.size() == 10);
    record.value = textValue("Hi");
    record.type = TYPE_CHARACTER_STRING;
    out.rewind(0);
    EXPECT_TRUE(writeRecord(out, COMMAND_READ_ATTRIBUTES_RESPONSE, record));
    EXPECT_EQ(Frame(out.written().begin(), out.written().end()), bytesOf("0000 00 42 02 4869"));
    const FrameHeader request{true, false, false, 0x1122, 7, 2};
    const FrameHeader answer = answerTo(request, COMMAND_DEFAULT_RESPONSE, false);
    EXPECT_TRUE(answer.to_client && answer.disable_default_response && answer.manufacturer == 0x1122);
}

template <class Record>
std::string again(const Frame &frame) {
    base::ByteReader in(frame);
    Record record;
    if (!readBody(in, record)) {
        return "short";
    }
    std::array<uint8_t, 128> room{};
    std::array<char, 256> text{};
    base::ByteWriter out(room);
    writeBody(out, record);
    return out.ok() ? std::string(base::hexText(out.written(), text)) : "long";
}

TEST(ZdoFrame, BodiesAreReadAndWrittenBackAndRefusedWhenShort) {
    const struct {
        std::string (*again)(const Frame &);
        const char *body;
        unsigned shortest; // length from which on it is one
    } kBodies[] = {
        {again<NwkAddrRequest>, "0807060504030201 00 00", 10},
        {again<IeeeAddrRequest>, "3412 01 00", 4},
        {again<AddressResponse>, "00 0807060504030201 3412", 11},
        {again<NodeRequest>, "3412", 2},
        {again<NodeDescResponse>, "00 3412 01 40 8e 2211 52 5200 002c 5200 00", 16},
        {again<SimpleDescRequest>, "3412 01", 3},
        {again<SimpleDescResponse>, "00 3412 0e 01 0401 0101 01 02 0000 0600 01 1900", 18},
        {again<EndpointsResponse>, "00 3412 02 01 f2", 6},
        {again<MatchDescRequest>, "fdff 0401 01 0600 00", 8},
        {again<DeviceAnnounce>, "3412 0807060504030201 8e", 11},
        {again<BindRequest>, "0807060504030201 01 0600 03 1817161514131211 01", 21},
        {again<BindRequest>, "0807060504030201 01 0600 01 0100", 14},
        {again<LeaveRequest>, "0807060504030201 80", 9},
        {again<PermitJoiningRequest>, "fe 01", 2},
        {again<StatusResponse>, "84", 1},
        {again<TableRequest>, "00", 1},
        {again<LqiResponse>, "00 01 00 01 0807060504030201 1817161514131211 3412 25 02 01 c8", 26},
        {again<RoutingResponse>, "00 01 00 01 3412 00 7856", 9},
    };
    for (const auto &row : kBodies) {
        const Frame frame = bytesOf(row.body);
        std::string text = row.body;
        std::erase(text, ' ');
        EXPECT_EQ(row.again(frame), text);
        for (std::size_t length = 0; length <= frame.size(); ++length) {
            const Frame cut(frame.begin(), frame.begin() + static_cast<std::ptrdiff_t>(length));
            EXPECT_EQ(row.again(cut) == "short", length < row.shortest) << row.body << " " << length;
        }
    }
    EXPECT_EQ(again<SimpleDescResponse>(bytesOf("81 3412 00")), "81341200"); // a failure has no descriptor
    EXPECT_EQ(again<AddressResponse>(bytesOf("81")), "8100000000000000000000");
    EXPECT_EQ(again<SimpleDescResponse>(bytesOf("00 3412 04 01 0401 0101 01 02 0000 0600 01 1900")), "short");
    EXPECT_EQ(again<SimpleDescResponse>(bytesOf("00 3412 0f 01 0401 0101 01 02 0000 0600 01 1900")), "short");
    Frame crowded(230);
    EXPECT_NE(again<LqiResponse>(crowded), "short");
    crowded[3] = 9; // more neighbours than a frame holds
    EXPECT_EQ(again<LqiResponse>(crowded), "short");
}

// The example of the Zigbee base device behaviour.
TEST(InstallCode, CrcAndKey) {
    InstallCode code{};
    ASSERT_EQ(base::parseHex("83FE D340 7A93 9723 A5C6 39B2 6916 D505 C3B5", code), code.size());
    EXPECT_TRUE(isInstallCodeValid(code));
    EXPECT_EQ(installCodeKey(code), (LinkKey{0x66, 0xB6, 0x90, 0x09, 0x81, 0xE1, 0xEE, 0x3C, 0xA4, 0x20, 0x6B, 0x6B,
                                             0x86, 0x1C, 0x02, 0xBB}));
    code[16] ^= 1;
    EXPECT_FALSE(isInstallCodeValid(code));
    setInstallCodeCrc(code);
    EXPECT_TRUE(isInstallCodeValid(code));
}

TEST(MacCapabilities, OfEachRole) {
    EXPECT_TRUE(MAC_COORDINATOR == 0x8F && MAC_ROUTER == 0x8E && MAC_END_DEVICE == 0x8C &&
                MAC_SLEEPY_END_DEVICE == 0x80);
    EXPECT_TRUE(isRouter(MAC_ROUTER) && !isRouter(MAC_END_DEVICE) && !isRxOnWhenIdle(MAC_SLEEPY_END_DEVICE));
}

} // namespace
} // namespace corvane::zigbee
