// SPDX-License-Identifier: Apache-2.0
//
// The simulated co-processor: the other side of the protocol that a serial backend speaks, with the virtual mesh behind
// it. No descriptor, no thread and no clock of its own: bytes of the line and the time are arguments, so that a test
// runs host and co-processor in one process in virtual time.
//
//   link down --RST--> reset --first command--> spoken
//   any --own reset, simulated--> RSTACK, link down        any --failure, simulated--> ERROR, link down
//
//   no network --networkInit (one is stored), formNetwork--> starting --mesh up--> up
//   up --leaveNetwork--> leaving --> no network            any --RST--> no network, until networkInit
//
// Invariants: one response to each command, before the callbacks that it causes; no callback between a reset and the
// first command; a reset forgets the session and everything under way, but nothing of the memory. While callbacks wait
// that the host does not take, the mesh stands still, so none is lost.
//
// One thread, or a lock of the owner around all calls (that of the MeshRadio, whose simulation calls in here).
#pragma once
#include "../serial/ash_link.h"
#include "../serial/ezsp.h"
#include "mesh_radio.h"
#include "ncp_memory.h"
#include "wire.h"
#include <deque>
#include <map>
#include <vector>

namespace corvane::coprocessor {

using zbhal::serial::AshFailure;
using zbhal::serial::AshLink;
using zbhal::serial::EzspAps;
using zbhal::serial::EzspEui64;
using zbhal::serial::EzspHeader;
using zbhal::serial::EzspId;
using zbhal::serial::EzspKey;
using zbhal::serial::EzspKeyContext;
using zbhal::serial::EzspKeyMetadata;
using zbhal::serial::EzspSecurity;
using zbhal::serial::EzspStatus;
using zbhal::serial::FieldReader;
using zbhal::serial::FieldWriter;

inline constexpr uint8_t RESET_BY_WATCHDOG = 0x03;
inline constexpr uint8_t RESET_BY_SOFTWARE = AshLink::RESET_BY_SOFTWARE;
inline constexpr uint8_t FAILED_ASSERTION = 0x06;

struct NcpSettings {
    uint8_t version = zbhal::serial::EZSP_OLDEST_VERSION;
    std::optional<Eui64> eui64; // instead of the scenario's: another stick for the same home
    std::string memory_path;    // empty: nothing is kept
    uint64_t seed = 1;
};

class Ncp final : private zbhal::serial::AshSink, private RadioEvents {
public:
    Ncp(const NcpSettings &settings, NcpMemory memory, MeshRadio &radio);

    void start(uint64_t now_us);
    void feed(std::span<const uint8_t> bytes, uint64_t now_us); // of the line, as the host has written them
    void tick(uint64_t now_us);                                 // does what is due
    uint64_t nextDeadlineUs() const; // UINT64_MAX: nothing is due; the wire has deadlines of its own
    Wire &wire() { return wire_; }   // what is to go to the host
    void hostGone();                 // the line has been closed

    // -------- faults
    void resetByItself(uint8_t reset_code);
    void fail(uint8_t error_code);       // ERROR; silent until the host resets
    void silence(uint32_t milliseconds); // deaf and mute

private:
    enum class Stack : uint8_t { no_network, starting, up, leaving };

