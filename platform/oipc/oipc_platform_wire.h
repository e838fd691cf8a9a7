// SPDX-License-Identifier: Apache-2.0
//
// Platform calls as they lie in frames: ids and records, shared by the server and the client library, described for
// everyone else in docs/ipc.md. Numbers are little-endian. Records may grow at their end: a reader takes what it knows
// and ignores the rest.
#pragma once
#include "oipc_wire.h"

namespace oipc {

constexpr uint16_t PLATFORM_VERSION = 1; // told in the hello; 0: a service without platform calls

enum class PlatformOperationId : uint16_t {
    information = 1, // nothing in; InformationRecord out
    subscribe = 2,   // u32 mask of events in; u32 out: those of them that exist
};

enum class PlatformEventId : uint16_t { // bit n of a mask stands for event n
    store_changed = 1,                  // StoreRecord
};
constexpr uint32_t maskOf(PlatformEventId event) {
    return uint32_t{1} << static_cast<unsigned>(event);
}
constexpr uint32_t PLATFORM_EVENTS = maskOf(PlatformEventId::store_changed);

//   offset  0  u8        condition
//           1  u8[3]     0
//           4  u32       values and erasures that wait in memory
//           8  u32       damaged files set aside since the process started
//          12  u32       damaged records, likewise
//          16  u64       milliseconds that the condition has lasted
//          24  char[232] reason in English, zero-terminated; empty when there is none
struct StoreRecord {
    uint8_t condition = 0;
    uint32_t waiting = 0;
    uint32_t files_set_aside = 0;
    uint32_t records_set_aside = 0;
    uint64_t condition_ms = 0;
    std::array<char, 232> reason{};
};
constexpr std::size_t STORE_RECORD_SIZE = 1 + 3 + 4 + 4 + 4 + 8 + 232;

//   offset  0  u16       platform version
//           2  u16       0
//           4  u32       process id
//           8  u64       milliseconds since the process started
//          16  char[16]  release, zero-terminated
//          32  StoreRecord
struct InformationRecord {
    uint16_t platform_version = 0;
    uint32_t process_id = 0;
    uint64_t uptime_ms = 0;
    std::array<char, 16> release{};
    StoreRecord store;
};
constexpr std::size_t INFORMATION_RECORD_SIZE = 2 + 2 + 4 + 8 + 16 + STORE_RECORD_SIZE;
static_assert(STORE_RECORD_SIZE == 256 && INFORMATION_RECORD_SIZE == 288, "sizes are part of the protocol");

template <std::size_t Size>
void putText(base::ByteWriter &writer, const std::array<char, Size> &text) {
    writer.bytes({reinterpret_cast<const uint8_t *>(text.data()), text.size()});
}

// Whatever comes, the text ends.
template <std::size_t Size>
void getText(base::ByteReader &reader, std::array<char, Size> &text) {
    std::ranges::copy(reader.bytes(Size), text.begin());
    text.back() = '\0';
}

inline void encode(base::ByteWriter &writer, const StoreRecord &record) {
    writer.u8(record.condition);
    writer.u24(0);
    writer.u32(record.waiting);
    writer.u32(record.files_set_aside);
    writer.u32(record.records_set_aside);
    writer.u64(record.condition_ms);
    putText(writer, record.reason);
}

inline void encode(base::ByteWriter &writer, const InformationRecord &record) {
    writer.u16(record.platform_version);
    writer.u16(0);
    writer.u32(record.process_id);
    writer.u64(record.uptime_ms);
    putText(writer, record.release);
    encode(writer, record.store);
}

// False when the record is shorter than its first version.
inline bool decode(base::ByteReader &reader, StoreRecord &record) {
    record.condition = reader.u8();
    reader.skip(3);
    record.waiting = reader.u32();
    record.files_set_aside = reader.u32();
    record.records_set_aside = reader.u32();
    record.condition_ms = reader.u64();
    getText(reader, record.reason);
    return reader.ok();
}

inline bool decode(base::ByteReader &reader, InformationRecord &record) {
    record.platform_version = reader.u16();
    reader.skip(2);
    record.process_id = reader.u32();
    record.uptime_ms = reader.u64();
    getText(reader, record.release);
    return decode(reader, record.store);
}

} // namespace oipc
