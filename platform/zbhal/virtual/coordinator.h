// SPDX-License-Identifier: Apache-2.0
//
// The coordinator: a virtual radio with a Zigbee stack, trust centre included.
//
//   off --enable--> enabling --startup_ms--> no_network | network_up (a network is remembered)
//   no_network --formNetwork--> forming --form_ms--> network_up
//   network_up --leaveNetwork--> leaving --> no_network
//   any but off, disabling --reset, factoryReset--> resetting --startup_ms--> no_network | network_up
//   any but off --disable--> disabling --> off
//   any but off --fatal error (simulated)--> failed --> no_network | network_up
//
// One command overtakes another: step_ rises with each transition and the events of the former do nothing.
//
// Confirmations: a send occupies a slot of pending_ from its acceptance. Whoever clears the slot concludes the send;
// that happens in conclude() only. Everything that ends the stack's work (abandonTraffic) concludes all slots as
// failed.
//
// Threads: none of its own, one caller at a time (SteppedAdapter).
//
// Memory may run out in any event: what a frame needs is dropped with the frame, see timeline.h and Flight. The steps
// of the stack are taken only after they could be scheduled, and are tried again when they fail.
#pragma once
#include "../zbhal_adapter.h"
#include "adapter_faults.h"
#include "mesh.h"
#include "oru_secret.h"
#include "radio_memory.h"
#include "virtual_adapter.h"
#include "zigbee/install_code.h"
#include <array>
#include <bit>

namespace corvane::mesh {

using zbhal::AdapterFaults;
using zbhal::AdapterHost;
using zbhal::Indication;
using zbhal::IndicationKind;
using zbhal::Operation;
using zbhal::Ticket;
using zbhal::VirtualSettings;

class CoordinatorRadio : public zbhal::Adapter, private Coordinator {
public:
    CoordinatorRadio(const Scenario &scenario, const VirtualSettings &settings, AdapterHost &host,
                     AdapterFaults &faults);
    CoordinatorRadio(const CoordinatorRadio &) = delete;
    CoordinatorRadio &operator=(const CoordinatorRadio &) = delete;
    ~CoordinatorRadio() override;

    uint64_t advance(uint64_t now_us) override;
    void stop() override {}

    oru_status_t enable() override;
    oru_status_t disable() override;
    oru_status_t reset() override;
    oru_status_t factoryReset() override;
    oru_status_t echo(uint32_t count) override;

    oru_status_t formNetwork(uint32_t primary_mask, uint32_t secondary_mask, uint8_t final_channel,
                             oruZbHal_region_t region) override;
    oru_status_t addEndpoint(const zbhal::EndpointRequest &request) override;
    oru_status_t leaveNetwork() override;
    oru_status_t networkInfo(oruZbHal_networkParameters_t &parameters) override;
    oru_status_t setRadioPower(int8_t power_dbm) override;
    oru_status_t setRegion(oruZbHal_region_t region) override;

    oru_status_t permitJoin(bool allow) override;
    oru_status_t permitJoinZts(bool enable) override;
    oru_status_t addInstallCode(std::span<const uint8_t, 8> eui64_lsb_first,
                                std::span<const uint8_t, 18> code) override;
    oru_status_t clearTransientLinkKeys() override;
    oru_status_t keyTableEntry(uint8_t index, oruZbHal_keyStruct_t &entry) override;
    oru_status_t key(oruZbHal_keyType_t type, oruZbHal_keyStruct_t &entry) override;

    size_t sendCapacity() const override { return std::min<size_t>(air_.spec().max_in_flight, kMaxPending); }
    // None is ever lost, but some are kept back on purpose.
    uint64_t conclusionLimitUs() const override { return zbhal::kNever; }
    oru_status_t send(const zbhal::SendRequest &request) override;
    oru_status_t sendInterpan(const zbhal::InterpanRequest &request) override;
    oru_status_t sendGroup(const oruZbHal_apsFrame_t &aps_frame, std::span<const uint8_t> payload) override;

    oru_status_t fwVersion(std::span<uint8_t> version, uint8_t &count) override;
    oru_status_t adapterInfo(oruZbHal_adapterInfo_t &info) override;
    oru_status_t startScan(uint8_t type, uint32_t channel_mask, uint8_t duration) override;
    oru_status_t children(std::span<oruZbHal_childTableEntry_t> entries, uint8_t &count) override;
    oru_status_t routes(std::span<oruZbHal_routeTableEntry_t> entries, uint8_t &count) override;
    oru_status_t neighbors(std::span<oruZbHal_neighborTableEntry_t> entries, uint8_t &count) override;
    oru_status_t debugCounters(oruZbHal_counters_t &counters, bool clear) override;

