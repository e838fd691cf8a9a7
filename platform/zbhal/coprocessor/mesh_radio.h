// SPDX-License-Identifier: Apache-2.0
//
// The radio and the mesh behind the simulated co-processor. The one place that uses the contract between HAL and
// adapters: the virtual coordinator stands here as it stands behind the HAL, and reports here.
//
// The devices of the scenario have a network of their own memory (the state folder); the co-processor has another (its
// own file). bringUp() brings the two together: when the devices know the network that is wanted, they are in it again;
// otherwise they are orphans and the network starts empty.
//
//   wanted  mesh            does
//   yes     up, the same    networkUp()
//   yes     up, another     leaves it, then as below
//   yes     no network      forms the one wanted
//   yes     restarting      waits
//
// Threads: every call with mutex() held, but for what the control socket calls through simulation().
#pragma once
#include "../virtual/coordinator.h"
#include "../virtual/virtual_adapter.h"
#include <functional>
#include <map>
#include <mutex>

namespace corvane::coprocessor {

using base::Eui64;
using zbhal::Indication;

enum class Joining : uint8_t { closed, install_codes_only, open };

// What the radio tells, from within advance() and the other calls.
class RadioEvents {
public:
    virtual ~RadioEvents() = default;
    virtual void networkUp() = 0;                             // the one wanted
    virtual void networkDown() = 0;                           // left, as asked
    virtual void indicated(const Indication &indication) = 0; // but for the states of the stack
    virtual void restarted() = 0;                             // by itself, as a simulated fault
    virtual void crashed() = 0;                               // the same, and does not come back without a reset
    virtual void hung(uint32_t milliseconds) = 0;             // is to do nothing for so long
};

class MeshRadio final : private zbhal::AdapterHost, private zbhal::SimulationOwner {
public:
    using Clock = std::function<uint64_t()>; // monotonic, microseconds

    // An empty state folder: the devices remember nothing. woken is called, without a lock, after the control socket
    // has changed something.
    MeshRadio(const mesh::Scenario &scenario, const std::string &state_directory, Clock clock,
              std::function<void()> woken);

    void start(RadioEvents &events);
    uint64_t advance(uint64_t now_us); // time of the next event, UINT64_MAX: none
    std::mutex &mutex() { return mutex_; }
    mesh::SimTarget &simulation() { return *simulation_; }
    const mesh::Scenario &scenario() const { return scenario_; }

    void bringUp(const mesh::Network &network);
    bool leave();   // false: there is no network
    void abandon(); // ends what is under way, as a reset of the co-processor does; nothing of it is reported any more

    void setJoining(Joining joining);
    // The link key that a device with this install code has. False: no room.
    bool addLinkKey(const Eui64 &eui64, const mesh::Key &key);
    void clearLinkKeys() { (void)coordinator_.clearTransientLinkKeys(); }
    mesh::Key linkKey(const Eui64 &eui64); // given to a device in the network; zeros: none

    // The results of these are those of the HAL's operations. request_id comes back with the confirmation; the request
    // receives its APS sequence, and so does the frame of a group, which gets no confirmation.
    oru_status_t send(zbhal::SendRequest &request);
    oru_status_t sendGroup(oruZbHal_apsFrame_t &aps_frame, std::span<const uint8_t> payload);
    oru_status_t startScan(uint8_t type, uint32_t channel_mask, uint8_t duration);
    oru_status_t sendInterpan(uint8_t channel, std::span<const uint8_t> frame);
    oruZbHal_counters_t counters(bool clear);
    size_t children(std::span<oruZbHal_childTableEntry_t> entries);
    size_t neighbors(std::span<oruZbHal_neighborTableEntry_t> entries);
    size_t routes(std::span<oruZbHal_routeTableEntry_t> entries);

    uint16_t nodeIdOf(const Eui64 &eui64);  // kNoNode: not in the network
    const Eui64 *eui64Of(uint16_t node_id); // null: nobody
    const mesh::DeviceSpec *deviceOf(const Eui64 &eui64);
    // The routers between a device and the coordinator, the device's parent first. Returns how many.
    size_t relays(uint16_t node_id, std::span<uint16_t> node_ids);

private:
    struct Scan {
        uint8_t type = 0;
        uint32_t channel_mask = 0;
        uint8_t duration = 0;
    };

    // from the coordinator
    bool indicate(const Indication &indication) override;
    bool hasRoom() override { return true; } // the co-processor's queue grows as needed
    void conclude(zbhal::Ticket ticket, int32_t status) override;
    void concludeAll(int32_t send_status, oru_status_t interpan_status) override;
    void changed() override { woken_(); }

    // from the control socket
    void locked(const std::function<void()> &work) override;
    std::string refuseNext(const std::string &operation, uint32_t count, int32_t status) override;
    void hang(uint32_t milliseconds) override;

    zbhal::Ticket open(const Indication &confirmation);
    oru_status_t opened(zbhal::Ticket ticket, oru_status_t status);
    void stackStatus(int32_t status);
    void settle();
    bool isWanted();

    std::mutex mutex_; // guards all of this object and of its user
    const mesh::Scenario scenario_;
    Clock clock_;
    std::function<void()> woken_;
    RadioEvents *events_ = nullptr;
    zbhal::AdapterFaults faults_;
    mesh::CoordinatorRadio coordinator_;
    std::unique_ptr<mesh::SimTarget> simulation_;

    enum class Stack : uint8_t { restarting, no_network, up } stack_ = Stack::restarting;
    std::optional<mesh::Network> wanted_; // until it is up
    std::optional<Scan> waiting_scan_;    // for the radio, which restarts
    bool unsettled_ = false;
    bool leaving_ = false;    // asked for
    bool abandoning_ = false; // a reset of ours
    Joining joining_ = Joining::closed;
    std::map<zbhal::Ticket, Indication> open_; // sends without conclusion, with the confirmation they will get
    zbhal::Ticket last_ticket_ = 0;
    uint8_t aps_sequence_ = 0;
};

} // namespace corvane::coprocessor