    struct Endpoint {
        uint8_t id = 0;
        uint16_t profile_id = 0;
        uint16_t device_id = 0;
        uint8_t version = 0;
        std::vector<uint16_t> input_clusters;
        std::vector<uint16_t> output_clusters;
    };
    struct MulticastEntry {
        uint16_t group_id = 0;
        uint8_t endpoint = 0;
        uint8_t network_index = 0;
    };
    struct Session { // what a reset forgets
        bool spoken = false;
        uint8_t sequence = 0; // of the last command
        bool sized = false;   // memory has been laid out: sizes are fixed
        std::map<uint8_t, uint16_t> config;
        std::map<uint8_t, uint8_t> policy;
        std::map<uint8_t, std::vector<uint8_t>> values;
        std::vector<Endpoint> endpoints;
        std::map<uint8_t, MulticastEntry> multicast;
        std::vector<LinkKeyEntry> transient_keys;
        std::optional<EzspSecurity> security;
        bool concentrator = false;
        std::map<uint16_t, std::vector<uint16_t>> route_records; // the last one told, by source
        uint8_t radio_channel = 0;                               // 0: the network's
        uint16_t manufacturer_code = 0;
        bool permitted = false;
        uint64_t permit_until_us = UINT64_MAX;
        uint64_t unused_pan_due_us = UINT64_MAX;
        uint8_t unused_pan_channel = 0;
    };

    using Handler = bool (Ncp::*)(FieldReader &in, FieldWriter &out); // false: a malformed command
    struct Command {
        EzspId id;
        Handler handler;
    };
    struct Commands; // the table of them

    // link (ncp.cpp)
    void write(std::span<const uint8_t> bytes) override { wire_.write(bytes, now_us_); }
    void received(std::span<const uint8_t> payload) override;
    void up(uint8_t reset_code) override;
    void failed(AshFailure failure, uint8_t code) override;
    bool run(const EzspHeader &command, std::span<const uint8_t> parameters, FieldWriter &out);
    void startOver();
    void pump();
    bool silent() const { return now_us_ < silent_until_us_; }
    bool congested() const { return callbacks_.size() >= MANY_CALLBACKS; }
    template <class Work>
    void callback(EzspId id, Work work); // work(FieldWriter &)
    template <class Record>
    void tell(EzspId id, const Record &record);
    void stackStatus(EzspStatus status);
    void remember();

    // mesh (ncp_messages.cpp)
    void networkUp() override;
    void networkDown() override;
    void indicated(const Indication &indication) override;
    void restarted() override { reset_code_ = RESET_BY_WATCHDOG; }
    void crashed() override { error_code_ = FAILED_ASSERTION; }
    void hung(uint32_t milliseconds) override { silence(milliseconds); }
    void deviceReported(const Indication &indication);
    void childJoined(const Indication &indication, const Eui64 &eui64);
    void keyEstablished(const Eui64 &eui64);
    void incoming(const Indication &indication);
    void routeRecord(const Indication &indication);
    void tellIncoming(const Indication &indication);
    void messageSent(uint8_t type, uint16_t destination, const EzspAps &aps, uint16_t tag, EzspStatus status,
                     std::span<const uint8_t> message);

    // messages (ncp_messages.cpp)
    EzspStatus sendable(const EzspAps &aps, std::span<const uint8_t> message) const;
    void countSent();
    EzspStatus transmitToGroup(EzspAps &aps, uint16_t tag, std::span<const uint8_t> message);
    EzspStatus transmit(uint8_t type, uint16_t destination, EzspAps &aps, uint16_t tag,
                        std::span<const uint8_t> message);
    void toItself(const EzspAps &aps, std::span<const uint8_t> message);
    EzspStatus tellToLeave(uint16_t node_id, const EzspEui64 &eui64, uint8_t flags);
    bool sendUnicast(FieldReader &in, FieldWriter &out);
    bool sendBroadcast(FieldReader &in, FieldWriter &out);
    bool sendMulticast(FieldReader &in, FieldWriter &out);
    bool sendRawMessage(FieldReader &in, FieldWriter &out);
    bool maximumPayloadLength(FieldReader &in, FieldWriter &out);
    bool removeDevice(FieldReader &in, FieldWriter &out);
    bool sendZigbeeLeave(FieldReader &in, FieldWriter &out);

