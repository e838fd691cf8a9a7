// SPDX-License-Identifier: Apache-2.0
#include "oipc_platform.h"
#include "oipc_log.h"
#include "oru_kvs_state.h"
#include <chrono>
#include <unistd.h>

namespace oipc {

namespace kvs = corvane::kvs;

namespace {

using Clock = std::chrono::steady_clock;

const Clock::time_point PROCESS_START = Clock::now();

constexpr std::array<char, 16> RELEASE{CORVANE_VERSION};

static_assert(sizeof(StoreRecord::reason) == sizeof(kvs::State::reason));

bool isPermitted(const Connection &client, bool owner, const PlatformOperation &operation) {
    if (operation.who == Who::everyone) {
        return true;
    }
    OIPC_LOG(owner ? ORU_LOG_INFO : ORU_LOG_WARN, "client %u (user %u, process %d) %s platform call \"%s\"", client.id,
             client.peer.uid, client.peer.pid, owner ? "makes" : "is refused", operation.name);
    return owner;
}

} // namespace

oru_status_t callPlatform(Connection &client, bool owner, uint16_t operation, Bytes in, base::ByteWriter &out) {
    const auto row =
        std::ranges::find(PLATFORM_OPERATIONS, static_cast<PlatformOperationId>(operation), &PlatformOperation::id);
    if (row == PLATFORM_OPERATIONS.end()) {
        return ORU_STATUS_NOT_SUPPORTED;
    }
    if (!isPermitted(client, owner, *row)) {
        return ORU_STATUS_BAD_PARAM;
    }
    return in.size() < row->least ? ORU_STATUS_DATA_LEN_INVALID : row->handler(client, in, out);
}

StoreRecord storeRecord() {
    const kvs::State state = kvs::state();
    return {.condition = static_cast<uint8_t>(state.condition),
            .waiting = state.waiting,
            .files_set_aside = state.files_set_aside,
            .records_set_aside = state.records_set_aside,
            .condition_ms = state.condition_ms,
            .reason = state.reason};
}

oru_status_t tellInformation(Connection &, Bytes, base::ByteWriter &out) {
    const auto uptime = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - PROCESS_START);
    encode(out, InformationRecord{.platform_version = PLATFORM_VERSION,
                                  .process_id = static_cast<uint32_t>(::getpid()),
                                  .uptime_ms = static_cast<uint64_t>(uptime.count()),
                                  .release = RELEASE,
                                  .store = storeRecord()});
    return ORU_STATUS_OK;
}

// Events that do not exist yet are no error: a client may be newer than its service.
oru_status_t subscribe(Connection &client, Bytes in, base::ByteWriter &out) {
    const uint32_t events = base::ByteReader(in).u32() & PLATFORM_EVENTS;
    client.subscriptions = events;
    out.u32(events);
    return ORU_STATUS_OK;
}

} // namespace oipc
