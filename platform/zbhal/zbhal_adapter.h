// SPDX-License-Identifier: Apache-2.0
//
// An adapter: one kind of radio behind the HAL. Backends implement Adapter and report through AdapterHost.
//
// Threads. The layer checks arguments, then calls an operation from whichever thread asks for it, several at a time,
// and with no lock of its own held. An operation ends within 3 s; while the link to the radio is down it answers
// ORU_STATUS_DEVICE_STATE_INVALID at once. An adapter that can do one thing at a time queues its callers itself.
//
// Back-pressure. What the service has not taken yet waits in a queue of the layer. When that is full a report is not
// taken; the adapter keeps it, holds its source back and goes on when roomMade() is called. No report is dropped.
//
// Results are those of the HAL operation of the same name.
#pragma once
#include "zbhal_events.h"
#include <span>

namespace corvane::zbhal {

inline constexpr uint64_t kNever = UINT64_MAX;
inline constexpr uint16_t MAX_APS_PAYLOAD = 128; // longest payload that is sent, fragmented or not

// Monotonic time in microseconds.
uint64_t nowUs();

// Number of an accepted send or inter-PAN send; 0: none. The low eight bits of those that are not concluded differ from
// each other and from 0, so that they can be the tag of a frame.
using Ticket = uint64_t;

// What the layer offers to an adapter. Any thread; takes leaf locks only, so an adapter may hold its own.
class AdapterHost {
public:
    virtual ~AdapterHost() = default;
    // False: no room. The report is still the adapter's; it reports it again when room is made.
    [[nodiscard]] virtual bool indicate(const Indication &indication) = 0;
    // Whether a received frame would be taken now. False promises a roomMade().
    [[nodiscard]] virtual bool hasRoom() = 0;
    // Ends a send with its confirmation, status 0 or a code of APS, NWK or MAC, or an inter-PAN send with its
    // completion. There is always room. A ticket that is not open any more is ignored, so the first conclusion counts.
    virtual void conclude(Ticket ticket, int32_t status) = 0;
    // Ends all that are open, in the order in which they were accepted.
    virtual void concludeAll(int32_t send_status, oru_status_t interpan_status) = 0;
    // There is something to do sooner than advance() has said.
    virtual void changed() = 0;
};

struct SendRequest {
    oruZbHal_nodeId_t destination = 0;
    oruZbHal_apsFrame_t aps_frame = {}; // sequence is filled in by the layer
    std::span<const uint8_t> payload;   // at most MAX_APS_PAYLOAD bytes
    bool zdo = false;
    oruZbHal_commandSentCallback_t callback = nullptr; // these two are the layer's business
    uint32_t request_id = 0;
    Ticket ticket = 0;
};

struct InterpanRequest {
    uint32_t channel_mask = 0;
    const oruZbHal_interpanHeader_t &header;
    std::span<const uint8_t> frame;
    Ticket ticket = 0;
};

struct EndpointRequest {
    uint8_t endpoint = 0;
    uint16_t profile_id = 0;
    uint16_t device_id = 0;
    uint8_t device_version = 0;
    std::span<const uint16_t> input_clusters;
    std::span<const uint16_t> output_clusters;
};

class Adapter {
public:
    virtual ~Adapter() = default;

    // Does what is due at now_us (monotonic clock) and returns the time of the next event, kNever when there is none.
    // Called by the main loop with each of its turns and by the clock thread. An adapter with a thread of its own has
    // nothing to do here.
    virtual uint64_t advance(uint64_t /*now_us*/) { return kNever; }
    // The service has taken reports after one was not taken or hasRoom() was false. By the thread that delivers.
    virtual void roomMade() {}
    // At the end of the process or before the adapter is destroyed: lets go whoever is inside an operation, and ends
    // the adapter's own threads.
    virtual void stop() = 0;

    virtual oru_status_t enable() = 0;
    virtual oru_status_t disable() = 0;
    virtual oru_status_t reset() = 0;
    virtual oru_status_t factoryReset() = 0;
    virtual oru_status_t echo(uint32_t count) = 0;

    virtual oru_status_t formNetwork(uint32_t primary_mask, uint32_t secondary_mask, uint8_t final_channel,
                                     oruZbHal_region_t region) = 0;
    virtual oru_status_t addEndpoint(const EndpointRequest &request) = 0;
    virtual oru_status_t leaveNetwork() = 0;
    virtual oru_status_t networkInfo(oruZbHal_networkParameters_t &parameters) = 0;
    virtual oru_status_t setRadioPower(int8_t power_dbm) = 0;
    virtual oru_status_t setRegion(oruZbHal_region_t region) = 0;

    virtual oru_status_t permitJoin(bool allow) = 0;
    virtual oru_status_t permitJoinZts(bool enable) = 0;
    virtual oru_status_t addInstallCode(std::span<const uint8_t, 8> eui64_lsb_first,
                                        std::span<const uint8_t, 18> code) = 0;
    virtual oru_status_t clearTransientLinkKeys() = 0;
    virtual oru_status_t keyTableEntry(uint8_t index, oruZbHal_keyStruct_t &entry) = 0;
    virtual oru_status_t key(oruZbHal_keyType_t type, oruZbHal_keyStruct_t &entry) = 0;

    // Sends that the adapter holds at once. The layer calls send() while there is room, and shares the places fairly.
    virtual size_t sendCapacity() const = 0;
    // How long the conclusion of a send may take, in microseconds; then it is taken for lost, and the layer concludes.
    virtual uint64_t conclusionLimitUs() const { return 30'000'000; }
    // On success the ticket will be concluded, maybe before the call returns; else it must not be.
    virtual oru_status_t send(const SendRequest &request) = 0;
    virtual oru_status_t sendInterpan(const InterpanRequest &request) = 0;
    // To the members of aps_frame.group_id. No confirmation follows.
    virtual oru_status_t sendGroup(const oruZbHal_apsFrame_t &aps_frame, std::span<const uint8_t> payload) = 0;

    virtual oru_status_t fwVersion(std::span<uint8_t> version, uint8_t &count) = 0;
    virtual oru_status_t adapterInfo(oruZbHal_adapterInfo_t &info) = 0;
    virtual oru_status_t startScan(uint8_t type, uint32_t channel_mask, uint8_t duration) = 0;
    // Fill at most as many entries as there is room for; count receives how many.
    virtual oru_status_t children(std::span<oruZbHal_childTableEntry_t> entries, uint8_t &count) = 0;
    virtual oru_status_t routes(std::span<oruZbHal_routeTableEntry_t> entries, uint8_t &count) = 0;
    virtual oru_status_t neighbors(std::span<oruZbHal_neighborTableEntry_t> entries, uint8_t &count) = 0;
    virtual oru_status_t debugCounters(oruZbHal_counters_t &counters, bool clear) = 0;
};

} // namespace corvane::zbhal