    // ZDO of node 0 (ncp_zdo.cpp); false: not answered here. The answer's cluster is the request's with the response
    // bit.
    bool answerZdo(uint16_t cluster_id, std::span<const uint8_t> request, base::ByteWriter &answer) const;
    void describeNode(uint16_t cluster_id, base::ByteReader &in, base::ByteWriter &answer) const;
    void nodeDescriptor(base::ByteWriter &answer) const;
    void simpleDescriptor(uint8_t endpoint_id, base::ByteWriter &answer) const;
    void matchDescriptor(base::ByteReader &in, base::ByteWriter &answer) const;

    // start and configuration (ncp_setup.cpp)
    void configStatus(FieldWriter &out, EzspStatus status) const;
    std::vector<uint8_t> valueOf(uint8_t id) const;
    bool version(FieldReader &in, FieldWriter &out);
    bool nop(FieldReader &in, FieldWriter &out);
    bool echo(FieldReader &in, FieldWriter &out);
    bool setConfig(FieldReader &in, FieldWriter &out);
    bool getConfig(FieldReader &in, FieldWriter &out);
    bool setPolicy(FieldReader &in, FieldWriter &out);
    bool getPolicy(FieldReader &in, FieldWriter &out);
    bool getValue(FieldReader &in, FieldWriter &out);
    bool setValue(FieldReader &in, FieldWriter &out);
    bool getExtendedValue(FieldReader &in, FieldWriter &out);
    bool addEndpoint(FieldReader &in, FieldWriter &out);
    bool setManufacturerCode(FieldReader &in, FieldWriter &out);
    bool setConcentrator(FieldReader &in, FieldWriter &out);
    bool setSourceRouteMode(FieldReader &in, FieldWriter &out);
    bool getMulticastEntry(FieldReader &in, FieldWriter &out);
    bool setMulticastEntry(FieldReader &in, FieldWriter &out);
    bool randomNumber(FieldReader &in, FieldWriter &out);
    bool getMfgToken(FieldReader &in, FieldWriter &out);
    bool getTokenData(FieldReader &in, FieldWriter &out);
    bool resetNode(FieldReader &in, FieldWriter &out);
    bool tokenFactoryReset(FieldReader &in, FieldWriter &out);

    // network (ncp_network.cpp)
    void applyJoining();
    void closeJoining();
    NcpNetwork planned(const zbhal::serial::EzspNetwork &parameters, const EzspSecurity &security);
    void bringUp();
    void leave();
    uint8_t channel() const;
    int8_t powerDbm() const;
    bool setChannel(FieldReader &in, FieldWriter &out);
    bool networkInit(FieldReader &in, FieldWriter &out);
    bool formNetwork(FieldReader &in, FieldWriter &out);
    bool leaveNetwork(FieldReader &in, FieldWriter &out);
    bool networkState(FieldReader &in, FieldWriter &out);
    bool networkParameters(FieldReader &in, FieldWriter &out);
    bool radioParameters(FieldReader &in, FieldWriter &out);
    bool permitJoining(FieldReader &in, FieldWriter &out);
    bool startScan(FieldReader &in, FieldWriter &out);
    bool stopScan(FieldReader &in, FieldWriter &out);
    bool findUnusedPanId(FieldReader &in, FieldWriter &out);
    bool setRadioPower(FieldReader &in, FieldWriter &out);
    bool getRadioChannel(FieldReader &in, FieldWriter &out);
    bool getEui64(FieldReader &in, FieldWriter &out);
    bool getNodeId(FieldReader &in, FieldWriter &out);
    bool lookupNodeId(FieldReader &in, FieldWriter &out);
    bool lookupEui64(FieldReader &in, FieldWriter &out);

