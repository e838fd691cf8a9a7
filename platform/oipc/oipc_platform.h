// SPDX-License-Identifier: Apache-2.0
//
// Platform calls: what clients ask of the daemon beside the service. They never pass through the service's handler or
// its queue; a handler runs on the thread of its client and waits for nobody.
#pragma once
#include "oipc_connection.h"
#include "oipc_platform_wire.h"
#include <algorithm>

namespace oipc {

enum class Who : uint8_t {
    everyone, // every client that was admitted
    owner,    // root and the daemon's own user; each use is logged
};

using PlatformHandler = oru_status_t (*)(Connection &client, Bytes in, base::ByteWriter &out);

struct PlatformOperation {
    PlatformOperationId id;
    const char *name;  // as in docs/ipc.md
    std::size_t least; // bytes of payload; more are ignored
    Who who;
    PlatformHandler handler; // `in` has at least `least` bytes; what it writes counts when it returns 0
};

oru_status_t tellInformation(Connection &client, Bytes in, base::ByteWriter &out);
oru_status_t subscribe(Connection &client, Bytes in, base::ByteWriter &out);

constexpr std::array PLATFORM_OPERATIONS{
    PlatformOperation{PlatformOperationId::information, "information", 0, Who::everyone, tellInformation},
    PlatformOperation{PlatformOperationId::subscribe, "subscribe", 4, Who::everyone, subscribe},
};
static_assert(std::ranges::is_sorted(PLATFORM_OPERATIONS, std::ranges::less_equal{}, &PlatformOperation::id) &&
                  PLATFORM_OPERATIONS.back().least <= MAX_PAYLOAD,
              "one row each");

// Carries a call out. `owner`: the client is root or the daemon's own user.
//   ORU_STATUS_NOT_SUPPORTED     no such operation
//   ORU_STATUS_BAD_PARAM         not for this client
//   ORU_STATUS_DATA_LEN_INVALID  payload too short
//   any other                    the operation's own
oru_status_t callPlatform(Connection &client, bool owner, uint16_t operation, Bytes in, base::ByteWriter &out);

// The state of the store as a record.
StoreRecord storeRecord();

} // namespace oipc
