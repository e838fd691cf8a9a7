// SPDX-License-Identifier: Apache-2.0
//
// The devices of a scenario on the air: who is in the network, under which parent, and how frames travel.
//
//   out of the network --join--> in the network --leave/orphaned--> out of the network
//   in the network, powered    : takes and sends frames as long as every router on its path does
//   in the network, power off  : silent; its neighbours notice after a while (kSettleUs, kAgeingUs)
//   returning                  : has left with a rejoin and tries to come back until it is in, with growing pauses
//
// A sleepy device fetches its frames by polling its parent, which keeps each for the queue time of the air. It polls
// fast for a while after it has joined, come back or announced itself, and after a frame that it has fetched.
//
// Invariants: a device in the network has a node id of its own; a parent is the coordinator or a router in the
// network; epoch rises whenever a device joins, leaves or loses power, so that events of an earlier life do nothing.
//
// The mesh knows the coordinator only through Coordinator below, so that it can sit behind another process later. It
// knows no threads: one caller at a time.
#pragma once
#include "air.h"
#include "device.h"
#include "timeline.h"
#include <memory>
#include <string>
#include <utility>
#include <vector>

namespace corvane::mesh {

inline constexpr uint16_t kNoNode = 0xFFFF;
inline constexpr uint16_t kCoordinatorNode = 0x0000;
inline constexpr uint16_t kFirstBroadcast = 0xFFF8;
inline constexpr uint16_t kAllAwake = 0xFFFD; // broadcast to all that listen when idle

// A frame as the coordinator's radio receives it.
struct ReceivedFrame {
    uint16_t source = kNoNode;
    uint8_t aps_counter = 0;
    bool broadcast = false;
    uint8_t link_quality = 0; // of the last hop
    const ApsMessage *message = nullptr;
};

struct JoinRequest {
    const DeviceSpec &spec;
    uint16_t parent = kCoordinatorNode;
    bool end_device_of_coordinator = false; // takes a place in the child table
};

struct DeviceReport { // what the trust centre learns about a device
    uint16_t node_id = kNoNode;
    const Eui64 &eui64;
    uint16_t parent = kCoordinatorNode;
    oruZbHal_deviceUpdate_t update = ORU_ZB_HAL_DEVICE_LEFT;
    oruZbHal_joinDecision_t decision = ORU_ZB_HAL_NO_ACTION;
};

enum class Verdict : uint8_t {
    accepted,
    refused,       // the trust centre says no; it has reported the attempt if it saw one
    not_listening, // no network, joining closed: the device finds nothing to join
};
struct Admission {
    Verdict verdict = Verdict::not_listening;
    oruZbHal_joinDecision_t decision = ORU_ZB_HAL_DENY_JOIN;
    std::string reason; // one sentence when not accepted
};

// The coordinator as the mesh sees it.
class Coordinator {
public:
    virtual ~Coordinator() = default;
    virtual bool networkUp() const = 0;
    virtual Admission admit(const JoinRequest &request) = 0;
    virtual void deviceReport(const DeviceReport &report) = 0;
    virtual void frameReceived(const ReceivedFrame &frame) = 0;
    // withheld: the outcome is known, but the adapter keeps it back until it is reset.
    virtual void sendDone(uint64_t ticket, oruZbHal_clusterCommandStatus_t status, bool withheld) = 0;
    virtual void membershipChanged() = 0; // who is in the network, or under which node id
};

// A frame that the coordinator sends. Shared by the events of its journey; when the last of them is gone without an
// outcome, because memory ran out, the send has failed.
struct Flight {
    explicit Flight(Coordinator &sender) : coordinator(sender) {}
    Flight(const Flight &) = delete;
    Flight &operator=(const Flight &) = delete;
    ~Flight() { conclude(ORU_ZB_HAL_NWK_FRAME_NOT_BUFFERED, false); }

    // Tells the coordinator; the first outcome counts.
    void conclude(oruZbHal_clusterCommandStatus_t status, bool withheld) {
        if (const uint64_t concluded = std::exchange(ticket, 0); concluded != 0) {
            coordinator.sendDone(concluded, status, withheld);
        }
    }

    Coordinator &coordinator;
    uint64_t ticket = 0; // of the send; 0: concluded, or a frame to a group
    uint16_t destination = kNoNode;
    uint16_t group_id = 0;     // 0: none
    bool acknowledged = false; // APS acknowledgement and repetition
    int retries_left = 0;
    uint64_t sent_us = 0;  // the present transmission
    bool received = false; // the device drops further copies
    ApsMessage message;
};

struct Member { // what the coordinator remembers of a device
    Eui64 eui64{};
    uint16_t node_id = kNoNode;
    bool returning = false; // has left and is to come back
};

struct Waiting { // a frame that a parent keeps for its sleeping child
    std::shared_ptr<Flight> flight;
    uint64_t expires_us = 0;
    uint32_t epoch = 0; // of the child
};

struct MeshNode {
    explicit MeshNode(const DeviceSpec &spec) : device(spec) {}

    Device device;
    bool joined = false;
    bool powered = true;
    uint16_t node_id = kNoNode;
    uint16_t last_node_id = kNoNode; // the one before
    bool returning = false;          // left with a rejoin
    int parent = -1;                 // index of the router, kCoordinator or kUnreachable
    uint8_t link_quality = 0;        // of the link to that parent
    uint32_t epoch = 0;
    uint32_t join_round = 0;    // number of the opening in which it wants to join; 0: it does not
    uint32_t join_attempts = 0; // refused in this opening
    uint8_t aps_counter = 0;
    uint32_t report_round = 0;       // rises when the reports are scheduled anew
    std::vector<Waiting> waiting;    // sleepy devices: oldest first
    uint32_t poll_round = 0;         // rises when the next poll is scheduled anew
    uint64_t poll_from_us = 0;       // fast polls are counted from here ...
    uint64_t fast_poll_until_us = 0; // ... to here, slow ones from there
    uint64_t silent_since_us = 0;    // power went off
    uint64_t uplink_free_at_us = 0;  // its frames arrive in the order in which they were sent
};

class Mesh {
public:
    static constexpr int kCoordinator = -1;
    static constexpr int kUnreachable = -2;