    // keys (ncp_keys.cpp)
    LinkKeyEntry *linkKey(const Eui64 &eui64);
    EzspStatus storeLinkKey(const Eui64 &eui64, const EzspKey &key);
    EzspStatus storeTransientKey(const Eui64 &eui64, const EzspKey &key);
    EzspStatus keyOf(const EzspKeyContext &context, EzspKey &key);
    EzspKeyMetadata metadata() const;
    void exported(FieldWriter &out, const LinkKeyEntry *entry, uint8_t type, uint8_t index, bool eui64_only) const;
    bool setSecurity(FieldReader &in, FieldWriter &out);
    bool getSecurity(FieldReader &in, FieldWriter &out);
    bool exportKey(FieldReader &in, FieldWriter &out);
    bool importKey(FieldReader &in, FieldWriter &out);
    bool networkKeyInfo(FieldReader &in, FieldWriter &out);
    bool apsKeyInfo(FieldReader &in, FieldWriter &out);
    bool clearKeyTable(FieldReader &in, FieldWriter &out);
    bool eraseKeyTableEntry(FieldReader &in, FieldWriter &out);
    bool findKeyTableEntry(FieldReader &in, FieldWriter &out);
    bool importLinkKey(FieldReader &in, FieldWriter &out);
    bool exportLinkKey(FieldReader &in, FieldWriter &out);
    bool importTransientKey(FieldReader &in, FieldWriter &out);
    bool exportTransientKey(FieldReader &in, FieldWriter &out);
    bool clearTransientKeys(FieldReader &in, FieldWriter &out);
    bool aesMmoHash(FieldReader &in, FieldWriter &out);

    // tables (ncp_tables.cpp)
    bool getChildData(FieldReader &in, FieldWriter &out);
    bool parentChildParameters(FieldReader &in, FieldWriter &out);
    bool neighborCount(FieldReader &in, FieldWriter &out);
    bool getNeighbor(FieldReader &in, FieldWriter &out);
    bool getRoute(FieldReader &in, FieldWriter &out);
    bool readCounters(FieldReader &in, FieldWriter &out);
    bool readAndClearCounters(FieldReader &in, FieldWriter &out);
    void counters(FieldWriter &out, bool clear);
    bool setExtendedTimeout(FieldReader &in, FieldWriter &out);
    bool getExtendedTimeout(FieldReader &in, FieldWriter &out);

    static constexpr size_t MANY_CALLBACKS = 128;

    const NcpSettings settings_;
    const Eui64 eui64_;
    MeshRadio &radio_;
    NcpMemory memory_;
    Wire wire_;
    AshLink link_;
    mesh::Random random_;
    Session session_;
    Stack stack_ = Stack::no_network;
    std::deque<std::vector<uint8_t>> callbacks_; // complete but for the sequence
    uint64_t now_us_ = 0;
    uint64_t radio_due_us_ = 0;
    uint64_t silent_until_us_ = 0;
    std::optional<uint8_t> reset_code_; // an own reset, at the end of the present call
    std::optional<uint8_t> error_code_; // the same, a failure
    uint8_t zdo_sequence_ = 0;
    uint8_t loop_sequence_ = 0;  // APS counter of messages to node 0
    uint32_t counter_limit_ = 0; // of the frame counter: the stored one is never below it
    struct {
        uint16_t received = 0;
        uint16_t sent = 0;
        uint16_t joined = 0;
        uint16_t left = 0;
    } counts_;
};

// ---- callbacks

template <class Work>
void Ncp::callback(EzspId id, Work work) {
    std::array<uint8_t, zbhal::serial::ASH_MAX_DATA> room;
    FieldWriter out(room, settings_.version);
    EzspHeader header;
    header.kind = EzspHeader::Kind::callback;
    header.id = id;
    encodeHeader(header, out.writer());
    work(out);
    if (out.ok()) { // else longer than a frame: nothing that devices send
        callbacks_.emplace_back(room.begin(), room.begin() + static_cast<std::ptrdiff_t>(out.size()));
    }
}

template <class Record>
void Ncp::tell(EzspId id, const Record &record) {
    callback(id, [&](FieldWriter &out) { put(out, record); });
}

// ---- fields

// The fields one after the other; false when they were not all there.
template <class... Field>
[[nodiscard]] bool read(FieldReader &in, Field &...fields) {
    (in(fields), ...);
    return in.ok();
}

} // namespace corvane::coprocessor
