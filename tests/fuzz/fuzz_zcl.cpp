// SPDX-License-Identifier: Apache-2.0
// Frames of devices and texts of people, as tool, mesh and bridges read them.
#include "base/eui64.h"
#include "fuzz_input.h"
#include "zigbee/words.h"
#include "zigbee/zdo_frame.h"

using namespace corvane;

namespace {

// What was read whole is written back byte for byte.
void readGeneral(uint16_t cluster, const zigbee::FrameHeader &header, std::span<const uint8_t> payload) {
    zigbee::RecordReader records(header.command, payload);
    std::size_t consumed = payload.size() - records.left();
    fuzz::Bytes room(payload.size());
    for (zigbee::AttributeRecord record; records.next(record);) {
        base::ByteWriter out(room);
        const bool written = zigbee::writeRecord(out, header.command, record);
        const auto original = payload.subspan(consumed, payload.size() - records.left() - consumed);
        fuzz::require(written && std::ranges::equal(out.written(), original), "a record is written as it was read");
        consumed = payload.size() - records.left();
        const zigbee::MeterScale meter{payload.size() > 2 ? payload[2] : 0U, consumed > 0 ? payload[0] : 0U, 0x80};
        (void)zigbee::recordText(cluster, record, &meter);
    }
}

void hearZcl(fuzz::Input &input) {
    const uint16_t cluster = input.u16();
    const fuzz::Bytes frame = input.sized8();
    base::ByteReader in(frame);
    zigbee::FrameHeader header;
    const bool legible = zigbee::readHeader(in, header);
    fuzz::require(legible != zigbee::frameText(cluster, frame).empty(), "a frame with a header has words");
    zigbee::MeterScales meters;
    meters.learn(cluster, frame);
    (void)zigbee::frameText(meters.missing(cluster, frame).empty() ? cluster : uint16_t{0x0B04}, frame, &meters);
    if (legible && !header.cluster_specific) {
        readGeneral(cluster, header, in.rest());
    }
}

template <class Body>
void hearBody(const fuzz::Bytes &frame) {
    base::ByteReader in(frame);
    Body body;
    if (!readBody(in, body)) {
        return;
    }
    fuzz::Bytes first(512);
    base::ByteWriter out(first);
    writeBody(out, body);
    fuzz::require(out.ok(), "a body has room");
    base::ByteReader once_more(out.written());
    Body copy;
    fuzz::require(readBody(once_more, copy) && once_more.atEnd(), "a body that was written is one");
    fuzz::Bytes second(512);
    base::ByteWriter again(second);
    writeBody(again, copy);
    fuzz::require(std::ranges::equal(out.written(), again.written()), "a body is written as it was read");
}

template <class... Bodies>
void hearAs(const fuzz::Bytes &frame) {
    (hearBody<Bodies>(frame), ...);
}

void hearZdo(fuzz::Input &input) {
    const fuzz::Bytes frame = input.sized8();
    hearAs<zigbee::NwkAddrRequest, zigbee::IeeeAddrRequest, zigbee::AddressResponse, zigbee::NodeDescResponse,
           zigbee::SimpleDescResponse, zigbee::EndpointsResponse, zigbee::MatchDescRequest, zigbee::DeviceAnnounce,
           zigbee::BindRequest, zigbee::LqiResponse, zigbee::RoutingResponse>(frame);
}

void readText(fuzz::Input &input) {
    const uint16_t cluster = input.u16();
    const fuzz::Bytes bytes = input.sized8();
    const std::string_view text(reinterpret_cast<const char *>(bytes.data()), bytes.size());
    if (const auto eui64 = base::parseEui64(text)) {
        fuzz::require(base::parseColonEui64(base::eui64Text(*eui64)) == eui64, "an address is read as it is written");
    }
    if (const zigbee::ClusterInfo *const found = zigbee::clusterByName(text)) {
        fuzz::require(zigbee::findCluster(found->id) == found, "a name leads to its row");
    }
    (void)zigbee::attributeByName(cluster, text);
    (void)zigbee::commandByName(cluster, true, text);
}

} // namespace

int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz::Input input(data, size);
    while (!input.empty()) {
        switch (input.u8() % 4) {
        case 0:
            readText(input);
            break;
        case 1:
            hearZdo(input);
            break;
        default:
            hearZcl(input);
        }
    }
    return 0;
}