    // -------- simulation
    void holdConfirmations(bool hold);
    bool fatalError(); // false: disabled
    // The next network that is formed takes its PAN id, extended PAN id and key from here instead of from chance.
    void planNetwork(const Network &network) { planned_ = network; }
    void setAir(const AirSpec &air) { air_.setSpec(air); }
    const AirSpec &air() const { return air_.spec(); }
    Mesh &mesh() { return mesh_; }

private:
    enum class Stack : uint8_t {
        off,
        enabling,
        no_network,
        forming,
        network_up,
        leaving,
        resetting,
        disabling,
        failed
    };

    static constexpr size_t kMaxPending = kMaxInFlight;
    static constexpr size_t kMaxInterpan = 4;
    static constexpr size_t kUsuallyKept = 32;

    struct Pending {           // an accepted send
        Ticket ticket = 0;     // 0: free
        bool withheld = false; // done, but kept back
        int32_t status = 0;    // of one that is kept back
    };
    struct TransientKey { // link key of an install code
        Eui64 eui64{};
        InstallCode code{};
        Key key{};
    };

    // what the mesh tells (Coordinator)
    bool networkUp() const override { return stack_ == Stack::network_up; }
    Admission admit(const JoinRequest &request) override;
    void deviceReport(const DeviceReport &report) override;
    void frameReceived(const ReceivedFrame &frame) override;
    void sendDone(uint64_t ticket, oruZbHal_clusterCommandStatus_t status, bool withheld) override;
    void membershipChanged() override { rememberSoon(); }

    // stack states (coordinator.cpp)
    bool running() const { return stack_ == Stack::no_network || stack_ == Stack::network_up; }
    using Step = void (CoordinatorRadio::*)();
    void transition(Stack stack, uint64_t delay_us, Step step);
    void tell(const Indication &indication);
    bool mayGoOn();
    void report(oruZbHal_stackStatus_t status);
    void resume();
    std::vector<Member> recall();
    void networkFormed();
    void networkLeft();
    void disabled();
    void dropNetwork();
    void restartStack(Stack stack, oruZbHal_stackStatus_t announced, uint64_t delay_us);
    Network makeNetwork(uint32_t primary_mask, uint32_t secondary_mask, uint8_t final_channel);
    uint8_t quietestChannel(uint32_t mask);
    void abandonTraffic();
    void rememberSoon();
    void remember();

    // joining and keys (coordinator_keys.cpp)
    void setJoining(bool open, bool zts);
    const TransientKey *transientKey(const Eui64 &eui64) const;
    Key deviceKey(const Eui64 &eui64) const;

    // traffic and queries (coordinator_traffic.cpp)
    Pending *freePending();
    std::shared_ptr<Flight> makeFlight(uint16_t destination, const oruZbHal_apsFrame_t &aps_frame,
                                       std::span<const uint8_t> payload);
    void conclude(Pending &pending, int32_t status);
    void concludeInterpan(Ticket &pending, oru_status_t status);
    int8_t energyOf(uint8_t channel);
    void scanChannel(uint8_t type, uint32_t channel_mask, uint8_t channel, uint64_t dwell_us, uint32_t scan);
    void reportNetworks(uint8_t channel);
    void endScan(uint8_t channel, oru_status_t status);

    Scenario scenario_;
    AdapterHost &host_;
    AdapterFaults &faults_;
    Timeline timeline_;
    Random random_;
    Air air_;
    Mesh mesh_;

    Stack stack_ = Stack::off;
    uint32_t step_ = 0;
    bool recalled_ = false; // the memory file has been read
    bool remember_due_ = false;
    std::string memory_path_; // empty: nothing is remembered
    std::optional<Network> network_;
    Network forming_; // while it is being formed
    std::optional<Network> planned_;
    uint64_t shortages_ = 0; // of memory, that have been logged
    oruZbHal_region_t region_ = ORU_ZB_HAL_REGION_WORLD_WIDE;
    int8_t power_dbm_;

    bool join_open_ = false;
    bool join_zts_ = false;
    std::vector<TransientKey, oruSecret_allocator_t<TransientKey>> transient_keys_;

    std::array<Pending, kMaxPending> pending_;
    std::array<Ticket, kMaxInterpan> pending_interpan_{}; // 0: free
    bool hold_ = false;
    Indication scratch_;           // for building one indication
    std::vector<Indication> kept_; // that found no room yet, oldest first

    uint32_t scan_ = 0; // number of the scan that runs or ran last
    bool scanning_ = false;
    uint8_t scan_channel_ = 0; // being scanned
    oruZbHal_adapterInfo_t info_ = {};
};

} // namespace corvane::mesh