    Mesh(const Scenario &scenario, Timeline &timeline, Random &random, Air &air, Coordinator &coordinator);

    // -------- called by the coordinator
    // Up with these devices in it. Those that the scenario does not know stay members. Returns how many they are.
    size_t networkStarted(const std::vector<Member> &members);
    void networkGone();   // everybody is orphaned without a report
    void joiningOpened(); // schedules the joins that the scenario asks for
    void joiningClosed() { join_round_open_ = false; }
    void send(const std::shared_ptr<Flight> &flight);
    std::vector<Member> members() const;
    const Eui64 *member(size_t number) const; // in the order of members(); null: there are fewer
    uint16_t freeNodeId();

    // Write at most as many entries as there is room for and return how many.
    size_t children(std::span<oruZbHal_childTableEntry_t> entries) const;
    size_t routes(std::span<oruZbHal_routeTableEntry_t> entries) const;
    size_t neighbors(std::span<oruZbHal_neighborTableEntry_t> entries) const;
    size_t coordinatorChildren(int except = kCoordinator) const; // but for the device of that index

    // -------- called by hand; empty text on success, else one sentence
    std::string join(size_t index);
    const char *rejoin(size_t index, bool secured, bool new_address = false);
    std::string leave(size_t index, bool rejoin);
    std::string announce(size_t index);
    std::string changeAddress(size_t index);
    std::string report(size_t index);
    std::string setPower(size_t index, bool on);
    void sendPending(size_t index); // what Device::setAttribute has made the device want to send

    std::vector<MeshNode> &nodes() { return nodes_; }
    int indexOf(const std::string &name) const; // -1: none
    std::string parentName(const MeshNode &node) const;

private:
    struct Link {
        int parent = kUnreachable;
        uint8_t link_quality = 0;
    };

    // membership (mesh.cpp)
    Admission attemptJoin(size_t index);
    void scheduledJoin(size_t index, uint32_t round);
    void enter(MeshNode &node, uint16_t node_id);
    void depart(size_t index, bool rejoin);
    void comeBack(size_t index, uint64_t delay_us, uint32_t attempt);
    void announceSoon(size_t index, uint64_t delay_us);
    void startReports(size_t index);
    void runReport(size_t index, size_t number, uint32_t round);
    uint64_t scaled(uint64_t milliseconds) const; // mesh milliseconds to microseconds of the clock

    // topology (mesh_tables.cpp)
    Link bestLink(size_t index) const;
    Link freeLink(size_t index) const; // the best one, unless its parent has no room for another child
    bool onPath(int router) const;     // the router is up and reaches the coordinator
    bool reachable(const MeshNode &node) const;
    bool heard(const MeshNode &node) const; // up, or silent for so short that the tables still show it
    uint8_t linkToCoordinator(size_t index) const;
    int nextHop(size_t index) const;
    std::vector<int> pathTo(int index) const; // from the coordinator's neighbour to the node; empty: no path
    void settleLater();
    void settle(bool announced);

    // traffic (mesh_traffic.cpp)
    struct Journey {
        oruZbHal_clusterCommandStatus_t status = ORU_ZB_HAL_SUCCESS;
        bool first_hop_ok = false;
        uint64_t delay_us = 0;
    };
    int indexOfNode(uint16_t node_id) const;
    void attempt(const std::shared_ptr<Flight> &flight);
    void attemptTo(const std::shared_ptr<Flight> &flight, size_t index);
    Journey travel(const std::vector<int> &path, size_t hops, size_t payload);
    void arrive(const std::shared_ptr<Flight> &flight, size_t index, uint32_t epoch);
    void acknowledge(const std::shared_ptr<Flight> &flight, size_t index);
    void failed(const std::shared_ptr<Flight> &flight, oruZbHal_clusterCommandStatus_t status);
    void finish(const std::shared_ptr<Flight> &flight, oruZbHal_clusterCommandStatus_t status, uint64_t delay_us);
    void broadcast(const std::shared_ptr<Flight> &flight);
    void relayed(const ApsMessage &message); // every router repeats a broadcast
    Air::Frame frameTo(size_t child, uint64_t at_us, size_t payload) const;
    Air::Frame frameFrom(size_t child, uint64_t at_us, size_t payload) const;
    void handle(size_t index, const ApsMessage &message, bool broadcast);
    void handleInGroup(size_t index, const Flight &flight);
    bool uplink(size_t index, const ApsMessage &message, bool broadcast);

    // sleepy devices (mesh_polling.cpp)
    void keepForChild(size_t index, const std::shared_ptr<Flight> &flight);
    void expire(size_t index);
    void pollFast(size_t index, uint64_t for_us);
    void schedulePoll(size_t index, uint64_t from_us);
    void poll(size_t index);
    uint64_t nextPoll(const MeshNode &node, uint64_t from_us) const;

    Timeline &timeline_;
    Random &random_;
    Air &air_;
    Coordinator &coordinator_;
    std::vector<MeshNode> nodes_;
    std::vector<int> spec_parents_; // index of the router named by the scenario, or kCoordinator
    std::vector<Member> strangers_; // of the network, but not of the scenario
    size_t child_capacity_;         // of the coordinator
    double speed_;
    uint32_t join_round_ = 0;
    bool join_round_open_ = false;
    bool settling_ = false;
};

} // namespace corvane::mesh
