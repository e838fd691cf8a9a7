// SPDX-License-Identifier: Apache-2.0
//
// ZDO server of a virtual device. Requests too short for their fields are ignored, as are responses and indications;
// requests that it does not serve are answered with NOT_SUPPORTED. Broadcast requests get an answer only where the
// answer says something about this device.
#pragma once
#include "bytes.h"
#include "device.h"
#include <vector>

namespace corvane::mesh {

enum class ZdoStatus : uint8_t {
    success = 0x00,
    inv_request_type = 0x80,
    device_not_found = 0x81,
    invalid_ep = 0x82,
    not_active = 0x83,
    not_supported = 0x84,
    no_match = 0x86,
    no_entry = 0x88,
    table_full = 0x8C,
};

inline constexpr uint16_t kZdoDeviceAnnce = 0x0013;
inline constexpr uint16_t kZdoResponse = 0x8000;

class ZdoServer {
public:
    ZdoServer(Device &device, const ApsMessage &frame, bool broadcast, DeviceActions &actions)
        : device_(device), frame_(frame), broadcast_(broadcast), actions_(actions) {}

    void serve();

private:
    using Handler = void (ZdoServer::*)(ByteReader &);
    struct Request {
        uint16_t cluster_id;
        uint8_t minimum_length; // behind the sequence number; longer requests are legal
        Handler handler;
    };
    static const Request kRequests[];

    void nwkAddress(ByteReader &in);
    void ieeeAddress(ByteReader &in);
    void nodeDescriptor(ByteReader &in);
    void simpleDescriptor(ByteReader &in);
    void activeEndpoints(ByteReader &in);
    void matchDescriptor(ByteReader &in);
    void bind(ByteReader &in);
    void leave(ByteReader &in);
    void permitJoining(ByteReader &in);
    void indication(ByteReader &in);

    void addressResponse(ZdoStatus status, const Eui64 &eui64, uint16_t node_id, uint8_t request_type);
    ZdoStatus addressed(uint16_t node_id) const;
    ZdoStatus storeBinding(const std::vector<uint8_t> &binding);
    // Answers with status and what body holds behind it. A failure named by the faults wins.
    void respond(ZdoStatus status, const std::vector<uint8_t> &body = {});
    // The same, for responses that carry the address of interest and, on success only, a descriptor.
    void respondAbout(ZdoStatus status, uint16_t node_id, const std::vector<uint8_t> &descriptor = {});

    Device &device_;
    const ApsMessage &frame_;
    const bool broadcast_;
    DeviceActions &actions_;
    uint8_t sequence_ = 0;
};

} // namespace corvane::mesh
