// SPDX-License-Identifier: Apache-2.0
//
// EZSP frames and records: the bytes of what the versions lay out differently, and every record both ways.
#include "serial/ezsp.h"
#include <gtest/gtest.h>
#include <vector>

using namespace corvane::zbhal::serial;
using corvane::base::ByteWriter;
using Bytes = std::vector<uint8_t>;

namespace {

template <class Record>
Bytes written(const Record &record, uint8_t version) {
    Bytes bytes(300);
    FieldWriter writer(bytes, version);
    put(writer, record);
    EXPECT_TRUE(writer.ok());
    bytes.resize(writer.size());
    return bytes;
}

// Reads a record of bytes that are all different, and writes it again: nothing is lost, no field stands twice. No
// shorter frame is believed.
template <class Record>
void bothWays(size_t size, uint8_t version) {
    Bytes bytes(size);
    for (size_t i = 0; i < size; ++i) {
        bytes[i] = static_cast<uint8_t>(0x10 + i);
    }
    Record record;
    FieldReader reader(bytes, version);
    ASSERT_TRUE(get(reader, record)) << size;
    EXPECT_TRUE(reader.rest().empty()) << size;
    EXPECT_EQ(written(record, version), bytes);
    for (size_t shorter = 0; shorter < size; ++shorter) {
        FieldReader cut(std::span<const uint8_t>(bytes).first(shorter), version);
        EXPECT_FALSE(get(cut, record)) << shorter << " of " << size;
    }
}

TEST(Ezsp, RecordsOfOneLayoutGoBothWays) {
    for (const uint8_t version : {uint8_t{13}, uint8_t{19}}) {
        bothWays<EzspAps>(11, version);
        bothWays<EzspNetwork>(20, version);
        bothWays<EzspSecurity>(43, version);
        bothWays<EzspKeyContext>(18, version);
        bothWays<EzspKeyMetadata>(12, version);
        bothWays<EzspChild>(18, version);
        bothWays<EzspNeighbor>(14, version);
        bothWays<EzspRoute>(8, version);
        bothWays<EzspTrustCenterJoin>(14, version);
        bothWays<EzspEnergyResult>(2, version);
    }
}

const Bytes PAYLOAD{0x18, 0x01, 0x0A};
const EzspAps APS{0x0104, 0x0006, 1, 2, 0x1140, 0, 0x77};
const Bytes APS_BYTES{0x04, 0x01, 0x06, 0x00, 0x01, 0x02, 0x40, 0x11, 0x00, 0x00, 0x77};

Bytes operator+(Bytes left, const Bytes &right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

template <class Record>
void hasBytes(const char *what, const Record &record, uint8_t version, const Bytes &bytes) {
    SCOPED_TRACE(std::string(what) + " in version " + std::to_string(version));
    EXPECT_EQ(written(record, version), bytes);
    Record back;
    FieldReader reader(bytes, version);
    EXPECT_TRUE(get(reader, back));
    EXPECT_EQ(written(back, version), bytes);
    FieldReader cut(std::span<const uint8_t>(bytes).first(bytes.size() - 1), version);
    EXPECT_FALSE(get(cut, back));
}

TEST(Ezsp, RecordsThatChangedHaveTheBytesOfTheirVersion) {
    const Bytes counted = Bytes{3} + PAYLOAD;
    const EzspIncomingMessage incoming{0, APS, 0x4D2A, {8, 7, 6, 5, 4, 3, 2, 1}, 200, -60, PAYLOAD};
    hasBytes("incoming", incoming, 13, Bytes{0} + APS_BYTES + Bytes{200, 0xC4, 0x2A, 0x4D, 0xFF, 0xFF} + counted);
    hasBytes("incoming", incoming, 14,
             Bytes{0} + APS_BYTES + Bytes{0x2A, 0x4D, 8, 7, 6, 5, 4, 3, 2, 1, 0xFF, 0xFF, 200, 0xC4, 0, 0, 0, 0} +
                 counted);
    const EzspMessageSent sent{EzspStatus::delivery_failed, 0, 0x4D2A, APS, 0x21, {}};
    hasBytes("sent", sent, 13, Bytes{0, 0x2A, 0x4D} + APS_BYTES + Bytes{0x21, 0x66, 0});
    hasBytes("sent", sent, 14, Bytes{0x02, 0x0C, 0, 0, 0, 0x2A, 0x4D} + APS_BYTES + Bytes{0x21, 0, 0});
    const EzspUnicast unicast{0, 0x4D2A, APS, 0x21, PAYLOAD};
    hasBytes("unicast", unicast, 13, Bytes{0, 0x2A, 0x4D} + APS_BYTES + Bytes{0x21} + counted);
    hasBytes("unicast", unicast, 19, Bytes{0, 0x2A, 0x4D} + APS_BYTES + Bytes{0x21, 0} + counted);
    const EzspBroadcast broadcast{0xFFFC, APS, 30, 0x21, PAYLOAD};
    hasBytes("broadcast", broadcast, 13, Bytes{0xFC, 0xFF} + APS_BYTES + Bytes{30, 0x21} + counted);
    hasBytes("broadcast", broadcast, 14, Bytes{0, 0, 0xFC, 0xFF, 0} + APS_BYTES + Bytes{30, 0x21, 0} + counted);
    const EzspMulticast multicast{APS, 12, 0x21, PAYLOAD};
    hasBytes("multicast", multicast, 13, APS_BYTES + Bytes{12, 12, 0x21} + counted);
    hasBytes("multicast", multicast, 14, APS_BYTES + Bytes{12, 0xFD, 0xFF, 0, 0, 0, 0x21, 0} + counted);
    const EzspRawTransmitComplete complete{EzspStatus::ok, PAYLOAD};
    hasBytes("raw", EzspRawTransmitComplete{EzspStatus::busy, {}}, 13, {0xA1});
    hasBytes("raw", complete, 14, counted + Bytes{0, 0, 0, 0});
    const EzspMacFilterMatch match{5, 2, 0x4D2A, 200, -60, PAYLOAD};
    const Bytes info{0x2A, 0x4D, 0, 0, 0, 0, 0, 0, 0, 0, 0xFF, 0xFF, 200, 0xC4, 0, 0, 0, 0};
    hasBytes("match", match, 13, Bytes{5, 2, 200, 0xC4} + counted);
    hasBytes("match", match, 17, Bytes{5, 2} + info + counted);
    hasBytes("match", match, 18, Bytes{5, 0, 2} + info + counted);
    hasBytes("scan", EzspScanComplete{11, EzspStatus::not_joined}, 13, {11, 0x93});
    hasBytes("scan", EzspScanComplete{11, EzspStatus::not_joined}, 14, {11, 0x17, 0, 0, 0});
    hasBytes("child", EzspChildJoin{1, true, 0x4D2A, {8, 7, 6, 5, 4, 3, 2, 1}, 4}, 13,
             {1, 1, 0x2A, 0x4D, 8, 7, 6, 5, 4, 3, 2, 1, 4});
    hasBytes("found", EzspNetworkFound{{15, 0x1A62, {1, 2, 3, 4, 5, 6, 7, 8}, true, 2, 0}, 150, -70}, 13,
             {15, 0x62, 0x1A, 1, 2, 3, 4, 5, 6, 7, 8, 1, 2, 0, 150, 0xBA});
}

TEST(Ezsp, HeadersInBothForms) {
    using Kind = EzspHeader::Kind;
    const struct {
        EzspHeader header;
        Bytes bytes;
    } rows[] = {
        {{Kind::command, 7, EzspId::version, true}, {7, 0, 0}},
        {{Kind::response, 7, EzspId::version, true}, {7, 0x80, 0}},
        {{Kind::command, 8, EzspId::version}, {8, 0, 1, 0, 0}},
        {{Kind::response, 9, EzspId::import_transient_key}, {9, 0x80, 1, 0x11, 0x01}},
        {{Kind::callback, 9, EzspId::stack_status, false, true, true, true}, {9, 0x97, 1, 0x19, 0}},
    };
    for (const auto &[header, bytes] : rows) {
        Bytes out(8);
        ByteWriter writer(out);
        encodeHeader(header, writer);
        out.resize(writer.size());
        EXPECT_EQ(out, bytes);
        EzspHeader back;
        std::span<const uint8_t> rest;
        ASSERT_TRUE(decodeHeader(bytes, back, rest));
        EXPECT_EQ(
            std::tuple(back.kind, back.sequence, back.id, back.legacy, back.overflow, back.truncated, back.pending),
            std::tuple(header.kind, header.sequence, header.id, header.legacy, header.overflow, header.truncated,
                       header.pending));
        EXPECT_TRUE(rest.empty());
        EXPECT_FALSE(decodeHeader(std::span<const uint8_t>(bytes).first(bytes.size() - 1), back, rest));
    }
}

TEST(Ezsp, StatusesOfTheOldestVersionMeanTheSame) {
    for (int narrow = 0; narrow < 256; ++narrow) {
        const EzspStatus status = statusFromNarrow(static_cast<uint8_t>(narrow));
        EXPECT_EQ(statusFromNarrow(statusToNarrow(status)), status) << narrow;
        EXPECT_EQ(status == EzspStatus::ok, narrow == 0) << narrow;
    }
    EXPECT_EQ(statusToNarrow(EzspStatus::not_found), 0xB1);
    EXPECT_EQ(statusToNarrow(static_cast<EzspStatus>(0x1234)), statusToNarrow(EzspStatus::failed));
}

} // namespace
