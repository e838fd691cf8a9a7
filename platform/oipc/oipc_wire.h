// SPDX-License-Identifier: Apache-2.0
//
// Frames between the service and its clients; shared by the server and the client library, described for everyone else
// in docs/ipc.md. One message of the SOCK_SEQPACKET socket is one frame: a 20-byte header, little-endian, and as many
// payload bytes as the header says.
//
//   offset  0  u16  magic            "CV"
//           2  u8   version
//           3  u8   type             FrameType
//           4  u16  id               function, event or callback id; reason of a refusal
//           6  u16  callback_id      of asynchronous calls, else 0
//           8  u32  sequence         chosen by the client for a call, echoed in its result, else 0
//          12  i32  status           of results and refusals, else 0
//          16  u32  payload_length   0 to 4096
#pragma once
#include "base/bytes.h"
#include "oru_status.h"
#include <array>
#include <cstddef>
#include <cstdint>
#include <span>

namespace oipc {

namespace base = corvane::base;

constexpr uint16_t MAGIC = 0x5643; // "CV" as it lies in memory
constexpr uint8_t VERSION = 1;
constexpr std::size_t HEADER_SIZE = 2 + 1 + 1 + 2 + 2 + 4 + 4 + 4;
constexpr std::size_t PAYLOAD_LENGTH_OFFSET = HEADER_SIZE - 4;
constexpr std::size_t MAX_PAYLOAD = 4096;
constexpr std::size_t MAX_FRAME = HEADER_SIZE + MAX_PAYLOAD;
static_assert(HEADER_SIZE == 20 && MAX_FRAME == 4116, "sizes are part of the protocol");

enum class FrameType : uint8_t {
    SyncCall = 1,        // client: payload in, answered by SyncResult
    AsyncCall = 2,       // client: payload in, answered by AsyncResult, later by Callback
    SyncResult = 3,      // service: status and payload of a call
    AsyncResult = 4,     // service: status 0 = taken over
    Callback = 5,        // service: result of an asynchronous call, id = callback id
    Event = 6,           // service
    Hello = 7,           // service, first frame of a connection: HELLO_SIZE bytes
    Refusal = 8,         // service, last frame of a connection: id = Reason, payload = text for people
    PlatformCall = 9,    // client, where the hello tells a platform version: id = operation
    PlatformResult = 10, // service: status and payload of a platform call
    PlatformEvent = 11,  // service, to clients that have subscribed
};

constexpr bool isClientFrame(FrameType type) {
    return type == FrameType::SyncCall || type == FrameType::AsyncCall || type == FrameType::PlatformCall;
}

enum class Reason : uint16_t {
    None = 0,
    TooManyClients = 1,
    NotAllowed = 2,
    ShortFrame = 3,
    WrongMagic = 4,
    WrongVersion = 5,
    UnknownType = 6,
    LengthMismatch = 7,
    TooLong = 8,
    Stopping = 9,
    OutOfResources = 10,
};

struct FrameHeader {
    FrameType type = FrameType::SyncCall;
    uint16_t id = 0;
    uint16_t callback_id = 0;
    uint32_t sequence = 0;
    int32_t status = 0;
    uint32_t payload_length = 0;
};

// Payload of Hello: u16 client id, u16 service uuid, u32 largest payload, u32 clients at most, u16 platform version,
// u16 zero. The first services sent the first twelve bytes of it.
struct Hello {
    uint16_t client_id = 0;
    uint16_t service_uuid = 0;
    uint32_t max_payload = 0;
    uint32_t max_clients = 0;
    uint16_t platform_version = 0; // 0: no platform calls
};
constexpr std::size_t HELLO_SIZE = 2 + 2 + 4 + 4 + 2 + 2;

constexpr std::array<uint8_t, HEADER_SIZE> encodeHeader(const FrameHeader &header) {
    std::array<uint8_t, HEADER_SIZE> bytes{};
    base::ByteWriter writer(bytes);
    writer.u16(MAGIC);
    writer.u8(VERSION);
    writer.u8(static_cast<uint8_t>(header.type));
    writer.u16(header.id);
    writer.u16(header.callback_id);
    writer.u32(header.sequence);
    writer.u32(static_cast<uint32_t>(header.status));
    writer.u32(header.payload_length);
    return bytes;
}

// Checks and decodes a header. `received` is the length of the whole message, which may have been longer than the
// receiver's buffer; `bytes` is what of it is there.
constexpr Reason decodeHeader(std::span<const uint8_t> bytes, std::size_t received, FrameHeader &header) {
    if (bytes.size() < HEADER_SIZE || received < HEADER_SIZE) {
        return Reason::ShortFrame;
    }
    base::ByteReader reader(bytes);
    if (reader.u16() != MAGIC) {
        return Reason::WrongMagic;
    }
    if (reader.u8() != VERSION) {
        return Reason::WrongVersion;
    }
    const auto type = reader.u8();
    if (type < static_cast<uint8_t>(FrameType::SyncCall) || type > static_cast<uint8_t>(FrameType::PlatformEvent)) {
        return Reason::UnknownType;
    }
    header.type = static_cast<FrameType>(type);
    header.id = reader.u16();
    header.callback_id = reader.u16();
    header.sequence = reader.u32();
    header.status = static_cast<int32_t>(reader.u32());
    header.payload_length = reader.u32();
    if (header.payload_length > MAX_PAYLOAD || received > MAX_FRAME) {
        return Reason::TooLong;
    }
    return header.payload_length == received - HEADER_SIZE ? Reason::None : Reason::LengthMismatch;
}

constexpr std::array<uint8_t, HELLO_SIZE> encodeHello(const Hello &hello) {
    std::array<uint8_t, HELLO_SIZE> bytes{};
    base::ByteWriter writer(bytes);
    writer.u16(hello.client_id);
    writer.u16(hello.service_uuid);
    writer.u32(hello.max_payload);
    writer.u32(hello.max_clients);
    writer.u16(hello.platform_version);
    return bytes;
}

// False when the payload is too short. Later versions may append fields.
constexpr bool decodeHello(std::span<const uint8_t> bytes, Hello &hello) {
    base::ByteReader reader(bytes);
    hello.client_id = reader.u16();
    hello.service_uuid = reader.u16();
    hello.max_payload = reader.u32();
    hello.max_clients = reader.u32();
    const bool complete = reader.ok();
    hello.platform_version = reader.u16(); // 0 when there is none
    return complete;
}

struct ReasonInfo {
    Reason reason;
    oru_status_t status; // sent with the refusal
    const char *text;
};

constexpr std::array<ReasonInfo, 11> REASONS{{
    {Reason::None, ORU_STATUS_OK, ""},
    {Reason::TooManyClients, ORU_STATUS_BUSY, "too many clients are connected"},
    {Reason::NotAllowed, ORU_STATUS_BAD_PARAM, "this user is not allowed to use the service"},
    {Reason::ShortFrame, ORU_STATUS_DATA_LEN_INVALID, "frame shorter than its header"},
    {Reason::WrongMagic, ORU_STATUS_BAD_PARAM, "not a frame of this protocol"},
    {Reason::WrongVersion, ORU_STATUS_NOT_SUPPORTED, "protocol version not supported"},
    {Reason::UnknownType, ORU_STATUS_BAD_PARAM, "frame type not accepted from a client"},
    {Reason::LengthMismatch, ORU_STATUS_DATA_LEN_INVALID, "payload length differs from the bytes received"},
    {Reason::TooLong, ORU_STATUS_DATA_LEN_INVALID, "payload too long"},
    {Reason::Stopping, ORU_STATUS_CANCELED, "the service is stopping"},
    {Reason::OutOfResources, ORU_STATUS_OUT_OF_MEMORY, "the service has no resources for another client"},
}};

static_assert(
    [] {
        for (std::size_t i = 0; i < REASONS.size(); ++i) {
            if (static_cast<std::size_t>(REASONS[i].reason) != i) {
                return false;
            }
        }
        return true;
    }(),
    "REASONS is indexed by Reason");

constexpr const ReasonInfo &reasonInfo(Reason reason) {
    return REASONS[static_cast<std::size_t>(reason)];
}

} // namespace oipc
